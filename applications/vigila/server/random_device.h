#ifndef VIGILA_SERVER_RANDOM_DEVICE_H_
#define VIGILA_SERVER_RANDOM_DEVICE_H_

#include <sys/types.h>

#include <cstddef>

namespace vigila::server {

// The kernel's random device, call by call, with the results and errno of open(2), read(2) and
// close(2). Any thread.
class RandomDevice {
 public:
  virtual ~RandomDevice() = default;

  virtual int Open() = 0;
  virtual ssize_t Read(int file, void* data, std::size_t length) = 0;
  virtual void Close(int file) = 0;

  // "/dev/urandom", alive until the process ends.
  static RandomDevice& Kernel();
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_RANDOM_DEVICE_H_
