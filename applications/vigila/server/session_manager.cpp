#include "vigila/server/session_manager.h"

#include <utility>

#include "vigila/server/session_manager_impl.h"

namespace vigila::server {

SessionManager::SessionManager(tevra::osa::ITimeSource* time_source, int timeout_secs)
    : impl_(std::make_unique<SessionManagerImpl>(time_source, timeout_secs,
                                                 RandomDevice::Kernel())) {}

SessionManager::~SessionManager() = default;

std::string SessionManager::Enroll(model::User* user) {
  return impl_->Enroll(user);
}

bool SessionManager::FindReusable(const std::string& name, const std::string& digest,
                                  std::string& token) const {
  return impl_->FindReusable(name, digest, token);
}

bool SessionManager::Refresh(const std::string& token) {
  return impl_->Refresh(token);
}

model::User* SessionManager::GetUser(const std::string& token) {
  return impl_->GetUser(token);
}

bool SessionManager::Cancel(const std::string& token) {
  return impl_->Cancel(token);
}

void SessionManager::Invalidate(const std::string& name) {
  impl_->Invalidate(name);
}

void SessionManager::SetTimeout(int seconds) {
  impl_->SetTimeout(seconds);
}

void SessionManager::TellEnds(std::function<void(const std::string& token)> on_end) {
  impl_->TellEnds(std::move(on_end));
}

SessionPage SessionManager::List(const SessionQuery& query) {
  return impl_->List(query);
}

std::size_t SessionManager::Count(const std::string& name) {
  return impl_->Count(name);
}

bool SessionManager::CancelById(uint64_t id, const std::string& name) {
  return impl_->CancelById(id, name);
}

std::size_t SessionManager::InvalidateBut(const std::string& name, const std::string& spared) {
  return impl_->InvalidateBut(name, spared);
}

void SessionManager::NoteScheme(const std::string& token, LogonScheme scheme) {
  impl_->NoteScheme(token, scheme);
}

bool SessionManager::NoteSource(const std::string& token, const std::string& source) {
  return impl_->NoteSource(token, source);
}

}  // namespace vigila::server
