// What a child of fork finds of all that its parent had: nothing it could hang on, and nothing it
// could answer from.

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <future>
#include <thread>

#include "support/change_recorder.h"
#include "support/recording_provider.h"
#include "tevra/core/logger.h"
#include "tevra/osa/exception.h"

namespace {

using support::ChangeRecorder;
using support::RecordingProvider;
using tevra::core::IVoidDelegate1;
using tevra::core::Logger;

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

}  // namespace
