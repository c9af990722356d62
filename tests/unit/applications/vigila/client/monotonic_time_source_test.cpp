#include "vigila/client/monotonic_time_source.h"

#include <gtest/gtest.h>
#include <time.h>

namespace vigila::client {
namespace {

using tevra::osa::TimeStruct;

TimeStruct SinceBoot() {
  timespec time;
  clock_gettime(CLOCK_BOOTTIME, &time);
  return TimeStruct(time.tv_sec, static_cast<int32_t>(time.tv_nsec / 1000));
}

TEST(MonotonicTimeSource, IsTheClockThatIsNeverSetBackAndGoesOnInSuspend) {
  const MonotonicTimeSource source;
  for (int i = 0; i < 1000; ++i) {
    const TimeStruct before = SinceBoot();
    TimeStruct now;
    source.GetTime(now);
    const TimeStruct after = SinceBoot();
    EXPECT_FALSE(now < before);
    EXPECT_FALSE(after < now);
    EXPECT_GE(now.microseconds, 0);
    EXPECT_LT(now.microseconds, 1'000'000);
  }
}

}  // namespace
}  // namespace vigila::client
