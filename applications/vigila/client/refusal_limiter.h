#ifndef VIGILA_CLIENT_REFUSAL_LIMITER_H_
#define VIGILA_CLIENT_REFUSAL_LIMITER_H_

#include <map>
#include <string>

#include "tevra/osa/mutex.h"
#include "tevra/osa/time.h"

namespace vigila::client {

// Decides which causes of refused calls are logged: each once a minute, and no more than a few
// causes. Any thread.
class RefusalLimiter final {
 public:
  // `clock` is borrowed and must outlive the limiter.
  explicit RefusalLimiter(const tevra::osa::ITimeSource& clock) : clock_(clock) {}

  bool IsDue(const std::string& cause) TEVRA_EXCLUDES(mutex_);

 private:
  const tevra::osa::ITimeSource& clock_;
  tevra::osa::Mutex mutex_;
  std::map<std::string, tevra::osa::TimeStruct> until_ TEVRA_GUARDED_BY(mutex_);
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_REFUSAL_LIMITER_H_
