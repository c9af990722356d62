#ifndef VIGILA_SERVER_BUS_TIMER_H_
#define VIGILA_SERVER_BUS_TIMER_H_

#include <chrono>
#include <cstdint>
#include <functional>
#include <utility>

#include "tevra/msgbus/i_msg_bus.h"

namespace vigila::server {

// Runs a task again and again on the thread that answers requests, for as long as it exists. The
// bus must outlive it; a bus without a thread never runs it. The task must not throw.
class BusTimer final {
 public:
  BusTimer(tevra::msgbus::IMsgBus& bus, std::chrono::milliseconds interval,
           std::function<void()> task)
      : bus_(bus), timer_(bus.StartTimer(interval, std::move(task))) {}
  ~BusTimer() {
    if (timer_ != 0) bus_.StopTimer(timer_);
  }
  BusTimer(const BusTimer&) = delete;
  BusTimer& operator=(const BusTimer&) = delete;

 private:
  tevra::msgbus::IMsgBus& bus_;
  const uint64_t timer_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_BUS_TIMER_H_
