#include "tevra/osa/descriptor.h"

#include <cerrno>

#include "tevra/osa/held_cancellation.h"

namespace tevra::osa {

void Descriptor::Reset(int fd) {
  const int old = std::exchange(fd_, fd);
  if (old < 0 || old == fd) return;
  const HeldCancellation held;
  const int reason = errno;
  close(old);
  errno = reason;
}

}  // namespace tevra::osa
