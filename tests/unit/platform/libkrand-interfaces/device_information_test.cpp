#include "krand/interfaces/device_information.h"

#include <gtest/gtest.h>

#include "support/capturing_log.h"
#include "support/platform_fixture.h"

namespace {

constexpr const char* kTarget = "device_information.0";

class DeviceInformation : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(krand_api_device_information_initiator_init(nullptr, nullptr, &handle_, 0, nullptr),
              KRAND_CORE_OK);
  }
  void TearDown() override { krand_api_device_information_initiator_deinit(handle_); }

  // 0 or 1, or a negative status.
  int Ask(const char* feature) const {
    int supported = 7;
    const krand_core_status status = krand_api_device_information_is_feature_supported_send(
        handle_, kTarget, feature, &supported);
    return status == KRAND_CORE_OK ? supported : -static_cast<int>(status);
  }

  support::PlatformFixture platform_;
  krand_core_ipc_handle handle_ = 0;
};

TEST_F(DeviceInformation, SupportsNothingByDefault) {
  EXPECT_EQ(Ask("SB327"), 0);
  EXPECT_EQ(Ask(""), 0);
}

TEST_F(DeviceInformation, SupportsTheFeaturesOfTheConfiguredList) {
  platform_.Set("DeviceInformation", "features", "audio, SB327 ,,zoom");
  EXPECT_EQ(Ask("SB327"), 1);
  EXPECT_EQ(Ask("audio"), 1);
  EXPECT_EQ(Ask("zoom"), 1);
  EXPECT_EQ(Ask("SB32"), 0);
  EXPECT_EQ(Ask("sb327"), 0);
  EXPECT_EQ(Ask(" SB327 "), 0);
  EXPECT_EQ(Ask(""), 0);
}

TEST_F(DeviceInformation, KnowsOneTarget) {
  int supported = 7;
  EXPECT_EQ(krand_api_device_information_is_feature_supported_send(handle_, "device_information.1",
                                                                   "SB327", &supported),
            KRAND_CORE_UNAVAILABLE);
  platform_.Set("DeviceInformation", "present", "false");
  EXPECT_EQ(Ask("SB327"), -KRAND_CORE_UNAVAILABLE);
  EXPECT_EQ(supported, 7);
}

TEST_F(DeviceInformation, RefusesHandlesOfOthersAndNullArguments) {
  int supported = 7;
  krand_core_ipc_handle other = 0;
  ASSERT_EQ(krand_core_ipc_initiator_init(nullptr, 0, &other), KRAND_CORE_OK);
  for (const krand_core_ipc_handle handle : {krand_core_ipc_handle{0}, other}) {
    EXPECT_EQ(krand_api_device_information_is_feature_supported_send(handle, kTarget, "SB327",
                                                                     &supported),
              KRAND_CORE_INVALID_ARGUMENT);
    EXPECT_EQ(krand_api_device_information_initiator_deinit(handle), KRAND_CORE_INVALID_ARGUMENT);
  }
  EXPECT_EQ(krand_core_ipc_deinit(other), KRAND_CORE_OK);
  EXPECT_EQ(
      krand_api_device_information_is_feature_supported_send(handle_, nullptr, "SB327", &supported),
      KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(
      krand_api_device_information_is_feature_supported_send(handle_, kTarget, nullptr, &supported),
      KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(
      krand_api_device_information_is_feature_supported_send(handle_, kTarget, "SB327", nullptr),
      KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_api_device_information_initiator_init(nullptr, nullptr, nullptr, 0, nullptr),
            KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(supported, 7);
}

TEST_F(DeviceInformation, IsOverAfterDeinit) {
  EXPECT_EQ(krand_api_device_information_initiator_deinit(handle_), KRAND_CORE_OK);
  EXPECT_EQ(krand_api_device_information_initiator_deinit(handle_), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(Ask("SB327"), -KRAND_CORE_INVALID_ARGUMENT);
}

TEST_F(DeviceInformation, CannotBeOpenedWhereThereIsNoService) {
  platform_.Set("DeviceInformation", "present", "false");
  krand_core_ipc_handle handle = 7;
  EXPECT_EQ(krand_api_device_information_initiator_init(nullptr, nullptr, &handle, 0, nullptr),
            KRAND_CORE_UNAVAILABLE);
  EXPECT_EQ(handle, 7u);
}

TEST_F(DeviceInformation, NamesTheKeyThatIsWrongInTheConfiguration) {
  platform_.Set("DeviceInformation", "present", "maybe");
  support::CapturingLog log;
  EXPECT_EQ(Ask("SB327"), -KRAND_CORE_ERROR);
  EXPECT_TRUE(log.Contains("present"));
}

}  // namespace
