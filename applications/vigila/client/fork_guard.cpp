#include "vigila/client/fork_guard.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

namespace vigila::client {

using tevra::osa::Mutex;

namespace {

std::atomic<uint64_t> generation{0};

struct Registry {
  std::mutex mutex;
  std::vector<Mutex*> guarded;
};

// Never destroyed: a process may fork while it ends.
Registry& TheRegistry() {
  static Registry& registry = *new Registry;
  return registry;
}

void LockAll() TEVRA_NO_THREAD_SAFETY_ANALYSIS {
  Registry& registry = TheRegistry();
  registry.mutex.lock();
  for (Mutex* const mutex : registry.guarded) mutex->Lock();
}

void UnlockAll() TEVRA_NO_THREAD_SAFETY_ANALYSIS {
  Registry& registry = TheRegistry();
  for (Mutex* const mutex : registry.guarded) mutex->Unlock();
  registry.mutex.unlock();
}

void UnlockAllInChild() {
  generation.fetch_add(1, std::memory_order_relaxed);
  UnlockAll();
}

}  // namespace

ForkGuard::ForkGuard(Mutex& mutex) : mutex_(mutex) {
  static std::once_flag once;
  std::call_once(once, [] { pthread_atfork(LockAll, UnlockAll, UnlockAllInChild); });
  Registry& registry = TheRegistry();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  registry.guarded.push_back(&mutex_);
}

ForkGuard::~ForkGuard() {
  Registry& registry = TheRegistry();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  std::erase(registry.guarded, &mutex_);
}

uint64_t ForkGuard::Generation() {
  return generation.load(std::memory_order_relaxed);
}

}  // namespace vigila::client
