#include "vigilactl/administration_answer.h"

#include <gtest/gtest.h>

#include <string>

#include "tevra/osa/exception.h"

namespace vigilactl {
namespace {

TEST(AdministrationAnswer, IsAnObjectWithACode) {
  EXPECT_EQ(CodeOf(ReadAnswer("{\"Code\":10,\"Unheard\":[1]}")), 10);
  for (const char* text : {"", "{", "[]", "{}", "7", "{\"Code\":\"0\"}", "{\"Code\":null}"}) {
    EXPECT_THROW(ReadAnswer(text), tevra::osa::Exception) << text;
  }
}

TEST(AdministrationAnswer, CollectsThePagesOfAListing) {
  std::string asked;
  const Json entries = ReadPages("E", [&](const std::string& cursor) -> std::string {
    asked += "<" + cursor + ">";
    return cursor.empty() ? "{\"Code\":0,\"E\":[1,2],\"Next\":\"c\"}" : "{\"Code\":0,\"E\":[3]}";
  });
  EXPECT_EQ(asked, "<><c>");
  EXPECT_EQ(entries, Json::parse("[1,2,3]"));
}

TEST(AdministrationAnswer, EndsAListingThatHasNoEnd) {
  const auto read = [](const char* page) {
    ReadPages("E", [&](const std::string&) { return std::string(page); });
  };
  EXPECT_THROW(read("{\"Code\":0,\"E\":[],\"Next\":\"c\"}"), tevra::osa::Exception);
  EXPECT_THROW(read("{\"Code\":12}"), tevra::osa::Exception);
  EXPECT_THROW(read("{\"Code\":0,\"E\":{}}"), tevra::osa::Exception);
}

TEST(AdministrationAnswer, ReadsANameInEitherForm) {
  EXPECT_EQ(NameIn(Json::parse("{\"Name\":\"bob\"}"), "Name"), "bob");
  EXPECT_EQ(NameIn(Json::parse("{\"NameBase64\":\"Yv/+\"}"), "Name"), "b\xff\xfe");
}

TEST(AdministrationAnswer, ListsNamesInWords) {
  const auto list = [](const char* text) { return ListNames(Json::parse(text)); };
  EXPECT_EQ(list("{\"Count\":0,\"Names\":[]}"), "no one");
  EXPECT_EQ(list("{\"Count\":2,\"Names\":[{\"Name\":\"a\"},{\"Name\":\"b\"}]}"), "a, b");
  EXPECT_EQ(list("{\"Count\":2,\"Names\":[{\"Name\":\"a\"}]}"), "a and 1 other");
  EXPECT_EQ(list("{\"Count\":9,\"Names\":[{\"Name\":\"a\"}]}"), "a and 8 others");
  EXPECT_EQ(ListOpenTo(Json::parse("{\"Count\":0,\"Names\":[],\"Everyone\":true}")), "everyone");
  EXPECT_EQ(ListOpenTo(Json::parse("{\"Count\":0,\"Names\":[],\"Everyone\":false}")), "no one");
}

TEST(AdministrationAnswer, ShowsDurationsInTheirLargestUnit) {
  EXPECT_EQ(ShowDuration(0), "0 s");
  EXPECT_EQ(ShowDuration(119), "119 s");
  EXPECT_EQ(ShowDuration(120), "2 min");
  EXPECT_EQ(ShowDuration(7199), "119 min");
  EXPECT_EQ(ShowDuration(7200), "2 h");
  EXPECT_EQ(ShowDuration(172800), "2 days");
}

TEST(AdministrationAnswer, ShowsATimeThatIsNotKnownInWords) {
  EXPECT_EQ(ShowTime(Json(), "unknown"), "unknown");
  EXPECT_EQ(ShowTime(Json(1800000000), "unknown").size(), 16u);
}

}  // namespace
}  // namespace vigilactl
