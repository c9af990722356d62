#include "tevra/settings/tevra_settings_client.h"

#include <gtest/gtest.h>

#include "support/platform_fixture.h"
#include "tevra/osa/exception.h"

namespace {

using tevra::core::IniFile;
using tevra::settings::TevraSettingsClient;

constexpr const char* kGroup = "Applications/vigila/Rules/Dynamic";
constexpr const char* kRtspKey = "[Applications/vigila/Rules/Dynamic]/rtsp/*";

TEST(TevraSettingsClient, ReadsTheGivenFileAndNotTheDevices) {
  support::PlatformFixture platform;
  platform.Set(kGroup, "rtsp/*", "device");
  IniFile file;
  EXPECT_EQ(TevraSettingsClient(2, file).GetValue(kRtspKey), "");
  file.Set(kGroup, "rtsp/*", "@admins");
  EXPECT_EQ(TevraSettingsClient(2, file).GetValue(kRtspKey), "@admins");
}

TEST(TevraSettingsClient, ReadsTheDevicesFileAndNotTheGiven) {
  support::PlatformFixture platform;
  IniFile file;
  file.Set(kGroup, "rtsp/*", "given");
  EXPECT_EQ(TevraSettingsClient(1, file).GetValue(kRtspKey), "");
  platform.Set(kGroup, "rtsp/*", "device");
  EXPECT_EQ(TevraSettingsClient(1, file).GetValue(kRtspKey), "device");
}

TEST(TevraSettingsClient, HasNoOtherMode) {
  const IniFile file;
  EXPECT_THROW(TevraSettingsClient(0, file), tevra::osa::Exception);
  EXPECT_THROW(TevraSettingsClient(3, file), tevra::osa::Exception);
}

TEST(TevraSettingsClient, FindsNothingUnderKeysOfAnotherShape) {
  IniFile file;
  file.Set("group", "name", "value");
  file.Set("", "name", "unnamed group");
  file.Set("group", "/name", "leading slash");
  const TevraSettingsClient client(2, file);
  EXPECT_EQ(client.GetValue("[group]/name"), "value");
  EXPECT_EQ(client.GetValue("[group]//name"), "leading slash");
  EXPECT_EQ(client.GetValue("[]/name"), "unnamed group");
  for (const char* key : {"", "[", "]/", "group/name", "[group]name", "[group", "[group]/",
                          " [group]/name", "[group]/name ", "[group]/other", "[other]/name"}) {
    EXPECT_EQ(client.GetValue(key), "") << key;
  }
}

}  // namespace
