#ifndef TEVRA_OSA_DESCRIPTOR_H_
#define TEVRA_OSA_DESCRIPTOR_H_

#include <unistd.h>

#include <utility>

namespace tevra::osa {

// An owned file descriptor, closed at the end of its life; -1 holds none. Not synchronised.
class Descriptor final {
 public:
  Descriptor() = default;
  explicit Descriptor(int fd) : fd_(fd) {}
  Descriptor(Descriptor&& other) noexcept : fd_(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  ~Descriptor() { Reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  // Closes what is held and holds `fd` from now on. errno stays as it was.
  void Reset(int fd = -1);
  // Hands the descriptor over to the caller.
  [[nodiscard]] int Release() { return std::exchange(fd_, -1); }

 private:
  int fd_ = -1;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_DESCRIPTOR_H_
