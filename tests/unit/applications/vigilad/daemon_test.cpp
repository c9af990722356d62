#include "vigilad/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "krand/core/krand_core.h"
#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "tevra/msgbus/msg_bus.h"

namespace vigila::daemon {
namespace {

class Daemon : public testing::Test {
 protected:
  // A start that failed leaves the platform to the end of its process.
  ~Daemon() override {
    krand_core_settings_deinit();
    krand_core_deinit();
  }

  static ExitCode ServeDefaults() { return Serve(DaemonConfiguration::Read()); }
  std::string OnlyLine() const {
    const auto texts = log.TextsOf("vigilad");
    return texts.size() == 1 ? texts[0] : "not one line";
  }
  // Of two, the second of which names the way back.
  std::string LineBeforeTheHint() const {
    const auto texts = log.TextsOf("vigilad");
    if (texts.size() != 2) return "not two lines";
    EXPECT_EQ(texts[1],
              "'vigilad --repair' shows what is left of a damaged store and what can be done");
    return texts[0];
  }

  support::PlatformFixture platform;
  support::CapturingLog log;
};

TEST_F(Daemon, SaysThatTheStoreIsUnusable) {
  const std::string file = platform.SettingsDir() + "/vigila.db";
  std::ofstream(file) << std::string(8192, 'j');
  EXPECT_EQ(ServeDefaults(), kStoreUnusable);
  EXPECT_EQ(LineBeforeTheHint(),
            "Cannot start, the store is unusable: krand_core_settings_init of " + file +
                " failed: KRAND_CORE_IO_ERROR");
}

TEST_F(Daemon, SaysThatTheKeyFileIsUnusable) {
  const std::string file = platform.Dir().File("absent/vigila.key");
  platform.Set("Applications/vigila", "key_file", file);
  EXPECT_EQ(ServeDefaults(), kStoreUnusable);
  EXPECT_NE(LineBeforeTheHint().find("Cannot start, the store is unusable: "), std::string::npos);
  EXPECT_NE(LineBeforeTheHint().find(file), std::string::npos);
}

TEST_F(Daemon, LeavesTheStoreAloneWhenAnotherOneServes) {
  tevra::msgbus::MsgBus other;
  other.StartServer("tevra.SecurityProvider");
  EXPECT_EQ(ServeDefaults(), kUnavailable);
  EXPECT_EQ(OnlyLine(),
            "Cannot start, the bus is not available: tevra.SecurityProvider is served by another "
            "daemon");
  EXPECT_TRUE(std::filesystem::is_empty(platform.SettingsDir()));
}

TEST_F(Daemon, SaysThatTheStoreIsInUse) {
  const std::string file = platform.SettingsDir() + "/vigila.db";
  const int other = open((file + ".lock").c_str(), O_RDONLY | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_EQ(flock(other, LOCK_EX | LOCK_NB), 0);
  EXPECT_EQ(ServeDefaults(), kUnavailable);
  EXPECT_EQ(OnlyLine(),
            "Cannot start, the store is in use: " + file + " is held by another daemon");
  close(other);
}

TEST_F(Daemon, SaysThatTheBusIsNotAvailable) {
  tevra::msgbus::MsgBus other;
  other.StartServer("krand.target.permission");
  EXPECT_EQ(ServeDefaults(), kUnavailable);
  EXPECT_NE(OnlyLine().find("Cannot start, the bus is not available: "), std::string::npos);
}

TEST_F(Daemon, SaysWhatElseFailed) {
  platform.Set("DeviceInformation", "present", "false");
  EXPECT_EQ(ServeDefaults(), kFailed);
  EXPECT_EQ(OnlyLine(), "Ended by a failure: DeviceInformation: Service Not Available.");
}

}  // namespace
}  // namespace vigila::daemon
