#ifndef VIGILA_GATEWAY_HTTP_REQUEST_DEADLINES_H_
#define VIGILA_GATEWAY_HTTP_REQUEST_DEADLINES_H_

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>

namespace vigila::gateway {

// Shuts connections down whose request does not arrive in time. The server's idle time-out is not
// enough: it starts anew with every byte, so a client that sends one now and then would hold its
// connection for ever.
//
// Any thread may call. The sockets are borrowed: each must be forgotten before it is closed.
class RequestDeadlines final {
 public:
  using Clock = std::chrono::steady_clock;

  RequestDeadlines();
  ~RequestDeadlines();
  RequestDeadlines(const RequestDeadlines&) = delete;
  RequestDeadlines& operator=(const RequestDeadlines&) = delete;

  // What is awaited on the socket must be there within the time; takes the place of what was
  // awaited before.
  void Await(int socket, Clock::duration time);
  void Forget(int socket);

 private:
  void Watch();
  // Shuts down what is late; the earliest of the other deadlines.
  Clock::time_point ShutDownLate(Clock::time_point now);

  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::unordered_map<int, Clock::time_point> deadlines_;
  Clock::time_point next_look_ = Clock::time_point::max();
  bool stopping_ = false;
  std::thread watcher_;  // runs from construction to destruction
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_HTTP_REQUEST_DEADLINES_H_
