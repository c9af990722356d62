// Transactions of the settings.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/settings_fixture.h"

namespace krand::core {
namespace {

using support::SettingsFixture;

TEST(SettingsTransaction, ReadsItsOwnWritesAndKeepsThemAtCommit) {
  SettingsFixture settings;
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  settings.PutString("a", "1");
  settings.PutString("b", "2");
  settings.Delete("a");
  EXPECT_EQ(settings.GetString("b"), "2");
  EXPECT_FALSE(settings.Exists("a"));
  ASSERT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  settings.Reopen();
  EXPECT_EQ(settings.Keys(), Texts{"b"});
}

TEST(SettingsTransaction, LeavesNothingBehindARollback) {
  SettingsFixture settings;
  settings.PutString("kept", "before");
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  settings.PutString("kept", "after");
  settings.PutString("new", "1");
  ASSERT_EQ(krand_core_settings_rollback(), KRAND_CORE_OK);
  EXPECT_EQ(settings.GetString("kept"), "before");
  EXPECT_FALSE(settings.Exists("new"));
}

TEST(SettingsTransaction, DoesNotNestAndMustBeBegun) {
  SettingsFixture settings;
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_ERROR);
  EXPECT_EQ(krand_core_settings_rollback(), KRAND_CORE_ERROR);
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  settings.PutString("a", "1");
  EXPECT_EQ(krand_core_settings_begin(), KRAND_CORE_ERROR);
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_ERROR);
  EXPECT_EQ(settings.GetString("a"), "1");
}

TEST(SettingsTransaction, IsRolledBackByDeinit) {
  SettingsFixture settings;
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  settings.PutString("a", "1");
  settings.Reopen();
  EXPECT_FALSE(settings.Exists("a"));
  EXPECT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
}

TEST(SettingsTransaction, KeepsOtherThreadsOutUntilItEnds) {
  SettingsFixture settings;
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  settings.PutString("a", "1");
  std::promise<void> started;
  std::atomic<bool> committed{false};
  std::thread other([&] {
    started.set_value();
    EXPECT_EQ(settings.GetString("b"), "2");
    EXPECT_TRUE(committed);
    EXPECT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
    settings.PutString("c", "3");
    EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  });
  started.get_future().wait();
  settings.PutString("b", "2");
  committed = true;
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  other.join();
  EXPECT_EQ(settings.Keys(), (Texts{"a", "b", "c"}));
}

TEST(SettingsTransaction, OfSeveralThreadsAtOnceKeepsEveryIncrement) {
  SettingsFixture settings;
  settings.PutString("n", "0");
  const auto increment = [&settings] {
    for (int i = 0; i < 50; ++i) {
      EXPECT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
      settings.PutString("n", std::to_string(std::stoi(*settings.GetString("n")) + 1));
      EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
      settings.Keys("n");
    }
  };
  std::thread first(increment);
  std::thread second(increment);
  std::thread third(increment);
  first.join();
  second.join();
  third.join();
  EXPECT_EQ(settings.GetString("n"), "150");
}

}  // namespace
}  // namespace krand::core
