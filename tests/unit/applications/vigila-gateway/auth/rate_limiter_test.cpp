#include "vigila-gateway/auth/rate_limiter.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vigila::gateway::RateLimiter;
using vigila::gateway::RateLimitSource;

class ARateLimiter : public testing::Test {
 protected:
  void Fail(const std::string& source, int times) {
    for (int i = 0; i < times; ++i) rate_limiter_.Failed(source);
  }

  RateLimiter::Clock::time_point now_{seconds(1000)};
  RateLimiter rate_limiter_{{3, seconds(10), 4}, [this] { return now_; }};
};

TEST_F(ARateLimiter, LetsAStrangerIn) {
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), std::nullopt);
}

TEST_F(ARateLimiter, HoldsBackWithTheLastOfTheBurstAndNotBefore) {
  Fail("10.0.0.1", 2);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), std::nullopt);
  Fail("10.0.0.1", 1);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(ARateLimiter, CountsTheSameTokenOnceInARow) {
  for (int i = 0; i < 10; ++i) rate_limiter_.FailedWithToken("10.0.0.1", "00000001");
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), std::nullopt);
  rate_limiter_.FailedWithToken("10.0.0.1", "00000002");
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), std::nullopt);
  rate_limiter_.FailedWithToken("10.0.0.1", "00000001");
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), seconds(10));
  rate_limiter_.FailedWithToken("10.0.0.2", "00000001");
  EXPECT_EQ(rate_limiter_.Sources(), 2u);
}

TEST_F(ARateLimiter, CountsTokensAndLogonsTogether) {
  Fail("10.0.0.1", 1);
  rate_limiter_.FailedWithToken("10.0.0.1", "00000001");
  Fail("10.0.0.1", 1);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(ARateLimiter, LetsInAgainAfterExactlyTheRecoveryTime) {
  Fail("10.0.0.1", 3);
  now_ += seconds(10) - milliseconds(1);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), seconds(1));
  now_ += milliseconds(1);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), std::nullopt);
  Fail("10.0.0.1", 1);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(ARateLimiter, ForgivesEverythingInTime) {
  Fail("10.0.0.1", 3);
  now_ += seconds(30);
  Fail("10.0.0.1", 2);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), std::nullopt);
}

TEST_F(ARateLimiter, NeverMakesWaitLongerThanOneRecovery) {
  Fail("10.0.0.1", 1000);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(ARateLimiter, KeepsSourcesApart) {
  Fail("10.0.0.1", 3);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.2"), std::nullopt);
}

TEST_F(ARateLimiter, CountsAnIpv6NetworkAsOne) {
  Fail("2001:db8::1", 1);
  Fail("2001:db8::2", 1);
  Fail("2001:db8:0:0:ffff::3", 1);
  EXPECT_EQ(rate_limiter_.MustWait("2001:db8::4"), seconds(10));
  EXPECT_EQ(rate_limiter_.MustWait("2001:db8:0:1::4"), std::nullopt);
}

TEST_F(ARateLimiter, CountsAMappedAddressAsWhatItStandsFor) {
  EXPECT_EQ(RateLimitSource("::ffff:10.0.0.1"), "10.0.0.1");
  EXPECT_EQ(RateLimitSource("no address"), "no address");
}

TEST_F(ARateLimiter, IsBoundedAndForgetsWhoFailedLongestAgo) {
  for (const char* source : {"a", "b", "c", "d"}) Fail(source, 3);
  Fail("a", 1);
  Fail("e", 3);
  EXPECT_EQ(rate_limiter_.Sources(), 4u);
  EXPECT_EQ(rate_limiter_.MustWait("b"), std::nullopt);
  for (const char* source : {"a", "c", "d", "e"}) {
    EXPECT_EQ(rate_limiter_.MustWait(source), seconds(10)) << source;
  }
}

TEST_F(ARateLimiter, SurvivesAClockThatIsSteppedBack) {
  Fail("10.0.0.1", 3);
  now_ -= seconds(500);
  EXPECT_GT(rate_limiter_.MustWait("10.0.0.1"), seconds(10));
  // The next failure counts from the new time on.
  Fail("10.0.0.1", 1);
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), seconds(10));
}

TEST_F(ARateLimiter, MayBeAskedByManyThreads) {
  auto work = [this](const char* prefix) {
    for (int i = 0; i < 2000; ++i) {
      const std::string source = prefix + std::to_string(i % 8);
      rate_limiter_.Failed(source);
      rate_limiter_.MustWait(source);
    }
  };
  std::thread one(work, "x");
  std::thread two(work, "y");
  one.join();
  two.join();
  EXPECT_EQ(rate_limiter_.Sources(), 4u);
}

}  // namespace
