#include "tevra/interfaces/revocation_page_writer.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

#include "tevra/osa/exception.h"

namespace tevra::interfaces {
namespace {

[[noreturn]] void ThrowErrno(const char* step) {
  throw osa::Exception("revocation page: %s: %s", step, strerror(errno));
}

uint64_t EndOfLife() {
  timespec now;
  clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec) +
         static_cast<uint64_t>(std::chrono::nanoseconds(RevocationPageWriter::kLife).count());
}

}  // namespace

RevocationPageWriter::RevocationPageWriter(uint64_t instance)
    : memory_(memfd_create("vigila-revocations", MFD_CLOEXEC | MFD_ALLOW_SEALING)) {
  if (!memory_) ThrowErrno("memfd_create");
  if (ftruncate(memory_.get(), sizeof(RevocationPage)) != 0) ThrowErrno("ftruncate");
  void* const address =
      mmap(nullptr, sizeof(RevocationPage), PROT_READ | PROT_WRITE, MAP_SHARED, memory_.get(), 0);
  if (address == MAP_FAILED) ThrowErrno("mmap");
  page_ = new (address) RevocationPage(instance, EndOfLife());
  // After the mapping, the last that may write.
  if (fcntl(memory_.get(), F_ADD_SEALS,
            F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE | F_SEAL_SEAL) != 0) {
    const int error = errno;
    munmap(address, sizeof(RevocationPage));
    errno = error;
    ThrowErrno("seals");
  }
}

RevocationPageWriter::~RevocationPageWriter() {
  if (process_.IsInherited()) {
    static_cast<void>(memory_.Release());  // the parent's, as all its descriptors here
    return;
  }
  page_->LiveUntil(0);
  munmap(page_, sizeof(RevocationPage));
}

void RevocationPageWriter::Renew() {
  page_->LiveUntil(EndOfLife());
}

}  // namespace tevra::interfaces
