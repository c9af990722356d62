#ifndef TEVRA_OSA_PROCESS_GENERATION_H_
#define TEVRA_OSA_PROCESS_GENERATION_H_

#include <atomic>
#include <cstdint>

namespace tevra::osa {

// Tells, at the price of one load, whether an object was made by this process or inherited through
// fork. A child has none of its parent's other threads, and a mutex that one of them held stays
// locked for ever: so an inherited object asks this before it takes any lock, and refuses.
class ProcessGeneration final {
 public:
  // Of the process that makes the object.
  ProcessGeneration() : value_(current_.load(std::memory_order_relaxed)) {}

  bool IsInherited() const { return value_ != current_.load(std::memory_order_relaxed); }

 private:
  // Grows by one in every child.
  static std::atomic<uint64_t> current_;
  static const int registered_;

  uint64_t value_;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_PROCESS_GENERATION_H_
