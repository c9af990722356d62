#ifndef TEVRA_MSGBUS_DISPATCH_THREAD_H_
#define TEVRA_MSGBUS_DISPATCH_THREAD_H_

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "tevra/msgbus/owned_socket.h"
#include "tevra/osa/descriptor.h"
#include "tevra/osa/process_generation.h"

namespace tevra::msgbus {

// The one thread on which buses read their connections and run their handlers. Costs nothing until
// it is started. All signals are blocked on it: stop signals belong to the program's main thread.
//
// The program may close descriptors that it did not open, as daemons do that begin with
// closefrom(). So the thread looks once a second whether its numbers are still its own, makes what
// it needs anew, and tells those who watch.
class DispatchThread final {
 public:
  using Task = std::function<void()>;
  using Ready = std::function<void(uint32_t events)>;
  using Id = uint64_t;

  // What a watch reports when its descriptor was closed by someone else: the number may be another
  // file's by now, which must not be read, written or closed.
  static constexpr uint32_t kLost = 1u << 31;

  DispatchThread() = default;
  ~DispatchThread() { Stop(); }
  DispatchThread(const DispatchThread&) = delete;
  DispatchThread& operator=(const DispatchThread&) = delete;

  // Work that waits for its turn, done between two looks for events; it answers whether more
  // waits. To be set before the thread starts.
  void AfterEvents(std::function<bool()> work) { work_ = std::move(work); }

  // Any thread. Start does nothing the second time; the others start the thread.
  void Start();
  void Post(Task task);
  void Invoke(const Task& task);  // waits for the task and rethrows what it threw
  bool IsStarted() const { return started_; }
  bool IsCurrent() const;
  // Joins the thread; tasks not yet begun are dropped. Nothing may be posted any more.
  void Stop();

  // On the thread only. A watch reports epoll events until it is removed; an id is never used
  // again.
  Id Watch(int fd, uint32_t events, Ready ready);
  void Modify(Id watch, uint32_t events);
  void Remove(Id watch);
  Id After(std::chrono::milliseconds delay, Task task);
  Id Every(std::chrono::milliseconds interval, Task task);
  void Cancel(Id timer);

 private:
  using Clock = std::chrono::steady_clock;
  struct WatchEntry {
    int fd;
    uint32_t events;
    Ready ready;
  };
  struct Timer {
    Id id;
    std::chrono::milliseconds interval;  // 0: once
    std::shared_ptr<const Task> task;
  };

  void Loop();
  void Open();
  void Dispatch(Id id, uint32_t events);
  bool Holds(Id watch, int fd) const;
  bool Register(int operation, Id watch, const WatchEntry& entry);
  void LookAfterDescriptors();
  void OpenAnew();
  void RunPosted();
  void RunTimers();
  int NextTimeoutMs() const;
  void Wake();

  const osa::ProcessGeneration process_;
  std::function<bool()> work_;
  std::atomic<bool> started_{false};
  std::atomic<bool> quit_{false};
  std::thread thread_;
  std::atomic<std::thread::id> thread_id_{};

  std::mutex mutex_;
  // Guarded by mutex_.
  std::vector<Task> posted_;
  OwnedSocket wake_;

  // Used on the thread only.
  osa::Descriptor epoll_;
  OwnedSocket woken_;  // the other end of wake_
  Clock::time_point next_look_{};
  Id last_id_ = 0;
  std::unordered_map<Id, std::shared_ptr<WatchEntry>> watches_;
  std::unordered_map<int, Id> holders_;  // of a number, the watch that had it last
  std::multimap<Clock::time_point, Timer> timers_;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DISPATCH_THREAD_H_
