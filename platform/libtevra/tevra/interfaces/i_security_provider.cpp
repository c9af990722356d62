#include "tevra/interfaces/i_security_provider.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <mutex>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/msgbus/fork_registry.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/mutex.h"

namespace tevra::interfaces {

// Two mutexes, because listeners run with one held and may do anything, while a fork has to wait
// for the other: a child then finds a whole list, and no list ever keeps a fork waiting for a
// listener.
class ISecurityProvider::Listeners final {
 public:
  using Listener = std::unique_ptr<core::IVoidDelegate1<bool>>;

  void Add(Listener listener) {
    osa::MutexAutoLock lock(Mutex());
    const std::lock_guard<std::mutex> change(change_mutex_);
    list_.push_back(std::move(listener));
  }

  void Remove(void* target) {
    std::vector<Listener> removed;  // destroyed when both mutexes are free again
    osa::MutexAutoLock lock(Mutex());
    const std::lock_guard<std::mutex> change(change_mutex_);
    const auto stays = [target](const Listener& listener) { return !listener->Matches(target); };
    const auto first = std::stable_partition(list_.begin(), list_.end(), stays);
    std::move(first, list_.end(), std::back_inserter(removed));
    list_.erase(first, list_.end());
  }

  void Call(bool value) {
    osa::MutexAutoLock lock(Mutex());
    for (const Listener& listener : list_) {
      try {
        listener->Call(value);
      } catch (const std::exception& e) {
        // The change has happened: neither its caller nor the other listeners may suffer.
        core::Logger::GetLogger("ISecurityProvider")
            ->Error("A change listener failed: %s", e.what());
      }
    }
  }

 private:
  // A child of fork gets another one: the inherited one may be held for ever, by a thread that ran
  // a listener and that the child does not have. For the same reason it is not destroyed.
  osa::Mutex& Mutex() {
    const std::lock_guard<std::mutex> change(change_mutex_);
    if (generation_ != msgbus::ForkRegistry::Generation()) {
      static_cast<void>(mutex_.release());
      mutex_ = std::make_unique<osa::Mutex>();
      generation_ = msgbus::ForkRegistry::Generation();
    }
    return *mutex_;
  }

  std::mutex change_mutex_;
  // Guarded by change_mutex_.
  uint64_t generation_ = msgbus::ForkRegistry::Generation();
  std::unique_ptr<osa::Mutex> mutex_ = std::make_unique<osa::Mutex>();
  // Changed with both mutexes held, read with either.
  std::vector<Listener> list_;

  const msgbus::ForkRegistry::HeldOverFork held_over_fork_{change_mutex_};
};

ISecurityProvider::ISecurityProvider() : listeners_(std::make_unique<Listeners>()) {}
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
  if (listener) listeners_->Add(std::move(listener));
}

void ISecurityProvider::RemoveChangeListeners(void* target) {
  listeners_->Remove(target);
}

void ISecurityProvider::FireChangeListeners(bool value) {
  listeners_->Call(value);
}

}  // namespace tevra::interfaces
