#include "vigila/server/passphrase_store.h"

#include <gtest/gtest.h>

#include "krand/base64/base64.h"
#include "support/library_without_rsa.h"
#include "support/user_store_fixture.h"
#include "utilc/uuid.h"
#include "vigila/server/password_vault.h"

namespace vigila::server {
namespace {

class PassphraseStoreTest : public support::UserStoreTest {
 protected:
  // What a new store over the same settings holds.
  void Reload() { passphrases_.Adopt(PassphraseStore::Read()); }

  PasswordVault vault_{&Cipher()};
  PassphraseStore passphrases_{vault_};
};

TEST_F(PassphraseStoreTest, GivesAPhraseBackByItsIdentifier) {
  const std::string id = passphrases_.Add("the phrase", "an alias");
  EXPECT_EQ("the phrase", passphrases_.Get(id));
  Reload();
  EXPECT_EQ("the phrase", passphrases_.Get(id));
}

TEST_F(PassphraseStoreTest, DrawsIdentifiersOfOneForm) {
  const std::string id = passphrases_.Add("the phrase", "an alias");
  ASSERT_EQ(37u, id.size());
  EXPECT_EQ('_', id[0]);
  _uuid_t uuid = {};
  EXPECT_EQ(0, uuid_scan(id.c_str() + 1, &uuid));
  char text[37];
  uuid_sprint(&uuid, text);
  EXPECT_EQ(id.substr(1), text);
}

TEST_F(PassphraseStoreTest, DrawsANewIdentifierForEachCall) {
  const std::string first = passphrases_.Add("the phrase", "an alias");
  const std::string second = passphrases_.Add("the phrase", "an alias");
  EXPECT_NE(first, second);
  EXPECT_EQ("the phrase", passphrases_.Get(first));
  EXPECT_EQ("the phrase", passphrases_.Get(second));
}

TEST_F(PassphraseStoreTest, RefusesAnEmptyPhrase) {
  const Texts before = Snapshot();
  EXPECT_EQ("", passphrases_.Add("", "an alias"));
  EXPECT_EQ(Texts{"AddPassphrase: empty passphrase"}, Errors());
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ("{\"Passphrases\":[]}", passphrases_.List());
}

TEST_F(PassphraseStoreTest, StoresPhraseAndAliasInOneLine) {
  const std::string id = passphrases_.Add("the phrase", "al\"ias");
  const std::string json = *settings_.GetJson("phrase." + id);
  const std::string begin = "{\"Phrase\":\"";
  const std::string end = "\",\"Alias\":\"" + krand::lib::Base64::Encode("al\"ias") + "\"}";
  ASSERT_EQ(begin, json.substr(0, begin.size()));
  ASSERT_EQ(end, json.substr(json.size() - end.size()));
  EXPECT_EQ("the phrase",
            Decrypt(json.substr(begin.size(), json.size() - begin.size() - end.size())));
}

TEST_F(PassphraseStoreTest, ListsAliasesAndIdentifiersButNoPhrase) {
  settings_.PutJson("phrase._2", "{\"Phrase\":\"QUJD\",\"Alias\":\"YmI=\"}");
  settings_.PutJson("phrase._1", "{\"Phrase\":\"QUJD\",\"Alias\":\"YSJh\"}");
  Reload();
  EXPECT_EQ(
      "{\"Passphrases\":[{\"Alias\":\"a\\\"a\",\"ID\":\"_1\"},{\"Alias\":\"bb\",\"ID\":\"_2\"}]}",
      passphrases_.List());
}

TEST_F(PassphraseStoreTest, ListsAnEmptyStoreAsAnEmptyArray) {
  EXPECT_EQ("{\"Passphrases\":[]}", passphrases_.List());
}

TEST_F(PassphraseStoreTest, ListsAnAliasThatIsNoTextWithoutHarm) {
  const std::string alias("\xff\0\n", 3);
  const std::string id = passphrases_.Add("the phrase", alias);
  Reload();
  EXPECT_NE(std::string::npos, passphrases_.List().find("\\u0000\\n"));
  EXPECT_EQ("the phrase", passphrases_.Get(id));
}

TEST_F(PassphraseStoreTest, KeepsLongPhrasesAndAnyBytes) {
  std::string longer;
  for (int i = 0; i < 5000; ++i) longer += static_cast<char>(i);
  for (const std::string& phrase : {longer, std::string("\0", 1), std::string("a\0b", 3)}) {
    const std::string id = passphrases_.Add(phrase, "");
    EXPECT_EQ(phrase, passphrases_.Get(id));
  }
}

TEST_F(PassphraseStoreTest, KnowsNoOtherIdentifier) {
  const std::string id = passphrases_.Add("the phrase", "an alias");
  EXPECT_EQ("", passphrases_.Get(""));
  EXPECT_EQ("", passphrases_.Get("_"));
  EXPECT_EQ("", passphrases_.Get(id + " "));
  EXPECT_EQ("", passphrases_.Get(id + std::string(1, '\0')));
  EXPECT_FALSE(passphrases_.Delete(id + std::string(1, '\0')));
  EXPECT_EQ("the phrase", passphrases_.Get(id));
}

TEST_F(PassphraseStoreTest, DeletesOnce) {
  const std::string id = passphrases_.Add("the phrase", "an alias");
  const std::string other = passphrases_.Add("another", "an alias");
  EXPECT_TRUE(passphrases_.Delete(id));
  EXPECT_FALSE(settings_.Exists("phrase." + id));
  EXPECT_EQ("", passphrases_.Get(id));
  const unsigned long writes = krand_core_settings_write_count();
  // Touches no setting: not even one that has come to be since.
  settings_.PutJson("phrase." + id, "{}");
  EXPECT_FALSE(passphrases_.Delete(id));
  EXPECT_TRUE(settings_.Exists("phrase." + id));
  EXPECT_EQ(writes + 1, krand_core_settings_write_count());
  EXPECT_EQ("another", passphrases_.Get(other));
}

TEST_F(PassphraseStoreTest, StoresNothingWhenTheWriteFails) {
  krand_core_settings_fail_after(1);
  EXPECT_EQ("", passphrases_.Add("the phrase", "an alias"));
  EXPECT_FALSE(Errors().empty());
  EXPECT_EQ("{\"Passphrases\":[]}", passphrases_.List());
  EXPECT_EQ(Texts(), settings_.Keys());
}

TEST_F(PassphraseStoreTest, StoresNothingWhenItCannotEncrypt) {
  const support::LibraryWithoutRsa library;
  EXPECT_EQ("", passphrases_.Add("the phrase", "an alias"));
  EXPECT_EQ(Texts{"AddPassphrase: a secret could not be encrypted"}, Errors());
  EXPECT_EQ("{\"Passphrases\":[]}", passphrases_.List());
  EXPECT_EQ(Texts(), settings_.Keys());
}

TEST_F(PassphraseStoreTest, RemovesNothingWhenTheDeletionFails) {
  const std::string id = passphrases_.Add("the phrase", "an alias");
  krand_core_settings_fail_after(1);
  EXPECT_THROW(passphrases_.Delete(id), Exception);
  EXPECT_EQ("the phrase", passphrases_.Get(id));
  EXPECT_TRUE(passphrases_.Delete(id));
}

TEST_F(PassphraseStoreTest, GivesNothingForAPhraseItCannotRead) {
  settings_.PutJson("phrase._1", "{\"Phrase\":\"QUJD\",\"Alias\":\"YQ==\"}");
  Reload();
  EXPECT_EQ("", passphrases_.Get("_1"));
}

TEST_F(PassphraseStoreTest, NeverLogsAPhrase) {
  const std::string id = passphrases_.Add("the phrase", "an alias");
  passphrases_.Get(id);
  EXPECT_FALSE(log_.Contains("the phrase"));
}

}  // namespace
}  // namespace vigila::server
