#include "vigila-gateway/auth/throttle.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vigila::gateway::Throttle;
using vigila::gateway::ThrottleSource;

class AThrottle : public testing::Test {
 protected:
  void Fail(const std::string& source, int times) {
    for (int i = 0; i < times; ++i) throttle_.Failed(source);
  }

  Throttle::Clock::time_point now_{seconds(1000)};
  Throttle throttle_{{3, seconds(10), 4}, [this] { return now_; }};
};

TEST_F(AThrottle, LetsAStrangerIn) {
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), std::nullopt);
}

TEST_F(AThrottle, HoldsBackWithTheLastOfTheBurstAndNotBefore) {
  Fail("10.0.0.1", 2);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), std::nullopt);
  Fail("10.0.0.1", 1);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(AThrottle, CountsTheSameTokenOnceInARow) {
  for (int i = 0; i < 10; ++i) throttle_.FailedWithToken("10.0.0.1", "00000001");
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), std::nullopt);
  throttle_.FailedWithToken("10.0.0.1", "00000002");
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), std::nullopt);
  throttle_.FailedWithToken("10.0.0.1", "00000001");
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), seconds(10));
  throttle_.FailedWithToken("10.0.0.2", "00000001");
  EXPECT_EQ(throttle_.Sources(), 2u);
}

TEST_F(AThrottle, CountsTokensAndLogonsTogether) {
  Fail("10.0.0.1", 1);
  throttle_.FailedWithToken("10.0.0.1", "00000001");
  Fail("10.0.0.1", 1);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(AThrottle, LetsInAgainAfterExactlyTheRecoveryTime) {
  Fail("10.0.0.1", 3);
  now_ += seconds(10) - milliseconds(1);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), seconds(1));
  now_ += milliseconds(1);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), std::nullopt);
  Fail("10.0.0.1", 1);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(AThrottle, ForgivesEverythingInTime) {
  Fail("10.0.0.1", 3);
  now_ += seconds(30);
  Fail("10.0.0.1", 2);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), std::nullopt);
}

TEST_F(AThrottle, NeverMakesWaitLongerThanOneRecovery) {
  Fail("10.0.0.1", 1000);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(AThrottle, KeepsSourcesApart) {
  Fail("10.0.0.1", 3);
  EXPECT_EQ(throttle_.MustWait("10.0.0.2"), std::nullopt);
}

TEST_F(AThrottle, CountsAnIpv6NetworkAsOne) {
  Fail("2001:db8::1", 1);
  Fail("2001:db8::2", 1);
  Fail("2001:db8:0:0:ffff::3", 1);
  EXPECT_EQ(throttle_.MustWait("2001:db8::4"), seconds(10));
  EXPECT_EQ(throttle_.MustWait("2001:db8:0:1::4"), std::nullopt);
}

TEST_F(AThrottle, CountsAMappedAddressAsWhatItStandsFor) {
  EXPECT_EQ(ThrottleSource("::ffff:10.0.0.1"), "10.0.0.1");
  EXPECT_EQ(ThrottleSource("no address"), "no address");
}

TEST_F(AThrottle, IsBoundedAndForgetsWhoFailedLongestAgo) {
  for (const char* source : {"a", "b", "c", "d"}) Fail(source, 3);
  Fail("a", 1);
  Fail("e", 3);
  EXPECT_EQ(throttle_.Sources(), 4u);
  EXPECT_EQ(throttle_.MustWait("b"), std::nullopt);
  for (const char* source : {"a", "c", "d", "e"}) {
    EXPECT_EQ(throttle_.MustWait(source), seconds(10)) << source;
  }
}

TEST_F(AThrottle, SurvivesAClockThatIsSteppedBack) {
  Fail("10.0.0.1", 3);
  now_ -= seconds(500);
  EXPECT_GT(throttle_.MustWait("10.0.0.1"), seconds(10));
  // The next failure counts from the new time on.
  Fail("10.0.0.1", 1);
  EXPECT_EQ(throttle_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(AThrottle, MayBeAskedByManyThreads) {
  auto work = [this](const char* prefix) {
    for (int i = 0; i < 2000; ++i) {
      const std::string source = prefix + std::to_string(i % 8);
      throttle_.Failed(source);
      throttle_.MustWait(source);
    }
  };
  std::thread one(work, "x");
  std::thread two(work, "y");
  one.join();
  two.join();
  EXPECT_EQ(throttle_.Sources(), 4u);
}

}  // namespace
