#include "tevra/osa/descriptor.h"

#include <cerrno>

namespace tevra::osa {

void Descriptor::Reset(int fd) {
  const int old = std::exchange(fd_, fd);
  if (old < 0 || old == fd) return;
  const int reason = errno;
  close(old);
  errno = reason;
}

}  // namespace tevra::osa
