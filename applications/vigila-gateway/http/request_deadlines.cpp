#include "vigila-gateway/http/request_deadlines.h"

#include <sys/socket.h>

#include <algorithm>

namespace vigila::gateway {

RequestDeadlines::RequestDeadlines() : watcher_([this] { Watch(); }) {}

RequestDeadlines::~RequestDeadlines() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_one();
  watcher_.join();
}

void RequestDeadlines::Await(int socket, Clock::duration time) {
  const Clock::time_point deadline = Clock::now() + time;
  const std::lock_guard lock(mutex_);
  deadlines_[socket] = deadline;
  if (deadline >= next_look_) return;
  next_look_ = deadline;
  changed_.notify_one();
}

void RequestDeadlines::Forget(int socket) {
  const std::lock_guard lock(mutex_);
  deadlines_.erase(socket);
}

void RequestDeadlines::Watch() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    const Clock::time_point now = Clock::now();
    if (now >= next_look_) next_look_ = ShutDownLate(now);
    if (next_look_ == Clock::time_point::max()) {
      changed_.wait(lock);
    } else {
      changed_.wait_until(lock, next_look_);
    }
  }
}

RequestDeadlines::Clock::time_point RequestDeadlines::ShutDownLate(Clock::time_point now) {
  Clock::time_point earliest = Clock::time_point::max();
  for (auto entry = deadlines_.begin(); entry != deadlines_.end();) {
    if (entry->second > now) {
      earliest = std::min(earliest, entry->second);
      ++entry;
      continue;
    }
    // Its owner sees the end of the stream and closes it.
    shutdown(entry->first, SHUT_RDWR);
    entry = deadlines_.erase(entry);
  }
  return earliest;
}

}  // namespace vigila::gateway
