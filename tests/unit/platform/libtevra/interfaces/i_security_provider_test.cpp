#include "tevra/interfaces/i_security_provider.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "support/capturing_log.h"
#include "support/change_recorder.h"
#include "support/recording_provider.h"
#include "support/virtual_slot.h"
#include "tevra/interfaces/revocation_page.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/sanitizer.h"

namespace tevra::interfaces {
namespace {

using support::ChangeRecorder;
using support::RecordingProvider;

class TracedListener : public core::IVoidDelegate1<bool> {
 public:
  TracedListener(void* target, int& destroyed) : target_(target), destroyed_(destroyed) {}
  ~TracedListener() override { ++destroyed_; }
  bool Matches(void* target) const override { return target == target_; }
  void Call(const bool&) override {}

 private:
  void* const target_;
  int& destroyed_;
};

class FunctionListener : public core::IVoidDelegate1<bool> {
 public:
  explicit FunctionListener(std::function<void()> call) : call_(std::move(call)) {}
  bool Matches(void* target) const override { return target == this; }
  void Call(const bool&) override { call_(); }

 private:
  const std::function<void()> call_;
};

TEST(ISecurityProvider, TellsEveryListenerTheValue) {
  RecordingProvider provider;
  ChangeRecorder first;
  ChangeRecorder second;
  first.Attach(provider);
  second.Attach(provider);
  provider.FireChangeListeners(true);
  provider.FireChangeListeners(false);
  EXPECT_EQ(first.Values(), (std::vector<bool>{true, false}));
  EXPECT_EQ(second.Values(), (std::vector<bool>{true, false}));
}

TEST(ISecurityProvider, FiresWithoutListeners) {
  RecordingProvider provider;
  provider.FireChangeListeners(true);
  EXPECT_TRUE(provider.Calls().empty());
}

TEST(ISecurityProvider, RemovesEveryListenerOfATargetAndNoOther) {
  RecordingProvider provider;
  ChangeRecorder leaving;
  ChangeRecorder staying;
  leaving.Attach(provider);
  staying.Attach(provider);
  leaving.Attach(provider);
  provider.RemoveChangeListeners(&leaving);
  provider.FireChangeListeners(true);
  EXPECT_TRUE(leaving.Values().empty());
  EXPECT_EQ(staying.Values().size(), 1u);
  provider.RemoveChangeListeners(&leaving);
}

TEST(ISecurityProvider, TellsWhoListensForItTheTokenOfAnEndedSession) {
  struct Tokens {
    void OnEnd(const std::string& token) { tokens.push_back(token); }
    std::vector<std::string> tokens;
  };
  using Listener =
      core::VoidObjectMethodDelegate1<Tokens, void (Tokens::*)(const std::string&), std::string>;
  RecordingProvider provider;
  ChangeRecorder changes;
  changes.Attach(provider);
  Tokens heard;
  provider.AddSessionEndListener(std::make_unique<Listener>(&heard, &Tokens::OnEnd));
  provider.AddSessionEndListener(nullptr);
  provider.FireSessionEndListeners("0F3A9C21");
  EXPECT_EQ(heard.tokens, (std::vector<std::string>{"0F3A9C21"}));
  EXPECT_TRUE(changes.Values().empty());
  provider.RemoveSessionEndListeners(&heard);
  provider.FireSessionEndListeners("12C5F92F");
  EXPECT_EQ(heard.tokens.size(), 1u);
}

TEST(ISecurityProvider, HasAPageThatNeverChangesUnlessAProxyHasAnother) {
  RecordingProvider provider;
  EXPECT_EQ(provider.GetRevocationPage(), RevocationPage::Unchanging());
}

TEST(ISecurityProvider, OwnsItsListeners) {
  int destroyed = 0;
  int target = 0;
  {
    RecordingProvider provider;
    provider.AddChangeListener(std::make_unique<TracedListener>(&target, destroyed));
    provider.AddChangeListener(std::make_unique<TracedListener>(&provider, destroyed));
    provider.RemoveChangeListeners(&target);
    EXPECT_EQ(destroyed, 1);
  }
  EXPECT_EQ(destroyed, 2);
}

TEST(ISecurityProvider, IgnoresANullListener) {
  RecordingProvider provider;
  provider.AddChangeListener(nullptr);
  provider.FireChangeListeners(true);
  provider.RemoveChangeListeners(nullptr);
  EXPECT_TRUE(provider.Calls().empty());
}

TEST(ISecurityProvider, LogsWhateverAListenerThrowsAndTellsTheOthers) {
  support::CapturingLog log;
  RecordingProvider provider;
  ChangeRecorder after;
  provider.AddChangeListener(
      std::make_unique<FunctionListener>([] { throw osa::Exception("listener broke"); }));
  provider.AddChangeListener(std::make_unique<FunctionListener>([] { throw 7; }));
  after.Attach(provider);
  EXPECT_NO_THROW(provider.FireChangeListeners(true));
  EXPECT_EQ(after.Values().size(), 1u);
  EXPECT_EQ(log.TextsOf("ISecurityProvider"),
            (std::vector<std::string>{"A change listener failed: listener broke",
                                      "A change listener failed: unknown exception"}));
}

TEST(ISecurityProvider, RefusesAListenerThatComesBack) {
  RecordingProvider provider;
  ChangeRecorder other;
  std::vector<std::string> refusals;
  const auto note = [&refusals](auto&& call) {
    try {
      call();
    } catch (const osa::Exception& refusal) {
      refusals.push_back(refusal.what());
    }
  };
  provider.AddChangeListener(std::make_unique<FunctionListener>([&] {
    note([&] { other.Attach(provider); });
    note([&] { provider.RemoveChangeListeners(&other); });
    note([&] { provider.FireChangeListeners(true); });
  }));
  provider.FireChangeListeners(true);
  EXPECT_EQ(refusals,
            std::vector<std::string>(3, "a listener may not add, remove or call listeners"));
  other.Attach(provider);  // and may again when no listener runs
  provider.FireChangeListeners(true);
  EXPECT_EQ(other.Values().size(), 1u);
}

TEST(ISecurityProvider, LetsAThreadBeCancelledInAListener) {
#if defined(TEVRA_THREAD_SANITIZER)
  GTEST_SKIP() << "the thread sanitizer misses what a cancelled thread gives back";
#endif
  RecordingProvider provider;
  ChangeRecorder after;
  std::promise<void> entered;
  provider.AddChangeListener(std::make_unique<FunctionListener>([&entered] {
    entered.set_value();
    for (;;) pause();
  }));
  after.Attach(provider);
  std::thread firing([&provider] { provider.FireChangeListeners(true); });
  entered.get_future().wait();
  pthread_cancel(firing.native_handle());
  firing.join();
  EXPECT_TRUE(after.Values().empty());
  provider.RemoveChangeListeners(&after);  // the mutex is free
}

TEST(ISecurityProvider, SaysThatItsOptionalOperationsAreUnimplemented) {
  const RecordingProvider provider;
  const auto code_of = [](auto&& call) {
    try {
      call();
    } catch (const osa::Exception& e) {
      return static_cast<int>(e.code());
    }
    return -1;
  };
  EXPECT_EQ(code_of([&] { provider.AllowHttpDigest(); }), osa::Exception::kUnimplemented);
  EXPECT_EQ(code_of([&] { provider.TestLdap("", "", "", 1, "", "", "", "", "", "", ""); }),
            osa::Exception::kUnimplemented);
}

TEST(ISecurityProvider, SurvivesFiringWhileListenersComeAndGo) {
  RecordingProvider provider;
  std::atomic<bool> stop = false;
  std::thread firing([&] {
    while (!stop) provider.FireChangeListeners(true);
  });
  for (int i = 0; i < 200; ++i) {
    ChangeRecorder recorder;
    recorder.Attach(provider);
    provider.RemoveChangeListeners(&recorder);
  }
  stop = true;
  firing.join();
}

#if defined(SUPPORT_HAS_VIRTUAL_SLOTS)
TEST(ISecurityProvider, KeepsTheOrderOfItsOperations) {
  using P = ISecurityProvider;
  const size_t slots[] = {
      support::VirtualSlot(&P::Authenticate),
      support::VirtualSlot(&P::AuthenticateHttp),
      support::VirtualSlot(&P::AuthenticateWsse),
      support::VirtualSlot(&P::TestLdap),
      support::VirtualSlot(&P::Invalidate),
      support::VirtualSlot(&P::IsAuthenticated),
      support::VirtualSlot(&P::IsProtected),
      support::VirtualSlot(&P::GetAllowedPaths),
      support::VirtualSlot(&P::GetAllowedPermissions),
      support::VirtualSlot(&P::GetCredentials),
      support::VirtualSlot(&P::GetExpiration),
      support::VirtualSlot(&P::Authorize),
      support::VirtualSlot(&P::Logout),
      support::VirtualSlot(&P::AllowHttpDigest),
      support::VirtualSlot(&P::GetNonce),
      support::VirtualSlot(&P::GetUsers),
      support::VirtualSlot(&P::AddUsers),
      support::VirtualSlot(&P::ModifyUsers),
      support::VirtualSlot(&P::DeleteUsers),
      support::VirtualSlot(&P::ValidatePassword),
      support::VirtualSlot(&P::AddPassphrase),
      support::VirtualSlot(&P::GetPassphrases),
      support::VirtualSlot(&P::GetPassphrase),
      support::VirtualSlot(&P::DeletePassphrase),
  };
  size_t expected = 2;  // after the two of the destructor
  for (size_t slot : slots) EXPECT_EQ(slot, expected++);
}
#endif

}  // namespace
}  // namespace tevra::interfaces
