#include "vigila/server/user_map.h"

#include "tevra/osa/exception.h"
#include "vigila/server/server_env.h"
#include "vigila/server/user_map_impl.h"

namespace vigila::server {

UserMap::UserMap(ServerEnv* env)
    : impl_(std::make_unique<Impl>(env == nullptr ? nullptr : env->GetTimeSource(),
                                   env == nullptr ? nullptr : &env->GetSessionManager(),
                                   env == nullptr ? nullptr : &env->GetAtRestCipher())) {}

UserMap::UserMap(const tevra::osa::ITimeSource& time_source, SessionManager& sessions,
                 AtRestCipher& cipher)
    : impl_(std::make_unique<Impl>(&time_source, &sessions, &cipher)) {}

UserMap::~UserMap() = default;

void UserMap::EnforcePolicy(bool enforce) {
  impl_->EnforcePolicy(enforce);
}

void UserMap::SetUniquePasswordDevice(bool unique) {
  impl_->SetUniquePasswordDevice(unique);
}

bool UserMap::IsUniquePasswordDevice() const {
  return impl_->IsUniquePasswordDevice();
}

unsigned UserMap::Size() const {
  impl_->Init();
  return impl_->Size();
}

bool UserMap::Exists(const std::string& name) const {
  impl_->Init();
  return impl_->Exists(name);
}

UserMap::ISecurityProvider::Group UserMap::GetGroup(const std::string& name) const {
  impl_->Init();
  return impl_->GetGroup(name);
}

std::string UserMap::GetAllJson() const {
  impl_->Init();
  return impl_->GetAllJson();
}

std::set<_uuid_t> UserMap::GetPermissions(ISecurityProvider::Group group) const {
  impl_->Init();
  return impl_->GetPermissions(group);
}

model::User::Rights UserMap::GetRights(ISecurityProvider::Group group) const {
  impl_->Init();
  return impl_->GetRights(group);
}

std::vector<AccountState> UserMap::ListStates(const std::string& after, size_t limit) const {
  impl_->Init();
  return impl_->ListStates(after, limit);
}

std::optional<AccountState> UserMap::GetState(const std::string& name) const {
  impl_->Init();
  return impl_->GetState(name);
}

int UserMap::Unlock(const std::string& name, bool& was_locked) {
  impl_->Init();
  return impl_->Unlock(name, was_locked);
}

void UserMap::NoteLogon(const std::string& name) {
  impl_->Init();
  impl_->NoteLogon(name);
}

int UserMap::ValidateUser(const std::string& name, const std::string& password,
                          ISecurityProvider::Group& group) const {
  impl_->Init();
  group = ISecurityProvider::kNoGroup;
  return impl_->ValidateUser(name, password, group);
}

int UserMap::ValidatePassword(const std::string& name, const std::string& current,
                              const std::string& proposed) const {
  impl_->Init();
  return impl_->ValidatePassword(name, current, proposed);
}

bool UserMap::IsAccountDisabled(const std::string& name) const {
  impl_->Init();
  return impl_->IsAccountDisabled(name);
}

bool UserMap::IsAccountExpired(const std::string& name) const {
  impl_->Init();
  return impl_->IsAccountExpired(name);
}

int UserMap::AccountExpires(const std::string& name, std::string& when) const {
  impl_->Init();
  return impl_->Expires(name, when);
}

int UserMap::GetHA1(const std::string& name, std::string& ha1) const {
  impl_->Init();
  return impl_->GetHA1(name, ha1);
}

int UserMap::ValidateWsseDigest(const std::string& name, const std::string& digest,
                                const std::string& nonce, const std::string& created,
                                std::string& ha1) const {
  impl_->Init();
  return impl_->ValidateWsseDigest(name, digest, nonce, created, ha1);
}

void UserMap::Set(const std::string& name, const std::string& password,
                  ISecurityProvider::Group group) {
  impl_->Set(name, password, group);
}

int UserMap::Merge(const UserMap& change_set) {
  if (&change_set == this) throw tevra::osa::Exception("Can't merge UserMap into itself");
  impl_->Init();
  return impl_->Merge(*change_set.impl_);
}

int UserMap::Delete(const UserMap& change_set) {
  // Contract: the same words as Merge's; callers know this misuse by its text.
  if (&change_set == this) throw tevra::osa::Exception("Can't merge UserMap into itself");
  impl_->Init();
  return impl_->Delete(*change_set.impl_);
}

void UserMap::Restore(const StoreImage& image,
                      const std::map<std::string, std::string>& rule_settings) {
  impl_->Init();
  impl_->Restore(image, rule_settings);
}

UserMap::User* UserMap::GetNobody() const {
  impl_->Init();
  return impl_->GetNobody();
}

bool UserMap::NoAdministratorsYet() const {
  impl_->Init();
  return impl_->NoAdministratorsYet();
}

std::string UserMap::AddPassphrase(const std::string& phrase, const std::string& alias) {
  impl_->Init();
  return impl_->AddPassphrase(phrase, alias);
}

std::string UserMap::GetPassphrase(const std::string& id) const {
  impl_->Init();
  return impl_->GetPassphrase(id);
}

std::string UserMap::GetPassphrases() const {
  impl_->Init();
  return impl_->GetPassphrases();
}

bool UserMap::DeletePassphrase(const std::string& id) {
  impl_->Init();
  return impl_->DeletePassphrase(id);
}

}  // namespace vigila::server
