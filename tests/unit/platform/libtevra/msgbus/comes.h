#ifndef MSGBUS_COMES_H_
#define MSGBUS_COMES_H_

#include <chrono>
#include <functional>
#include <thread>

namespace tevra::msgbus {

// Looks again and again, for as long as no test should have to wait.
inline bool Comes(const std::function<bool()>& condition) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::yield();
  }
  return true;
}

}  // namespace tevra::msgbus

#endif  // MSGBUS_COMES_H_
