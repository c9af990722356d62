#ifndef TEVRA_OSA_MUTEX_H_
#define TEVRA_OSA_MUTEX_H_

#include <pthread.h>

#include <string>

#include "tevra/osa/thread_annotations.h"

namespace tevra::osa {

// A non-recursive mutex. The name shows in the exception when a lock cannot be had.
class TEVRA_CAPABILITY("mutex") Mutex {
 public:
  Mutex();
  explicit Mutex(const std::string& name);
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  // Waits `timeout_ms` milliseconds, -1 without limit; throws Exception when the time is over.
  void Lock(int timeout_ms = -1) TEVRA_ACQUIRE();
  void Unlock() TEVRA_RELEASE();
  const std::string& Name() const { return name_; }

 private:
  pthread_mutex_t mutex_;
  const std::string name_;
};

// Holds a mutex for a scope. `lock` false leaves the mutex alone, for callers that already hold it.
class TEVRA_SCOPED_CAPABILITY MutexAutoLock {
 public:
  explicit MutexAutoLock(Mutex& mutex, int timeout_ms = -1, bool lock = true) TEVRA_ACQUIRE(mutex);
  ~MutexAutoLock() TEVRA_RELEASE();
  MutexAutoLock(const MutexAutoLock&) = delete;
  MutexAutoLock& operator=(const MutexAutoLock&) = delete;

 private:
  Mutex& mutex_;
  const bool locked_;
};

}  // namespace tevra::osa

#endif  // TEVRA_OSA_MUTEX_H_
