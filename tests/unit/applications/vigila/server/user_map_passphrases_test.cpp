#include <gtest/gtest.h>

#include <set>
#include <thread>

#include "krand/base64/base64.h"
#include "support/user_store_fixture.h"

namespace vigila::server {
namespace {

class UserMapPassphrases : public support::UserStoreTest {};

TEST_F(UserMapPassphrases, GivesAPhraseBackByItsIdentifier) {
  const std::string id = Store().AddPassphrase("the phrase", "an alias");
  EXPECT_EQ("the phrase", Store().GetPassphrase(id));
  Restart();
  EXPECT_EQ("the phrase", Store().GetPassphrase(id));
}

TEST_F(UserMapPassphrases, DrawsIdentifiersOfOneForm) {
  const std::string id = Store().AddPassphrase("the phrase", "an alias");
  ASSERT_EQ(37u, id.size());
  EXPECT_EQ('_', id[0]);
  _uuid_t uuid = {};
  EXPECT_EQ(0, uuid_scan(id.c_str() + 1, &uuid));
  char text[37];
  uuid_sprint(&uuid, text);
  EXPECT_EQ(id.substr(1), text);
}

TEST_F(UserMapPassphrases, DrawsANewIdentifierForEachCall) {
  const std::string first = Store().AddPassphrase("the phrase", "an alias");
  const std::string second = Store().AddPassphrase("the phrase", "an alias");
  EXPECT_NE(first, second);
  EXPECT_EQ("the phrase", Store().GetPassphrase(first));
  EXPECT_EQ("the phrase", Store().GetPassphrase(second));
}

TEST_F(UserMapPassphrases, RefusesAnEmptyPhrase) {
  Store().Size();
  const Texts before = Snapshot();
  EXPECT_EQ("", Store().AddPassphrase("", "an alias"));
  EXPECT_EQ(Texts{"AddPassphrase: empty passphrase"}, Errors());
  EXPECT_EQ(before, Snapshot());
  EXPECT_EQ("{\"Passphrases\":[]}", Store().GetPassphrases());
}

TEST_F(UserMapPassphrases, StoresPhraseAndAliasInOneLine) {
  const std::string id = Store().AddPassphrase("the phrase", "al\"ias");
  const std::string json = *settings_.GetJson("phrase." + id);
  const std::string begin = "{\"Phrase\":\"";
  const std::string end = "\",\"Alias\":\"" + krand::lib::Base64::Encode("al\"ias") + "\"}";
  ASSERT_EQ(begin, json.substr(0, begin.size()));
  ASSERT_EQ(end, json.substr(json.size() - end.size()));
  EXPECT_EQ("the phrase",
            Decrypt(json.substr(begin.size(), json.size() - begin.size() - end.size())));
}

TEST_F(UserMapPassphrases, ListsAliasesAndIdentifiersButNoPhrase) {
  settings_.PutJson("phrase._2", "{\"Phrase\":\"QUJD\",\"Alias\":\"YmI=\"}");
  settings_.PutJson("phrase._1", "{\"Phrase\":\"QUJD\",\"Alias\":\"YSJh\"}");
  EXPECT_EQ(
      "{\"Passphrases\":[{\"Alias\":\"a\\\"a\",\"ID\":\"_1\"},{\"Alias\":\"bb\",\"ID\":\"_2\"}]}",
      Store().GetPassphrases());
}

TEST_F(UserMapPassphrases, ListsAnEmptyStoreAsAnEmptyArray) {
  EXPECT_EQ("{\"Passphrases\":[]}", Store().GetPassphrases());
}

TEST_F(UserMapPassphrases, ListsAnAliasThatIsNoTextWithoutHarm) {
  const std::string alias("\xff\0\n", 3);
  const std::string id = Store().AddPassphrase("the phrase", alias);
  Restart();
  EXPECT_NE(std::string::npos, Store().GetPassphrases().find("\\u0000\\n"));
  EXPECT_EQ("the phrase", Store().GetPassphrase(id));
}

TEST_F(UserMapPassphrases, KeepsLongPhrasesAndAnyBytes) {
  std::string longer;
  for (int i = 0; i < 5000; ++i) longer += static_cast<char>(i);
  for (const std::string& phrase : {longer, std::string("\0", 1), std::string("a\0b", 3)}) {
    const std::string id = Store().AddPassphrase(phrase, "");
    EXPECT_EQ(phrase, Store().GetPassphrase(id));
  }
}

TEST_F(UserMapPassphrases, KnowsNoOtherIdentifier) {
  const std::string id = Store().AddPassphrase("the phrase", "an alias");
  EXPECT_EQ("", Store().GetPassphrase(""));
  EXPECT_EQ("", Store().GetPassphrase("_"));
  EXPECT_EQ("", Store().GetPassphrase(id + " "));
  EXPECT_EQ("", Store().GetPassphrase(id + std::string(1, '\0')));
  EXPECT_FALSE(Store().DeletePassphrase(id + std::string(1, '\0')));
  EXPECT_EQ("the phrase", Store().GetPassphrase(id));
}

TEST_F(UserMapPassphrases, DeletesOnce) {
  const std::string id = Store().AddPassphrase("the phrase", "an alias");
  const std::string other = Store().AddPassphrase("another", "an alias");
  EXPECT_TRUE(Store().DeletePassphrase(id));
  EXPECT_FALSE(settings_.Exists("phrase." + id));
  EXPECT_EQ("", Store().GetPassphrase(id));
  const unsigned long writes = krand_core_settings_write_count();
  // Touches no setting: not even one that has come to be since.
  settings_.PutJson("phrase." + id, "{}");
  EXPECT_FALSE(Store().DeletePassphrase(id));
  EXPECT_TRUE(settings_.Exists("phrase." + id));
  EXPECT_EQ(writes + 1, krand_core_settings_write_count());
  EXPECT_EQ("another", Store().GetPassphrase(other));
}

TEST_F(UserMapPassphrases, StoresNothingWhenTheWriteFails) {
  Store().Size();
  krand_core_settings_fail_after(1);
  EXPECT_EQ("", Store().AddPassphrase("the phrase", "an alias"));
  EXPECT_FALSE(Errors().empty());
  EXPECT_EQ("{\"Passphrases\":[]}", Store().GetPassphrases());
  EXPECT_EQ(Texts{"user.nobody"}, settings_.Keys());
}

TEST_F(UserMapPassphrases, StoresNothingWhenItCannotEncrypt) {
  settings_.PutArray("oldPasswords.alice", {"QUJD"});  // what the lost key was for
  Store().Size();
  AtRestCipher::Close();
  AtRestCipher::Configure(settings_.Dir().File("lost.key"));
  EXPECT_EQ("", Store().AddPassphrase("the phrase", "an alias"));
  ASSERT_EQ(1u, Errors().size());
  EXPECT_NE(std::string::npos, Errors()[0].find(settings_.Dir().File("lost.key")));
  EXPECT_EQ("{\"Passphrases\":[]}", Store().GetPassphrases());
}

TEST_F(UserMapPassphrases, RemovesNothingWhenTheDeletionFails) {
  const std::string id = Store().AddPassphrase("the phrase", "an alias");
  krand_core_settings_fail_after(1);
  EXPECT_THROW(Store().DeletePassphrase(id), Exception);
  EXPECT_EQ("the phrase", Store().GetPassphrase(id));
  EXPECT_TRUE(Store().DeletePassphrase(id));
}

TEST_F(UserMapPassphrases, GivesNothingForAPhraseItCannotRead) {
  settings_.PutJson("phrase._1", "{\"Phrase\":\"QUJD\",\"Alias\":\"YQ==\"}");
  EXPECT_EQ("", Store().GetPassphrase("_1"));
}

TEST_F(UserMapPassphrases, ThrowsForAMalformedRecord) {
  for (const char* json :
       {"", "[]", "{}", "{\"Phrase\":\"QUJD\"}", "{\"Alias\":\"YQ==\"}",
        "{\"Phrase\":1,\"Alias\":\"YQ==\"}", "{\"Phrase\":\"a\",\"Alias\":{}}"}) {
    settings_.PutJson("phrase._1", json);
    Restart();
    EXPECT_THROW(Store().GetPassphrases(), Exception) << json;
    EXPECT_THROW(Store().Size(), Exception) << json;
  }
}

TEST_F(UserMapPassphrases, NeverLogsAPhrase) {
  const std::string id = Store().AddPassphrase("the phrase", "an alias");
  Store().GetPassphrase(id);
  EXPECT_FALSE(log_.Contains("the phrase"));
}

TEST_F(UserMapPassphrases, AreNotForChangeSets) {
  UserMap set(nullptr);
  EXPECT_THROW(set.AddPassphrase("the phrase", "an alias"), Exception);
  EXPECT_EQ("", set.GetPassphrase("_1"));
  EXPECT_FALSE(set.DeletePassphrase("_1"));
  EXPECT_EQ(Texts(), settings_.Keys());
}

TEST_F(UserMapPassphrases, ServesManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([this, i] {
      for (int n = 0; n < 5; ++n) {
        const std::string phrase = std::to_string(i) + ":" + std::to_string(n);
        const std::string id = Store().AddPassphrase(phrase, "alias");
        EXPECT_EQ(phrase, Store().GetPassphrase(id));
        Store().GetPassphrases();
        if (n % 2 == 0) {
          EXPECT_TRUE(Store().DeletePassphrase(id));
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(8u, settings_.Keys("phrase.").size());
}

}  // namespace
}  // namespace vigila::server
