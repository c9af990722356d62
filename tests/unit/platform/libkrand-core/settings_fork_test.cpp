// An open store and the children of its process.
#include <gtest/gtest.h>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/settings_fixture.h"

namespace krand::core {
namespace {

using support::CapturingLog;
using support::SettingsFixture;

TEST(SettingsFork, LeavesTheChildWithoutAStoreAndTheParentWithIts) {
  SettingsFixture settings;
  settings.PutString("a", "1");
  const int code = InChild([] {
    CapturingLog log;
    char* text = nullptr;
    if (krand_core_settings_get_string_value("a", &text) != KRAND_CORE_NOT_INITIALIZED) return 1;
    if (krand_core_settings_set_string_value("a", "2") != KRAND_CORE_NOT_INITIALIZED) return 2;
    if (krand_core_settings_does_key_exist("a") != -1) return 3;
    if (krand_core_settings_init("vigila") != KRAND_CORE_ERROR) return 4;
    if (krand_core_settings_deinit() != KRAND_CORE_NOT_INITIALIZED) return 5;
    return 0;
  });
  EXPECT_EQ(code, 0);
  EXPECT_EQ(settings.GetString("a"), "1");
  settings.PutString("a", "3");
  EXPECT_EQ(settings.GetString("a"), "3");
}

TEST(SettingsFork, DoesNotWaitInTheChildForTheParentsTransaction) {
  SettingsFixture settings;
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  EXPECT_EQ(
      InChild([] { return static_cast<int>(krand_core_settings_set_string_value("a", "2")); }),
      KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
}

TEST(SettingsFork, LetsAChildOpenWhatTheParentHasClosed) {
  SettingsFixture settings;
  settings.PutString("a", "1");
  settings.Close();
  EXPECT_EQ(InChild([&settings] {
              settings.Open();
              settings.PutString("a", "2");
              settings.Close();
              return 0;
            }),
            0);
  settings.Open();
  EXPECT_EQ(settings.GetString("a"), "2");
}

}  // namespace
}  // namespace krand::core
