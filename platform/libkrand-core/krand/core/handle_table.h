#ifndef KRAND_CORE_HANDLE_TABLE_H_
#define KRAND_CORE_HANDLE_TABLE_H_

#include <mutex>
#include <set>

#include "krand/core/krand_core.h"

namespace krand::core {

// The handles that one kind of call has given out and not taken back. No two tables of a process
// ever give out the same handle, and none gives out 0. Any thread may call.
class HandleTable final {
 public:
  krand_core_ipc_handle Add();
  // False when the handle is not in this table.
  bool Remove(krand_core_ipc_handle handle);
  bool Contains(krand_core_ipc_handle handle) const;

 private:
  mutable std::mutex mutex_;
  std::set<krand_core_ipc_handle> handles_;
};

}  // namespace krand::core

#endif  // KRAND_CORE_HANDLE_TABLE_H_
