#include "support/memory/memory_shortage.h"

namespace support {
namespace {

thread_local bool waiting = false;
thread_local int left = 0;  // allocations up to and with the one that fails

}  // namespace

MemoryShortage::MemoryShortage(int nth) {
  left = nth;
  waiting = true;
}

MemoryShortage::~MemoryShortage() {
  waiting = false;
}

bool MemoryShortage::WasMet() const {
  return !waiting;
}

bool MemoryShortage::Strikes() noexcept {
  if (!waiting || --left > 0) return false;
  waiting = false;
  return true;
}

}  // namespace support
