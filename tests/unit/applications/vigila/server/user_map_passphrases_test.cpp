#include <gtest/gtest.h>

#include <thread>

#include "support/user_store_fixture.h"

namespace vigila::server {
namespace {

class UserMapPassphrases : public support::UserStoreTest {};

TEST_F(UserMapPassphrases, AreThereAfterARestart) {
  const std::string id = Store().AddPassphrase("the phrase", "an alias");
  Restart();
  EXPECT_EQ("the phrase", Store().GetPassphrase(id));
  EXPECT_NE(std::string::npos, Store().GetPassphrases().find(id));
  EXPECT_TRUE(Store().DeletePassphrase(id));
  Restart();
  EXPECT_FALSE(Store().DeletePassphrase(id));
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
