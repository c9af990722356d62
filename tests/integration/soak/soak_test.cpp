#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dropped_log.h"
#include "ledger.h"
#include "other_process.h"
#include "revoker.h"
#include "support/device_with_accounts.h"
#include "support/random_seed.h"
#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"
#include "visitor.h"

namespace soak {
namespace {

using std::chrono::seconds;

constexpr int kThreads = 4;
constexpr seconds kRecovery{10};    // within which every operation works again
constexpr milliseconds kCalm{600};  // that goes on after it

// Starts the daemon and disturbs it. Answers an order with "done", or with the daemon's log.
class Keeper final {
 public:
  Keeper() {
    // Shorter than most of the daemon's standstills, longer than a busy machine's.
    camera_.device.Set("MsgBus", "timeout_ms", "2000");
  }

  std::string operator()(const std::string& order) {
    if (order == "where") return camera_.device.ConfigFile();
    if (order.rfind("live ", 0) == 0) {
      const milliseconds time(atoi(order.c_str() + 5));
      return camera_.device.Running().EndsWithin(time) ? "ended" : Revoker::kDone;
    }
    return Do(order) ? Revoker::kDone : "log: " + camera_.device.Log().substr(0, 4000);
  }

 private:
  bool Do(const std::string& order) {
    support::DaemonProcess& device = camera_.device;
    if (order == "set up") return SetUp();
    if (order == "kill") return device.Stop(SIGKILL).signal == SIGKILL;
    if (order == "start") {
      return device.LaunchAndAwaitReady() == support::DaemonProcess::Start::kReady;
    }
    if (order == "halt" || order == "continue") {
      device.Running().Signal(order == "halt" ? SIGSTOP : SIGCONT);
      return true;
    }
    if (order == "remove directory") return std::filesystem::remove_all(device.RuntimeDir()) > 0;
    return order == "make directory" && std::filesystem::create_directory(device.RuntimeDir());
  }
  bool SetUp() {
    bool done = camera_.Start() && camera_.Add("victim", "viewers");
    for (int number = 0; number < kThreads; ++number) {
      done = done && camera_.Add("view" + std::to_string(number), "viewers") &&
             camera_.Add("guest" + std::to_string(number), "viewers");
    }
    return done;
  }

  support::DeviceWithAccounts camera_;
};

// Standard error is a full pipe that no one reads, and the log goes there.
class FullLogPipe final {
 public:
  FullLogPipe()
      : sink_(tevra::core::Logger::SetSink(nullptr)), stderr_(fcntl(2, F_DUPFD_CLOEXEC, 3)) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) abort();
    const char block[4096] = {};
    while (write(ends[1], block, sizeof(block)) > 0) {
    }
    fcntl(ends[1], F_SETFL, 0);
    dup2(ends[1], 2);
    close(ends[1]);
    unread_ = support::Fd(ends[0]);
  }
  ~FullLogPipe() {
    dup2(stderr_.Get(), 2);
    tevra::core::Logger::SetSink(sink_);
  }
  FullLogPipe(const FullLogPipe&) = delete;
  FullLogPipe& operator=(const FullLogPipe&) = delete;

 private:
  tevra::core::Logger::Sink* const sink_;
  const support::Fd stderr_;
  support::Fd unread_;
};

// The process has no descriptor left until some are given back.
class NoDescriptors final {
 public:
  NoDescriptors() {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit little = {std::min<rlim_t>(before_.rlim_cur, 256), before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &little);
    TakeAll();
  }
  ~NoDescriptors() {
    taken_.clear();
    setrlimit(RLIMIT_NOFILE, &before_);
  }
  NoDescriptors(const NoDescriptors&) = delete;
  NoDescriptors& operator=(const NoDescriptors&) = delete;

  // Called again, takes those that closed connections have left.
  void TakeAll() {
    int fd = -1;
    while ((fd = fcntl(1, F_DUPFD_CLOEXEC, 3)) >= 0) taken_.emplace_back(fd);
  }
  void GiveOneBack() { taken_.pop_back(); }

 private:
  rlimit before_{};
  std::vector<support::Fd> taken_;
};

// Threads that ask for as long as they are let. The visitors stay what they are in between.
class Visitors final {
 public:
  Visitors(const vigila::client::VigilaClient& client, const OtherProcess<Revoker>& revoker,
           const Lives& lives, Ledger& ledger) {
    for (int number = 0; number < kThreads; ++number) {
      visitors_.push_back(std::make_unique<Visitor>(number, client, revoker, lives, ledger));
    }
    Start();
  }
  ~Visitors() { Stop(); }

  void Start() {
    stopping_ = false;
    for (const auto& visitor : visitors_) {
      threads_.emplace_back([this, &visitor] {
        while (!stopping_) visitor->Round();
      });
    }
  }
  void Stop() {
    stopping_ = true;
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

 private:
  std::atomic<bool> stopping_{false};
  std::vector<std::unique_ptr<Visitor>> visitors_;
  std::vector<std::thread> threads_;
};

seconds LongForm() {
  const char* const text = getenv("VIGILA_SOAK_SECONDS");
  return seconds(text != nullptr ? atoi(text) : 0);
}

double Milliseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::milli>(duration).count();
}

// A device, a client in this process, threads that use it, a process that takes back what they are
// granted, and everything that may go wrong around them.
class Soak : public testing::Test {
 protected:
  void SetUp() override {
    const std::string config = keeper_.Ask("where");
    Order("set up");
    ASSERT_FALSE(HasFatalFailure());
    revoker_ = std::make_unique<OtherProcess<Revoker>>(config);
    tevra::core::PlatformConfig::LoadFrom(config);
    client_ = std::make_unique<vigila::client::VigilaClient>();
    lives_.BeReady();
    visitors_ = std::make_unique<Visitors>(*client_, *revoker_, lives_, ledger_);
  }
  void TearDown() override {
    visitors_.reset();
    client_.reset();
    Report();
  }

  // Until everything has worked again, and a while longer.
  void BeCalm() {
    lives_.CalmDown();
    const int calm = lives_.Now().calm;
    const auto until = Clock::now() + kRecovery;
    while (!ledger_.AllWorkedIn(calm) && Clock::now() < until) Live(milliseconds(10));
    EXPECT_TRUE(ledger_.AllWorkedIn(calm)) << "calm " << calm;
    Live(kCalm);
    lives_.Disturb();
  }

  void KillTheDaemon() {
    lives_.Die();
    Order("kill");
    Order("start");
    lives_.BeReady();
  }
  void HaltTheDaemon() {
    Order("halt");
    Live(LongForm().count() > 0 ? milliseconds(1000 + random_() % 9000) : milliseconds(700));
    Order("continue");
  }
  // The daemon comes back, and so does one descriptor: enough for a call, not for the connection
  // that hears of changes as well.
  void TakeTheDescriptors() {
    NoDescriptors none;
    lives_.Die();
    Order("kill");
    none.TakeAll();
    Order("start");
    lives_.BeReady();
    Live(milliseconds(200));
    none.GiveOneBack();
    Live(milliseconds(500));
  }
  // No call is under way: a thread that waits for its answer could not tell the descriptor that
  // another one has opened meanwhile from its own.
  void CloseTheDescriptors() {
    visitors_->Stop();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    for (int fd = 3; fd < static_cast<int>(std::min<rlim_t>(limit.rlim_cur, 65536)); ++fd) {
      if (fd != keeper_.Descriptor() && fd != revoker_->Descriptor()) close(fd);
    }
    visitors_->Start();
  }
  void RemoveTheDirectory() {
    Order("remove directory");
    Live(milliseconds(300));
    Order("make directory");
    KillTheDaemon();
  }
  void FillTheLog() {
    const FullLogPipe pipe;
    KillTheDaemon();
    BeCalm();
  }

  void Report() const {
    printf("%d lives of the daemon, %d calms\n", lives_.Now().life, lives_.Now().calm);
    printf("%-22s %9s %9s %6s %16s\n", "operation", "asked", "owed", "failed", "works after, ms");
    for (const auto& [name, operation] : ledger_.Operations()) {
      printf("%-22s %9ld %9ld %6ld %16.1f\n", name.c_str(), operation.asked, operation.owed,
             operation.failed, Milliseconds(operation.last_failure));
    }
    for (const auto& [how, count] : ledger_.Revocations()) {
      printf("revocations by %-14s %8ld\n", how.c_str(), count);
    }
    printf("amid a disturbance %22ld\n", ledger_.RevocationsAmidDisturbance());
    printf("last grant of a dead daemon after %.2f ms\n", Milliseconds(ledger_.LongestStale()));
    printf("wrong grants: %zu\n", ledger_.WrongGrants().size());
  }
  void ExpectGood() const {
    EXPECT_EQ(ledger_.WrongGrants(), std::vector<std::string>());
    EXPECT_EQ(ledger_.Failures(), std::vector<std::string>());
    EXPECT_EQ(ledger_.Operations().size(), Ledger::kOperations);
    EXPECT_EQ(ledger_.Revocations().size(), Visitor::kWaysToRevoke);
    EXPECT_GT(ledger_.RevocationsAmidDisturbance(), 0);
    for (const auto& [name, operation] : ledger_.Operations()) {
      EXPECT_GT(operation.owed, 0) << name;
    }
  }

  void Order(const std::string& order) { ASSERT_EQ(keeper_.Ask(order), Revoker::kDone) << order; }
  // Passes the time; the daemon may not end in it.
  void Live(milliseconds time) { Order("live " + std::to_string(time.count())); }

  const OtherProcess<Keeper> keeper_;
  const DroppedLog log_;
  std::mt19937 random_{support::SeededGenerator()};
  Lives lives_;
  Ledger ledger_;
  std::unique_ptr<OtherProcess<Revoker>> revoker_;
  std::unique_ptr<vigila::client::VigilaClient> client_;
  std::unique_ptr<Visitors> visitors_;
};

// Every disturbance once, then again until VIGILA_SOAK_SECONDS have passed.
TEST_F(Soak, GrantsNothingWrongAndServesAgainAtOnceWhateverHappens) {
  const std::function<void()> disturbances[] = {
      [this] { KillTheDaemon(); },      [this] { HaltTheDaemon(); },
      [this] { TakeTheDescriptors(); }, [this] { CloseTheDescriptors(); },
      [this] { RemoveTheDirectory(); }, [this] { FillTheLog(); }};
  const auto end = Clock::now() + LongForm();
  BeCalm();
  do {
    for (const auto& disturb : disturbances) {
      disturb();
      BeCalm();
      ASSERT_FALSE(HasFailure());
    }
  } while (Clock::now() < end);
  visitors_->Stop();
  ExpectGood();
}

}  // namespace
}  // namespace soak
