#include <algorithm>
#include <sstream>
#include <utility>

#include "json/elements.h"
#include "json/reader.h"
#include "tevra/core/json_utils.h"
#include "tevra/osa/exception.h"
#include "vigila/contract/permissions.h"
#include "vigila/server/user_map_impl.h"
#include "vigila/server/user_settings.h"

namespace vigila::server {

namespace {

using tevra::core::SecretText;

const std::string& NobodyKey() {
  static const std::string key =
      UserSettings::Key(UserSettings::kUserPrefix, model::User::kAnonymousUsername);
  return key;
}

uint32_t ReadOptional(const json::Object& object, const char* name) {
  const json::UnknownElement* member = json::FindMember(object, name);
  return member == nullptr ? 0 : tevra::core::JsonUtils::AsUnsigned(*member);
}

}  // namespace

UserMap::Impl::MyUser::MyUser(const std::string& json) {
  json::Object object;
  std::istringstream stream(json);
  json::Reader::Read(object, stream);
  group = static_cast<Group>(tevra::core::JsonUtils::AsInt(json::Member(object, "Groups")));
  const json::UnknownElement* stored = json::FindMember(object, "Password");
  if (stored == nullptr) return;
  password = tevra::core::JsonUtils::AsString(*stored);
  password_time = ReadOptional(object, "PasswordTimeEpoch");
  bad_password_time = ReadOptional(object, "BadPasswordTimeEpoch");
  disabled_time = ReadOptional(object, "DisabledTimeEpoch");
  failed_attempts = ReadOptional(object, "NumFailedLoginAttempts");
}

// Contract: without a password the counters are left out as well; there is nothing to count.
std::string UserMap::Impl::MyUser::ToJson() const {
  std::string text = "{\"Groups\":" + std::to_string(static_cast<int32_t>(group));
  if (!password.empty()) {
    text += ",\"Password\":\"" + Escape(password) + "\"";  // base64 stays as it is
    text += ",\"PasswordTimeEpoch\":" + std::to_string(password_time);
    text += ",\"BadPasswordTimeEpoch\":" + std::to_string(bad_password_time);
    text += ",\"DisabledTimeEpoch\":" + std::to_string(disabled_time);
    text += ",\"NumFailedLoginAttempts\":" + std::to_string(failed_attempts);
  }
  return text + "}";
}

void UserMap::Impl::Init() {
  const tevra::osa::MutexAutoLock lock(mutex_);
  if (initialized_) return;
  CheckNobodyUser();
  PopulateMaps();
  MakeNobodyEntry();
  initialized_ = true;
}

void UserMap::Impl::CheckNobodyUser() const {
  if (UserSettings::Exists(NobodyKey())) return;
  MyUser nobody;
  nobody.group = ISecurityProvider::kNobody;
  UserSettings::WriteJson(NobodyKey(), nobody.ToJson());
}

// Everything is read and parsed before anything is written back or taken over, so that a load that
// throws can be tried again from the start.
void UserMap::Impl::PopulateMaps() {
  Users users = LoadUsers();
  PassphraseStore::Passphrases passphrases = PassphraseStore::Read();
  const bool dirty =
      std::any_of(users.begin(), users.end(), [](const auto& entry) { return entry.second.dirty; });
  if (dirty) {
    UserSettings::Transaction transaction;
    for (const auto& [name, user] : users) {
      if (!user.dirty) continue;
      UserSettings::WriteJson(UserSettings::Key(UserSettings::kUserPrefix, name), user.ToJson());
    }
    transaction.Commit();
  }
  AdoptUsers(std::move(users));
  passphrases_.Adopt(std::move(passphrases));
  FillPermissionTable();
}

void UserMap::Impl::AdoptUsers(Users users) {
  administrator_count_ =
      static_cast<uint32_t>(std::count_if(users.begin(), users.end(), [](const auto& entry) {
        return entry.second.group == ISecurityProvider::kAdministrators;
      }));
  // Contract: only in memory. The store keeps the group that was asked for, in case the policy is
  // switched off again.
  if (policy_enforced_ && administrator_count_ != 0) {
    users[User::kAnonymousUsername].group = ISecurityProvider::kNobody;
  }
  users_ = std::move(users);
}

UserMap::Impl::Users UserMap::Impl::LoadUsers() const {
  Users users;
  const uint32_t now = Now();
  for (const std::string& key : UserSettings::Keys(UserSettings::kUserPrefix)) {
    std::optional<MyUser> user = UserSettings::ReadRecord<MyUser>(key);
    if (!user.has_value()) continue;
    const std::string name = key.substr(UserSettings::kUserPrefix.size());
    if (name == User::kAnonymousUsername) {
      // Contract: only these two groups are taken away. Whoever edits the store by hand must not
      // make everyone an administrator, but may let everyone watch or operate.
      if (user->group == ISecurityProvider::kAdministrators ||
          user->group == ISecurityProvider::kManagers) {
        user->group = ISecurityProvider::kNobody;
        user->dirty = true;
      }
    } else if (policy_enforced_) {
      EnforceAtLoad(*user, now);
    }
    users[name] = *user;
  }
  return users;
}

void UserMap::Impl::EnforceAtLoad(MyUser& user, uint32_t now) const {
  // Contract: a restart lets a locked administrator in again, but one more wrong password locks
  // at once, and the time of the last failure is now: for the retry delay even the right one fails.
  if (user.group == ISecurityProvider::kAdministrators && user.disabled_time != 0) {
    user.disabled_time = 0;
    user.failed_attempts = maximum_failed_attempts_ - 1;
    user.bad_password_time = now;
    user.dirty = true;
  }
  const std::optional<SecretText> password = vault_.Decrypt(user.password);
  // Deliberate: no password, and one that cannot be decrypted, are too short as well. They match
  // nothing, and an expired account may be given a new password at any time.
  if (CheckLength(password.has_value() ? password->Size() : 0) != kOk) {
    user.password_time = kExpiredNow;
    user.dirty = true;
  }
}

void UserMap::Impl::FillPermissionTable() {
  for (const contract::Permission& permission : contract::kPermissions) {
    permission_table_.emplace(permission.identifier, permission.groups);
  }
}

void UserMap::Impl::MakeNobodyEntry() {
  const Group group = users_[User::kAnonymousUsername].group;
  nobody_ = std::make_unique<User>(User::kAnonymousUsername, "", group, GetPermissions(group));
}

}  // namespace vigila::server
