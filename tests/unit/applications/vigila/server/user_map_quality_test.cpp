#include <gtest/gtest.h>

#include <algorithm>

#include "support/user_store_fixture.h"

namespace vigila::server {
namespace {

class UserMapQuality : public support::UserStoreTest {
 protected:
  UserMapQuality() : impl_(&clock_, &sessions_) {}
  int Score(const std::string& password) { return impl_.CalculatePasswordScore(password); }

  Impl impl_;
};

TEST_F(UserMapQuality, ScoresTheEmptyPasswordZero) {
  EXPECT_EQ(0, Score(""));
}

TEST_F(UserMapQuality, ScoresRepetitionAndSingleClasses) {
  EXPECT_EQ(1, Score("aaaa"));
  EXPECT_EQ(21, Score("password"));
  EXPECT_EQ(10, Score("ababab"));
  EXPECT_EQ(0, Score("1"));
  EXPECT_EQ(7, Score("123"));  // three digits, and digits only
}

TEST_F(UserMapQuality, ScoresMixedClasses) {
  EXPECT_EQ(97, Score("Abc123!@"));
}

TEST_F(UserMapQuality, CapsAtAHundred) {
  EXPECT_EQ(100, Score("Abc123!@Def456#$Ghi789%^Jkl0&*"));
}

TEST_F(UserMapQuality, NeverFallsBelowZero) {
  EXPECT_EQ(0, Score("a"));
  EXPECT_EQ(0, Score("aa"));
}

TEST_F(UserMapQuality, TakesACommaForASymbol) {
  // 4 * 5, a letter with a symbol 15, two symbols 5.
  EXPECT_EQ(40, Score("a,b,c"));
  EXPECT_EQ(20, Score("a.b.c"));  // a full stop is none
}

TEST_F(UserMapQuality, GivesEachBonusForItsOwnPair) {
  EXPECT_EQ(16 + 15, Score("abc1"));
  EXPECT_EQ(16 + 15, Score("abc!"));
  EXPECT_EQ(16 + 15 + 5, Score("123!"));
  EXPECT_EQ(16 + 10 - 10, Score("abCD"));
  EXPECT_EQ(16 + 10 - 10, Score("ABcd"));
}

TEST_F(UserMapQuality, AsksForEverythingInOneLine) {
  // Three digits, but never in one line: no bonus, and no digits-only either.
  EXPECT_EQ(20, Score("1\n2\n3"));
  EXPECT_EQ(12, Score("a\nB"));  // both cases likewise
}

TEST_F(UserMapQuality, CountsBytes) {
  EXPECT_EQ(8, Score("\xc3\xa9"));
  EXPECT_EQ(12, Score(std::string("\0\xff\x01", 3)));
}

TEST_F(UserMapQuality, RemovesBlocksThatRepeatAtOnce) {
  EXPECT_EQ(2, impl_.CheckRepetition(1, "aaab"));
  EXPECT_EQ(2, impl_.CheckRepetition(2, "ababab"));
  EXPECT_EQ(6, impl_.CheckRepetition(1, "ababab"));
  EXPECT_EQ(3, impl_.CheckRepetition(3, "abcabc"));
  EXPECT_EQ(4, impl_.CheckRepetition(4, "abcdabcd"));
  EXPECT_EQ(0, impl_.CheckRepetition(1, ""));
  EXPECT_EQ(1, impl_.CheckRepetition(1, "a"));
}

TEST_F(UserMapQuality, KeepsABlockThatTheEndCutsShort) {
  EXPECT_EQ(3, impl_.CheckRepetition(2, "aba"));
  EXPECT_EQ(3, impl_.CheckRepetition(2, "aaa"));
  EXPECT_EQ(5, impl_.CheckRepetition(4, "aaaaa"));
  EXPECT_EQ(4, impl_.CheckRepetition(4, "aaaaaaaa"));
}

TEST_F(UserMapQuality, RemovesNothingForABlockWithoutLength) {
  EXPECT_EQ(3, impl_.CheckRepetition(0, "aaa"));
  EXPECT_EQ(3, impl_.CheckRepetition(-1, "aaa"));
  EXPECT_EQ(3, impl_.CheckRepetition(100, "aaa"));
}

TEST_F(UserMapQuality, KeepsTheFiveNewestPasswordsOldestFirst) {
  ASSERT_EQ(-1, Merge({{"alice", "password0", kViewer}}));
  EXPECT_EQ(Texts(), History("alice"));
  for (int i = 1; i <= 6; ++i) {
    ASSERT_EQ(-1, Merge({{"alice", "password" + std::to_string(i), kViewer}}));
    EXPECT_EQ(std::min<size_t>(5, static_cast<size_t>(i)), History("alice").size());
    EXPECT_EQ(i == 6 ? "password1" : "password0", History("alice").front());
  }
  EXPECT_EQ((Texts{"password1", "password2", "password3", "password4", "password5"}),
            History("alice"));
}

TEST_F(UserMapQuality, CutsALongerHistoryDown) {
  Texts stored;
  for (int i = 0; i < 9; ++i) stored.push_back(Encrypt(std::to_string(i)));
  settings_.PutArray("oldPasswords.alice", stored);
  impl_.UpdateOldPasswords("alice", Encrypt("new"));
  EXPECT_EQ((Texts{"5", "6", "7", "8", "new"}), History("alice"));
}

TEST_F(UserMapQuality, FindsEveryRememberedPassword) {
  settings_.PutArray("oldPasswords.alice", {Encrypt("first"), "damaged", Encrypt("last")});
  EXPECT_TRUE(impl_.MatchOldPassword("alice", "first"));
  EXPECT_TRUE(impl_.MatchOldPassword("alice", "last"));
  EXPECT_FALSE(impl_.MatchOldPassword("alice", "damaged"));
  EXPECT_FALSE(impl_.MatchOldPassword("alice", "firs"));
  EXPECT_FALSE(impl_.MatchOldPassword("alice", ""));
}

TEST_F(UserMapQuality, FindsNothingWithoutAHistory) {
  EXPECT_FALSE(impl_.MatchOldPassword("alice", "secret"));
  settings_.PutArray("oldPasswords.alice", {});
  EXPECT_FALSE(impl_.MatchOldPassword("alice", "secret"));
}

TEST_F(UserMapQuality, TakesAnUnreadableHistoryForAnEmptyOneAndSaysSo) {
  settings_.PutJson("oldPasswords.alice", "{}");
  EXPECT_FALSE(impl_.MatchOldPassword("alice", "secret"));
  EXPECT_EQ(Texts{"cannot read setting oldPasswords.alice (KRAND_CORE_WRONG_TYPE)"}, Errors());
  impl_.UpdateOldPasswords("alice", Encrypt("new"));
  EXPECT_EQ(Texts{"new"}, History("alice"));
}

}  // namespace
}  // namespace vigila::server
