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

}  // namespace

Mutex::Mutex() : Mutex(std::string()) {}

Mutex::Mutex(const std::string& name) : name_(name) {
  pthread_mutex_init(&mutex_, nullptr);
}

Mutex::~Mutex() {
  pthread_mutex_destroy(&mutex_);
}

int Mutex::LockWithin(int timeout_ms) {
  // The wall clock may be set while we wait; the monotonic one may not.
  const timespec deadline = DeadlineIn(timeout_ms);
  const int error = pthread_mutex_clocklock(&mutex_, CLOCK_MONOTONIC, &deadline);
  if (error == 0) NoteLocked(&mutex_);
  return error;
}

void Mutex::Refuse(int error, int timeout_ms) const {
  if (error == ETIMEDOUT) {
    throw Exception("mutex \"%s\": no lock within %d ms", name_.c_str(), timeout_ms);
  }
  throw Exception("mutex \"%s\": %s", name_.c_str(), strerror(error));
}

}  // namespace tevra::osa
