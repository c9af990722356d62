#include "tevra/msgbus/dispatch_thread.h"

#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>

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
constexpr std::chrono::seconds kLookInterval{1};

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
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    Wake();
  }
  thread_.join();
}

void DispatchThread::Start() {
  if (started_) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  if (started_) return;
  Open();
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

// An epoll set and a pair of sockets to end its waiting. With mutex_ held.
void DispatchThread::Open() {
  osa::Descriptor epoll(epoll_create1(EPOLL_CLOEXEC));
  int ends[2] = {-1, -1};
  const bool paired = socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0;
  OwnedSocket wake{osa::Descriptor(ends[0])};
  OwnedSocket woken{osa::Descriptor(ends[1])};
  epoll_event event{EPOLLIN, {.u64 = kWakeId}};
  if (!epoll || !paired || epoll_ctl(epoll.get(), EPOLL_CTL_ADD, woken.get(), &event) != 0) {
    throw osa::Exception("message bus: no event loop: %s", strerror(errno));
  }
  epoll_ = std::move(epoll);
  wake_ = std::move(wake);
  woken_ = std::move(woken);
}

void DispatchThread::Post(Task task) {
  Start();
  const std::lock_guard<std::mutex> lock(mutex_);
  posted_.push_back(std::move(task));
  if (posted_.size() == 1) Wake();
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
  watches_[id] = std::make_shared<WatchEntry>(WatchEntry{fd, events, std::move(ready)});
  holders_[fd] = id;
  return id;
}

// A watch whose descriptor was closed by someone else says so late; meanwhile the number may have
// become a newer watch's, in the set as well.
bool DispatchThread::Holds(Id watch, int fd) const {
  const auto holder = holders_.find(fd);
  return holder != holders_.end() && holder->second == watch;
}

bool DispatchThread::Register(int operation, Id watch, const WatchEntry& entry) {
  if (!Holds(watch, entry.fd)) return false;
  epoll_event event{entry.events, {.u64 = watch}};
  return epoll_ctl(epoll_.get(), operation, entry.fd, &event) == 0;
}

void DispatchThread::Modify(Id watch, uint32_t events) {
  const auto entry = watches_.find(watch);
  if (entry == watches_.end()) return;
  entry->second->events = events;
  Register(EPOLL_CTL_MOD, watch, *entry->second);
}

void DispatchThread::Remove(Id watch) {
  const auto entry = watches_.find(watch);
  if (entry == watches_.end()) return;
  Register(EPOLL_CTL_DEL, watch, *entry->second);
  if (Holds(watch, entry->second->fd)) holders_.erase(entry->second->fd);
  watches_.erase(entry);
}

DispatchThread::Id DispatchThread::After(std::chrono::milliseconds delay, Task task) {
  const Id id = ++last_id_;
  timers_.emplace(Clock::now() + delay, Timer{id, {}, std::make_shared<Task>(std::move(task))});
  return id;
}

DispatchThread::Id DispatchThread::Every(std::chrono::milliseconds interval, Task task) {
  const Id id = ++last_id_;
  timers_.emplace(Clock::now() + interval,
                  Timer{id, interval, std::make_shared<Task>(std::move(task))});
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
      Dispatch(id, what);
    }
    if ((count < 0 && errno != EINTR) || Clock::now() >= next_look_) LookAfterDescriptors();
    RunPosted();
    RunTimers();
    if (work_) Guarded([this, &more_waits] { more_waits = work_(); });
  }
}

void DispatchThread::Dispatch(Id id, uint32_t events) {
  if (id == kWakeId) {
    std::array<char, 64> wakes;
    if (woken_.IsIntact()) recv(woken_.get(), wakes.data(), wakes.size(), MSG_DONTWAIT);
    return;
  }
  const auto entry = watches_.find(id);
  if (entry == watches_.end()) return;
  const std::shared_ptr<WatchEntry> watch = entry->second;
  Guarded([&watch, events] { watch->ready(events); });
}

// A set knows a descriptor by its file as well as by its number, so it does not find one that is
// another file's by now.
void DispatchThread::LookAfterDescriptors() {
  next_look_ = Clock::now() + kLookInterval;
  epoll_event wake{EPOLLIN, {.u64 = kWakeId}};
  if (!woken_.IsIntact() || !wake_.IsIntact() ||
      epoll_ctl(epoll_.get(), EPOLL_CTL_MOD, woken_.get(), &wake) != 0) {
    return OpenAnew();
  }
  std::vector<Id> lost;
  for (const auto& [id, watch] : watches_) {
    if (!Register(EPOLL_CTL_MOD, id, *watch)) lost.push_back(id);
  }
  for (const Id id : lost) Dispatch(id, kLost);
}

void DispatchThread::OpenAnew() {
  // Deliberate: not closed. That no epoll set can be told from another is why it is given up.
  static_cast<void>(epoll_.Release());
  try {
    const std::lock_guard<std::mutex> lock(mutex_);
    Open();
  } catch (const osa::Exception& failure) {
    // Without a set there is nothing to wait with; the next round tries again.
    core::Logger::GetLogger("MsgBus")->Error("%s", failure.what());
    poll(nullptr, 0, static_cast<int>(std::chrono::milliseconds(kLookInterval).count()));
    return;
  }
  std::vector<Id> ids;
  for (const auto& [id, watch] : watches_) {
    Register(EPOLL_CTL_ADD, id, *watch);
    ids.push_back(id);
  }
  for (const Id id : ids) Dispatch(id, kLost);
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
    const Timer timer = std::move(timers_.begin()->second);
    timers_.erase(timers_.begin());
    // Before it runs: it may cancel itself.
    if (timer.interval.count() > 0) timers_.emplace(now + timer.interval, timer);
    Guarded(*timer.task);
  }
}

int DispatchThread::NextTimeoutMs() const {
  const Clock::time_point next =
      timers_.empty() ? next_look_ : std::min(next_look_, timers_.begin()->first);
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
  return static_cast<int>(std::clamp<int64_t>(left.count(), 0, INT_MAX));
}

// With mutex_ held. Where it cannot wake the thread, the next look at the descriptors does.
void DispatchThread::Wake() {
  if (wake_.IsIntact()) send(wake_.get(), "", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
}

}  // namespace tevra::msgbus
