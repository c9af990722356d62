// Threads that end, or whose process ends, in the middle of a call.

#include <gtest/gtest.h>
#include <pthread.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/sanitizer.h"
#include "vigila/client/vigila_client.h"

namespace {

using support::RecordingProvider;
using tevra::interfaces::ISecurityProvider;
using tevra::msgbus::MsgBus;
using vigila::client::VigilaClient;

// A service that may hang in GetNonce until it is let go.
class HangingProvider final : public RecordingProvider {
 public:
  std::string GetNonce() override {
    if (!hangs.exchange(false)) return RecordingProvider::GetNonce();
    entered.set_value();
    released.get_future().wait();
    return "a late answer";
  }
  std::atomic<bool> hangs = false;
  std::promise<void> entered;
  std::promise<void> released;
};

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif
// It does not learn that the frames of a cancelled thread are gone, and takes what is written there
// afterwards for a fault.
constexpr char kLosesCancelledThreads[] = "the address sanitizer loses cancelled threads";
// It calls what a thread was holding when the process ended a leak.
constexpr char kExpectsAnEmptyHeap[] = "the address sanitizer wants everything back at an exit";

class AnEndingThread : public testing::Test {
 protected:
  void SetUp() override {
    provider_.text = "12345678";
    server_.reset(ISecurityProvider::CreateServer(bus_.get(), &provider_));
    bus_->StartServer();
  }

  // What many callers do, some of it from memory and some not.
  static void CallForEver(const VigilaClient& client) {
    for (int i = 0;; ++i) {
      client.Authorize("12345678", "/" + std::to_string(i % 100));
      client.IsProtected("/jpeg/1");
      client.GetNonce();
    }
  }

  support::CapturingLog log_;
  support::PlatformFixture platform_;
  HangingProvider provider_;
  std::unique_ptr<MsgBus> bus_ = std::make_unique<MsgBus>();
  std::unique_ptr<ISecurityProvider::IServer> server_;
};

TEST_F(AnEndingThread, LeavesACallThatHangsWhenItIsCancelled) {
  if (kUnderAddressSanitizer) GTEST_SKIP() << kLosesCancelledThreads;
  const VigilaClient client;
  provider_.hangs = true;
  std::thread caller([&client] { client.GetNonce(); });
  provider_.entered.get_future().wait();
  pthread_cancel(caller.native_handle());
  caller.join();
  provider_.released.set_value();
  EXPECT_EQ(client.GetNonce(), "12345678") << "the answer of the call that was left";
}

TEST_F(AnEndingThread, LeavesTheQueueForAConnectionWhenItIsCancelled) {
  if (kUnderAddressSanitizer) GTEST_SKIP() << kLosesCancelledThreads;
  platform_.Set("MsgBus", "pool_size", "1");
  const VigilaClient client;
  provider_.hangs = true;
  std::thread holder([&client] { EXPECT_EQ(client.GetNonce(), "a late answer"); });
  provider_.entered.get_future().wait();
  std::thread waiter([&client] { client.GetNonce(); });
  pthread_cancel(waiter.native_handle());
  waiter.join();
  provider_.released.set_value();
  holder.join();
  EXPECT_EQ(client.GetNonce(), "12345678");
}

TEST_F(AnEndingThread, MayBeCancelledAnywhereInACall) {
  if (kUnderAddressSanitizer) GTEST_SKIP() << kLosesCancelledThreads;
  const VigilaClient client;
  for (int i = 0; i < 300; ++i) {
    std::thread caller([&client] { CallForEver(client); });
    // Spread over the first calls, the one that connects among them.
    for (int spin = 0; spin < i * 200; ++spin) __asm__ volatile("");
    pthread_cancel(caller.native_handle());
    caller.join();
  }
  EXPECT_EQ(client.GetNonce(), "12345678");
}

TEST_F(AnEndingThread, MayBeInACallWhenTheProcessExits) {
  if (kUnderAddressSanitizer) GTEST_SKIP() << kExpectsAnEmptyHeap;
#if defined(TEVRA_THREAD_SANITIZER)
  GTEST_SKIP() << "the sanitizer allows no threads after fork";
#endif
  for (int i = 0; i < 100; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      auto* const client = new VigilaClient;
      for (int thread = 0; thread < 4; ++thread) {
        std::thread([client] { CallForEver(*client); }).detach();
      }
      client->Authorize("12345678", "/jpeg/1");
      exit(0);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status) << " in round " << i;
    ASSERT_EQ(WEXITSTATUS(status), 0);
  }
}

}  // namespace
