#include "vigila/server/password_score.h"

#include <gtest/gtest.h>

namespace vigila::server {
namespace {

int Score(const std::string& password) {
  return PasswordScore::Of(password);
}
int Rest(int block_length, const std::string& text) {
  return PasswordScore::LengthWithoutRepetition(block_length, text);
}

TEST(PasswordScoreTest, ScoresTheEmptyPasswordZero) {
  EXPECT_EQ(0, Score(""));
}

TEST(PasswordScoreTest, ScoresRepetitionAndSingleClasses) {
  EXPECT_EQ(1, Score("aaaa"));
  EXPECT_EQ(21, Score("password"));
  EXPECT_EQ(10, Score("ababab"));
  EXPECT_EQ(0, Score("1"));
  EXPECT_EQ(7, Score("123"));  // three digits, and digits only
}

TEST(PasswordScoreTest, ScoresMixedClasses) {
  EXPECT_EQ(97, Score("Abc123!@"));
}

TEST(PasswordScoreTest, CapsAtAHundred) {
  EXPECT_EQ(100, Score("Abc123!@Def456#$Ghi789%^Jkl0&*"));
}

TEST(PasswordScoreTest, NeverFallsBelowZero) {
  EXPECT_EQ(0, Score("a"));
  EXPECT_EQ(0, Score("aa"));
}

TEST(PasswordScoreTest, TakesACommaForASymbol) {
  // 4 * 5, a letter with a symbol 15, two symbols 5.
  EXPECT_EQ(40, Score("a,b,c"));
  EXPECT_EQ(20, Score("a.b.c"));  // a full stop is none
}

TEST(PasswordScoreTest, GivesEachBonusForItsOwnPair) {
  EXPECT_EQ(16 + 15, Score("abc1"));
  EXPECT_EQ(16 + 15, Score("abc!"));
  EXPECT_EQ(16 + 15 + 5, Score("123!"));
  EXPECT_EQ(16 + 10 - 10, Score("abCD"));
  EXPECT_EQ(16 + 10 - 10, Score("ABcd"));
}

TEST(PasswordScoreTest, AsksForEverythingInOneLine) {
  // Three digits, but never in one line: no bonus, and no digits-only either.
  EXPECT_EQ(20, Score("1\n2\n3"));
  EXPECT_EQ(12, Score("a\nB"));  // both cases likewise
}

TEST(PasswordScoreTest, CountsBytes) {
  EXPECT_EQ(8, Score("\xc3\xa9"));
  EXPECT_EQ(12, Score(std::string("\0\xff\x01", 3)));
}

TEST(PasswordScoreTest, RemovesBlocksThatRepeatAtOnce) {
  EXPECT_EQ(2, Rest(1, "aaab"));
  EXPECT_EQ(2, Rest(2, "ababab"));
  EXPECT_EQ(6, Rest(1, "ababab"));
  EXPECT_EQ(3, Rest(3, "abcabc"));
  EXPECT_EQ(4, Rest(4, "abcdabcd"));
  EXPECT_EQ(0, Rest(1, ""));
  EXPECT_EQ(1, Rest(1, "a"));
}

TEST(PasswordScoreTest, KeepsABlockThatTheEndCutsShort) {
  EXPECT_EQ(3, Rest(2, "aba"));
  EXPECT_EQ(3, Rest(2, "aaa"));
  EXPECT_EQ(5, Rest(4, "aaaaa"));
  EXPECT_EQ(4, Rest(4, "aaaaaaaa"));
}

TEST(PasswordScoreTest, RemovesNothingForABlockWithoutLength) {
  EXPECT_EQ(3, Rest(0, "aaa"));
  EXPECT_EQ(3, Rest(-1, "aaa"));
  EXPECT_EQ(3, Rest(100, "aaa"));
}

}  // namespace
}  // namespace vigila::server
