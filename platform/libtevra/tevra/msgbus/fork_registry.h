#ifndef TEVRA_MSGBUS_FORK_REGISTRY_H_
#define TEVRA_MSGBUS_FORK_REGISTRY_H_

#include <cstdint>
#include <functional>
#include <mutex>

namespace tevra::msgbus {

// What a child of fork must know. The process's generation grows by one in every child, so that an
// object can tell at the price of one load that it was inherited. The child starts with every
// descriptor of the buses closed, so that it keeps neither a server's lock nor a peer's connection
// alive; the objects that held them are abandoned, never destroyed.
class ForkRegistry final {
 public:
  static uint64_t Generation();

  // Descriptors to close in a child. Remove runs `close_it` while no fork can come between.
  static void AddFd(int fd);
  static void RemoveFd(int fd, const std::function<void()>& close_it);
  // Runs `work`, which may close the descriptor and then returns false, with no fork in between.
  static bool UseFd(int fd, const std::function<bool()>& work);

  // Keeps `mutex` free of half-done work at the moment of a fork, for as long as this lives. The
  // mutex must be a leaf: nothing of this registry is called while it is held.
  class HeldOverFork final {
   public:
    explicit HeldOverFork(std::mutex& mutex);
    ~HeldOverFork();
    HeldOverFork(const HeldOverFork&) = delete;
    HeldOverFork& operator=(const HeldOverFork&) = delete;

   private:
    std::mutex& mutex_;
  };
};

// An owned descriptor that is in the registry while it is open.
class BusFd final {
 public:
  BusFd() = default;
  explicit BusFd(int fd);
  BusFd(BusFd&& other) noexcept;
  BusFd& operator=(BusFd&& other) noexcept;
  ~BusFd() { Close(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  void Close();
  // Hands the descriptor over, still in the registry.
  int Release();

 private:
  int fd_ = -1;
  uint64_t generation_ = 0;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_FORK_REGISTRY_H_
