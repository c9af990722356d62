#include "vigila-gateway/auth/circuit_breaker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using vigila::gateway::AuthService;
using vigila::gateway::CircuitBreaker;
using vigila::gateway::DigestLogon;
using vigila::gateway::ServiceCounts;
using vigila::gateway::WsseLogon;

// A service that is there or is not, as the test says; to be asked by several threads.
class Service final : public AuthService {
 public:
  bool IsProtected(const std::string&) override { return Asked(); }
  bool Authorize(const std::string&, const std::string&) override { return Asked(); }
  std::string LogOnWithPassword(const std::string&, const std::string&) override { return Word(); }
  std::string LogOnWithDigest(const DigestLogon&) override { return Word(); }
  std::string LogOnWithWsse(const WsseLogon&) override { return Word(); }
  bool Logout(const std::string&) override { return Asked(); }
  std::string GetNonce() override { return Word(); }
  std::string GetUser(const std::string&) override { return Word(); }
  std::vector<std::string> GetPermissions(const std::string&) override { return {Word()}; }
  bool IsReachable() override {
    ++looks;
    return reachable;
  }
  ServiceCounts Counts() const override { return {0, 0, failures}; }

  std::atomic<bool> reachable{true};
  std::atomic<int> questions{0};
  std::atomic<int> looks{0};
  std::atomic<uint64_t> failures{0};

 private:
  bool Asked() {
    ++questions;
    const bool answered = reachable;
    if (!answered) ++failures;
    return answered;
  }
  std::string Word() { return Asked() ? "word" : ""; }
};

void AskEverything(CircuitBreaker& breaker, bool answered) {
  const std::string word = answered ? "word" : "";
  EXPECT_EQ(breaker.IsProtected("/"), answered);
  EXPECT_EQ(breaker.Authorize("t", "/"), answered);
  EXPECT_EQ(breaker.LogOnWithPassword("u", "p"), word);
  EXPECT_EQ(breaker.LogOnWithDigest({}), word);
  EXPECT_EQ(breaker.LogOnWithWsse({}), word);
  EXPECT_EQ(breaker.Logout("t"), answered);
  EXPECT_EQ(breaker.GetNonce(), word);
  EXPECT_EQ(breaker.GetUser("t"), word);
  EXPECT_EQ(breaker.GetPermissions("t").size(), answered ? 1u : 0u);
  EXPECT_EQ(breaker.IsReachable(), answered);
}

TEST(ACircuitBreaker, PassesEveryQuestionOn) {
  Service service;
  CircuitBreaker breaker(service, {milliseconds(0), milliseconds(1)});
  AskEverything(breaker, true);
  EXPECT_EQ(service.questions, 9);
  EXPECT_EQ(service.looks, 1);
}

TEST(ACircuitBreaker, AsksNothingMoreAfterALongWaitInVain) {
  Service service;
  CircuitBreaker breaker(service, {milliseconds(0), hours(1)});
  service.reachable = false;
  EXPECT_EQ(breaker.GetNonce(), "");
  EXPECT_EQ(service.questions, 1);
  AskEverything(breaker, false);
  EXPECT_EQ(service.questions, 1);
}

TEST(ACircuitBreaker, FindsTheServiceAgainByItself) {
  Service service;
  CircuitBreaker breaker(service, {milliseconds(0), milliseconds(1)});
  service.reachable = false;
  breaker.GetNonce();
  while (service.looks < 3) std::this_thread::yield();
  EXPECT_EQ(breaker.GetNonce(), "");
  service.reachable = true;
  while (breaker.GetNonce().empty()) std::this_thread::yield();
  AskEverything(breaker, true);
}

TEST(ACircuitBreaker, AsksAServiceThatRefusesAtOnceEveryTime) {
  Service service;
  CircuitBreaker breaker(service, {hours(1), hours(1)});
  service.reachable = false;
  EXPECT_EQ(breaker.GetNonce(), "");
  EXPECT_EQ(breaker.GetNonce(), "");
  EXPECT_EQ(service.questions, 2);
  service.reachable = true;
  EXPECT_EQ(breaker.GetNonce(), "word");
  EXPECT_EQ(service.looks, 0);
}

TEST(ACircuitBreaker, StaysClosedAfterALongWaitWithAnAnswer) {
  Service service;
  service.failures = 5;
  CircuitBreaker breaker(service, {milliseconds(0), hours(1)});
  EXPECT_EQ(breaker.GetNonce(), "word");
  EXPECT_EQ(breaker.GetNonce(), "word");
  EXPECT_EQ(service.looks, 0);
}

TEST(ACircuitBreaker, EndsWhileItIsOpen) {
  Service service;
  service.reachable = false;
  CircuitBreaker breaker(service, {milliseconds(0), hours(1)});
  breaker.GetNonce();
}

}  // namespace
