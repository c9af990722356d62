// What a store keeps of a process that is killed, and says when it is damaged meanwhile.
#include <gtest/gtest.h>
#include <signal.h>

#include <string>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/settings_fixture.h"

namespace krand::core {
namespace {

using support::CapturingLog;
using support::SettingsFixture;

TEST(SettingsDurability, SurvivesAKilledProcess) {
  SettingsFixture settings;
  settings.Close();
  const int code = InChild([&settings] {
    settings.Open();
    for (int i = 0; i < 20; ++i) settings.PutString("k" + std::to_string(i), "v");
    krand_core_settings_begin();
    settings.PutString("half", "v");
    raise(SIGKILL);
    return 0;
  });
  EXPECT_EQ(code, 1000 + SIGKILL);
  settings.Open();
  EXPECT_EQ(settings.Keys().size(), 20u);
  EXPECT_FALSE(settings.Exists("half"));
}

TEST(SettingsThatBreakWhileOpen, AreAnErrorAndNeverAnEmptyStore) {
  SettingsFixture settings;
  for (int i = 0; i < 50; ++i) settings.PutString("k" + std::to_string(i), std::string(500, 'v'));
  settings.BreakOpenStore();
  CapturingLog log;
  char* text = const_cast<char*>("untouched");
  EXPECT_EQ(krand_core_settings_get_string_value("k7", &text), KRAND_CORE_IO_ERROR);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(krand_core_settings_does_key_exist("k7"), -1);
  EXPECT_EQ(krand_core_settings_get_keys_starting_with("k"), nullptr);
  EXPECT_EQ(krand_core_settings_set_string_value("k7", "v"), KRAND_CORE_IO_ERROR);
  EXPECT_EQ(ErrorLines(log).size(), 4u);
}

}  // namespace
}  // namespace krand::core
