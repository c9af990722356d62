#include "vigila/server/stored_secrets.h"

#include <gtest/gtest.h>

#include "support/capturing_log.h"
#include "support/settings_fixture.h"
#include "tevra/osa/exception.h"

namespace vigila::server {
namespace {

using Texts = std::vector<std::string>;

constexpr size_t kAll = 1000;

class StoredSecretsTest : public testing::Test {
 protected:
  support::SettingsFixture settings_;
  support::CapturingLog log_;
};

TEST_F(StoredSecretsTest, TellWhetherAnythingNeedsTheKey) {
  EXPECT_FALSE(StoredSecrets::Any());
  settings_.PutJson("user.alice", "{\"Groups\":8}");
  settings_.PutArray("oldPasswords.alice", {});
  EXPECT_FALSE(StoredSecrets::Any());
  settings_.PutArray("oldPasswords.alice", {""});
  EXPECT_FALSE(StoredSecrets::Any());
  settings_.PutArray("oldPasswords.alice", {"QUJD"});
  EXPECT_TRUE(StoredSecrets::Any());
  settings_.Delete("oldPasswords.alice");
  settings_.PutJson("phrase._1", "{}");
  EXPECT_TRUE(StoredSecrets::Any());
  settings_.Delete("phrase._1");
  // Also in an account that no load would accept.
  settings_.PutJson("user.alice", "{\"Password\":\"QUJD\"");
  EXPECT_TRUE(StoredSecrets::Any());
}

TEST_F(StoredSecretsTest, AreThoseOfAccountsPassphrasesAndHistories) {
  settings_.PutJson("user.alice", "{\"Groups\":8,\"Password\":\"alices\"}");
  settings_.PutJson("user.bob", "{\"Groups\":8,\"Password\":\"bobs\"}");
  settings_.PutArray("oldPasswords.alice", {"first", "second"});
  settings_.PutJson("phrase._1", "{\"Phrase\":\"phrase\",\"Alias\":\"YQ==\"}");
  settings_.PutString("rule.web", "other");
  EXPECT_EQ((Texts{"alices", "bobs", "phrase", "first", "second"}), StoredSecrets::Read(kAll));
  EXPECT_EQ((Texts{"alices", "bobs", "phrase", "first"}), StoredSecrets::Read(4));
  EXPECT_EQ(Texts{"alices"}, StoredSecrets::Read(1));
}

TEST_F(StoredSecretsTest, PassOverWhatNoKeyReads) {
  settings_.PutJson("user.digest",
                    "{\"Groups\":8,\"Password\":\"0123456789abcdef0123456789abcdef\"}");
  settings_.PutJson("user.malformed", "{\"Password\":\"QUJD\"");
  settings_.PutJson("user.none", "{\"Groups\":8}");
  settings_.PutJson("phrase._1", "{\"Phrase\":\"no alias\"}");
  settings_.PutArray("oldPasswords.alice", {"", "0123456789abcdef0123456789abcdef", "old"});
  EXPECT_EQ(Texts{"old"}, StoredSecrets::Read(1));
  EXPECT_EQ(Texts{"old"}, StoredSecrets::Read(kAll));
}

TEST_F(StoredSecretsTest, AreNotTakenForNoneWhenTheSettingsCannotBeRead) {
  settings_.Close();
  EXPECT_THROW(StoredSecrets::Any(), tevra::osa::Exception);
  EXPECT_THROW(StoredSecrets::Read(1), tevra::osa::Exception);
  settings_.Open();
}

}  // namespace
}  // namespace vigila::server
