#include "vigila/server/device_information.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <type_traits>

#include "krand/interfaces/device_information.h"
#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/text_thrown_by.h"
#include "tevra/osa/exception.h"

namespace {

using support::TextThrownBy;

// What the platform's own call shall answer instead; OK lets the platform answer.
krand_core_status initiator_status = KRAND_CORE_OK;
krand_core_ipc_handle closed_handle = 0;
int closed_count = 0;

template <typename Function>
Function* Platform(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// These stand before the platform's functions, so that a test can make them fail and see them.
extern "C" krand_core_status krand_api_device_information_initiator_init(
    void* reserved, void* context, krand_core_ipc_handle* handle, int flags, void* options) {
  if (initiator_status != KRAND_CORE_OK) return initiator_status;
  return Platform<decltype(krand_api_device_information_initiator_init)>(
      "krand_api_device_information_initiator_init")(reserved, context, handle, flags, options);
}

extern "C" krand_core_status krand_api_device_information_initiator_deinit(
    krand_core_ipc_handle handle) {
  ++closed_count;
  closed_handle = handle;
  return Platform<decltype(krand_api_device_information_initiator_deinit)>(
      "krand_api_device_information_initiator_deinit")(handle);
}

namespace krand::vigila {
namespace {

static_assert(std::has_virtual_destructor_v<DeviceInformation>);

class Device : public testing::Test {
 protected:
  Device() {
    initiator_status = KRAND_CORE_OK;
    closed_handle = 0;
    closed_count = 0;
  }
  ~Device() override { initiator_status = KRAND_CORE_OK; }

  std::string Marker() const { return platform.Dir().File("brick"); }
  bool Ask() const { return DeviceInformation(nullptr, Marker()).isSB327supported(); }

  support::PlatformFixture platform;
  support::CapturingLog log;
};

TEST_F(Device, HasUniquePasswordsWhenThePlatformSaysSoAndNoMarkerExists) {
  platform.Set("DeviceInformation", "features", "SB327");
  EXPECT_TRUE(Ask());
}

TEST_F(Device, HasNoUniquePasswordsWhileAMarkerFileExists) {
  platform.Set("DeviceInformation", "features", "SB327");
  std::ofstream(Marker()) << "";
  EXPECT_FALSE(Ask());
}

TEST_F(Device, HasNoUniquePasswordsWhileAMarkerDirectoryExists) {
  platform.Set("DeviceInformation", "features", "SB327");
  std::filesystem::create_directory(Marker());
  EXPECT_FALSE(Ask());
}

TEST_F(Device, TakesAMarkerThatCannotBeExaminedForAbsent) {
  platform.Set("DeviceInformation", "features", "SB327");
  std::filesystem::create_symlink("brick", Marker());  // a loop
  EXPECT_TRUE(Ask());
  std::filesystem::remove(Marker());
  std::ofstream(Marker()) << "";
  EXPECT_TRUE(DeviceInformation(nullptr, Marker() + "/below a file").isSB327supported());
}

TEST_F(Device, HasNoUniquePasswordsWhenThePlatformSaysNoWhateverTheMarker) {
  platform.Set("DeviceInformation", "features", "SB328, XSB327");
  EXPECT_FALSE(Ask());
  std::ofstream(Marker()) << "";
  EXPECT_FALSE(Ask());
}

TEST_F(Device, KeepsItsMarkerWhereTheMakerPutsIt) {
  EXPECT_STREQ(DeviceInformation::kMarkerPath, "/mnt/unused/brick");
}

TEST_F(Device, ToleratesAMissingServiceUntilItIsAsked) {
  platform.Set("DeviceInformation", "present", "false");
  const DeviceInformation device(nullptr, Marker());
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].text, "No service to configure device information");
  log.Clear();
  EXPECT_EQ(TextThrownBy([&] { device.isSB327supported(); }),
            "DeviceInformation: Service Not Available.");
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].text, "DeviceInformation:  Could not get support in Vigila");
  EXPECT_EQ(log.Lines()[0].level, tevra::core::Logger::kError);
}

TEST_F(Device, ThrowsAndLogsWhenTheServiceCannotBeOpened) {
  initiator_status = KRAND_CORE_NO_MEMORY;
  const std::string text =
      "Failed krand api call: krand_api_device_information_initiator_init( NULL, _logCookie, "
      "&_ipcCookie, 0, NULL) (KRAND_CORE_NO_MEMORY)";
  EXPECT_EQ(TextThrownBy([&] { DeviceInformation device(nullptr); }), text);
  EXPECT_TRUE(log.Contains("DeviceInformation: Initialize services exception: " + text));
}

TEST_F(Device, ThrowsAndLogsWhenTheServiceDoesNotAnswer) {
  const DeviceInformation device(nullptr, Marker());
  platform.Set("DeviceInformation", "present", "false");
  log.Clear();
  const std::string text =
      "Failed krand api call: krand_api_device_information_is_feature_supported_send( _ipcCookie, "
      "_targetIds[0].c_str(), kSB327, &retval) (KRAND_CORE_UNAVAILABLE)";
  EXPECT_EQ(TextThrownBy([&] { device.isSB327supported(); }), text);
  ASSERT_EQ(log.Lines().size(), 1u);
  EXPECT_EQ(log.Lines()[0].text,
            "DeviceInformation:  Get Feature Supported returned exception: " + text);
  EXPECT_EQ(log.Lines()[0].level, tevra::core::Logger::kError);
}

TEST_F(Device, ClosesWhatItOpened) {
  { DeviceInformation device(nullptr); }
  EXPECT_EQ(closed_count, 1);
  EXPECT_NE(closed_handle, 0u);
}

TEST_F(Device, ClosesAlsoWhatItNeverOpened) {
  platform.Set("DeviceInformation", "present", "false");
  { DeviceInformation device(nullptr); }
  EXPECT_EQ(closed_count, 1);
  EXPECT_EQ(closed_handle, 0u);
}

}  // namespace
}  // namespace krand::vigila
