#include "krand/core/handle_table.h"

#include <atomic>

namespace krand::core {

krand_core_ipc_handle HandleTable::Add() {
  static std::atomic<krand_core_ipc_handle> last{0};
  const krand_core_ipc_handle handle = ++last;
  const std::lock_guard<std::mutex> lock(mutex_);
  handles_.insert(handle);
  return handle;
}

bool HandleTable::Remove(krand_core_ipc_handle handle) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return handles_.erase(handle) == 1;
}

bool HandleTable::Contains(krand_core_ipc_handle handle) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return handles_.count(handle) == 1;
}

}  // namespace krand::core
