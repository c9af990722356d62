#include "tevra/osa/time.h"

#include <time.h>

#include <cmath>
#include <limits>

namespace tevra::osa {
namespace {

constexpr int64_t kMicrosPerSecond = 1000000;

TimeStruct WallClock() {
  timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  return TimeStruct(now.tv_sec, static_cast<int32_t>(now.tv_nsec / 1000));
}

}  // namespace

TimeStruct::TimeStruct(bool now) {
  if (now) *this = WallClock();
}

TimeStruct& TimeStruct::operator+=(int64_t micros) {
  // Both remainders are below a few thousand seconds: no sum here can overflow but the last one.
  int64_t rest = micros % kMicrosPerSecond + microseconds;
  int64_t carry = micros / kMicrosPerSecond + rest / kMicrosPerSecond;
  rest %= kMicrosPerSecond;
  if (rest < 0) {
    rest += kMicrosPerSecond;
    --carry;
  }
  microseconds = static_cast<int32_t>(rest);
  if (!__builtin_add_overflow(seconds, carry, &seconds)) return *this;

  const bool past_the_end = carry > 0;
  seconds =
      past_the_end ? std::numeric_limits<int64_t>::max() : std::numeric_limits<int64_t>::min();
  microseconds = past_the_end ? static_cast<int32_t>(kMicrosPerSecond - 1) : 0;
  return *this;
}

TimeSpan TimeSpan::FromSeconds(double seconds) {
  if (std::isnan(seconds)) return TimeSpan();
  const double micros = seconds * static_cast<double>(kMicrosPerSecond);
  constexpr double kLimit = 9223372036854775808.0;  // 2^63, one more than the largest count
  if (micros >= kLimit) return FromMicroseconds(std::numeric_limits<int64_t>::max());
  if (micros < -kLimit) return FromMicroseconds(std::numeric_limits<int64_t>::min());
  return FromMicroseconds(std::llround(micros));
}

TimeSpan TimeSpan::FromMicroseconds(int64_t microseconds) {
  TimeSpan span;
  span.microseconds_ = microseconds;
  return span;
}

void SystemTimeSource::GetTime(TimeStruct& now) const {
  now = WallClock();
}

}  // namespace tevra::osa
