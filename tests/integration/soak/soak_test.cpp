#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ledger.h"
#include "support/device_with_accounts.h"
#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"
#include "visitor.h"

namespace soak {
namespace {

constexpr int kThreads = 4;
constexpr std::chrono::seconds kPeriod{2};  // between one start of the daemon and the next kill

// A daemon that is killed on purpose fills no screen.
class DroppedLog final : public tevra::core::Logger::Sink {
 public:
  DroppedLog() { tevra::core::Logger::SetSink(this); }
  ~DroppedLog() override { tevra::core::Logger::SetSink(nullptr); }
  void Write(tevra::core::Logger::Level, const std::string&, const std::string&) override {}
};

// Threads that go round until the end of the scope.
class Visitors {
 public:
  Visitors(const vigila::client::VigilaClient& client, const Lives& lives, Ledger& ledger) {
    for (int number = 0; number < kThreads; ++number) {
      threads_.emplace_back([this, number, &client, &lives, &ledger] {
        Visitor visitor(number, client, lives, ledger);
        while (!done_) visitor.Round();
      });
    }
  }
  ~Visitors() {
    done_ = true;
    for (std::thread& thread : threads_) thread.join();
  }

 private:
  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
};

std::chrono::seconds Duration() {
  const char* const seconds = getenv("VIGILA_SOAK_SECONDS");
  return std::chrono::seconds(seconds != nullptr ? atoi(seconds) : 7);
}

double Milliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

void Report(const Ledger& ledger, int lives) {
  printf("%d lives of the daemon\n", lives);
  printf("%-22s %9s %9s %6s %16s\n", "operation", "asked", "owed", "failed", "works after, ms");
  for (const auto& [name, operation] : ledger.Operations()) {
    printf("%-22s %9ld %9ld %6ld %16.1f\n", name.c_str(), operation.asked, operation.owed,
           operation.failed, Milliseconds(operation.last_failure));
  }
  for (const auto& [why, longest] : ledger.LongestStale()) {
    printf("last stale grant after %-16s %6.2f ms\n", why.c_str(), Milliseconds(longest));
  }
  printf("wrong grants: %zu\n", ledger.WrongGrants().size());
}

void ExpectGood(const Ledger& ledger, int lives) {
  EXPECT_EQ(ledger.WrongGrants(), std::vector<std::string>());
  EXPECT_EQ(ledger.Operations().size(), 12u) << "every operation of the client";
  for (const auto& [name, operation] : ledger.Operations()) {
    EXPECT_EQ(operation.failed, 0) << name << " did not work again in time";
    EXPECT_GT(operation.owed, 0) << name;
    // The last life may have been too short for it.
    for (int life = 1; life < lives; ++life) {
      EXPECT_TRUE(operation.worked_in.count(life)) << name << " never worked in life " << life;
    }
  }
}

// Runs for VIGILA_SOAK_SECONDS.
TEST(Soak, GrantsNothingWrongAndServesAgainAtOnceHoweverOftenTheDaemonDies) {
  const DroppedLog log;
  support::DeviceWithAccounts camera;
  ASSERT_TRUE(camera.Start()) << camera.device.Log();
  ASSERT_TRUE(camera.Add("victim", "viewers"));
  for (int number = 0; number < kThreads; ++number) {
    ASSERT_TRUE(camera.Add("view" + std::to_string(number), "viewers"));
    ASSERT_TRUE(camera.Add("guest" + std::to_string(number), "viewers"));
  }
  tevra::core::PlatformConfig::LoadFrom(camera.device.ConfigFile());
  Lives lives;
  Ledger ledger;
  {
    const vigila::client::VigilaClient client;
    lives.Begin();
    const Visitors visitors(client, lives, ledger);
    const auto end = Clock::now() + Duration();
    for (auto kill = Clock::now() + kPeriod; kill < end; kill += kPeriod) {
      const auto span = std::chrono::duration_cast<std::chrono::microseconds>(kill - Clock::now());
      ASSERT_FALSE(camera.device.Running().EndsWithin(span)) << camera.device.Log();
      lives.End();
      camera.device.Stop(SIGKILL);
      ASSERT_EQ(camera.device.LaunchAndAwaitReady(), support::DaemonProcess::Start::kReady)
          << camera.device.Log();
      lives.Begin();
    }
    EXPECT_FALSE(camera.device.Running().EndsWithin(
        std::chrono::duration_cast<std::chrono::microseconds>(end - Clock::now())));
  }
  Report(ledger, lives.Now().life);
  ExpectGood(ledger, lives.Now().life);
}

}  // namespace
}  // namespace soak
