#ifndef SUPPORT_MEMORY_FREED_MEMORY_WATCH_H_
#define SUPPORT_MEMORY_FREED_MEMORY_WATCH_H_

#include <string_view>

#include "tevra/osa/sanitizer.h"

namespace support {

// Looks through every block that this program gives back with delete, on any thread, for a text
// that should have been overwritten before. One at a time. Texts that lie in their objects, which
// are short ones, are not seen.
class FreedMemoryWatch final {
 public:
  // False under the thread sanitizer, which has a new and a delete of its own: nothing is found.
#if defined(TEVRA_THREAD_SANITIZER)
  static constexpr bool kWorks = false;
#else
  static constexpr bool kWorks = true;
#endif

  // `secret` is copied; at most 64 bytes.
  explicit FreedMemoryWatch(std::string_view secret);
  ~FreedMemoryWatch();
  FreedMemoryWatch(const FreedMemoryWatch&) = delete;
  FreedMemoryWatch& operator=(const FreedMemoryWatch&) = delete;

  // Blocks so far that held all of the secret.
  int Found() const;
};

}  // namespace support

#endif  // SUPPORT_MEMORY_FREED_MEMORY_WATCH_H_
