#include "krand/core/krand_api_exception.h"

#include <gtest/gtest.h>

#include "support/platform_fixture.h"
#include "tevra/osa/exception.h"

namespace {

using krand::core::getTargetIds;
using krand::core::KrandApiException;
using krand::core::statusToString;

TEST(KrandApiException, SaysTheTextAndTheStatusInBrackets) {
  const KrandApiException exception("Failed krand api call: f( NULL)", KRAND_CORE_UNAVAILABLE);
  EXPECT_STREQ(exception.what(), "Failed krand api call: f( NULL) (KRAND_CORE_UNAVAILABLE)");
  EXPECT_EQ(exception.status(), KRAND_CORE_UNAVAILABLE);
  EXPECT_EQ(KrandApiException::formatMessage("", KRAND_CORE_OK), " (KRAND_CORE_OK)");
}

TEST(StatusToString, NamesEveryStatusAndNumbersTheOthers) {
  EXPECT_EQ(statusToString(KRAND_CORE_OK), "KRAND_CORE_OK");
  EXPECT_EQ(statusToString(KRAND_CORE_ERROR), "KRAND_CORE_ERROR");
  EXPECT_EQ(statusToString(KRAND_CORE_INVALID_ARGUMENT), "KRAND_CORE_INVALID_ARGUMENT");
  EXPECT_EQ(statusToString(KRAND_CORE_NOT_INITIALIZED), "KRAND_CORE_NOT_INITIALIZED");
  EXPECT_EQ(statusToString(KRAND_CORE_NO_MEMORY), "KRAND_CORE_NO_MEMORY");
  EXPECT_EQ(statusToString(KRAND_CORE_IO_ERROR), "KRAND_CORE_IO_ERROR");
  EXPECT_EQ(statusToString(KRAND_CORE_WRONG_TYPE), "KRAND_CORE_WRONG_TYPE");
  EXPECT_EQ(statusToString(KRAND_CORE_UNAVAILABLE), "KRAND_CORE_UNAVAILABLE");
  EXPECT_EQ(statusToString(static_cast<krand_core_status>(8)), "KRAND_CORE_STATUS_8");
  EXPECT_EQ(statusToString(static_cast<krand_core_status>(-1)), "KRAND_CORE_STATUS_-1");
}

TEST(GetTargetIds, FindsDeviceInformationUnlessItIsConfiguredAway) {
  support::PlatformFixture platform;
  std::vector<std::string> ids = {"stale"};
  EXPECT_TRUE(getTargetIds("device_information", ids));
  EXPECT_EQ(ids, std::vector<std::string>{"device_information.0"});
  platform.Set("DeviceInformation", "present", "false");
  EXPECT_FALSE(getTargetIds("device_information", ids));
  EXPECT_TRUE(ids.empty());
}

TEST(GetTargetIds, FindsNothingElse) {
  const support::PlatformFixture platform;
  std::vector<std::string> ids = {"stale"};
  EXPECT_FALSE(getTargetIds("device_information.0", ids));
  EXPECT_FALSE(getTargetIds("", ids));
  EXPECT_TRUE(ids.empty());
}

TEST(GetTargetIds, DoesNotGuessWhatABrokenConfigurationMeans) {
  support::PlatformFixture platform;
  platform.Set("DeviceInformation", "present", "maybe");
  std::vector<std::string> ids;
  EXPECT_THROW(getTargetIds("device_information", ids), tevra::osa::Exception);
}

}  // namespace
