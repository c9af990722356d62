#include "tevra/core/nearest_word.h"

#include <gtest/gtest.h>

namespace tevra::core {
namespace {

const std::vector<std::string> kVerbs = {"list", "unlock", "add", "modify", "delete"};

TEST(NearestWord, FindsWhatWasMistyped) {
  EXPECT_EQ(NearestWord("lst", kVerbs), "list") << "a letter left out";
  EXPECT_EQ(NearestWord("lisst", kVerbs), "list") << "a letter too many";
  EXPECT_EQ(NearestWord("lost", kVerbs), "list") << "another letter";
  EXPECT_EQ(NearestWord("lsit", kVerbs), "list") << "two letters swapped";
  EXPECT_EQ(NearestWord("adn", kVerbs), "add");
  EXPECT_EQ(NearestWord("delte", kVerbs), "delete");
  EXPECT_EQ(NearestWord("list", kVerbs), "list");
}

TEST(NearestWord, IsEmptyWhenNoneIsNear) {
  for (const char* word : {"", "l", "remove", "frobnicate", "ls", "addition"}) {
    EXPECT_EQ(NearestWord(word, kVerbs), "") << word;
  }
  EXPECT_EQ(NearestWord("list", {}), "");
  EXPECT_EQ(NearestWord(std::string(100000, 'x'), {std::string(100000, 'x')}), "");
}

TEST(NearestWord, IsTheFirstOfSeveralThatAreAsNear) {
  EXPECT_EQ(NearestWord("lift", {"lint", "list"}), "lint");
  EXPECT_EQ(NearestWord("list", {"lint", "list"}), "list");
}

TEST(DidYouMean, EndsAMessageOrIsEmpty) {
  EXPECT_EQ(DidYouMean("lst", kVerbs), "; did you mean \"list\"?");
  EXPECT_EQ(DidYouMean("remove", kVerbs), "");
}

}  // namespace
}  // namespace tevra::core
