#ifndef BENCHMARKS_SUPPORT_COUNTED_BYTES_H_
#define BENCHMARKS_SUPPORT_COUNTED_BYTES_H_

#include <cstddef>

namespace benchmarks {

// What this thread has sent to and received from sockets so far. The program's own send, sendmsg,
// recv and recvmsg stand before the C library's and count; whatever the program calls is counted
// alike.
struct CountedBytes {
  size_t sent = 0;
  size_t received = 0;

  static CountedBytes Now();
};

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_COUNTED_BYTES_H_
