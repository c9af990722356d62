#ifndef TEVRA_INTERFACES_REVOCATION_PAGE_H_
#define TEVRA_INTERFACES_REVOCATION_PAGE_H_

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "tevra/osa/descriptor.h"

namespace tevra::interfaces {

// What a client must know to go on using an answer that it keeps: which server gave it, whether
// anything that concerns it has ended since, and whether that server is still alive. The server
// writes one such page into shared memory and every client of the machine reads it there; a proxy
// that hears of changes in another way reads one in its own memory.
//
// The rules of use:
//   writer  changes the accounts, rules or sessions first, raises then, answers the caller last.
//           Raised before the change, the page would let an answer of before the change look new.
//   reader  notes epoch and slot before it asks, and uses the answer only while they are the same
//           and the writer is alive. So no answer is used once the call that ended it is answered.
//
// Memory orders: whoever learns of the changing call's answer does so through the bus, which orders
// the raise before his look at the page. Raises release and looks acquire, so that a look that sees
// one raise sees those before it, which EndSession and AnswerStamp rely on.
//
// Any thread, in any process. All fields are fixed-width in this machine's byte order: a page never
// leaves the machine.
class RevocationPage final {
 public:
  static constexpr std::size_t kSlots = 512;
  // One slot more, which no session's end raises: of answers that concern no session.
  static constexpr std::size_t kNoSession = kSlots;
  // The time until which a page of this process's own memory is alive.
  static constexpr uint64_t kForEver = UINT64_MAX;

  // A page in the process's own memory, alive for ever. Instance 0 stands for no server's.
  explicit RevocationPage(uint64_t instance) : RevocationPage(instance, kForEver) {}
  RevocationPage(uint64_t instance, uint64_t alive_until_ns);
  RevocationPage(const RevocationPage&) = delete;
  RevocationPage& operator=(const RevocationPage&) = delete;

  // The page that the descriptor's memory holds, mapped for reading; null unless it is whole,
  // sealed against every change of its size, and of this layout. The mapping outlives the
  // descriptor and goes with the last pointer.
  static std::shared_ptr<const RevocationPage> Map(const osa::Descriptor& memory);

  // The page of answers that nothing can replace: those of a provider in this process, or behind a
  // bus within it. It never changes, and its instance is 0.
  static std::shared_ptr<const RevocationPage> Unchanging();

  static std::size_t SlotOf(std::string_view token);

  // Of the server, drawn at its start; never 0 for a server.
  uint64_t Instance() const { return instance_; }
  // Grows with every change of accounts or rules.
  uint64_t Epoch() const { return epoch_.load(std::memory_order_acquire); }
  // Grows with every session that is ended.
  uint64_t Ends() const { return ends_.load(std::memory_order_acquire); }
  // Grows with every session that is ended and whose token falls into the slot.
  uint64_t Slot(std::size_t index) const { return slots_[index].load(std::memory_order_acquire); }
  // `now_ns` is of CLOCK_BOOTTIME, in nanoseconds: it goes on while the machine sleeps.
  bool IsAlive(uint64_t now_ns) const {
    return now_ns < alive_until_ns_.load(std::memory_order_acquire);
  }

  void RaiseEpoch() { epoch_.fetch_add(1, std::memory_order_release); }
  void EndSession(std::string_view token);
  void LiveUntil(uint64_t now_ns) { alive_until_ns_.store(now_ns, std::memory_order_release); }

 private:
  using Count = std::atomic<uint64_t>;
  // A lock would lie in the writer's process, and readers could not take it.
  static_assert(Count::is_always_lock_free && sizeof(Count) == sizeof(uint64_t));

  static constexpr uint64_t kMagic = 0x3130'6567'6150'7652;  // "RvPage01": name and layout

  const uint64_t magic_ = kMagic;
  const uint64_t instance_;
  Count epoch_{0};
  Count ends_{0};
  Count alive_until_ns_;
  std::array<Count, kSlots + 1> slots_{};
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_REVOCATION_PAGE_H_
