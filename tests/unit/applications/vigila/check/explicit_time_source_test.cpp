#include "vigila/check/explicit_time_source.h"

#include <gtest/gtest.h>

namespace tevra::check {
namespace {

TEST(ExplicitTimeSource, ShowsZeroUntilItIsSet) {
  ExplicitTimeSource clock;
  osa::TimeStruct now(7, 7);
  clock.GetTime(now);
  EXPECT_EQ(now, osa::TimeStruct(0, 0));
}

TEST(ExplicitTimeSource, ShowsExactlyTheLastValueSet) {
  ExplicitTimeSource clock;
  osa::TimeStruct now;
  clock.SetTime(osa::TimeStruct(1000, 999999));
  clock.GetTime(now);
  EXPECT_EQ(now, osa::TimeStruct(1000, 999999));
  clock.SetTime(osa::TimeStruct(-5, 1));
  clock.GetTime(now);
  EXPECT_EQ(now, osa::TimeStruct(-5, 1));
}

TEST(ExplicitTimeSource, StandsStillBetweenReadings) {
  ExplicitTimeSource clock;
  clock.SetTime(osa::TimeStruct(42, 0));
  osa::TimeStruct first;
  osa::TimeStruct second;
  clock.GetTime(first);
  clock.GetTime(second);
  EXPECT_EQ(first, second);
}

TEST(ExplicitTimeSource, CanBeSetThroughADerivedClock) {
  class Recording : public ExplicitTimeSource {
   public:
    void SetTime(const osa::TimeStruct& now) override {
      ++calls;
      ExplicitTimeSource::SetTime(now);
    }
    int calls = 0;
  };
  Recording clock;
  ExplicitTimeSource& base = clock;
  base.SetTime(osa::TimeStruct(3, 0));
  osa::TimeStruct now;
  static_cast<const osa::ITimeSource&>(clock).GetTime(now);
  EXPECT_EQ(clock.calls, 1);
  EXPECT_EQ(now, osa::TimeStruct(3, 0));
}

}  // namespace
}  // namespace tevra::check
