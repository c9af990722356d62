#include "tevra/osa/mutex.h"

#include <time.h>

#include <cerrno>
#include <cstring>

#include "tevra/osa/exception.h"
#include "tevra/osa/sanitizer.h"

namespace tevra::osa {
namespace {

timespec DeadlineIn(int timeout_ms) {
  timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += timeout_ms / 1000;
  deadline.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000;
  if (deadline.tv_nsec >= 1000000000) {
    ++deadline.tv_sec;
    deadline.tv_nsec -= 1000000000;
  }
  return deadline;
}

int LockWithin(pthread_mutex_t* mutex, int timeout_ms) {
  // The wall clock may be set while we wait; the monotonic one may not.
  const timespec deadline = DeadlineIn(timeout_ms);
  const int error = pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline);
  if (error == 0) NoteLocked(mutex);
  return error;
}

}  // namespace

Mutex::Mutex() : Mutex(std::string()) {}

Mutex::Mutex(const std::string& name) : name_(name) {
  pthread_mutex_init(&mutex_, nullptr);
}

Mutex::~Mutex() {
  pthread_mutex_destroy(&mutex_);
}

void Mutex::Lock(int timeout_ms) TEVRA_NO_THREAD_SAFETY_ANALYSIS {
  const int error = timeout_ms < 0 ? pthread_mutex_lock(&mutex_) : LockWithin(&mutex_, timeout_ms);
  if (error == 0) return;
  if (error == ETIMEDOUT) {
    throw Exception("mutex \"%s\": no lock within %d ms", name_.c_str(), timeout_ms);
  }
  throw Exception("mutex \"%s\": %s", name_.c_str(), strerror(error));
}

void Mutex::Unlock() TEVRA_NO_THREAD_SAFETY_ANALYSIS {
  pthread_mutex_unlock(&mutex_);
}

MutexAutoLock::MutexAutoLock(Mutex& mutex, int timeout_ms,
                             bool lock) TEVRA_NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex),
                                                                          locked_(lock) {
  if (locked_) mutex_.Lock(timeout_ms);
}

MutexAutoLock::~MutexAutoLock() TEVRA_NO_THREAD_SAFETY_ANALYSIS {
  if (locked_) mutex_.Unlock();
}

}  // namespace tevra::osa
