#include "vigila/server/stored_secrets.h"

#include <gtest/gtest.h>

#include "support/capturing_log.h"
#include "support/settings_fixture.h"
#include "tevra/osa/exception.h"

namespace vigila::server {
namespace {

using Texts = std::vector<std::string>;

constexpr size_t kAll = 1000;
// What a key of 2048 bits makes of a password, in Base64.
constexpr size_t kLength = 344;

std::string Secret(char kind) {
  return std::string(kLength, kind);
}

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
  settings_.PutArray("oldPasswords.alice", {"", std::string(kLength - 1, 'a')});
  EXPECT_FALSE(StoredSecrets::Any());
  settings_.PutArray("oldPasswords.alice", {"", Secret('a')});
  EXPECT_TRUE(StoredSecrets::Any());
  settings_.Delete("oldPasswords.alice");
  settings_.PutJson("phrase._1", "{\"Phrase\":\"QUJD\",\"Alias\":\"YQ==\"}");
  EXPECT_FALSE(StoredSecrets::Any());
  settings_.PutJson("phrase._1", "{\"Phrase\":\"" + Secret('a') + "\",\"Alias\":\"YQ==\"}");
  EXPECT_TRUE(StoredSecrets::Any());
  settings_.Delete("phrase._1");
  // Also in an account that no load would accept.
  settings_.PutJson("user.alice", "{\"Password\":\"QUJD\"");
  EXPECT_FALSE(StoredSecrets::Any());
  settings_.PutJson("user.alice", "{\"Password\":\"" + Secret('a') + "\"");
  EXPECT_TRUE(StoredSecrets::Any());
}

TEST_F(StoredSecretsTest, AreThoseOfAccountsPassphrasesAndHistories) {
  settings_.PutJson("user.alice", "{\"Groups\":8,\"Password\":\"" + Secret('a') + "\"}");
  settings_.PutJson("user.bob", "{\"Groups\":8,\"Password\":\"" + Secret('b') + "\"}");
  settings_.PutArray("oldPasswords.alice", {Secret('1'), Secret('2')});
  settings_.PutJson("phrase._1", "{\"Phrase\":\"" + Secret('p') + "\",\"Alias\":\"YQ==\"}");
  settings_.PutString("rule.web", "other");
  EXPECT_EQ((Texts{Secret('a'), Secret('b'), Secret('p'), Secret('1'), Secret('2')}),
            StoredSecrets::Read(kAll));
  EXPECT_EQ((Texts{Secret('a'), Secret('b'), Secret('p'), Secret('1')}), StoredSecrets::Read(4));
  EXPECT_EQ(Texts{Secret('a')}, StoredSecrets::Read(1));
}

TEST_F(StoredSecretsTest, PassOverWhatNoKeyReads) {
  settings_.PutJson("user.digest",
                    "{\"Groups\":8,\"Password\":\"0123456789abcdef0123456789abcdef\"}");
  settings_.PutJson("user.damaged", "{\"Groups\":8,\"Password\":\"c2VjcmV0\"}");
  settings_.PutJson("user.malformed", "{\"Password\":\"" + Secret('m') + "\"");
  settings_.PutJson("user.none", "{\"Groups\":8}");
  settings_.PutJson("phrase._1", "{\"Phrase\":\"" + Secret('p') + "\"}");
  settings_.PutArray("oldPasswords.alice", {"", std::string(kLength - 1, 'o'), Secret('o')});
  EXPECT_EQ(Texts{Secret('o')}, StoredSecrets::Read(1));
  EXPECT_EQ(Texts{Secret('o')}, StoredSecrets::Read(kAll));
}

TEST_F(StoredSecretsTest, AreNotTakenForNoneWhenTheSettingsCannotBeRead) {
  settings_.Close();
  EXPECT_THROW(StoredSecrets::Any(), tevra::osa::Exception);
  EXPECT_THROW(StoredSecrets::Read(1), tevra::osa::Exception);
  settings_.Open();
}

}  // namespace
}  // namespace vigila::server
