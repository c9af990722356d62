#include "benchmarks/support/counted_bytes.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace benchmarks {

namespace {
thread_local CountedBytes counted;

ssize_t Counted(size_t& counter, ssize_t bytes, int flags) {
  if (bytes > 0 && (flags & MSG_PEEK) == 0) counter += static_cast<size_t>(bytes);
  return bytes;
}
}  // namespace

CountedBytes CountedBytes::Now() {
  return counted;
}

}  // namespace benchmarks

extern "C" {

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  return benchmarks::Counted(benchmarks::counted.sent,
                             syscall(SYS_sendto, fd, bytes, size, flags, nullptr, 0), flags);
}
ssize_t sendmsg(int fd, const msghdr* message, int flags) {
  return benchmarks::Counted(benchmarks::counted.sent, syscall(SYS_sendmsg, fd, message, flags),
                             flags);
}
ssize_t recv(int fd, void* bytes, size_t size, int flags) {
  return benchmarks::Counted(benchmarks::counted.received,
                             syscall(SYS_recvfrom, fd, bytes, size, flags, nullptr, nullptr),
                             flags);
}
ssize_t recvmsg(int fd, msghdr* message, int flags) {
  return benchmarks::Counted(benchmarks::counted.received, syscall(SYS_recvmsg, fd, message, flags),
                             flags);
}

}  // extern "C"
