#include "tevra/interfaces/i_security_provider.h"

#include "tevra/interfaces/listener_list.h"
#include "tevra/interfaces/revocation_page.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {

ISecurityProvider::ISecurityProvider()
    : listeners_(std::make_unique<ListenerList<bool>>()),
      session_end_listeners_(std::make_unique<ListenerList<std::string>>()),
      page_(RevocationPage::Unchanging()) {}
ISecurityProvider::~ISecurityProvider() = default;

bool ISecurityProvider::TestLdap(const std::string&, const std::string&, const std::string&, int,
                                 const std::string&, const std::string&, const std::string&,
                                 const std::string&, const std::string&, const std::string&,
                                 const std::string&) const {
  throw osa::Exception(osa::Exception::kUnimplemented);
}

bool ISecurityProvider::AllowHttpDigest() const {
  throw osa::Exception(osa::Exception::kUnimplemented);
}

void ISecurityProvider::AddChangeListener(std::unique_ptr<core::IVoidDelegate1<bool>> listener) {
  listeners_->Add(std::move(listener));
}

void ISecurityProvider::RemoveChangeListeners(void* target) {
  listeners_->Remove(target);
}

void ISecurityProvider::FireChangeListeners(bool value) {
  listeners_->Call(value);
}

void ISecurityProvider::AddSessionEndListener(
    std::unique_ptr<core::IVoidDelegate1<std::string>> listener) {
  session_end_listeners_->Add(std::move(listener));
}

void ISecurityProvider::RemoveSessionEndListeners(void* target) {
  session_end_listeners_->Remove(target);
}

void ISecurityProvider::FireSessionEndListeners(const std::string& token) {
  session_end_listeners_->Call(token);
}

std::shared_ptr<const RevocationPage> ISecurityProvider::GetRevocationPage() const {
  osa::MutexAutoLock lock(page_mutex_);
  return page_;
}

void ISecurityProvider::SetRevocationPage(std::shared_ptr<const RevocationPage> page) {
  osa::MutexAutoLock lock(page_mutex_);
  page_.swap(page);
}

void ISecurityProvider::NoteAnswerOf(uint64_t instance) const {
  osa::MutexAutoLock lock(page_mutex_);
  if (page_ && page_->Instance() != 0 && page_->Instance() != instance) {
    stray_answers_.fetch_add(1, std::memory_order_release);
  }
}

}  // namespace tevra::interfaces
