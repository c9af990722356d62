#include "tevra/osa/time.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cmath>
#include <cstdint>
#include <limits>

namespace {

using tevra::osa::SystemTimeSource;
using tevra::osa::TimeSpan;
using tevra::osa::TimeStruct;

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

TimeStruct Sum(TimeStruct time, int64_t micros) {
  return time += micros;
}

TEST(TimeStruct, IsZeroUntilAskedForNow) {
  EXPECT_EQ(TimeStruct(), TimeStruct(0, 0));
  EXPECT_EQ(TimeStruct(false), TimeStruct(0, 0));
}

TEST(TimeStruct, ReadsTheWallClock) {
  const time_t before = time(nullptr);
  const TimeStruct now(true);
  TimeStruct then;
  SystemTimeSource().GetTime(then);
  const time_t after = time(nullptr);
  // The coarse clock behind time() may lag by a tick.
  EXPECT_GE(now.seconds, before);
  EXPECT_LE(then.seconds, after + 1);
  EXPECT_GE(now.microseconds, 0);
  EXPECT_LT(now.microseconds, 1000000);
}

TEST(TimeStruct, OrdersBySecondsThenMicroseconds) {
  EXPECT_LT(TimeStruct(1, 999999), TimeStruct(2, 0));
  EXPECT_LT(TimeStruct(1, 0), TimeStruct(1, 1));
  EXPECT_LT(TimeStruct(-1, 0), TimeStruct(0, 0));
  EXPECT_EQ(TimeStruct(1, 5), TimeStruct(1, 5));
}

TEST(TimeStruct, CarriesMicrosecondsIntoSeconds) {
  EXPECT_EQ(Sum(TimeStruct(1, 999999), 1), TimeStruct(2, 0));
  EXPECT_EQ(Sum(TimeStruct(1, 999998), 1), TimeStruct(1, 999999));
  EXPECT_EQ(Sum(TimeStruct(1, 500000), 1500000), TimeStruct(3, 0));
  EXPECT_EQ(Sum(TimeStruct(7, 7), 0), TimeStruct(7, 7));
}

TEST(TimeStruct, KeepsMicrosecondsInRangeWhenItGoesBack) {
  EXPECT_EQ(Sum(TimeStruct(1, 0), -1), TimeStruct(0, 999999));
  EXPECT_EQ(Sum(TimeStruct(0, 0), -1), TimeStruct(-1, 999999));
  EXPECT_EQ(Sum(TimeStruct(0, 0), -1000000), TimeStruct(-1, 0));
  EXPECT_EQ(Sum(TimeStruct(0, 5), -1000006), TimeStruct(-2, 999999));
}

TEST(TimeStruct, BringsMicrosecondsOutOfRangeIntoRange) {
  EXPECT_EQ(Sum(TimeStruct(0, 2000001), 0), TimeStruct(2, 1));
  EXPECT_EQ(Sum(TimeStruct(0, -1), 0), TimeStruct(-1, 999999));
  EXPECT_EQ(Sum(TimeStruct(0, std::numeric_limits<int32_t>::min()), kMin),
            TimeStruct(-9223372039003, 740544));
}

TEST(TimeStruct, StopsAtItsEndsInsteadOfWrapping) {
  EXPECT_EQ(Sum(TimeStruct(kMax, 999999), 1), TimeStruct(kMax, 999999));
  EXPECT_EQ(Sum(TimeStruct(kMax, 0), kMax), TimeStruct(kMax, 999999));
  EXPECT_EQ(Sum(TimeStruct(kMax, 999998), 1), TimeStruct(kMax, 999999));
  EXPECT_EQ(Sum(TimeStruct(kMin, 0), -1), TimeStruct(kMin, 0));
  EXPECT_EQ(Sum(TimeStruct(kMin, 0), kMin), TimeStruct(kMin, 0));
  EXPECT_EQ(Sum(TimeStruct(kMin, 1), -1), TimeStruct(kMin, 0));
}

TEST(TimeSpan, CountsMicroseconds) {
  EXPECT_EQ(TimeSpan().AsMicroseconds(), 0);
  EXPECT_EQ(TimeSpan::FromSeconds(1.5).AsMicroseconds(), 1500000);
  EXPECT_EQ(TimeSpan::FromSeconds(300).AsMicroseconds(), 300000000);
  EXPECT_EQ(TimeSpan::FromMicroseconds(-7).AsMicroseconds(), -7);
  EXPECT_EQ(TimeSpan::FromSeconds(0.000001).AsMicroseconds(), 1);
  EXPECT_EQ(TimeSpan::FromSeconds(1.1).AsMicroseconds(), 1100000);
}

TEST(TimeSpan, TruncatesWholeSecondsTowardsZero) {
  EXPECT_EQ(TimeSpan::FromMicroseconds(300999999).WholeSeconds(), 300);
  EXPECT_EQ(TimeSpan::FromMicroseconds(-300999999).WholeSeconds(), -300);
  EXPECT_EQ(TimeSpan::FromMicroseconds(-999999).WholeSeconds(), 0);
  EXPECT_EQ(TimeSpan::FromMicroseconds(-1000000).WholeSeconds(), -1);
}

TEST(TimeSpan, TakesTheLongestForWhatIsTooLong) {
  EXPECT_EQ(TimeSpan::FromSeconds(1e300).AsMicroseconds(), kMax);
  EXPECT_EQ(TimeSpan::FromSeconds(-1e300).AsMicroseconds(), kMin);
  EXPECT_EQ(TimeSpan::FromSeconds(std::numeric_limits<double>::infinity()).AsMicroseconds(), kMax);
  EXPECT_EQ(TimeSpan::FromSeconds(9223372036854.775808).AsMicroseconds(), kMax);
  EXPECT_EQ(TimeSpan::FromSeconds(std::nan("")).AsMicroseconds(), 0);
}

TEST(TimeSpan, Orders) {
  EXPECT_LT(TimeSpan::FromSeconds(-1), TimeSpan());
  EXPECT_EQ(TimeSpan::FromSeconds(2), TimeSpan::FromMicroseconds(2000000));
}

}  // namespace
