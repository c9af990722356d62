#include "json/writer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <string>

#include "json/reader.h"

namespace {

template <typename T>
std::string Write(const T& element) {
  std::ostringstream stream;
  json::Writer::Write(element, stream);
  return stream.str();
}

TEST(JsonWriter, WritesOneLineWithoutBlanksInTheOrderOfTheMembers) {
  json::Object phrase;
  phrase["ID"] = json::String("1");
  phrase["Alias"] = json::String("camera");
  json::Array phrases;
  phrases.push_back(phrase);
  phrases.push_back(json::Boolean(false));
  json::Object document;
  document["Passphrases"] = phrases;
  EXPECT_EQ(Write(document), R"({"Passphrases":[{"ID":"1","Alias":"camera"},false]})");
}

TEST(JsonWriter, WritesWholeNumbersWithoutAFraction) {
  EXPECT_EQ(Write(json::Number(0)), "0");
  EXPECT_EQ(Write(json::Number(1073741824)), "1073741824");
  EXPECT_EQ(Write(json::Number(-5)), "-5");
  EXPECT_EQ(Write(json::Number(9007199254740993)), "9007199254740993");
}

TEST(JsonWriter, WritesEveryNumberSoThatItReadsTheSame) {
  for (const double value :
       {1.5, 0.1, 1e300, -2.5e-300, 9007199254740994.0, std::numeric_limits<double>::denorm_min(),
        std::numeric_limits<double>::max()}) {
    std::istringstream stream(Write(value));
    json::UnknownElement again;
    json::Reader::Read(again, stream);
    EXPECT_EQ(again.get<double>(), value);
  }
}

TEST(JsonWriter, WritesNumbersThatAreNotFiniteAsNull) {
  EXPECT_EQ(Write(std::nan("")), "null");
  EXPECT_EQ(Write(std::numeric_limits<double>::infinity()), "null");
}

TEST(JsonWriter, EscapesWhatWouldEndAText) {
  EXPECT_EQ(Write(json::String("a\"b\\c\n\x01")), R"("a\"b\\c\n\u0001")");
  EXPECT_EQ(Write(json::String(std::string("\0", 1))), R"("\u0000")");
}

TEST(JsonWriter, ReplacesBytesThatAreNotUtf8AndNeverThrows) {
  for (int byte = 0; byte < 256; ++byte) {
    json::Object object;
    const std::string text(3, static_cast<char>(byte));
    object[text] = json::String(text);
    std::string written;
    ASSERT_NO_THROW(written = Write(object)) << byte;
    std::istringstream stream(written);
    json::Object again;
    EXPECT_NO_THROW(json::Reader::Read(again, stream)) << byte;
  }
  EXPECT_EQ(Write(json::String("a\xff")), "\"a\xef\xbf\xbd\"");
}

TEST(JsonWriter, DoesNotFollowTheLocaleOfTheStream) {
  struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
    char do_decimal_point() const override { return ','; }
  };
  std::ostringstream stream;
  stream.imbue(std::locale(std::locale(), new Grouping));
  json::Writer::Write(1234567.5, stream);
  EXPECT_EQ(stream.str(), "1234567.5");
}

}  // namespace
