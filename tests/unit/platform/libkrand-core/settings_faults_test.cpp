// Writes that a test makes fail.
#include "support/settings_faults.h"

#include <gtest/gtest.h>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/settings_fixture.h"

namespace krand::core {
namespace {

using support::CapturingLog;
using support::SettingsFixture;

TEST(SettingsFaults, MakeTheNthWriteFailAndNoOther) {
  SettingsFixture settings;
  CapturingLog log;
  const unsigned long before = krand_core_settings_write_count();
  krand_core_settings_fail_after(3);  // the first one has a commit of its own
  EXPECT_EQ(krand_core_settings_set_string_value("a", "1"), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_delete_key("a"), KRAND_CORE_IO_ERROR);
  EXPECT_EQ(krand_core_settings_set_string_value("b", "1"), KRAND_CORE_OK);
  EXPECT_EQ(settings.Keys(), (Texts{"a", "b"}));
  EXPECT_EQ(krand_core_settings_write_count(), before + 2);
  ASSERT_EQ(ErrorLines(log).size(), 1u);
  EXPECT_EQ(ErrorLines(log)[0].find("Settings: " + settings.File() + ": "), 0u);
}

TEST(SettingsFaults, SwitchOff) {
  SettingsFixture settings;
  krand_core_settings_fail_after(1);
  krand_core_settings_fail_after(-1);
  EXPECT_EQ(krand_core_settings_set_string_value("a", "1"), KRAND_CORE_OK);
}

TEST(SettingsFaults, LeaveNothingOfATransactionWhicheverStepFails) {
  SettingsFixture settings;
  CapturingLog log;
  for (int n = 1; n <= 4; ++n) {
    ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
    krand_core_settings_fail_after(n);
    for (const char* key : {"a", "b", "c"}) krand_core_settings_set_string_value(key, "1");
    EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_IO_ERROR) << n;
    krand_core_settings_fail_after(-1);
    EXPECT_EQ(settings.Keys(), Texts{}) << n;
    EXPECT_EQ(krand_core_settings_rollback(), KRAND_CORE_ERROR) << n;
  }
  krand_core_settings_fail_after(5);
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  for (const char* key : {"a", "b", "c"}) settings.PutString(key, "1");
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(settings.Keys().size(), 3u);
}

TEST(SettingsFaults, LeaveTheTransactionBeforeUntouched) {
  SettingsFixture settings;
  CapturingLog log;
  settings.PutString("a", "old");
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  settings.PutString("a", "new");
  krand_core_settings_fail_after(1);
  EXPECT_EQ(krand_core_settings_set_string_value("b", "new"), KRAND_CORE_IO_ERROR);
  EXPECT_EQ(krand_core_settings_set_string_value("c", "new"), KRAND_CORE_IO_ERROR);
  EXPECT_EQ(krand_core_settings_rollback(), KRAND_CORE_OK);
  EXPECT_EQ(settings.GetString("a"), "old");
  EXPECT_EQ(settings.Keys(), Texts{"a"});
  EXPECT_EQ(krand_core_settings_set_string_value("c", "new"), KRAND_CORE_OK);
}

}  // namespace
}  // namespace krand::core
