#ifndef SUPPORT_EVENT_LOG_H_
#define SUPPORT_EVENT_LOG_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace support {

// Texts that other threads report, and a way to wait for them. Any thread.
class EventLog {
 public:
  void Add(std::string event) {
    const std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
    changed_.notify_all();
  }
  // Waits until there are `count` events; false when ten seconds were not enough.
  bool WaitFor(size_t count) const {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(10),
                             [this, count] { return events_.size() >= count; });
  }
  std::vector<std::string> Events() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  std::vector<std::string> events_;  // guarded by mutex_
};

}  // namespace support

#endif  // SUPPORT_EVENT_LOG_H_
