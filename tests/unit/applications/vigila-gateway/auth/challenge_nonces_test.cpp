#include "vigila-gateway/auth/challenge_nonces.h"

#include <gtest/gtest.h>

#include <future>
#include <optional>
#include <set>
#include <string>

#include "support/fake_auth_service.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using vigila::gateway::ChallengeNonces;

class TheChallengeNonces : public testing::Test {
 protected:
  // How many nonces of its own the source gets until it must wait.
  int TakeAll(const std::string& source) {
    int taken = 0;
    while (!nonces_.MustWait(source) && taken < 10000) {
      EXPECT_NE(nonces_.Own(source), "");
      ++taken;
    }
    return taken;
  }

  FakeAuthService service_;
  ChallengeNonces::Clock::time_point now_{seconds(1000)};
  ChallengeNonces nonces_{service_, [this] { return now_; }};
};

TEST_F(TheChallengeNonces, AreOneForAllWhoAskWithinASecond) {
  for (int i = 0; i < 10000; ++i) EXPECT_EQ(nonces_.Shared(), "nonce1");
  now_ += milliseconds(999);
  EXPECT_EQ(nonces_.Shared(), "nonce1");
  now_ += milliseconds(1);
  EXPECT_EQ(nonces_.Shared(), "nonce2");
  EXPECT_EQ(service_.nonces, 2);
}

TEST_F(TheChallengeNonces, AreFetchedWhenSomebodyAsksAndNotBefore) {
  EXPECT_EQ(service_.nonces, 0);
  nonces_.Shared();
  now_ += seconds(3600);
  EXPECT_EQ(service_.nonces, 1);
}

TEST_F(TheChallengeNonces, OfOnesOwnAreNeverHandedOutTwice) {
  std::set<std::string> seen = {nonces_.Shared()};
  for (int i = 0; i < 100; ++i) EXPECT_TRUE(seen.insert(nonces_.Own("10.0.0.1")).second);
  EXPECT_EQ(nonces_.Shared(), "nonce1");
}

TEST_F(TheChallengeNonces, OfOnesOwnAreNotForOneSourceToPushAllOthersOut) {
  EXPECT_EQ(TakeAll("10.0.0.1"), 256);
  EXPECT_EQ(nonces_.MustWait("10.0.0.1"), seconds(1));
  EXPECT_EQ(nonces_.MustWait("10.0.0.2"), std::nullopt);
  now_ += seconds(1);
  EXPECT_EQ(TakeAll("10.0.0.1"), 16);
  EXPECT_EQ(TakeAll("2001:db8::1"), 256);
  EXPECT_EQ(nonces_.MustWait("2001:db8::2"), seconds(1));
}

TEST_F(TheChallengeNonces, AreNoneWithoutTheService) {
  EXPECT_EQ(nonces_.Shared(), "nonce1");
  now_ += seconds(1);
  service_.reachable = false;
  EXPECT_EQ(nonces_.Shared(), "");
  EXPECT_EQ(nonces_.Own("10.0.0.1"), "");
  service_.reachable = true;
  EXPECT_EQ(nonces_.Shared(), "nonce2");
}

TEST_F(TheChallengeNonces, DoNotMakeAServiceThatHasGoneLookAlive) {
  EXPECT_EQ(nonces_.Shared(), "nonce1");
  service_.reachable = false;
  // Another question that failed meanwhile tells.
  EXPECT_EQ(service_.GetUser("0123ABCD"), "");
  EXPECT_EQ(nonces_.Shared(), "");
  service_.reachable = true;
  EXPECT_EQ(nonces_.Shared(), "nonce1");
}

TEST_F(TheChallengeNonces, CostNoMoreWhenStrangersMakeQuestionsFail) {
  for (int i = 0; i < 1000; ++i) {
    EXPECT_EQ(nonces_.Shared(), "nonce1");
    ++service_.counts.failures;
  }
  EXPECT_EQ(service_.nonces, 1);
}

// Answers only when it is let.
class HangingService : public FakeAuthService {
 public:
  std::string GetNonce() override {
    if (hanging) {
      asked.set_value();
      answer.get_future().wait();
    }
    return FakeAuthService::GetNonce();
  }

  bool hanging = false;
  std::promise<void> asked;
  std::promise<void> answer;
};

TEST(ANonceThatIsBeingFetched, KeepsNoOneWaitingWhileItsPredecessorIsYoung) {
  HangingService service;
  ChallengeNonces::Clock::time_point now{seconds(1000)};
  ChallengeNonces nonces(service, [&now] { return now; });
  EXPECT_EQ(nonces.Shared(), "nonce1");
  now += seconds(1);
  service.hanging = true;
  auto fetched = std::async(std::launch::async, [&nonces] { return nonces.Shared(); });
  service.asked.get_future().wait();
  service.hanging = false;
  EXPECT_EQ(nonces.Shared(), "nonce1");
  now += milliseconds(8999);
  EXPECT_EQ(nonces.Shared(), "nonce1");
  // Too old by now: better asked for than handed out.
  now += milliseconds(1);
  EXPECT_EQ(nonces.Shared(), "nonce2");
  service.answer.set_value();
  EXPECT_EQ(fetched.get(), "nonce3");
}

}  // namespace
