#include "tevra/core/string_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace {

using tevra::core::StringUtil;

bool Matches(std::string_view pattern, std::string_view text) {
  return StringUtil::MatchesPattern(pattern, text);
}

// The definition, byte by byte: slow and plain.
bool Reference(std::string_view pattern, std::string_view text) {
  if (pattern.empty()) return text.empty();
  if (pattern.front() == '*') {
    return Reference(pattern.substr(1), text) ||
           (!text.empty() && Reference(pattern, text.substr(1)));
  }
  return !text.empty() && pattern.front() == text.front() &&
         Reference(pattern.substr(1), text.substr(1));
}

TEST(MatchesPattern, LetsAStarStandForAnyRun) {
  EXPECT_TRUE(Matches("/jpeg*", "/jpeg"));
  EXPECT_TRUE(Matches("/jpeg*", "/jpeg/1"));
  EXPECT_TRUE(Matches("/jpeg*", "/jpeg/a/b/c"));
  EXPECT_FALSE(Matches("/jpeg*", "/jpe"));
  EXPECT_FALSE(Matches("/jpeg*", "x/jpeg"));
  EXPECT_TRUE(Matches("*.cgi", "/a/b.cgi"));
  EXPECT_FALSE(Matches("*.cgi", "/a/b.cgi?"));
  EXPECT_TRUE(Matches("*", ""));
  EXPECT_TRUE(Matches("*", "/"));
  EXPECT_TRUE(Matches("**", ""));
  EXPECT_TRUE(Matches("a*b*c", "a-b-b-c"));
  EXPECT_FALSE(Matches("a*b*c", "a-c-b"));
}

TEST(MatchesPattern, ComparesWholeTextsWithoutAStar) {
  EXPECT_TRUE(Matches("", ""));
  EXPECT_FALSE(Matches("", "a"));
  EXPECT_FALSE(Matches("a", ""));
  EXPECT_TRUE(Matches("/a", "/a"));
  EXPECT_FALSE(Matches("/a", "/a/"));
}

TEST(MatchesPattern, DoesNotUseOneByteTwice) {
  EXPECT_FALSE(Matches("ab*ba", "aba"));
  EXPECT_TRUE(Matches("ab*ba", "abba"));
  EXPECT_FALSE(Matches("a*a*a", "aa"));
  EXPECT_TRUE(Matches("a*a*a", "aaa"));
}

TEST(MatchesPattern, TakesEveryOtherByteLiterally) {
  EXPECT_FALSE(Matches("/a?", "/ab"));
  EXPECT_TRUE(Matches("/a?", "/a?"));
  EXPECT_FALSE(Matches("[ab]*", "a"));
  EXPECT_TRUE(Matches("[ab]*", "[ab]c"));
  EXPECT_FALSE(Matches("\\*", "*"));
  EXPECT_FALSE(Matches("/A*", "/a"));
  EXPECT_TRUE(Matches("\xff*", "\xff\xfe"));
  EXPECT_TRUE(Matches(std::string_view("a\0*", 3), std::string_view("a\0b", 3)));
  EXPECT_FALSE(Matches("a*", std::string_view("\0a", 2)));
}

TEST(MatchesPattern, AgreesWithItsDefinitionOnAllShortTexts) {
  std::vector<std::string> texts = {""}, patterns = {""};
  for (size_t i = 0; texts[i].size() < 5; ++i) {
    for (const char c : {'a', 'b'}) texts.push_back(texts[i] + c);
  }
  for (size_t i = 0; patterns[i].size() < 5; ++i) {
    for (const char c : {'a', 'b', '*'}) patterns.push_back(patterns[i] + c);
  }
  for (const std::string& pattern : patterns) {
    for (const std::string& text : texts) {
      ASSERT_EQ(Matches(pattern, text), Reference(pattern, text)) << pattern << " " << text;
    }
  }
}

TEST(MatchesPattern, IsNotSlowedByHostileTexts) {
  // Quadratic work would be 2.5e11 comparisons here.
  const size_t size = 1000000;
  const std::string run(size / 2, 'a');
  const std::string text(size, 'a');
  EXPECT_FALSE(Matches("*" + run + "b*", text));
  std::string stars;
  for (size_t i = 0; i < 1000; ++i) stars += "*a";
  EXPECT_FALSE(Matches(stars + "*b", text));
  EXPECT_TRUE(Matches(stars + "*", text));
}

using Fields = std::vector<std::string>;

TEST(Split, KeepsEmptyFields) {
  EXPECT_EQ(StringUtil::Split("/halvard-instrument/cgi/*", '/'),
            (Fields{"", "halvard-instrument", "cgi", "*"}));
  EXPECT_EQ(StringUtil::Split("/a", '/'), (Fields{"", "a"}));
  EXPECT_EQ(StringUtil::Split("a/", '/'), (Fields{"a", ""}));
  EXPECT_EQ(StringUtil::Split("//", '/'), (Fields{"", "", ""}));
  EXPECT_EQ(StringUtil::Split("", '/'), (Fields{""}));
  EXPECT_EQ(StringUtil::Split("a", '/'), (Fields{"a"}));
  EXPECT_EQ(StringUtil::Split(std::string_view("a\0b", 3), '\0'), (Fields{"a", "b"}));
}

}  // namespace
