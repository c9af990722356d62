#ifndef VIGILA_CLIENT_MONOTONIC_TIME_SOURCE_H_
#define VIGILA_CLIENT_MONOTONIC_TIME_SOURCE_H_

#include "tevra/osa/time.h"

namespace vigila::client {

// CLOCK_BOOTTIME: a wall clock that is stepped back must not revive a cached answer, nor must a
// machine that slept give one of yesterday. Any thread.
class MonotonicTimeSource final : public tevra::osa::ITimeSource {
 public:
  void GetTime(tevra::osa::TimeStruct& now) const override;
};

}  // namespace vigila::client

#endif  // VIGILA_CLIENT_MONOTONIC_TIME_SOURCE_H_
