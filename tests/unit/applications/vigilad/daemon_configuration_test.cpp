#include "vigilad/daemon_configuration.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <string>

#include "support/platform_fixture.h"
#include "support/text_thrown_by.h"
#include "tevra/core/platform_config.h"
#include "tevra/osa/exception.h"

namespace vigila::daemon {
namespace {

using support::TextThrownBy;

constexpr const char* kSection = "Applications/vigila";

class Configuration : public testing::Test {
 protected:
  Configuration() { unsetenv(tevra::core::PlatformConfig::kEnvironmentVariable); }
  ~Configuration() override { unsetenv(tevra::core::PlatformConfig::kEnvironmentVariable); }

  static void ExpectRefused(const std::string& part) {
    const std::string text = TextThrownBy([] { DaemonConfiguration::Read(); });
    EXPECT_NE(text.find(part), std::string::npos) << text;
  }

  support::PlatformFixture platform;
};

TEST_F(Configuration, HasADefaultForEverything) {
  const DaemonConfiguration configuration = DaemonConfiguration::Read();
  EXPECT_EQ(configuration.session_timeout_secs, 1800);
  EXPECT_FALSE(configuration.password_policy);
}

TEST_F(Configuration, TakesTheDaemonsOwnKeys) {
  platform.Set(kSection, "session_timeout", "90");
  platform.Set(kSection, "password_policy", "yes");
  const DaemonConfiguration configuration = DaemonConfiguration::Read();
  EXPECT_EQ(configuration.session_timeout_secs, 90);
  EXPECT_TRUE(configuration.password_policy);
}

TEST_F(Configuration, TakesEveryPositiveTimeout) {
  platform.Set(kSection, "session_timeout", "1");
  EXPECT_EQ(DaemonConfiguration::Read().session_timeout_secs, 1);
  platform.Set(kSection, "session_timeout", "2147483647");
  EXPECT_EQ(DaemonConfiguration::Read().session_timeout_secs, INT_MAX);
}

TEST_F(Configuration, RefusesATimeoutThatIsNone) {
  for (const char* value : {"0", "-1", "2147483648", "99999999999999999999", "1.5", "soon", ""}) {
    platform.Set(kSection, "session_timeout", value);
    ExpectRefused("session_timeout");
  }
}

TEST_F(Configuration, RefusesAPolicyThatIsNeitherOnNorOff) {
  platform.Set(kSection, "password_policy", "maybe");
  ExpectRefused("password_policy");
}

TEST_F(Configuration, FindsMistakesInThePlatformsPart) {
  platform.Set("MsgBus", "transport", "pigeon");
  ExpectRefused("pigeon");
  platform.Set("MsgBus", "transport", "direct");
  platform.Set("Access", "admin_groups", "no-such-group-here");
  ExpectRefused("no-such-group-here");
  platform.Set("Access", "admin_groups", "");
  platform.Set("DeviceInformation", "present", "perhaps");
  ExpectRefused("present");
}

TEST_F(Configuration, LoadsAFileForThisProcessAndItsChildren) {
  const std::string path = platform.Dir().File("own.ini");
  std::ofstream(path) << "[Applications/vigila]\nsession_timeout = 7\n";
  DaemonConfiguration::Load(path);
  EXPECT_EQ(DaemonConfiguration::Read().session_timeout_secs, 7);
  EXPECT_STREQ(getenv(tevra::core::PlatformConfig::kEnvironmentVariable), path.c_str());
}

TEST_F(Configuration, NamesTheFileItCannotLoad) {
  const std::string path = platform.Dir().File("absent.ini");
  EXPECT_NE(TextThrownBy([&] { DaemonConfiguration::Load(path); }).find(path), std::string::npos);
  std::ofstream(path) << "neither\n";
  EXPECT_NE(TextThrownBy([&] { DaemonConfiguration::Load(path); }).find(path + ":1"),
            std::string::npos);
  EXPECT_EQ(getenv(tevra::core::PlatformConfig::kEnvironmentVariable), nullptr);
}

}  // namespace
}  // namespace vigila::daemon
