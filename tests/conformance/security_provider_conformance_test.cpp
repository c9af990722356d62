#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bus_under_test.h"
#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "support/text_thrown_by.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/exception.h"

namespace conformance {
namespace {

using support::TextThrownBy;
using tevra::interfaces::ISecurityProvider;

// Waits for what the client's listeners hear, on whatever thread.
class Changes {
 public:
  void Attach(ISecurityProvider& provider) {
    using Delegate =
        tevra::core::VoidObjectMethodDelegate1<Changes, void (Changes::*)(const bool&), bool>;
    provider.AddChangeListener(std::make_unique<Delegate>(this, &Changes::OnChange));
  }
  void OnChange(const bool& value) {
    const std::lock_guard<std::mutex> lock(mutex_);
    values_.push_back(value);
    changed_.notify_all();
  }
  // False when fewer than `count` have come within the bound of a broken test.
  bool WaitFor(size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20),
                             [&] { return values_.size() >= count; });
  }
  size_t Count() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return values_.size();
  }
  std::vector<bool> Values() {
    const std::lock_guard<std::mutex> lock(mutex_);
    return values_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<bool> values_;
};

class SecurityProvider : public BusConformance {
 protected:
  void SetUp() override {
    BusConformance::SetUp();
    if (!bus_) return;
    bus_->Server().StartServer();
    served_.reset(ISecurityProvider::CreateServer(&bus_->Server(), &provider_));
    proxy_.reset(ISecurityProvider::CreateClient(&bus_->Client()));
    changes_.Attach(*proxy_);
    bus_->Client().StartServer();
    // A client that comes to a living server hears of it as well.
    heard_ = has_peers() ? 1 : 0;
    if (heard_ > 0) {
      ASSERT_TRUE(changes_.WaitFor(heard_));
    }
  }
  void TearDown() override {
    proxy_.reset();
    served_.reset();
  }

  support::RecordingProvider provider_;
  Changes changes_;
  size_t heard_ = 0;
  std::unique_ptr<ISecurityProvider::IServer> served_;
  std::unique_ptr<ISecurityProvider> proxy_;
};

TEST_P(SecurityProvider, CarriesEveryOperation) {
  provider_.number = -3;
  provider_.list = {"a", "", std::string(1, '\0')};
  std::string expires;
  EXPECT_EQ(proxy_->Authenticate(true, "u", "p"), "answer");
  EXPECT_EQ(proxy_->AuthenticateHttp(false, "u", "n", "h", true, "q", "c", "1", "r"), "answer");
  EXPECT_EQ(proxy_->AuthenticateWsse(true, "u", "d", "n", "c"), "answer");
  EXPECT_TRUE(proxy_->IsAuthenticated("t"));
  EXPECT_TRUE(proxy_->IsProtected("/p"));
  EXPECT_EQ(proxy_->GetAllowedPaths("t"), provider_.list);
  EXPECT_EQ(proxy_->GetAllowedPermissions("t"), provider_.list);
  EXPECT_EQ(proxy_->GetCredentials("t"), "");
  EXPECT_EQ(proxy_->GetExpiration("u", expires), -3);
  EXPECT_EQ(expires, "answer");
  EXPECT_TRUE(proxy_->Authorize("t", "/p"));
  EXPECT_TRUE(proxy_->Logout("t"));
  EXPECT_EQ(proxy_->GetNonce(), "answer");
  EXPECT_EQ(proxy_->GetUsers(), "answer");
  EXPECT_EQ(proxy_->AddUsers("{}"), -3);
  EXPECT_EQ(proxy_->ModifyUsers("{}"), -3);
  EXPECT_EQ(proxy_->DeleteUsers({"x", "", "y"}), -3);
  EXPECT_EQ(proxy_->DeleteUsers({}), -3);
  EXPECT_EQ(proxy_->ValidatePassword("u", "c", "p"), -3);
  EXPECT_EQ(proxy_->AddPassphrase("p", "a"), "answer");
  EXPECT_EQ(proxy_->GetPassphrases(), "answer");
  EXPECT_EQ(proxy_->GetPassphrase("i"), "answer");
  EXPECT_TRUE(proxy_->DeletePassphrase("i"));
  proxy_->Invalidate("u");
  EXPECT_EQ(provider_.Calls().size(), 24u);  // logging out asks for the session's name too
}

TEST_P(SecurityProvider, CarriesTextsOfAnyBytes) {
  std::string bytes;
  for (int i = 0; i < 256; ++i) bytes.push_back(static_cast<char>(i));
  provider_.credentials = bytes;
  EXPECT_EQ(proxy_->GetCredentials(bytes), bytes);
  EXPECT_EQ(provider_.Calls(), (std::vector<std::string>{"GetCredentials(" + bytes + ")"}));
}

TEST_P(SecurityProvider, CarriesAMebibyteInEitherDirection) {
  const std::string large(1 << 20, '\xe4');
  provider_.text = large;
  EXPECT_EQ(proxy_->GetUsers(), large);
  EXPECT_EQ(proxy_->AddUsers(large), 0);
  EXPECT_EQ(provider_.Calls().back(), "AddUsers(" + large + ")");
}

TEST_P(SecurityProvider, SaysWhatFailed) {
  provider_.failure = std::make_exception_ptr(tevra::osa::Exception("the disk is full"));
  EXPECT_EQ(TextThrownBy([&] { proxy_->GetUsers(); }), "the disk is full");
  provider_.failure = std::make_exception_ptr(std::runtime_error("out of luck"));
  EXPECT_EQ(TextThrownBy([&] { proxy_->GetUsers(); }), "out of luck");
  provider_.failure = nullptr;
  EXPECT_EQ(proxy_->GetUsers(), "answer");
}

TEST_P(SecurityProvider, SaysWhatIsUnimplemented) {
  try {
    proxy_->AllowHttpDigest();
    FAIL() << "nothing thrown";
  } catch (const tevra::osa::Exception& e) {
    EXPECT_EQ(e.code(), tevra::osa::Exception::kUnimplemented);
  }
}

TEST_P(SecurityProvider, RefusesTokensAndNoncesThatCannotBe) {
  provider_.text = "123456789";
  EXPECT_EQ(TextThrownBy([&] { proxy_->Authenticate(false, "u", "p"); }),
            "malformed reply to Authenticate: a text of 9 bytes");
  provider_.text = std::string(33, '0');
  EXPECT_EQ(TextThrownBy([&] { proxy_->GetNonce(); }),
            "malformed reply to GetNonce: a text of 33 bytes");
}

TEST_P(SecurityProvider, TellsTheClientOfEveryChange) {
  provider_.FireChangeListeners(true);
  provider_.FireChangeListeners(false);
  ASSERT_TRUE(changes_.WaitFor(heard_ + 2));
  std::vector<bool> expected(heard_, true);
  expected.insert(expected.end(), {true, false});
  EXPECT_EQ(changes_.Values(), expected);
}

TEST_P(SecurityProvider, TellsTheClientOfEndedSessions) {
  provider_.credentials = "alice";
  proxy_->Logout("t");
  ASSERT_TRUE(changes_.WaitFor(heard_ + 1));
  proxy_->Invalidate("*");
  ASSERT_TRUE(changes_.WaitFor(heard_ + 2));
  provider_.credentials = "";
  proxy_->Logout("t");
  provider_.FireChangeListeners(false);
  ASSERT_TRUE(changes_.WaitFor(heard_ + 3));
  // Nothing came between: the logout without a session was no news.
  EXPECT_EQ(changes_.Count(), heard_ + 3);
  EXPECT_FALSE(changes_.Values().back());
}

TEST_P(SecurityProvider, FailsAtOnceWithoutAServerAndWorksAgainWithTheNext) {
  served_.reset();
  EXPECT_NE(TextThrownBy([&] { proxy_->IsProtected("/"); }), "nothing thrown");
  if (has_peers()) {
    EXPECT_TRUE(changes_.WaitFor(heard_ + 1)) << "it has vanished";
  }
  served_.reset(ISecurityProvider::CreateServer(&server(), &provider_));
  if (has_peers()) {
    EXPECT_TRUE(changes_.WaitFor(heard_ + 2)) << "another one has appeared";
  }
  EXPECT_TRUE(proxy_->IsProtected("/"));
}

TEST_P(SecurityProvider, AnswersManyThreadsOneAtATime) {
  if (!has_peers()) GTEST_SKIP() << "one thread only on this bus";
  constexpr int kThreads = 4;
  constexpr int kCalls = 100;
  std::atomic<int> granted = 0;
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int call = 0; call < kCalls; ++call) granted += proxy_->Authorize("t", "/p") ? 1 : 0;
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(granted, kThreads * kCalls);
  EXPECT_EQ(provider_.Calls().size(), static_cast<size_t>(kThreads * kCalls));
}

INSTANTIATE_TEST_SUITE_P(EveryBus, SecurityProvider, EveryBus(), BusName);

}  // namespace
}  // namespace conformance
