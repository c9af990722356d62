#include "vigila/server/user_map_impl.h"

#include "tevra/core/hexadecimal.h"
#include "tevra/osa/exception.h"

namespace vigila::server {

UserMap::Impl::Impl(const tevra::osa::ITimeSource* time_source, SessionManager* sessions,
                    AtRestCipher* cipher)
    : time_source_(time_source),
      sessions_(sessions),
      logger_(tevra::core::Logger::GetLogger("UserMap")),
      unique_password_device_(time_source == nullptr),
      vault_(cipher),
      history_(vault_, old_passwords_kept_),
      initialized_(time_source == nullptr),
      passphrases_(vault_) {}

UserMap::Impl::~Impl() {
  nobody_.reset();
  permission_table_.clear();
  if (!IsChangeSet()) return;
  for (auto& [name, user] : users_) tevra::core::Wipe(user.password);
}

uint32_t UserMap::Impl::Now() const {
  if (IsChangeSet()) return 0;
  tevra::osa::TimeStruct now;
  time_source_->GetTime(now);
  return static_cast<uint32_t>(now.seconds + now.microseconds / 1000000);
}

std::string UserMap::Impl::Escape(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (static_cast<unsigned char>(c) < 0x20) {
      escaped += "\\u00";
      tevra::core::AppendHexadecimal(c, escaped);
      continue;
    }
    if (c == '"' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

UserMap::Impl::Group UserMap::Impl::GetGroup(const std::string& name) const {
  const auto entry = users_.find(name);
  return entry == users_.end() ? ISecurityProvider::kNoSuchUser : entry->second.group;
}

std::string UserMap::Impl::GetAllJson() const {
  std::string text = "{\"Users\":[";
  for (const auto& [name, user] : users_) {
    if (text.back() != '[') text += ',';
    text += "{\"Name\":\"" + Escape(name) +
            "\",\"Group\":" + std::to_string(static_cast<int32_t>(user.group)) + "}";
  }
  return text + "]}";
}

std::set<_uuid_t> UserMap::Impl::GetPermissions(Group group) const {
  return GetPermissions(permission_table_, group);
}

std::set<_uuid_t> UserMap::Impl::GetPermissions(const PermissionTable& table, Group group) {
  std::set<_uuid_t> permissions;
  for (const auto& [text, mask] : table) {
    // Contract: administrators hold every permission, whatever its mask says.
    if ((mask & group) == 0 && (group & ISecurityProvider::kAdministrators) == 0) continue;
    // Deliberate: a text that is no identifier grants the zero one, which no rule asks for.
    _uuid_t uuid = {};
    uuid_scan(text.c_str(), &uuid);
    permissions.insert(uuid);
  }
  return permissions;
}

UserMap::User::Rights UserMap::Impl::GetRights(Group group) {
  User::Rights& rights = rights_[group];
  if (!rights.permissions) {
    rights = {group, std::make_shared<const std::set<_uuid_t>>(GetPermissions(group))};
  }
  return rights;
}

std::string UserMap::Impl::AddPassphrase(const std::string& phrase, const std::string& alias) {
  if (IsChangeSet()) throw tevra::osa::Exception("a change set keeps no passphrases");
  const tevra::osa::MutexAutoLock lock(mutex_);
  return passphrases_.Add(phrase, alias);
}

std::string UserMap::Impl::GetPassphrase(const std::string& id) const {
  const tevra::osa::MutexAutoLock lock(mutex_);
  return passphrases_.Get(id);
}

std::string UserMap::Impl::GetPassphrases() const {
  const tevra::osa::MutexAutoLock lock(mutex_);
  return passphrases_.List();
}

bool UserMap::Impl::DeletePassphrase(const std::string& id) {
  const tevra::osa::MutexAutoLock lock(mutex_);
  return passphrases_.Delete(id);
}

}  // namespace vigila::server
