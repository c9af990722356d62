#ifndef VIGILA_CLIENT_FORK_GUARD_H_
#define VIGILA_CLIENT_FORK_GUARD_H_

#include <cstdint>

#include "tevra/osa/mutex.h"

namespace vigila::client {

// Keeps a mutex free of half-done work at the moment of a fork, for as long as the guard lives: a
// child never inherits the mutex locked by a thread that it does not have. The mutex must be a leaf
// and must outlive the guard.
class ForkGuard final {
 public:
  explicit ForkGuard(tevra::osa::Mutex& mutex);
  ~ForkGuard();
  ForkGuard(const ForkGuard&) = delete;
  ForkGuard& operator=(const ForkGuard&) = delete;

  // Grows by one in every child, so that an object can tell that it was inherited. Counts from the
  // first guard on.
  static uint64_t Generation();

 private:
  tevra::osa::Mutex& mutex_;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_FORK_GUARD_H_
