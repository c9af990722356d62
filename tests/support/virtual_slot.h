#ifndef SUPPORT_VIRTUAL_SLOT_H_
#define SUPPORT_VIRTUAL_SLOT_H_

#include <cstddef>
#include <cstring>

namespace support {

// The place of a virtual operation in its class's table, counted from 0. Where the C++ ABI lets a
// pointer to a virtual operation tell it: there it holds 1 + the offset in the table.
#if defined(__x86_64__)
#define SUPPORT_HAS_VIRTUAL_SLOTS 1
template <typename Method>
size_t VirtualSlot(Method method) {
  ptrdiff_t words[2];
  static_assert(sizeof(words) == sizeof(method));
  std::memcpy(words, &method, sizeof(words));
  return static_cast<size_t>(words[0] - 1) / sizeof(void*);
}
#endif

}  // namespace support

#endif  // SUPPORT_VIRTUAL_SLOT_H_
