#ifndef TEVRA_MSGBUS_DEADLINE_H_
#define TEVRA_MSGBUS_DEADLINE_H_

#include <chrono>

namespace tevra::msgbus {

// When a call gives up.
using Deadline = std::chrono::steady_clock::time_point;

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DEADLINE_H_
