#ifndef TEVRA_OSA_MUTEX_H_
#define TEVRA_OSA_MUTEX_H_

#include <pthread.h>

#include <string>

#include "tevra/osa/thread_annotations.h"

namespace tevra::osa {

// A non-recursive mutex. The name shows in the exception when a lock cannot be had. The ordinary
// cases are inline: a cached answer takes no longer than its lock and its look-up do.
class TEVRA_CAPABILITY("mutex") Mutex {
 public:
  Mutex();
  explicit Mutex(const std::string& name);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Waits `timeout_ms` milliseconds, -1 without limit; throws Exception when the time is over.
  void Lock(int timeout_ms = -1) TEVRA_ACQUIRE() TEVRA_NO_THREAD_SAFETY_ANALYSIS {
    const int error = timeout_ms < 0 ? pthread_mutex_lock(&mutex_) : LockWithin(timeout_ms);
    if (error != 0) Refuse(error, timeout_ms);
  }
  void Unlock() TEVRA_RELEASE() TEVRA_NO_THREAD_SAFETY_ANALYSIS { pthread_mutex_unlock(&mutex_); }
  const std::string& Name() const { return name_; }

 private:
  int LockWithin(int timeout_ms);
  [[noreturn]] void Refuse(int error, int timeout_ms) const;

  pthread_mutex_t mutex_;
  const std::string name_;
};

// Holds a mutex for a scope. `lock` false leaves the mutex alone, for callers that already hold it.
class TEVRA_SCOPED_CAPABILITY MutexAutoLock {
 public:
  explicit MutexAutoLock(Mutex& mutex, int timeout_ms = -1, bool lock = true)
      TEVRA_ACQUIRE(mutex) TEVRA_NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex),
                                                             locked_(lock) {
    if (locked_) mutex_.Lock(timeout_ms);
  }
  ~MutexAutoLock() TEVRA_RELEASE() TEVRA_NO_THREAD_SAFETY_ANALYSIS {
    if (locked_) mutex_.Unlock();
  }
  MutexAutoLock(const MutexAutoLock&) = delete;
  MutexAutoLock& operator=(const MutexAutoLock&) = delete;

 private:
  Mutex& mutex_;
  const bool locked_;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_MUTEX_H_
