#include "vigila/server/user_map_impl.h"

#include "tevra/core/hexadecimal.h"
#include "tevra/osa/exception.h"
#include "vigila/server/at_rest_cipher.h"

namespace vigila::server {

using tevra::core::SecretText;

UserMap::Impl::Impl(const tevra::osa::ITimeSource* time_source, SessionManager* sessions)
    : time_source_(time_source),
      sessions_(sessions),
      logger_(tevra::core::Logger::GetLogger("UserMap")),
      unique_password_device_(time_source == nullptr),
      initialized_(time_source == nullptr) {}

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
    // Deliberate: administrators hold every permission, whatever its mask says.
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

bool UserMap::Impl::OpenKey() {
  try {
    if (!AtRestCipher::IsOpen()) AtRestCipher::Open(true);
    return true;
  } catch (const tevra::osa::Exception& error) {
    tevra::core::Logger::GetLogger("UserMap")->Error("%s", error.what());
    return false;
  }
}

bool UserMap::Impl::LacksKey(const MyUser& user) {
  return !user.password.empty() && !AtRestCipher::IsOpen();
}

std::optional<SecretText> UserMap::Impl::Decrypt(const std::string& stored) {
  if (stored.empty() || !OpenKey()) return std::nullopt;
  std::optional<SecretText> clear = AtRestCipher::Decrypt(stored);
  // An empty password would let everybody in who offers none.
  if (clear.has_value() && clear->Empty()) return std::nullopt;
  return clear;
}

std::string UserMap::Impl::Encrypt(std::string_view clear) {
  if (!AtRestCipher::IsOpen()) AtRestCipher::Open(HoldsEncryptedValues());
  std::optional<std::string> stored = AtRestCipher::Encrypt(clear);
  if (!stored.has_value()) throw tevra::osa::Exception("a secret could not be encrypted");
  return *std::move(stored);
}

bool UserMap::Impl::Matches(const std::string& stored, std::string_view clear) {
  if (stored.empty()) {
    BurnDecryption();
    return false;
  }
  const std::optional<SecretText> password = Decrypt(stored);
  return password.has_value() && tevra::core::EqualInConstantTime(password->View(), clear);
}

// Whoever measures the answer must not learn which names exist, nor while the key cannot be used.
void UserMap::Impl::BurnDecryption() {
  if (OpenKey()) AtRestCipher::BurnDecryption();
}

}  // namespace vigila::server
