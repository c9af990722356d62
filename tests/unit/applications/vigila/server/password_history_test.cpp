#include "vigila/server/password_history.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "support/user_store_fixture.h"
#include "vigila/server/password_vault.h"

namespace vigila::server {
namespace {

class PasswordHistoryTest : public support::UserStoreTest {
 protected:
  PasswordVault vault_{&Cipher()};
  PasswordHistory history_{vault_, 5};
};

TEST_F(PasswordHistoryTest, KeepsTheFiveNewestPasswordsOldestFirst) {
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

TEST_F(PasswordHistoryTest, CutsALongerHistoryDown) {
  Texts stored;
  for (int i = 0; i < 9; ++i) stored.push_back(Encrypt(std::to_string(i)));
  settings_.PutArray("oldPasswords.alice", stored);
  history_.Append("alice", Encrypt("new"));
  EXPECT_EQ((Texts{"5", "6", "7", "8", "new"}), History("alice"));
}

TEST_F(PasswordHistoryTest, FindsEveryRememberedPassword) {
  settings_.PutArray("oldPasswords.alice", {Encrypt("first"), "damaged", Encrypt("last")});
  EXPECT_TRUE(history_.Contains("alice", "first"));
  EXPECT_TRUE(history_.Contains("alice", "last"));
  EXPECT_FALSE(history_.Contains("alice", "damaged"));
  EXPECT_FALSE(history_.Contains("alice", "firs"));
  EXPECT_FALSE(history_.Contains("alice", ""));
}

TEST_F(PasswordHistoryTest, FindsNothingWithoutAHistory) {
  EXPECT_FALSE(history_.Contains("alice", "secret"));
  settings_.PutArray("oldPasswords.alice", {});
  EXPECT_FALSE(history_.Contains("alice", "secret"));
}

TEST_F(PasswordHistoryTest, TakesAnUnreadableHistoryForAnEmptyOneAndSaysSo) {
  settings_.PutJson("oldPasswords.alice", "{}");
  EXPECT_FALSE(history_.Contains("alice", "secret"));
  EXPECT_EQ(Texts{"cannot read setting oldPasswords.alice (KRAND_CORE_WRONG_TYPE)"}, Errors());
  history_.Append("alice", Encrypt("new"));
  EXPECT_EQ(Texts{"new"}, History("alice"));
}

}  // namespace
}  // namespace vigila::server
