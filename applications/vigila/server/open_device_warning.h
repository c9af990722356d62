#ifndef VIGILA_SERVER_OPEN_DEVICE_WARNING_H_
#define VIGILA_SERVER_OPEN_DEVICE_WARNING_H_

#include <chrono>

#include "vigila/server/bus_timer.h"

namespace vigila::server {

// Warns in the log while the store has no administrator: when it is made, and every hour from then
// on, until the first one is added. The settings must be initialised, and the bus must outlive it.
class OpenDeviceWarning final {
 public:
  static constexpr std::chrono::hours kInterval{1};

  explicit OpenDeviceWarning(tevra::msgbus::IMsgBus& bus);

 private:
  const BusTimer timer_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_OPEN_DEVICE_WARNING_H_
