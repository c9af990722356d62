#include "tevra/msgbus/direct/directory_watch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <system_error>

#include "comes.h"
#include "no_new_descriptors.h"
#include "support/event_log.h"
#include "support/temp_dir.h"

namespace tevra::msgbus {
namespace {

// The number of an open descriptor of this anonymous kind, "eventpoll" or "inotify"; -1 for none.
int FindDescriptor(const std::string& kind) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    const std::string target = std::filesystem::read_symlink(entry.path(), gone).string();
    if (target.starts_with("anon_inode:") && target.find(kind) != std::string::npos) {
      return atoi(entry.path().filename().c_str());
    }
  }
  return -1;
}

class DirectoryWatchTest : public testing::Test {
 protected:
  DirectoryWatchTest() { dispatch_.Start(); }
  ~DirectoryWatchTest() override { dispatch_.Stop(); }

  void Start() {
    dispatch_.Invoke([this] { watch_.Start(); });
  }
  // Whether the kernel tells of changes; nothing but a change is told any more then.
  bool IsHelped() {
    if (!Comes([] { return FindDescriptor("inotify") >= 0; })) return false;
    dispatch_.Invoke([] {});
    return true;
  }
  bool TellsOfAFile() {
    const size_t before = log_.Events().size();
    directory_.Write("file", "");
    return log_.WaitFor(before + 1);
  }

  const support::TempDir directory_;
  support::EventLog log_;
  DispatchThread dispatch_;
  DirectoryWatch watch_{dispatch_, directory_.Path(), [this] { log_.Add("changed"); }};
};

TEST_F(DirectoryWatchTest, TellsOfAFileThatAppears) {
  Start();
  EXPECT_TRUE(IsHelped());
  EXPECT_TRUE(TellsOfAFile());
}

TEST_F(DirectoryWatchTest, LooksByItselfUntilTheKernelsHelpCanBeHad) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the sanitizer looks at unknown objects through a pipe, which cannot be had here";
#endif
  {
    const NoNewDescriptors none;
    Start();
    EXPECT_TRUE(log_.WaitFor(2));
  }
  EXPECT_TRUE(IsHelped());
  EXPECT_TRUE(TellsOfAFile());
}

TEST_F(DirectoryWatchTest, TriesAgainWhenTheEventLoopCannotTakeIt) {
  dispatch_.Invoke([this] {
    close(FindDescriptor("eventpoll"));  // the loop opens another one when it finds out
    watch_.Start();
  });
  EXPECT_TRUE(IsHelped());
  EXPECT_TRUE(TellsOfAFile());
}

}  // namespace
}  // namespace tevra::msgbus
