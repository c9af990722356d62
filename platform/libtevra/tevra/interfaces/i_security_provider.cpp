#include "tevra/interfaces/i_security_provider.h"

#include <exception>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"

namespace tevra::interfaces {

ISecurityProvider::ISecurityProvider() = default;
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
  if (!listener) return;
  osa::MutexAutoLock lock(listener_mutex_);
  listeners_.push_back(std::move(listener));
}

void ISecurityProvider::RemoveChangeListeners(void* target) {
  osa::MutexAutoLock lock(listener_mutex_);
  std::erase_if(listeners_, [target](const auto& listener) { return listener->Matches(target); });
}

void ISecurityProvider::FireChangeListeners(bool value) {
  osa::MutexAutoLock lock(listener_mutex_);
  for (const auto& listener : listeners_) {
    try {
      listener->Call(value);
    } catch (const std::exception& e) {
      // The change has happened: neither its caller nor the other listeners may suffer.
      core::Logger::GetLogger("ISecurityProvider")->Error("A change listener failed: %s", e.what());
    }
  }
}

}  // namespace tevra::interfaces
