#include "tevra/interfaces/revocation_page.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <type_traits>

namespace tevra::interfaces {
namespace {

// A page that could be cut short under its readers would kill them with SIGBUS.
constexpr int kSizeSeals = F_SEAL_SHRINK | F_SEAL_GROW;

}  // namespace

static_assert(std::is_standard_layout_v<RevocationPage>);
static_assert(sizeof(RevocationPage) == (6 + RevocationPage::kSlots) * sizeof(uint64_t));

RevocationPage::RevocationPage(uint64_t instance, uint64_t alive_until_ns)
    : instance_(instance), alive_until_ns_(alive_until_ns) {}

std::shared_ptr<const RevocationPage> RevocationPage::Map(const osa::Descriptor& memory) {
  struct stat status = {};
  const int seals = fcntl(memory.get(), F_GET_SEALS);
  if (seals < 0 || (seals & kSizeSeals) != kSizeSeals || fstat(memory.get(), &status) != 0 ||
      status.st_size != static_cast<off_t>(sizeof(RevocationPage))) {
    return nullptr;
  }
  void* const address =
      mmap(nullptr, sizeof(RevocationPage), PROT_READ, MAP_SHARED, memory.get(), 0);
  if (address == MAP_FAILED) return nullptr;
  const std::shared_ptr<const RevocationPage> page(
      static_cast<const RevocationPage*>(address), [](const RevocationPage* mapped) {
        munmap(const_cast<RevocationPage*>(mapped), sizeof(RevocationPage));
      });
  if (page->magic_ != kMagic || page->instance_ == 0) return nullptr;
  return page;
}

std::shared_ptr<const RevocationPage> RevocationPage::Unchanging() {
  static const auto* const page =
      new std::shared_ptr<const RevocationPage>(std::make_shared<RevocationPage>(0));
  return *page;
}

std::size_t RevocationPage::SlotOf(std::string_view token) {
  // FNV-1a. Tokens are random; nothing is gained by choosing one that shares another's slot but a
  // question more to the server.
  uint64_t hash = 0xcbf29ce484222325;
  for (const char c : token) hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  return (hash >> 32) % kSlots;
}

void RevocationPage::EndSession(std::string_view token) {
  // In this order: whoever sees the slot raised sees that there was an end, too.
  ends_.fetch_add(1, std::memory_order_release);
  slots_[SlotOf(token)].fetch_add(1, std::memory_order_release);
}

}  // namespace tevra::interfaces
