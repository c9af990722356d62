#ifndef SUPPORT_USER_STORE_FIXTURE_H_
#define SUPPORT_USER_STORE_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "support/at_rest_key_fixture.h"
#include "support/capturing_log.h"
#include "support/settings_fixture.h"
#include "tevra/osa/exception.h"
#include "vigila/check/explicit_time_source.h"
#include "vigila/server/session_manager.h"
#include "vigila/server/user_map.h"
#include "vigila/server/user_map_impl.h"

namespace support {

// A test over a user store in settings of its own, empty at first, with a clock that stands at
// kStart until it is moved. The store loads on its first use: put accounts before.
class UserStoreTest : public testing::Test {
 protected:
  using AtRestCipher = vigila::server::AtRestCipher;
  using UserMap = vigila::server::UserMap;
  using Impl = UserMap::Impl;
  using MyUser = Impl::MyUser;
  using User = vigila::model::User;
  using Group = UserMap::ISecurityProvider::Group;
  using Exception = tevra::osa::Exception;
  using Texts = std::vector<std::string>;

  static constexpr uint32_t kStart = 1800000000;
  static constexpr uint32_t kDay = 86400;
  static constexpr int kAdmin = 1;
  static constexpr int kViewer = 8;

  struct Change {
    std::string name;
    std::string password;
    int group;
  };

  UserStoreTest() : sessions_(&clock_, vigila::server::SessionManager::kDefaultTimeoutSecs) {
    SetTime(kStart);
    Restart();
  }

  UserMap& Store() { return *store_; }
  AtRestCipher& Cipher() { return *cipher_; }
  static std::unique_ptr<AtRestCipher> OpenCipher() {
    auto cipher = std::make_unique<AtRestCipher>(AtRestKeyFixture::Path());
    cipher->Open(true);
    return cipher;
  }
  // A new store over the same settings, not loaded yet, and a key that was not used yet.
  void Restart(bool enforce_policy = false) {
    store_.reset();
    cipher_ = OpenCipher();
    store_ = std::make_unique<UserMap>(clock_, sessions_, *cipher_);
    store_->EnforcePolicy(enforce_policy);
  }
  void RestartWithPolicy() { Restart(true); }

  void SetTime(uint32_t seconds) { clock_.SetTime(tevra::osa::TimeStruct(seconds, 0)); }

  static Group ToGroup(int group) { return static_cast<Group>(group); }

  static std::string Encrypt(const std::string& clear) { return *TestCipher().Encrypt(clear); }
  static std::string Decrypt(const std::string& stored) {
    const auto clear = TestCipher().Decrypt(stored);
    return clear.has_value() ? std::string(clear->View()) : "(nothing)";
  }

  // Writes an account as a store would, past the store.
  static void Put(const std::string& name, const MyUser& user) {
    SettingsFixture::PutJson("user." + name, user.ToJson());
  }
  static void Put(const std::string& name, const std::string& password, int group,
                  uint32_t password_time = kStart) {
    Put(name, Account(password, group, password_time));
  }
  static MyUser Account(const std::string& password, int group, uint32_t password_time = kStart) {
    MyUser user;
    if (!password.empty()) user.password = Encrypt(password);
    user.group = ToGroup(group);
    user.password_time = password_time;
    return user;
  }
  // The account as it stands in the settings.
  static MyUser Stored(const std::string& name) {
    const auto json = SettingsFixture::GetJson("user." + name);
    EXPECT_TRUE(json.has_value()) << name;
    return json.has_value() ? MyUser(*json) : MyUser();
  }
  static std::string StoredText(const std::string& name) {
    return SettingsFixture::GetJson("user." + name).value_or("(none)");
  }
  // Everything in the settings, for "nothing has changed".
  static Texts Snapshot() {
    Texts texts;
    for (const std::string& key : SettingsFixture::Keys()) {
      texts.push_back(key);
      if (key.starts_with("oldPasswords.")) {
        const Texts history = SettingsFixture::GetArray(key).value_or(Texts());
        texts.insert(texts.end(), history.begin(), history.end());
      } else {
        texts.push_back(SettingsFixture::GetJson(key).value_or("(none)"));
      }
    }
    return texts;
  }
  // The clear texts of an account's history.
  static Texts History(const std::string& name) {
    Texts texts;
    for (const std::string& stored :
         SettingsFixture::GetArray("oldPasswords." + name).value_or(Texts())) {
      texts.push_back(Decrypt(stored));
    }
    return texts;
  }

  static std::unique_ptr<UserMap> ChangeSet(const std::vector<Change>& changes) {
    auto set = std::make_unique<UserMap>(nullptr);
    for (const Change& change : changes) {
      set->Set(change.name, change.password, ToGroup(change.group));
    }
    return set;
  }
  int Merge(const std::vector<Change>& changes) { return Store().Merge(*ChangeSet(changes)); }
  int Delete(const std::vector<Change>& changes) { return Store().Delete(*ChangeSet(changes)); }

  int Logon(const std::string& name, const std::string& password) {
    Group group = ToGroup(77);
    return Store().ValidateUser(name, password, group);
  }

  // Opens a session for the account and returns its token.
  std::string Enroll(const std::string& name) {
    return sessions_.Enroll(new User(name, "", ToGroup(kViewer), {}));
  }
  bool Lives(const std::string& token) { return sessions_.GetUser(token) != nullptr; }

  Texts Notices() const { return log_.TextsOf("UserMap", CapturingLog::Level::kNotice); }
  Texts Errors() const { return log_.TextsOf("UserMap", CapturingLog::Level::kError); }

  SettingsFixture settings_;
  tevra::check::ExplicitTimeSource clock_;
  vigila::server::SessionManager sessions_;
  CapturingLog log_;

 private:
  // The test's own, so that it takes nothing of the store's.
  static AtRestCipher& TestCipher() {
    static const std::unique_ptr<AtRestCipher> cipher = OpenCipher();
    return *cipher;
  }

  std::unique_ptr<AtRestCipher> cipher_;
  std::unique_ptr<UserMap> store_;
};

}  // namespace support

#endif  // SUPPORT_USER_STORE_FIXTURE_H_
