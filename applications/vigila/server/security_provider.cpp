#include "vigila/server/security_provider.h"

#include <memory>

#include "utilc/uuid.h"
#include "vigila/contract/result_tokens.h"
#include "vigila/server/device_information.h"
#include "vigila/server/rule_manager.h"
#include "vigila/server/server_env.h"
#include "vigila/server/session_manager.h"

namespace vigila::server {

using model::User;

SecurityProvider::SecurityProvider(ServerEnv* env)
    : env_(env),
      logger_(tevra::core::Logger::GetLogger("SecurityProvider")),
      users_(env),
      nonces_(env->GetTimeSource()),
      unique_passwords_(true) {
  unique_passwords_ =
      krand::vigila::DeviceInformation(env_->GetPlatformContext()).isSB327supported();
  users_.SetUniquePasswordDevice(unique_passwords_);
}

SecurityProvider::~SecurityProvider() = default;

void SecurityProvider::EnforcePasswordPolicy(bool enforce) {
  users_.EnforcePolicy(enforce);
}

std::string SecurityProvider::Enroll(const std::string& name, const std::string& digest,
                                     Group group, bool reusable) const {
  auto record = std::make_unique<User>(name, digest, users_.GetRights(group));
  record->SetReusable(reusable);
  std::string token = env_->GetSessionManager().Enroll(record.get());
  const bool taken = !token.empty() && token != contract::kNoToken;
  if (taken) static_cast<void>(record.release());
  // Contract: the store has logged the same words for a password logon, under its own name; the
  // digest schemes are logged here only. Both lines stand whatever the token is.
  logger_->Notice("Local user '%s' has successfully logged on.", name.c_str());
  logger_->Debug("sending token %s to client", token.c_str());
  return token;
}

User* SecurityProvider::GetUser(const std::string& token, bool or_nobody) const {
  User* user = nullptr;
  // Contract: until there is an administrator no one is logged on, whatever the token says; the
  // device is open to be set up and acts for the anonymous account.
  if (!users_.NoAdministratorsYet() && token != contract::kNoToken) {
    user = env_->GetSessionManager().GetUser(token);
  }
  if (user == nullptr && or_nobody) return users_.GetNobody();
  return user;
}

void SecurityProvider::Invalidate(const std::string& name) {
  env_->GetSessionManager().Invalidate(name);
}

bool SecurityProvider::IsAuthenticated(const std::string& token) {
  // Contract: having no session counts as authenticated, as the anonymous account.
  if (users_.NoAdministratorsYet() || token == contract::kNoToken) return true;
  return env_->GetSessionManager().Refresh(token);
}

bool SecurityProvider::IsProtected(const std::string& path) const {
  return env_->GetRuleManager().IsProtected(path);
}

std::vector<std::string> SecurityProvider::GetAllowedPaths(const std::string& token) const {
  const User* user = GetUser(token, true);
  if (user == nullptr) return {};
  return env_->GetRuleManager().GetAllowedPaths(user);
}

std::vector<std::string> SecurityProvider::GetAllowedPermissions(const std::string& token) const {
  std::set<_uuid_t> permissions;
  if (!unique_passwords_ && users_.NoAdministratorsYet()) {
    // Contract: whoever sets the device up first has an administrator's permissions, unless it
    // came with a password of its own.
    permissions = users_.GetPermissions(kAdministrators);
  } else if (const User* user = GetUser(token, true)) {
    permissions = user->Permissions();
  }
  std::vector<std::string> texts;
  texts.reserve(permissions.size());
  for (const _uuid_t& permission : permissions) {
    char text[37];
    uuid_sprint(&permission, text);
    texts.emplace_back(text);
  }
  return texts;
}

std::string SecurityProvider::GetCredentials(const std::string& token) const {
  const User* user = GetUser(token, false);
  return user == nullptr ? std::string() : user->Name();
}

bool SecurityProvider::Authorize(const std::string& token, const std::string& path) {
  bool granted = false;
  // Contract: an unknown token is judged as the anonymous account, not refused.
  if (const User* user = GetUser(token, true)) {
    granted = env_->GetRuleManager().HasAccess(path, user);
    // Deliberate: the anonymous account has no session, hence nothing to refresh.
    if (granted && user != users_.GetNobody()) {
      env_->GetSessionManager().Refresh(token);
      logger_->Debug("refreshing token %s via authorize", token.c_str());
    }
  }
  logger_->Debug("authorize %s %s -> %s", token.c_str(), path.c_str(), granted ? "true" : "false");
  return granted;
}

bool SecurityProvider::Logout(const std::string& token) {
  const User* user = GetUser(token, false);
  // Contract: logging out without a session succeeds; the caller has what it wants.
  if (user == nullptr) return true;
  const std::string name = user->Name();  // cancelling destroys the record
  const bool cancelled = env_->GetSessionManager().Cancel(token);
  if (cancelled) {
    logger_->Notice("Local user '%s' has successfully logged off.", name.c_str());
  }
  return cancelled;
}

int SecurityProvider::GetExpiration(const std::string& name, std::string& expires) const {
  return users_.AccountExpires(name, expires);
}

std::string SecurityProvider::GetUsers() const {
  return users_.GetAllJson();
}

int SecurityProvider::ValidatePassword(const std::string& name, const std::string& current,
                                       const std::string& proposed) const {
  return users_.ValidatePassword(name, current, proposed);
}

std::string SecurityProvider::AddPassphrase(const std::string& phrase, const std::string& alias) {
  return users_.AddPassphrase(phrase, alias);
}

std::string SecurityProvider::GetPassphrases() const {
  return users_.GetPassphrases();
}

std::string SecurityProvider::GetPassphrase(const std::string& id) const {
  return users_.GetPassphrase(id);
}

bool SecurityProvider::DeletePassphrase(const std::string& id) {
  return users_.DeletePassphrase(id);
}

}  // namespace vigila::server
