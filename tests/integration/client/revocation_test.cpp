#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/capturing_log.h"
#include "support/device_with_accounts.h"
#include "tevra/core/platform_config.h"
#include "vigila/client/vigila_client.h"

// No kept answer outlives the call that ended it, nor for long the daemon that gave it, however
// often it is asked for meanwhile.
namespace {

using support::Clock;
using support::DaemonProcess;
using vigila::client::VigilaClient;

constexpr char kPath[] = "/jpeg/1";
constexpr char kProtected[] = "/inject.cgi";
constexpr size_t kTokenSize = 8;

// A process of its own with a client of its own that ends sessions: it logs out the tokens that
// come through a pipe, every second time by ending all sessions of the user, and says when it is
// done.
class Revoker final {
 public:
  explicit Revoker(const std::string& config) {
    if (pipe2(questions_, O_CLOEXEC) != 0 || pipe2(answers_, O_CLOEXEC) != 0) abort();
    process_ = fork();
    if (process_ != 0) return;
    close(questions_[1]);
    close(answers_[0]);
    tevra::core::PlatformConfig::LoadFrom(config);
    const VigilaClient client;
    std::string token(kTokenSize, '\0');
    for (int trial = 0; read(questions_[0], token.data(), kTokenSize) == kTokenSize; ++trial) {
      bool done = true;
      if (trial % 2 == 0) {
        done = client.Logout(token);
      } else {
        client.Invalidate("view");
      }
      if (write(answers_[1], done ? "y" : "n", 1) != 1) break;
    }
    _exit(0);
  }
  ~Revoker() {
    close(questions_[1]);
    waitpid(process_, nullptr, 0);
    close(questions_[0]);
    close(answers_[0]);
    close(answers_[1]);
  }
  Revoker(const Revoker&) = delete;
  Revoker& operator=(const Revoker&) = delete;

  bool Revoke(const std::string& token) const {
    char answer = 'n';
    return write(questions_[1], token.data(), kTokenSize) == kTokenSize &&
           read(answers_[0], &answer, 1) == 1 && answer == 'y';
  }

 private:
  int questions_[2];
  int answers_[2];
  pid_t process_;
};

class ARevocation : public testing::Test {
 protected:
  void SetUp() override {
    camera_.device.Set("MsgBus", "timeout_ms", "1000");
    ASSERT_TRUE(camera_.Start()) << camera_.device.Log();
    tevra::core::PlatformConfig::LoadFrom(camera_.device.ConfigFile());
    tevra::core::Logger::SetLevel(tevra::core::Logger::kError);
  }

  static std::string LogOn(const VigilaClient& client) {
    std::string token;
    EXPECT_TRUE(client.Authenticate("view", "view's secret", "", token));
    return token;
  }
  // Waits until memory answers the question; the page may still be on its way.
  static bool IsKept(const VigilaClient& client, const std::string& token) {
    return Within20s([&] {
      client.Authorize(token, kPath);
      return client.TryAuthorize(token, kPath) == true;
    });
  }
  static bool Within20s(const std::function<bool()>& condition) {
    return Within(std::chrono::seconds(20), condition);
  }
  static bool Within(std::chrono::seconds time, const std::function<bool()>& condition) {
    const auto until = Clock::now() + time;
    while (Clock::now() < until) {
      if (condition()) return true;
      std::this_thread::yield();
    }
    return false;
  }

  support::CapturingLog log_;  // the daemon dies on purpose: no one need read of it
  support::DeviceWithAccounts camera_;
};

TEST_F(ARevocation, IsObeyedByEveryClientFromTheMomentThatItIsAnswered) {
  constexpr int kTrials = 2000;
  const Revoker revoker(camera_.device.ConfigFile());
  const VigilaClient client;
  ASSERT_TRUE(IsKept(client, LogOn(client)));

  // Beside the questions that count, another thread asks without a pause, so that answers are
  // always on their way when the session ends.
  std::atomic<bool> stop{false};
  std::atomic<const std::string*> asked{nullptr};
  std::thread asking([&] {
    while (!stop) {
      if (const std::string* const token = asked) client.Authorize(*token, kPath);
    }
  });
  std::vector<std::string> tokens(kTrials);
  int wrong = 0;
  int kept = 0;
  for (std::string& token : tokens) {
    std::string fresh;
    client.Authenticate("view", "view's secret", "", fresh);
    token = fresh;
    asked = &token;
    client.Authorize(token, kPath);
    kept += client.TryAuthorize(token, kPath) == true;
    if (!revoker.Revoke(token)) break;
    wrong += client.TryAuthorize(token, kPath) == true;
    wrong += client.Authorize(token, kPath);
    wrong += client.IsAuthenticated(token);
  }
  stop = true;
  asking.join();
  EXPECT_EQ(wrong, 0) << "of " << kTrials;
  EXPECT_FALSE(tokens.back().empty());
  EXPECT_GT(kept, kTrials / 2) << "hardly anything was in memory to be revoked";
}

TEST_F(ARevocation, CostsOtherSessionsNoQuestion) {
  const VigilaClient client;
  const VigilaClient visitor;
  const std::string mine = LogOn(client);
  ASSERT_TRUE(IsKept(client, mine));
  int missed = 0;
  for (int i = 0; i < 30; ++i) {
    std::string other;
    ASSERT_TRUE(visitor.Authenticate("admin", "admin's secret", "", other));
    ASSERT_TRUE(visitor.Logout(other));
    // A busy machine may leave the daemon without a turn for a moment; what was forgotten does not
    // come back.
    missed +=
        !Within(std::chrono::seconds(1), [&] { return client.TryAuthorize(mine, kPath) == true; });
    ASSERT_TRUE(IsKept(client, mine));
  }
  EXPECT_LE(missed, 2) << "one token in 512 shares a slot with another";
}

TEST_F(ARevocation, OfADaemonThatHangsNeedsNoWord) {
  const VigilaClient client;
  const std::string token = LogOn(client);
  ASSERT_TRUE(IsKept(client, token));
  camera_.device.Running().Signal(SIGSTOP);
  EXPECT_TRUE(Within20s([&] { return client.TryAuthorize(token, kPath) != true; }))
      << "hits kept the grant alive while no one could have taken it back";
  EXPECT_FALSE(client.IsProtected(kProtected)) << "no answer within the deadline";
  camera_.device.Running().Signal(SIGCONT);
  EXPECT_TRUE(Within20s([&] { return client.IsProtected(kProtected); }))
      << "the guess outlived the daemon's standstill";
  EXPECT_TRUE(IsKept(client, token));
}

TEST_F(ARevocation, OfADaemonThatIsKilledAndReplacedNeedsNoWord) {
  const VigilaClient client;
  const std::string token = LogOn(client);
  ASSERT_TRUE(IsKept(client, token));
  camera_.device.Stop(SIGKILL);
  EXPECT_TRUE(Within20s([&] { return client.TryAuthorize(token, kPath) != true; }));
  ASSERT_EQ(camera_.device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  EXPECT_TRUE(Within20s([&] { return IsKept(client, LogOn(client)); }));
  EXPECT_FALSE(client.Authorize(token, kPath));
}

TEST_F(ARevocation, OfADaemonThatStopsTakesEffectAtOnce) {
  const VigilaClient client;
  const std::string token = LogOn(client);
  ASSERT_TRUE(IsKept(client, token));
  camera_.device.Stop(SIGTERM);
  EXPECT_NE(client.TryAuthorize(token, kPath), true);
}

// The client has one descriptor left when the daemon comes back: enough for a call, not for the
// connection over which it would hear that a session has ended.
TEST_F(ARevocation, IsObeyedByAClientWithoutADescriptorToHearOfIt) {
  int to_client[2];
  int from_client[2];
  ASSERT_EQ(pipe2(to_client, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(from_client, O_CLOEXEC), 0);
  const pid_t process = fork();
  if (process == 0) {
    close(to_client[1]);
    close(from_client[0]);
    const auto tell = [&](const std::string& text) {
      return write(from_client[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
    };
    const auto await = [&] {
      char byte;
      if (read(to_client[0], &byte, 1) != 1) _exit(9);
    };
    const VigilaClient client;
    if (!IsKept(client, LogOn(client))) _exit(1);
    tell("k");
    await();  // the daemon is dead; its connections fall
    if (!Within20s([&] { return client.GetNonce().empty(); })) _exit(2);
    rlimit limit = {};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = 64;
    setrlimit(RLIMIT_NOFILE, &limit);
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0)) taken.push_back(fd);
    tell("f");
    await();  // another daemon runs
    std::string token;
    const auto log_on = [&] {
      return client.Authenticate("view", "view's secret", "", token) &&
             client.Authorize(token, kPath);
    };
    // One descriptor; one more when the watch was quicker than the call.
    do {
      if (taken.empty()) _exit(3);
      close(taken.back());
      taken.pop_back();
    } while (!Within(std::chrono::seconds(2), log_on));
    tell(token);
    await();  // the session has ended
    _exit(client.Authorize(token, kPath) ? 4 : 0);
  }
  close(to_client[0]);
  close(from_client[1]);
  std::string token(kTokenSize, '\0');
  const auto go = [&] { return write(to_client[1], "g", 1) == 1; };
  ASSERT_EQ(read(from_client[0], token.data(), 1), 1) << "nothing was kept";
  camera_.device.Stop(SIGKILL);
  ASSERT_TRUE(go());
  ASSERT_EQ(read(from_client[0], token.data(), 1), 1);
  ASSERT_EQ(camera_.device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  ASSERT_TRUE(go());
  ASSERT_EQ(read(from_client[0], token.data(), kTokenSize), static_cast<ssize_t>(kTokenSize));
  const VigilaClient client;
  EXPECT_TRUE(client.Logout(token));
  ASSERT_TRUE(go());
  int status = -1;
  ASSERT_EQ(waitpid(process, &status, 0), process);
  EXPECT_EQ(WEXITSTATUS(status), 0) << "4: the ended session's grant was given";
  close(to_client[1]);
  close(from_client[0]);
}

}  // namespace
