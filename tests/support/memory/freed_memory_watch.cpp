#include "support/memory/freed_memory_watch.h"

#include <malloc.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>

#include "support/memory/memory_shortage.h"

namespace {

char secret[64];
std::atomic<size_t> secret_size = 0;  // 0 while no one watches
std::atomic<int> found = 0;

[[maybe_unused]] void* Allocate(size_t size) noexcept {
  // Cleared, or what a block held before the watch would be found in it.
  return std::calloc(1, size == 0 ? 1 : size);
}

[[maybe_unused]] void* AllocateOrThrow(size_t size) {
  if (support::MemoryShortage::Strikes()) throw std::bad_alloc();
  void* const block = Allocate(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

// By hand and unseen by the address sanitizer, which forbids a look at the sizes of arrays.
__attribute__((no_sanitize("address"))) bool Holds(const void* block, size_t length, size_t size) {
  const char* const bytes = static_cast<const char*>(block);
  for (size_t at = 0; at + size <= length; ++at) {
    size_t same = 0;
    while (same < size && bytes[at + same] == secret[same]) ++same;
    if (same == size) return true;
  }
  return false;
}

[[maybe_unused]] void Release(void* block) noexcept {
  const size_t size = secret_size;
  if (size != 0 && block != nullptr && Holds(block, malloc_usable_size(block), size)) ++found;
  std::free(block);
}

}  // namespace

#if !defined(TEVRA_THREAD_SANITIZER)
void* operator new(size_t size) {
  return AllocateOrThrow(size);
}
void* operator new[](size_t size) {
  return AllocateOrThrow(size);
}
void* operator new(size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void* operator new[](size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
void operator delete(void* block) noexcept {
  Release(block);
}
void operator delete[](void* block) noexcept {
  Release(block);
}
void operator delete(void* block, size_t) noexcept {
  Release(block);
}
void operator delete[](void* block, size_t) noexcept {
  Release(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  Release(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  Release(block);
}
#endif

namespace support {

FreedMemoryWatch::FreedMemoryWatch(std::string_view text) {
  if (text.size() > sizeof(secret)) throw std::length_error("a secret of more than 64 bytes");
  std::memcpy(secret, text.data(), text.size());
  found = 0;
  secret_size = text.size();
}

FreedMemoryWatch::~FreedMemoryWatch() {
  secret_size = 0;
}

int FreedMemoryWatch::Found() const {
  return found;
}

}  // namespace support
