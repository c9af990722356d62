#ifndef TEVRA_OSA_PER_PROCESS_H_
#define TEVRA_OSA_PER_PROCESS_H_

#include <atomic>
#include <memory>

#include "tevra/osa/process_generation.h"

namespace tevra::osa {

// One T for each process, made when it is first asked for: a child of fork gets another, because a
// mutex in the parent's may be held by a thread that the child does not have. Never destroyed, so
// threads may use it while the process ends. For objects with static storage only.
template <typename T>
class PerProcess final {
 public:
  constexpr PerProcess() = default;
  PerProcess(const PerProcess&) = delete;
  PerProcess& operator=(const PerProcess&) = delete;

  T& Get() {
    Held* held = latest_.load(std::memory_order_acquire);
    if (held != nullptr && !held->process.IsInherited()) return held->value;
    auto made = std::make_unique<Held>();
    if (latest_.compare_exchange_strong(held, made.get())) return made.release()->value;
    return held->value;
  }

 private:
  struct Held {
    const ProcessGeneration process;
    T value;
  };

  std::atomic<Held*> latest_{nullptr};
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_PER_PROCESS_H_
