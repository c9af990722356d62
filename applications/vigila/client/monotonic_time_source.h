#ifndef VIGILA_CLIENT_MONOTONIC_TIME_SOURCE_H_
#define VIGILA_CLIENT_MONOTONIC_TIME_SOURCE_H_

#include "tevra/osa/time.h"

namespace vigila::client {

// The monotonic clock: a wall clock that is stepped back must not revive a cached answer. Any
// thread.
class MonotonicTimeSource final : public tevra::osa::ITimeSource {
 public:
  void GetTime(tevra::osa::TimeStruct& now) const override;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_MONOTONIC_TIME_SOURCE_H_
