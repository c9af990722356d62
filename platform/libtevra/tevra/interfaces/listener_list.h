#ifndef TEVRA_INTERFACES_LISTENER_LIST_H_
#define TEVRA_INTERFACES_LISTENER_LIST_H_

#include <cxxabi.h>

#include <algorithm>
#include <atomic>
#include <exception>
#include <iterator>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "tevra/core/delegate.h"
#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/mutex.h"
#include "tevra/osa/process_generation.h"
#include "tevra/osa/sanitizer.h"

namespace tevra::interfaces {

// Who is to be told of something. Owns the listeners. Any thread; listeners run with the list's
// mutex held, so one that comes back to the list gets an exception. In a child of fork the list of
// the parent tells no one, removes nothing and takes no listener: another thread may have held it.
template <typename Value>
class ListenerList final {
 public:
  using Listener = std::unique_ptr<core::IVoidDelegate1<Value>>;

  ListenerList() = default;
  // A child cannot know what state the listeners are in.
  ~ListenerList() {
    if (process_.IsInherited()) static_cast<void>(new auto(std::move(list_)));
  }
  ListenerList(const ListenerList&) = delete;
  ListenerList& operator=(const ListenerList&) = delete;

  void Add(Listener listener) {
    if (!listener) return;
    if (process_.IsInherited()) throw osa::Exception("the listeners are another process's");
    osa::MutexAutoLock lock(MutexForNoListener());
    list_.push_back(std::move(listener));
  }

  // Removes and destroys every listener whose target is `target`.
  void Remove(void* target) {
    if (process_.IsInherited()) return;
    std::vector<Listener> removed;  // destroyed when the mutex is free again
    osa::MutexAutoLock lock(MutexForNoListener());
    const auto stays = [target](const Listener& listener) { return !listener->Matches(target); };
    const auto first = std::stable_partition(list_.begin(), list_.end(), stays);
    std::move(first, list_.end(), std::back_inserter(removed));
    list_.erase(first, list_.end());
  }

  // Whatever a listener throws is logged and keeps no other from hearing.
  void Call(const Value& value) {
    if (process_.IsInherited()) return;
    osa::MutexAutoLock lock(MutexForNoListener());
    const Calling calling(*this);
    for (const Listener& listener : list_) Call(*listener, value);
  }

 private:
  struct Calling {
    explicit Calling(ListenerList& list) : list_(list) {
      list_.caller_ = std::this_thread::get_id();
    }
    ~Calling() { list_.caller_ = std::thread::id(); }
    ListenerList& list_;
  };

  TEVRA_PASSES_CANCELLATION
  static void Call(core::IVoidDelegate1<Value>& listener, const Value& value) {
    // The change has happened: neither its caller nor the other listeners may suffer.
    try {
      listener.Call(value);
    } catch (const abi::__forced_unwind&) {
      throw;  // the thread is cancelled, which no handler may stop
    } catch (const std::exception& failure) {
      Log()->Error("A change listener failed: %s", failure.what());
    } catch (...) {
      Log()->Error("A change listener failed: unknown exception");
    }
  }

  static core::Logger* Log() { return core::Logger::GetLogger("ISecurityProvider"); }

  osa::Mutex& MutexForNoListener() {
    if (caller_ == std::this_thread::get_id()) {
      throw osa::Exception("a listener may not add, remove or call listeners");
    }
    return mutex_;
  }

  const osa::ProcessGeneration process_;
  osa::Mutex mutex_;
  std::atomic<std::thread::id> caller_{};  // the thread that runs the listeners
  std::vector<Listener> list_;             // guarded by mutex_
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_LISTENER_LIST_H_
