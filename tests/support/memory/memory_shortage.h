#ifndef SUPPORT_MEMORY_MEMORY_SHORTAGE_H_
#define SUPPORT_MEMORY_MEMORY_SHORTAGE_H_

#include "tevra/osa/sanitizer.h"

namespace support {

// While it lives, one allocation of its thread fails: the `nth` with new, counted from 1. One at a
// time on each thread.
class MemoryShortage final {
 public:
  // False under the thread sanitizer, which has a new of its own: nothing fails.
#if defined(TEVRA_THREAD_SANITIZER)
  static constexpr bool kWorks = false;
#else
  static constexpr bool kWorks = true;
#endif

  explicit MemoryShortage(int nth);
  ~MemoryShortage();
  MemoryShortage(const MemoryShortage&) = delete;
  MemoryShortage& operator=(const MemoryShortage&) = delete;

  // Whether the allocation has come and failed.
  bool WasMet() const;

  // For operator new: counts one allocation; true when it is to fail.
  static bool Strikes() noexcept;
};

}  // namespace support

#endif  // SUPPORT_MEMORY_MEMORY_SHORTAGE_H_
