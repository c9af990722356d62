#include "vigila/server/user_settings.h"

#include <gtest/gtest.h>

#include "support/capturing_log.h"
#include "support/settings_fixture.h"
#include "tevra/osa/exception.h"

namespace vigila::server {
namespace {

using Texts = std::vector<std::string>;

class UserSettingsTest : public testing::Test {
 protected:
  support::SettingsFixture settings_;
  support::CapturingLog log_;
};

TEST_F(UserSettingsTest, PutsThePrefixBeforeTheName) {
  EXPECT_EQ("user.alice", UserSettings::Key(UserSettings::kUserPrefix, "alice"));
  EXPECT_EQ("oldPasswords.alice", UserSettings::Key(UserSettings::kHistoryPrefix, "alice"));
  EXPECT_EQ("phrase._1", UserSettings::Key(UserSettings::kPhrasePrefix, "_1"));
}

TEST_F(UserSettingsTest, RefusesAKeyThatWouldEndInItsMiddle) {
  EXPECT_THROW(UserSettings::Key(UserSettings::kUserPrefix, std::string("al\0ice", 6)),
               tevra::osa::Exception);
}

TEST_F(UserSettingsTest, TellsAMissingValueFromAnError) {
  EXPECT_FALSE(UserSettings::ReadJson("user.alice").has_value());
  EXPECT_FALSE(UserSettings::Exists("user.alice"));
  EXPECT_EQ(Texts(), UserSettings::ReadTexts("oldPasswords.alice"));
  EXPECT_EQ(Texts(), UserSettings::Keys("user."));
  EXPECT_EQ(Texts(), log_.TextsOf("UserMap"));
}

TEST_F(UserSettingsTest, ReadsWhatItWrote) {
  UserSettings::WriteJson("user.alice", "{}");
  UserSettings::WriteTexts("oldPasswords.alice", {"a", "", "b"});
  EXPECT_EQ("{}", UserSettings::ReadJson("user.alice"));
  EXPECT_TRUE(UserSettings::Exists("user.alice"));
  EXPECT_EQ((Texts{"a", "", "b"}), UserSettings::ReadTexts("oldPasswords.alice"));
  EXPECT_EQ(Texts{"user.alice"}, UserSettings::Keys("user."));
  UserSettings::Delete("user.alice");
  EXPECT_FALSE(UserSettings::Exists("user.alice"));
}

TEST_F(UserSettingsTest, LogsAndThrowsTheKeyAndTheStatusOfAnError) {
  UserSettings::WriteTexts("user.alice", {"a"});
  try {
    UserSettings::ReadJson("user.alice");
    FAIL();
  } catch (const tevra::osa::Exception& error) {
    EXPECT_STREQ("cannot read setting user.alice (KRAND_CORE_WRONG_TYPE)", error.what());
  }
  EXPECT_EQ(Texts{"cannot read setting user.alice (KRAND_CORE_WRONG_TYPE)"},
            log_.TextsOf("UserMap", support::CapturingLog::Level::kError));
}

TEST_F(UserSettingsTest, ThrowsWhenTheStoreCannotBeUsed) {
  settings_.Close();
  EXPECT_THROW(UserSettings::Keys("user."), tevra::osa::Exception);
  EXPECT_THROW(UserSettings::Exists("user.alice"), tevra::osa::Exception);
  EXPECT_THROW(UserSettings::ReadJson("user.alice"), tevra::osa::Exception);
  EXPECT_THROW(UserSettings::WriteJson("user.alice", "{}"), tevra::osa::Exception);
  EXPECT_THROW(UserSettings::ReadTexts("oldPasswords.alice"), tevra::osa::Exception);
  EXPECT_THROW(UserSettings::WriteTexts("oldPasswords.alice", {}), tevra::osa::Exception);
  EXPECT_THROW(UserSettings::Delete("user.alice"), tevra::osa::Exception);
  EXPECT_THROW(UserSettings::Transaction(), tevra::osa::Exception);
  settings_.Open();
}

TEST_F(UserSettingsTest, KeepsNothingOfATransactionThatWasNotCommitted) {
  {
    const UserSettings::Transaction transaction;
    UserSettings::WriteJson("user.alice", "{}");
    UserSettings::WriteJson("user.bob", "{}");
  }
  EXPECT_EQ(Texts(), UserSettings::Keys("user."));
}

TEST_F(UserSettingsTest, KeepsNothingOfATransactionWhoseCommitFailed) {
  {
    UserSettings::Transaction transaction;
    UserSettings::WriteJson("user.alice", "{}");
    krand_core_settings_fail_after(1);
    EXPECT_THROW(transaction.Commit(), tevra::osa::Exception);
  }
  EXPECT_EQ(Texts(), UserSettings::Keys("user."));
  UserSettings::WriteJson("user.alice", "{}");  // the store is free again
  EXPECT_EQ(Texts{"user.alice"}, UserSettings::Keys("user."));
}

TEST_F(UserSettingsTest, FlushesOnceForATransaction) {
  const unsigned long before = krand_core_settings_write_count();
  UserSettings::Transaction transaction;
  UserSettings::WriteJson("user.alice", "{}");
  UserSettings::WriteJson("user.bob", "{}");
  transaction.Commit();
  EXPECT_EQ(before + 1, krand_core_settings_write_count());
  EXPECT_EQ((Texts{"user.alice", "user.bob"}), UserSettings::Keys("user."));
}

}  // namespace
}  // namespace vigila::server
