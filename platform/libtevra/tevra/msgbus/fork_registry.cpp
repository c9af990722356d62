#include "tevra/msgbus/fork_registry.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <set>
#include <utility>
#include <vector>

namespace tevra::msgbus {
namespace {

std::atomic<uint64_t> generation{1};

struct Registry {
  std::mutex mutex;
  std::set<int> fds;                 // guarded by mutex
  std::vector<std::mutex*> mutexes;  // guarded by mutex

  static Registry& Get();
};

void BeforeFork() {
  Registry& registry = Registry::Get();
  registry.mutex.lock();
  for (std::mutex* mutex : registry.mutexes) mutex->lock();
}

void InParent() {
  Registry& registry = Registry::Get();
  for (std::mutex* mutex : registry.mutexes) mutex->unlock();
  registry.mutex.unlock();
}

void InChild() {
  Registry& registry = Registry::Get();
  generation.fetch_add(1);
  for (int fd : registry.fds) close(fd);
  registry.fds.clear();
  InParent();
}

// Never destroyed: static objects of the program may own buses.
Registry& Registry::Get() {
  static Registry* const registry = [] {
    auto* made = new Registry;
    pthread_atfork(BeforeFork, InParent, InChild);
    return made;
  }();
  return *registry;
}

}  // namespace

uint64_t ForkRegistry::Generation() {
  return generation.load(std::memory_order_relaxed);
}

void ForkRegistry::AddFd(int fd) {
  Registry& registry = Registry::Get();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  registry.fds.insert(fd);
}

void ForkRegistry::RemoveFd(int fd, const std::function<void()>& close_it) {
  Registry& registry = Registry::Get();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  registry.fds.erase(fd);
  close_it();
}

bool ForkRegistry::UseFd(int fd, const std::function<bool()>& work) {
  Registry& registry = Registry::Get();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  const bool still_open = work();
  if (!still_open) registry.fds.erase(fd);
  return still_open;
}

ForkRegistry::HeldOverFork::HeldOverFork(std::mutex& mutex) : mutex_(mutex) {
  Registry& registry = Registry::Get();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  registry.mutexes.push_back(&mutex_);
}

ForkRegistry::HeldOverFork::~HeldOverFork() {
  Registry& registry = Registry::Get();
  const std::lock_guard<std::mutex> lock(registry.mutex);
  std::erase(registry.mutexes, &mutex_);
}

BusFd::BusFd(int fd) : fd_(fd), generation_(ForkRegistry::Generation()) {
  if (fd_ >= 0) ForkRegistry::AddFd(fd_);
}

BusFd::BusFd(BusFd&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)), generation_(other.generation_) {}

BusFd& BusFd::operator=(BusFd&& other) noexcept {
  if (this == &other) return *this;
  Close();
  fd_ = std::exchange(other.fd_, -1);
  generation_ = other.generation_;
  return *this;
}

void BusFd::Close() {
  const int fd = Release();
  if (fd < 0 || generation_ != ForkRegistry::Generation()) return;
  ForkRegistry::RemoveFd(fd, [fd] { close(fd); });
}

int BusFd::Release() {
  return std::exchange(fd_, -1);
}

}  // namespace tevra::msgbus
