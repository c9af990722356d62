#include "utilc/randbytes.h"

#include <sys/random.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>

void randbytes(void* data, size_t length) {
  unsigned char* next = static_cast<unsigned char*>(data);
  while (length > 0) {
    const ssize_t got = getrandom(next, length, 0);
    if (got < 0) {
      if (errno == EINTR) continue;
      // Predictable tokens would be worse than no service.
      perror("randbytes: no randomness from the kernel");
      abort();
    }
    next += got;
    length -= static_cast<size_t>(got);
  }
}
