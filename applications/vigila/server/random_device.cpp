#include "vigila/server/random_device.h"

#include <fcntl.h>
#include <unistd.h>

namespace vigila::server {

namespace {

class KernelRandomDevice final : public RandomDevice {
 public:
  int Open() override { return open("/dev/urandom", O_RDONLY | O_CLOEXEC); }
  ssize_t Read(int file, void* data, std::size_t length) override {
    return read(file, data, length);
  }
  void Close(int file) override { close(file); }
};

}  // namespace

RandomDevice& RandomDevice::Kernel() {
  static KernelRandomDevice device;
  return device;
}

}  // namespace vigila::server
