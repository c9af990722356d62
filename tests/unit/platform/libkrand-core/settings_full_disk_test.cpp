// A disk without space.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <filesystem>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/settings_fixture.h"

namespace krand::core {
namespace {

using support::CapturingLog;
using support::SettingsFixture;

// Keeps the process's files from growing, as a full disk does.
class NoMoreSpace final {
 public:
  NoMoreSpace() {
    previous_handler_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &previous_);
    struct rlimit limit = previous_;
    limit.rlim_cur = 4096;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~NoMoreSpace() {
    setrlimit(RLIMIT_FSIZE, &previous_);
    signal(SIGXFSZ, previous_handler_);
  }
  NoMoreSpace(const NoMoreSpace&) = delete;
  NoMoreSpace& operator=(const NoMoreSpace&) = delete;

 private:
  struct rlimit previous_;
  void (*previous_handler_)(int);
};

TEST(SettingsOnAFullDisk, ReportTheWriteAndGoOnAfterwards) {
  SettingsFixture settings;
  settings.PutString("a", "old");
  CapturingLog log;
  {
    const NoMoreSpace full;
    EXPECT_EQ(krand_core_settings_set_string_value("a", "new"), KRAND_CORE_IO_ERROR);
    EXPECT_EQ(settings.GetString("a"), "old");
    ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
    krand_core_settings_set_string_value("a", "new");
    krand_core_settings_set_string_value("b", "new");
    EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_IO_ERROR);
  }
  ASSERT_FALSE(ErrorLines(log).empty());
  EXPECT_EQ(ErrorLines(log)[0].find("Settings: " + settings.File() + ": "), 0u);
  EXPECT_EQ(settings.GetString("a"), "old");
  EXPECT_FALSE(settings.Exists("b"));
  settings.PutString("a", "new");
  settings.Reopen();
  EXPECT_EQ(settings.GetString("a"), "new");
}

TEST(SettingsOnAFullDisk, DoNotOpenANewStore) {
  support::PlatformFixture platform;
  const NoMoreSpace full;
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_IO_ERROR);
  EXPECT_FALSE(std::filesystem::exists(platform.SettingsDir() + "/vigila.db"));
  EXPECT_TRUE(std::filesystem::is_empty(platform.SettingsDir()));
}

}  // namespace
}  // namespace krand::core
