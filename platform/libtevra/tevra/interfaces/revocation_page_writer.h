#ifndef TEVRA_INTERFACES_REVOCATION_PAGE_WRITER_H_
#define TEVRA_INTERFACES_REVOCATION_PAGE_WRITER_H_

#include <chrono>
#include <cstdint>
#include <string_view>

#include "tevra/interfaces/revocation_page.h"
#include "tevra/osa/descriptor.h"
#include "tevra/osa/process_generation.h"

namespace tevra::interfaces {

// The server's revocation page: shared memory that only this object's mapping can change. Who gets
// the descriptor can map it for reading and nothing else; its size is fixed. The end of this object
// ends every answer that is kept by the page.
//
// Any thread. A child of fork may only destroy what it inherited, which ends nothing of the
// parent's.
class RevocationPageWriter final {
 public:
  // How long the page is alive after a renewal. Every kept answer of a server that hangs or is
  // killed ends within this time. Renewed five times as often, so that an event loop that is busy
  // with a few private-key operations costs no one a question.
  static constexpr std::chrono::milliseconds kLife{500};
  static constexpr std::chrono::milliseconds kRenewal{100};

  // Alive from now on. Throws tevra::osa::Exception when the kernel refuses the memory.
  explicit RevocationPageWriter(uint64_t instance);
  ~RevocationPageWriter();
  RevocationPageWriter(const RevocationPageWriter&) = delete;
  RevocationPageWriter& operator=(const RevocationPageWriter&) = delete;

  const osa::Descriptor& Memory() const { return memory_; }

  void RaiseEpoch() { page_->RaiseEpoch(); }
  void EndSession(std::string_view token) { page_->EndSession(token); }
  // To be called every kRenewal by the thread that answers requests: its standstill must show.
  void Renew();

 private:
  const osa::ProcessGeneration process_;
  osa::Descriptor memory_;
  RevocationPage* page_;
};

}  // namespace tevra::interfaces

#endif  // TEVRA_INTERFACES_REVOCATION_PAGE_WRITER_H_
