#include "krand/core/krand_core.h"

#include <cstdint>
#include <cstdlib>
#include <mutex>

#include "krand/core/handle_table.h"

namespace {

struct Core {
  std::mutex mutex;
  // Guarded by mutex.
  unsigned inits = 0;
  krand_core_trace_hook hook = nullptr;
  void* hook_data = nullptr;
};

Core& TheCore() {
  static Core* const core = new Core;
  return *core;
}

krand::core::HandleTable& Initiators() {
  static krand::core::HandleTable* const table = new krand::core::HandleTable;
  return *table;
}

}  // namespace

krand_core_status krand_core_init(void) {
  krand_core_trace("krand_core_init");
  const std::lock_guard<std::mutex> lock(TheCore().mutex);
  ++TheCore().inits;
  return KRAND_CORE_OK;
}

krand_core_status krand_core_deinit(void) {
  krand_core_trace("krand_core_deinit");
  const std::lock_guard<std::mutex> lock(TheCore().mutex);
  if (TheCore().inits == 0) {
    return KRAND_CORE_NOT_INITIALIZED;
  }
  --TheCore().inits;
  return KRAND_CORE_OK;
}

void krand_core_set_trace_hook(krand_core_trace_hook hook, void* data) {
  const std::lock_guard<std::mutex> lock(TheCore().mutex);
  TheCore().hook = hook;
  TheCore().hook_data = data;
}

void krand_core_trace(const char* call) {
  krand_core_trace_hook hook = nullptr;
  void* data = nullptr;
  {
    const std::lock_guard<std::mutex> lock(TheCore().mutex);
    hook = TheCore().hook;
    data = TheCore().hook_data;
  }
  if (hook != nullptr) {
    hook(call, data);
  }
}

krand_core_status krand_core_ipc_initiator_init(void* context, int flags,
                                                krand_core_ipc_handle* handle) {
  static_cast<void>(context);
  krand_core_trace("krand_core_ipc_initiator_init");
  if (flags != 0 || handle == nullptr) {
    return KRAND_CORE_INVALID_ARGUMENT;
  }
  *handle = Initiators().Add();
  return KRAND_CORE_OK;
}

krand_core_status krand_core_ipc_deinit(krand_core_ipc_handle handle) {
  krand_core_trace("krand_core_ipc_deinit");
  return Initiators().Remove(handle) ? KRAND_CORE_OK : KRAND_CORE_INVALID_ARGUMENT;
}

char** krand_core_alloc_string_array(size_t count) {
  if (count >= SIZE_MAX / sizeof(char*)) {
    return nullptr;
  }
  return static_cast<char**>(calloc(count + 1, sizeof(char*)));
}

void krand_core_free_string_array(char** array) {
  if (array == nullptr) {
    return;
  }
  for (char** slot = array; *slot != nullptr; ++slot) {
    free(*slot);
  }
  free(array);
}
