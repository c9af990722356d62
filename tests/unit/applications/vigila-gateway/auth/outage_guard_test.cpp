#include "vigila-gateway/auth/outage_guard.h"

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
using vigila::gateway::DigestLogon;
using vigila::gateway::OutageGuard;
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

void AskEverything(OutageGuard& guard, bool answered) {
  const std::string word = answered ? "word" : "";
  EXPECT_EQ(guard.IsProtected("/"), answered);
  EXPECT_EQ(guard.Authorize("t", "/"), answered);
  EXPECT_EQ(guard.LogOnWithPassword("u", "p"), word);
  EXPECT_EQ(guard.LogOnWithDigest({}), word);
  EXPECT_EQ(guard.LogOnWithWsse({}), word);
  EXPECT_EQ(guard.Logout("t"), answered);
  EXPECT_EQ(guard.GetNonce(), word);
  EXPECT_EQ(guard.GetUser("t"), word);
  EXPECT_EQ(guard.GetPermissions("t").size(), answered ? 1u : 0u);
  EXPECT_EQ(guard.IsReachable(), answered);
}

TEST(AnOutageGuard, PassesEveryQuestionOn) {
  Service service;
  OutageGuard guard(service, {milliseconds(0), milliseconds(1)});
  AskEverything(guard, true);
  EXPECT_EQ(service.questions, 9);
  EXPECT_EQ(service.looks, 1);
}

TEST(AnOutageGuard, AsksNothingMoreAfterALongWaitInVain) {
  Service service;
  OutageGuard guard(service, {milliseconds(0), hours(1)});
  service.reachable = false;
  EXPECT_EQ(guard.GetNonce(), "");
  EXPECT_EQ(service.questions, 1);
  AskEverything(guard, false);
  EXPECT_EQ(service.questions, 1);
}

TEST(AnOutageGuard, FindsTheServiceAgainByItself) {
  Service service;
  OutageGuard guard(service, {milliseconds(0), milliseconds(1)});
  service.reachable = false;
  guard.GetNonce();
  while (service.looks < 3) std::this_thread::yield();
  EXPECT_EQ(guard.GetNonce(), "");
  service.reachable = true;
  while (guard.GetNonce().empty()) std::this_thread::yield();
  AskEverything(guard, true);
}

TEST(AnOutageGuard, AsksAServiceThatRefusesAtOnceEveryTime) {
  Service service;
  OutageGuard guard(service, {hours(1), hours(1)});
  service.reachable = false;
  EXPECT_EQ(guard.GetNonce(), "");
  EXPECT_EQ(guard.GetNonce(), "");
  EXPECT_EQ(service.questions, 2);
  service.reachable = true;
  EXPECT_EQ(guard.GetNonce(), "word");
  EXPECT_EQ(service.looks, 0);
}

TEST(AnOutageGuard, TakesALongWaitWithAnAnswerForNoOutage) {
  Service service;
  service.failures = 5;
  OutageGuard guard(service, {milliseconds(0), hours(1)});
  EXPECT_EQ(guard.GetNonce(), "word");
  EXPECT_EQ(guard.GetNonce(), "word");
  EXPECT_EQ(service.looks, 0);
}

TEST(AnOutageGuard, EndsDuringAnOutage) {
  Service service;
  service.reachable = false;
  OutageGuard guard(service, {milliseconds(0), hours(1)});
  guard.GetNonce();
}

}  // namespace
