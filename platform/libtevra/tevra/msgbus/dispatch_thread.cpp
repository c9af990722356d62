#include "tevra/msgbus/dispatch_thread.h"

#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <exception>
#include <future>
#include <utility>

#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr DispatchThread::Id kWakeId = 0;

void Guarded(const DispatchThread::Task& task) {
  try {
    task();
  } catch (const std::exception& failure) {
    core::Logger::GetLogger("MsgBus")->Error("dispatch: %s", failure.what());
  } catch (...) {
    core::Logger::GetLogger("MsgBus")->Error("dispatch: unknown exception");
  }
}

}  // namespace

void DispatchThread::Stop() {
  if (!started_ || !thread_.joinable()) return;
  quit_ = true;
  Wake();
  thread_.join();
}

void DispatchThread::Start() {
  if (started_) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (started_) return;
  osa::Descriptor epoll(epoll_create1(EPOLL_CLOEXEC));
  osa::Descriptor wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  epoll_event event{EPOLLIN, {.u64 = kWakeId}};
  if (!epoll || !wake || epoll_ctl(epoll.get(), EPOLL_CTL_ADD, wake.get(), &event) != 0) {
    throw osa::Exception("message bus: no event loop: %s", strerror(errno));
  }
  epoll_ = std::move(epoll);
  wake_ = std::move(wake);
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    thread_ = std::thread([this] { Loop(); });
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
  started_ = true;
}

void DispatchThread::Post(Task task) {
  Start();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    posted_.push_back(std::move(task));
    if (posted_.size() > 1) return;
  }
  Wake();
}

void DispatchThread::Invoke(const Task& task) {
  if (IsCurrent()) return task();
  std::promise<void> done;
  std::exception_ptr failure;
  Post([&task, &done, &failure] {
    try {
      task();
    } catch (...) {
      failure = std::current_exception();
    }
    // Not before the end of the catch block: the exception is the waiter's alone from here on.
    done.set_value();
  });
  done.get_future().get();
  if (failure) std::rethrow_exception(failure);
}

bool DispatchThread::IsCurrent() const {
  return thread_id_.load(std::memory_order_relaxed) == std::this_thread::get_id();
}

DispatchThread::Id DispatchThread::Watch(int fd, uint32_t events, Ready ready) {
  const Id id = ++last_id_;
  epoll_event event{events, {.u64 = id}};
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0) {
    throw osa::Exception("message bus: epoll: %s", strerror(errno));
  }
  watches_[id] = std::make_shared<WatchEntry>(WatchEntry{fd, std::move(ready)});
  return id;
}

void DispatchThread::Modify(Id watch, uint32_t events) {
  const auto entry = watches_.find(watch);
  if (entry == watches_.end()) return;
  epoll_event event{events, {.u64 = watch}};
  epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, entry->second->fd, &event);
}

void DispatchThread::Remove(Id watch) {
  const auto entry = watches_.find(watch);
  if (entry == watches_.end()) return;
  epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, entry->second->fd, nullptr);
  watches_.erase(entry);
}

DispatchThread::Id DispatchThread::After(std::chrono::milliseconds delay, Task task) {
  const Id id = ++last_id_;
  timers_.emplace(Clock::now() + delay, Timer{id, std::move(task)});
  return id;
}

void DispatchThread::Cancel(Id timer) {
  const auto entry = std::find_if(timers_.begin(), timers_.end(),
                                  [timer](const auto& item) { return item.second.id == timer; });
  if (entry != timers_.end()) timers_.erase(entry);
}

void DispatchThread::Loop() {
  thread_id_ = std::this_thread::get_id();
  std::array<epoll_event, 64> events;
  bool more_waits = false;
  // A handler that forks returns here in the child as well.
  while (!quit_ && !process_.IsInherited()) {
    const int count = epoll_wait(epoll_.get(), events.data(), static_cast<int>(events.size()),
                                 more_waits ? 0 : NextTimeoutMs());
    for (int i = 0; i < count; ++i) {
      // Copies, for the kernel packs its structure and leaves the members unaligned.
      const Id id = events[static_cast<size_t>(i)].data.u64;
      const uint32_t what = events[static_cast<size_t>(i)].events;
      if (id == kWakeId) {
        uint64_t wakes = 0;
        [[maybe_unused]] const ssize_t ignored = read(wake_.get(), &wakes, sizeof wakes);
        continue;
      }
      const auto entry = watches_.find(id);
      if (entry == watches_.end()) continue;
      const std::shared_ptr<WatchEntry> watch = entry->second;
      Guarded([&watch, what] { watch->ready(what); });
    }
    RunPosted();
    RunTimers();
    if (work_) Guarded([this, &more_waits] { more_waits = work_(); });
  }
}

void DispatchThread::RunPosted() {
  std::vector<Task> tasks;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (posted_.empty()) return;
    tasks.swap(posted_);
  }
  for (const Task& task : tasks) Guarded(task);
}

void DispatchThread::RunTimers() {
  if (timers_.empty()) return;
  const Clock::time_point now = Clock::now();
  while (!timers_.empty() && timers_.begin()->first <= now) {
    const Task task = std::move(timers_.begin()->second.task);
    timers_.erase(timers_.begin());
    Guarded(task);
  }
}

int DispatchThread::NextTimeoutMs() const {
  if (timers_.empty()) return -1;
  const auto left =
      std::chrono::ceil<std::chrono::milliseconds>(timers_.begin()->first - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

void DispatchThread::Wake() {
  const uint64_t one = 1;
  [[maybe_unused]] const ssize_t ignored = write(wake_.get(), &one, sizeof one);
}

}  // namespace tevra::msgbus
