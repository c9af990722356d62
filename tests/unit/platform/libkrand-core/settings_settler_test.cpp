// How changes are settled, and what that costs them.
#include "krand/core/settings_settler.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <thread>

#include "krand/core/krand_core.h"
#include "krand/core/settings_copy.h"
#include "krand/core/settings_failure.h"
#include "krand/core/settings_witness.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/settings_fixture.h"
#include "support/temp_dir.h"

namespace krand::core {
namespace {

using support::CapturingLog;
using support::SettingsFixture;
using Type = SettingsDatabase::Type;

// Passes the time until `holds`; false when that takes ten seconds.
template <typename Condition>
bool Await(Condition holds) {
  const auto late = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!holds()) {
    if (std::chrono::steady_clock::now() > late) return false;
    std::this_thread::yield();
  }
  return true;
}

class SettledStore : public testing::Test {
 protected:
  SettledStore()
      : path_(dir_.File("vigila.db")), database_(path_, 0), settler_(path_, gate_, database_) {}

  int64_t Witnessed() const {
    return SettingsWitness(path_).Read().value_or(SettingsWitness::Testimony()).change;
  }

  const support::TempDir dir_;
  const std::string path_;
  SettingsDatabase database_;
  TransactionGate gate_;
  SettingsSettler settler_;
};

TEST_F(SettledStore, IsOneFileWithoutNeedOfItsLog) {
  database_.Write("a", Type::kString, "1");
  settler_.Settle();
  const support::TempDir other;
  std::filesystem::copy_file(path_, other.File("vigila.db"));
  EXPECT_EQ(SettingsDatabase(other.File("vigila.db"), 0).Read("a")->bytes, "1");
  EXPECT_EQ(Witnessed(), 1);
}

TEST_F(SettledStore, CostsAChangeOneFlushAlsoRightAfterItWasSettled) {
  for (int i = 0; i < 3; ++i) {
    settler_.Settle();
    const int before = Flushes::count;
    database_.Write("a", Type::kString, std::to_string(i));
    EXPECT_EQ(Flushes::count, before + 1) << i;
    database_.Begin();
    database_.Write("b", Type::kString, std::to_string(i));
    database_.Delete("b");
    database_.Commit();
    EXPECT_EQ(Flushes::count, before + 2) << i;
  }
}

TEST_F(SettledStore, IsNotSettledAgainBeforeThereIsAChange) {
  database_.Write("a", Type::kString, "1");
  settler_.Settle();
  const int before = Flushes::count;
  settler_.Settle();
  EXPECT_EQ(Flushes::count, before);
}

TEST_F(SettledStore, HasALaterWitnessAfterEachChange) {
  for (int i = 1; i < 4; ++i) {
    database_.Write("a", Type::kString, std::to_string(i));
    EXPECT_EQ(Witnessed(), i - 1);
    settler_.Settle();
    EXPECT_EQ(Witnessed(), i);
  }
}

TEST_F(SettledStore, IsNotWrittenBackWhileAnotherProcessReadsTheLog) {
  database_.Write("a", Type::kString, "1");
  sqlite3* reader = nullptr;
  sqlite3_open(path_.c_str(), &reader);
  ASSERT_EQ(sqlite3_exec(reader, "BEGIN; SELECT * FROM settings", nullptr, nullptr, nullptr),
            SQLITE_OK);
  database_.Write("a", Type::kString, "2");
  EXPECT_THROW(settler_.Settle(), SettingsFailure);
  EXPECT_EQ(Witnessed(), 0);
  sqlite3_close(reader);
  settler_.Settle();
  EXPECT_EQ(Witnessed(), 2);
}

TEST_F(SettledStore, KeepsACopyOfItOnceThereIsAChange) {
  const std::string copy = path_ + ".copy";
  settler_.Settle();
  settler_.KeepCopy();
  EXPECT_FALSE(std::filesystem::exists(copy));
  database_.Write("a", Type::kString, "1");
  settler_.Settle();
  settler_.KeepCopy();
  struct stat status;
  ASSERT_EQ(stat(copy.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(SettingsDatabase(copy, 0).Read("a")->bytes, "1");
}

TEST_F(SettledStore, RenewsItsCopyAfterAnHourAndAfterTheClockWasSetBack) {
  const std::string copy = path_ + ".copy";
  const SettingsCopy kept(path_);
  EXPECT_TRUE(kept.IsDue(1000000));
  dir_.Write("vigila.db.copy", "");
  const timespec times[] = {{1000000, 0}, {1000000, 0}};
  ASSERT_EQ(utimensat(AT_FDCWD, copy.c_str(), times, 0), 0);
  EXPECT_FALSE(kept.IsDue(1000000));
  EXPECT_FALSE(kept.IsDue(1000000 + 3599));
  EXPECT_TRUE(kept.IsDue(1000000 + 3600));
  EXPECT_TRUE(kept.IsDue(999999));
}

TEST_F(SettledStore, NeverGivesItsCopyForADamagedOne) {
  const SettingsCopy kept(path_);
  dir_.Write("vigila.db.copy", "the copy");
  EXPECT_THROW(kept.Make([this](const std::string& name) {
    database_.CopyTo(name);
    sqlite3* copy = nullptr;
    sqlite3_open(name.c_str(), &copy);
    sqlite3_exec(copy, "UPDATE manifest SET change = 7", nullptr, nullptr, nullptr);
    sqlite3_close(copy);
  }),
               SettingsFailure);
  EXPECT_EQ(dir_.Read("vigila.db.copy"), "the copy");
}

TEST(SettingsSettling, FollowsAChangeByItself) {
  SettingsFixture settings;
  settings.PutString("a", "1");
  const SettingsWitness witness(settings.File());
  EXPECT_TRUE(Await([&] { return witness.Read().has_value(); }));
  EXPECT_TRUE(Await([&] { return std::filesystem::exists(settings.File() + ".copy"); }));
  settings.PutString("a", "2");
  EXPECT_TRUE(Await([&] { return witness.Read()->change == 2; }));
}

TEST(SettingsSettling, IsDoneWhenItWasAskedFor) {
  SettingsFixture settings;
  settings.PutString("a", "1");
  EXPECT_EQ(krand_core_settings_settle(), KRAND_CORE_OK);
  EXPECT_EQ(SettingsWitness(settings.File()).Read()->change, 1);
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_settle(), KRAND_CORE_ERROR);
  EXPECT_EQ(krand_core_settings_rollback(), KRAND_CORE_OK);
  settings.Close();
  EXPECT_EQ(krand_core_settings_settle(), KRAND_CORE_NOT_INITIALIZED);
  settings.Open();
}

TEST(SettingsMark, IsSetForGoodAndWithItsTransaction) {
  SettingsFixture settings;
  EXPECT_EQ(krand_core_settings_has_mark(), 0);
  krand_core_settings_begin();
  EXPECT_EQ(krand_core_settings_set_mark(), KRAND_CORE_OK);
  krand_core_settings_rollback();
  EXPECT_EQ(krand_core_settings_has_mark(), 0);
  EXPECT_EQ(krand_core_settings_set_mark(), KRAND_CORE_OK);
  const unsigned long changes = krand_core_settings_write_count();
  EXPECT_EQ(krand_core_settings_set_mark(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_write_count(), changes) << "once";
  settings.Reopen();
  EXPECT_EQ(krand_core_settings_has_mark(), 1);
  EXPECT_TRUE(SettingsWitness(settings.File()).Read()->marked);
}

TEST(SettingsExistence, IsKnownBeforeTheyAreOpened) {
  const support::PlatformFixture platform;
  EXPECT_EQ(krand_core_settings_exist("vigila"), 0);
  EXPECT_EQ(krand_core_settings_exist("no/domain"), -1);
  for (const char* name : {"vigila.db", "vigila.db-wal", "vigila.db.witness", "vigila.db.copy"}) {
    const std::string file = platform.Dir().Write(std::string("settings/") + name, "x");
    EXPECT_EQ(krand_core_settings_exist("vigila"), 1) << name;
    std::filesystem::remove(file);
  }
}

TEST(SettingsInit, RefusesADirectoryThatOthersMayWrite) {
  SettingsFixture settings;
  settings.Close();
  for (const mode_t mode : {0777u, 01777u, 0775u}) {
    chmod(settings.SettingsDir().c_str(), mode);
    CapturingLog log;
    EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_IO_ERROR);
    ASSERT_EQ(ErrorLines(log).size(), 1u);
    EXPECT_NE(ErrorLines(log)[0].find("others may write the settings directory"),
              std::string::npos);
  }
  chmod(settings.SettingsDir().c_str(), 0755);
  settings.Open();
}

}  // namespace
}  // namespace krand::core
