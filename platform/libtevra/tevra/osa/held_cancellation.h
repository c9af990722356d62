#ifndef TEVRA_OSA_HELD_CANCELLATION_H_
#define TEVRA_OSA_HELD_CANCELLATION_H_

#include <pthread.h>

namespace tevra::osa {

// Keeps a pthread_cancel of this thread waiting to the end of the scope. A cancelled thread is
// unwound like by an exception, which ends the process where no exception may pass: so what runs in
// destructors, and calls something that cancels, does it under one of these.
class HeldCancellation final {
 public:
  HeldCancellation() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before_); }
  ~HeldCancellation() { pthread_setcancelstate(before_, nullptr); }
  HeldCancellation(const HeldCancellation&) = delete;
  HeldCancellation& operator=(const HeldCancellation&) = delete;

 private:
  int before_ = PTHREAD_CANCEL_ENABLE;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_HELD_CANCELLATION_H_
