// What a child of fork finds of all that its parent had: nothing it could hang on, and nothing it
// could answer from.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/change_recorder.h"
#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "tevra/core/logger.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/sanitizer.h"
#include "vigila/client/vigila_client.h"

namespace {

using support::ChangeRecorder;
using support::RecordingProvider;
using tevra::core::IVoidDelegate1;
using tevra::core::Logger;
using tevra::interfaces::ISecurityProvider;
using tevra::msgbus::MsgBus;
using vigila::client::VigilaClient;

#if defined(TEVRA_THREAD_SANITIZER)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kUnderAddressSanitizer = true;
#else
constexpr bool kUnderAddressSanitizer = false;
#endif

// Runs `body` in a child, which has ten seconds for it, and gives its exit code.
int InChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) {
    alarm(10);
    _exit(body());
  }
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

// Holds a thread until it is let go.
class Gate {
 public:
  void Pass() {
    entered_.set_value();
    released_.get_future().wait();
  }
  void AwaitSomeone() { entered_.get_future().wait(); }
  void Open() { released_.set_value(); }

 private:
  std::promise<void> entered_;
  std::promise<void> released_;
};

// A sink that holds the parent's line "held" up, and counts the child's.
class HoldingSink final : public Logger::Sink {
 public:
  HoldingSink() : previous_(Logger::SetSink(this)) {}
  ~HoldingSink() override { Logger::SetSink(previous_); }
  void Write(Logger::Level, const std::string&, const std::string& text) override {
    if (text == "held") return gate.Pass();
    ++lines;
  }
  Gate gate;
  int lines = 0;

 private:
  Logger::Sink* const previous_;
};

TEST(Fork, WaitsForNoThreadThatLogsAndTheChildLogs) {
  HoldingSink sink;
  std::thread logging([] { Logger::GetLogger("Parent")->Error("held"); });
  sink.gate.AwaitSomeone();
  EXPECT_EQ(InChild([&sink] {
              Logger::GetLogger("Parent")->Error("the child's");
              Logger::GetLogger("Child")->Error("the child's");
              const int grandchild = InChild([&sink] {
                Logger::GetLogger("Grandchild")->Error("its own");
                return sink.lines == 3 ? 0 : 1;
              });
              return sink.lines == 2 ? grandchild : 2;
            }),
            0);
  sink.gate.Open();
  logging.join();
  EXPECT_EQ(sink.lines, 0);
}

TEST(Fork, FindsTheLoggersWholeWhileOthersAreMade) {
  std::atomic<bool> stop = false;
  std::thread making([&stop] {
    for (int i = 0; !stop; ++i) Logger::GetLogger("Made" + std::to_string(i % 500));
  });
  Logger* const known = Logger::GetLogger("Known");
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(InChild([known] { return Logger::GetLogger("Known") == known ? 0 : 1; }), 0);
  }
  stop = true;
  making.join();
}

class HeldListener : public IVoidDelegate1<bool> {
 public:
  explicit HeldListener(Gate& gate) : gate_(gate) {}
  bool Matches(void* target) const override { return target == &gate_; }
  void Call(const bool&) override { gate_.Pass(); }

 private:
  Gate& gate_;
};

TEST(Fork, LeavesAChildNoListenersToHangOn) {
  Gate gate;
  auto provider = std::make_unique<RecordingProvider>();
  ChangeRecorder recorder;
  provider->AddChangeListener(std::make_unique<HeldListener>(gate));
  recorder.Attach(*provider);
  std::thread firing([&provider] { provider->FireChangeListeners(true); });
  gate.AwaitSomeone();
  EXPECT_EQ(InChild([&] {
              provider->FireChangeListeners(true);
              provider->RemoveChangeListeners(&gate);
              if (!recorder.Values().empty()) return 1;
              try {
                recorder.Attach(*provider);
                return 2;
              } catch (const tevra::osa::Exception&) {
                provider.reset();
                return 0;
              }
            }),
            0);
  gate.Open();
  firing.join();
  EXPECT_EQ(recorder.Values().size(), 1u);
}

// Counts what the client logs, whatever other threads were logging when the process forked.
class CountingSink final : public Logger::Sink {
 public:
  CountingSink() : previous_(Logger::SetSink(this)) {}
  ~CountingSink() override { Logger::SetSink(previous_); }
  void Write(Logger::Level level, const std::string& logger, const std::string& text) override {
    if (logger != "VigilaClient" || level != Logger::kError) return;
    ++(text == "could not connect to vigila" ? refusals : others);
  }
  std::atomic<int> refusals = 0;
  std::atomic<int> others = 0;

 private:
  Logger::Sink* const previous_;
};

// A service and an opened client in one process.
class AForkedClient : public testing::Test {
 protected:
  void SetUp() override {
    provider_.text = "12345678";
    provider_.credentials = "alice";
    provider_.list = {"/jpeg/1"};
    server_.reset(ISecurityProvider::CreateServer(bus_.get(), &provider_));
    bus_->StartServer();
    client_ = std::make_unique<VigilaClient>();
    std::string token;
    ASSERT_TRUE(client_->Authenticate("alice", "secret", "", token));
    ASSERT_TRUE(client_->Authorize("12345678", "/jpeg/1"));
    ASSERT_TRUE(client_->IsAuthenticated("12345678"));
    ASSERT_TRUE(client_->IsProtected("/jpeg/1"));
  }

  // How many questions the client says yes to.
  static int Yes(const VigilaClient& client) {
    std::string token;
    int yes = client.Authenticate("alice", "secret", "", token);
    yes += client.AuthenticateHttp("alice", "n", "h", false, "", "", "", "r", "", token);
    yes += client.AuthenticateWsse("alice", "d", "n", "c", "", token);
    yes += client.Authorize("12345678", "/jpeg/1");
    yes += client.IsAuthenticated("12345678");
    yes += client.IsProtected("/jpeg/1");
    yes += client.Logout("12345678");
    yes += !client.GetCredentials("12345678").empty();
    yes += !client.GetNonce().empty();
    yes += !client.GetAllowedPaths("12345678").empty();
    yes += !client.GetAllowedPermissions("12345678").empty();
    return yes;
  }
  static constexpr int kQuestions = 11;

  static std::vector<std::string> OpenDescriptors() {
    std::vector<std::string> open;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
      std::error_code gone;  // as is the one that reads this directory
      const auto target = std::filesystem::read_symlink(entry.path(), gone);
      if (!gone) open.push_back(entry.path().filename().string() + " " + target.string());
    }
    return open;
  }

  support::PlatformFixture platform_;
  CountingSink log_;
  RecordingProvider provider_;
  std::unique_ptr<MsgBus> bus_ = std::make_unique<MsgBus>();
  std::unique_ptr<ISecurityProvider::IServer> server_;
  std::unique_ptr<VigilaClient> client_;
};

TEST_F(AForkedClient, AnswersNoToEveryQuestionWithOneLineEach) {
  EXPECT_EQ(InChild([this] {
              if (Yes(*client_) != 0) return 1;
              client_->Invalidate("alice");
              if (client_->IsAuthenticated("NO_TOKEN")) return 2;  // never a question
              return log_.refusals == kQuestions + 1 && log_.others == 0 ? 0 : 3;
            }),
            0);
  EXPECT_EQ(Yes(*client_), kQuestions) << "the parent's goes on";
  EXPECT_EQ(log_.refusals, 0);
}

TEST_F(AForkedClient, TouchesNoDescriptorOfTheParent) {
  EXPECT_EQ(InChild([this] {
              const auto before = OpenDescriptors();
              Yes(*client_);
              client_.reset();
              server_.reset();
              bus_.reset();
              return OpenDescriptors() == before ? 0 : 1;
            }),
            0);
  EXPECT_EQ(Yes(*client_), kQuestions);
  EXPECT_EQ(Yes(VigilaClient()), kQuestions) << "the parent still serves";
}

TEST_F(AForkedClient, LetsTheChildOpenOneOfItsOwn) {
  if (kUnderThreadSanitizer) GTEST_SKIP() << "the sanitizer allows no threads after fork";
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(InChild([this] {
                auto own = std::make_unique<VigilaClient>();
                if (Yes(*own) != kQuestions || Yes(*client_) != 0) return 1;
                own.reset();
                client_.reset();
                return 0;
              }),
              0);
    EXPECT_EQ(Yes(*client_), kQuestions);
  }
}

TEST_F(AForkedClient, HangsOnNothingThatOtherThreadsHeld) {
  if (kUnderAddressSanitizer) GTEST_SKIP() << "a child inherits that allocator's locked mutexes";
  std::atomic<bool> stop = false;
  std::vector<std::thread> callers;
  for (int i = 0; i < 3; ++i) {
    callers.emplace_back([this, &stop] {
      while (!stop) {
        Yes(*client_);
        provider_.FireChangeListeners(true);
        Logger::GetLogger("Caller")->Error("busy");
      }
    });
  }
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(InChild([this] {
                const int refusals = log_.refusals;
                if (Yes(*client_) != 0 || log_.refusals != refusals + kQuestions) return 1;
                client_.reset();
                server_.reset();
                bus_.reset();
                return 0;
              }),
              0);
  }
  stop = true;
  for (std::thread& caller : callers) caller.join();
  EXPECT_EQ(Yes(*client_), kQuestions);
}

TEST_F(AForkedClient, RefusesABusOfTheParent) {
  EXPECT_EQ(InChild([this] {
              tevra::msgbus::MsgBusMsg message("an.Interface", "Name", "a.Destination");
              std::string reason;
              try {
                bus_->SendMsg(message);
              } catch (const tevra::osa::Exception& refusal) {
                reason = refusal.what();
              }
              bus_->StopServer("tevra.SecurityProvider");
              return reason == "message bus: this bus belongs to the process that made it" &&
                             !bus_->IsRunning()
                         ? 0
                         : 1;
            }),
            0);
  EXPECT_TRUE(bus_->IsRunning());
  EXPECT_EQ(Yes(*client_), kQuestions);
}

}  // namespace
