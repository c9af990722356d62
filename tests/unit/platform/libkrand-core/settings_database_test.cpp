#include "krand/core/settings_database.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <string>

#include "krand/core/settings_failure.h"
#include "support/temp_dir.h"

namespace {

using krand::core::SettingsDatabase;
using krand::core::SettingsFailure;

// A connection beside the store's own, as another process or an older program would have it.
class Sqlite final {
 public:
  explicit Sqlite(const std::string& path) {
    sqlite3* raw = nullptr;
    sqlite3_open(path.c_str(), &raw);
    database_.reset(raw);
  }
  void Run(const std::string& sql) const {
    char* error = nullptr;
    EXPECT_EQ(sqlite3_exec(database_.get(), sql.c_str(), nullptr, nullptr, &error), SQLITE_OK)
        << sql << ": " << (error == nullptr ? "" : error);
    sqlite3_free(error);
  }
  std::string Ask(const std::string& sql) const {
    std::string answer;
    const auto take = [](void* out, int, char** values, char**) {
      *static_cast<std::string*>(out) += values[0] == nullptr ? "" : values[0];
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(database_.get(), sql.c_str(), take, &answer, nullptr), SQLITE_OK);
    return answer;
  }

 private:
  struct Closer {
    void operator()(sqlite3* database) const { sqlite3_close(database); }
  };
  std::unique_ptr<sqlite3, Closer> database_;
};

class SettingsDatabaseFile : public testing::Test {
 protected:
  SettingsDatabaseFile() : path_(dir_.File("vigila.db")) {}

  void MakeStore() {
    SettingsDatabase database(path_, 0);
    database.Write("key", SettingsDatabase::Type::kString, "text");
  }
  // What opening says; empty when it opens.
  std::string Refusal() {
    try {
      const SettingsDatabase database(path_, 0);
      return std::string();
    } catch (const SettingsFailure& failure) {
      EXPECT_EQ(failure.status(), KRAND_CORE_IO_ERROR);
      return failure.what();
    }
  }

  const support::TempDir dir_;
  const std::string path_;
};

TEST_F(SettingsDatabaseFile, HasItsNumbersItsTableAndALog) {
  MakeStore();
  const Sqlite sqlite(path_);
  EXPECT_EQ(sqlite.Ask("PRAGMA application_id"), std::to_string(0x76676c61));
  EXPECT_EQ(sqlite.Ask("PRAGMA user_version"), "2");
  EXPECT_EQ(sqlite.Ask("PRAGMA journal_mode"), "wal");
  EXPECT_EQ(sqlite.Ask("SELECT hex(key) || type || hex(value) FROM settings"), "6B6579174657874");
}

TEST_F(SettingsDatabaseFile, OfAnotherProgramIsRefusedAndLeftAlone) {
  {
    const Sqlite sqlite(path_);
    sqlite.Run("CREATE TABLE other(x)");
  }
  const std::string before = dir_.Read("vigila.db");
  EXPECT_EQ(Refusal(), path_ + ": is a database, but not a settings store");
  EXPECT_EQ(dir_.Read("vigila.db"), before);
}

TEST_F(SettingsDatabaseFile, OfANewerFormatIsRefusedAndLeftAlone) {
  MakeStore();
  Sqlite(path_).Run("PRAGMA user_version=3");
  const std::string before = dir_.Read("vigila.db");
  EXPECT_EQ(Refusal(), path_ + ": has the store format 3; this program reads formats 1 to 2");
  EXPECT_EQ(dir_.Read("vigila.db"), before);
}

TEST_F(SettingsDatabaseFile, WithoutTheTableIsRefused) {
  MakeStore();
  Sqlite(path_).Run("DROP TABLE settings");
  EXPECT_EQ(
      Refusal(),
      path_ + ": is damaged: it does not hold the settings tables as this program makes them");
}

TEST_F(SettingsDatabaseFile, WithATriggerIsRefused) {
  MakeStore();
  Sqlite(path_).Run(
      "CREATE TRIGGER t AFTER INSERT ON settings BEGIN DELETE FROM settings WHERE 1; END");
  EXPECT_EQ(
      Refusal(),
      path_ + ": is damaged: it does not hold the settings tables as this program makes them");
}

TEST_F(SettingsDatabaseFile, LockedByAnotherProcessIsAnErrorAndNotAMissingKey) {
  MakeStore();
  SettingsDatabase database(path_, 0);
  const Sqlite other(path_);
  other.Run("BEGIN IMMEDIATE");
  EXPECT_EQ(database.Read("key")->bytes, "text");
  EXPECT_THROW(database.Write("key", SettingsDatabase::Type::kString, "x"), SettingsFailure);
  EXPECT_THROW(database.Begin(), SettingsFailure);
  other.Run("COMMIT");
  database.Write("key", SettingsDatabase::Type::kString, "x");
  EXPECT_EQ(database.Read("key")->bytes, "x");
}

TEST_F(SettingsDatabaseFile, ExclusivelyLockedByAnotherProcessIsNotOpened) {
  MakeStore();
  const Sqlite other(path_);
  other.Run("PRAGMA locking_mode=EXCLUSIVE");
  other.Run("BEGIN EXCLUSIVE");
  EXPECT_EQ(Refusal(), path_ + ": database is locked");
}

TEST_F(SettingsDatabaseFile, ChangedByAnotherProcessIsReadAfresh) {
  MakeStore();
  SettingsDatabase database(path_, 0);
  EXPECT_EQ(database.Read("key")->bytes, "text");
  SettingsDatabase(path_, 0).Write("key", SettingsDatabase::Type::kString, "a");
  EXPECT_EQ(database.Read("key")->bytes, "a");
}

// Nothing of it is believed once it is read, whatever the start has found.
TEST_F(SettingsDatabaseFile, WithARecordThatIsDamagedMeanwhileGivesAnError) {
  MakeStore();
  SettingsDatabase database(path_, 0);
  Sqlite(path_).Run("UPDATE settings SET value=x'61'");
  try {
    database.Read("key");
    ADD_FAILURE() << "it is believed";
  } catch (const SettingsFailure& failure) {
    EXPECT_EQ(failure.what(), path_ + ": is damaged: record \"key\" does not match its checksum");
  }
}

TEST_F(SettingsDatabaseFile, WithATypeThatNoProgramWritesGivesAnError) {
  MakeStore();
  {
    SettingsDatabase database(path_, 0);
    database.Write("key", static_cast<SettingsDatabase::Type>(4), "text");
  }
  SettingsDatabase database(path_, 0);
  EXPECT_THROW(database.Read("key"), SettingsFailure);
}

TEST_F(SettingsDatabaseFile, KeepsTheStoreOfWhoeverMadeItFirst) {
  MakeStore();
  const SettingsDatabase first(path_, 0);
  SettingsDatabase second(path_, 0);
  EXPECT_EQ(second.Read("key")->bytes, "text");
}

TEST_F(SettingsDatabaseFile, GetsAChangeOfSomeSizeAsOneAtItsCommit) {
  SettingsDatabase database(path_, 0);
  const std::string log = path_ + "-wal";
  database.Begin();
  for (int i = 0; i < 150; ++i) {
    database.Write("key" + std::to_string(i), SettingsDatabase::Type::kString,
                   std::string(600, 'x'));
  }
  const auto before = std::filesystem::file_size(log);
  EXPECT_LT(before, 20000u);
  database.Commit();
  EXPECT_GT(std::filesystem::file_size(log), before + 90000u);
}

TEST_F(SettingsDatabaseFile, CountsBytesAndHoldsZeroBytes) {
  SettingsDatabase database(path_, 0);
  const std::string key("a\0b", 3);
  const std::string value("\0\0", 2);
  database.Write(key, SettingsDatabase::Type::kJson, value);
  EXPECT_EQ(database.Read(key)->bytes, value);
  EXPECT_FALSE(database.Exists("a"));
  EXPECT_EQ(database.Keys(std::string("a\0", 2)), std::vector<std::string>{key});
}

}  // namespace
