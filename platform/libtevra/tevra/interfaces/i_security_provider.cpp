#include "tevra/interfaces/i_security_provider.h"

#include "tevra/interfaces/listener_list.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {

ISecurityProvider::ISecurityProvider() : listeners_(std::make_unique<ListenerList<bool>>()) {}
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

}  // namespace tevra::interfaces
