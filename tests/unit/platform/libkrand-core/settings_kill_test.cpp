// Processes that are killed before any system call of what keeps a store sound.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "krand/core/settings_database.h"
#include "krand/core/settings_failure.h"
#include "krand/core/settings_file.h"
#include "krand/core/settings_inspection.h"
#include "krand/core/settings_repair.h"
#include "krand/core/settings_settler.h"
#include "settings_tests.h"
#include "support/platform_fixture.h"
#include "support/stepped_process.h"

namespace krand::core {
namespace {

using support::Errand;
using support::SteppedProcess;
using Names = std::set<std::string>;
using Type = SettingsDatabase::Type;

// An open store with what settles it.
struct OpenStore {
  explicit OpenStore(const std::string& path) : database(path, 0), settler(path, gate, database) {}

  SettingsDatabase database;
  TransactionGate gate;
  SettingsSettler settler;
};

class KilledAnywhere : public testing::Test {
 protected:
  KilledAnywhere() : path_(platform_.SettingsDir() + "/vigila.db") {}

  // Calls `check` after a process was killed before the first call of its way, then before the
  // second, and so on. `prepare` makes the store that it finds.
  void AtEveryCallOf(const Errand& errand, const std::function<void()>& prepare,
                     const std::function<void()>& check) {
    int number = 1;
    for (; number < 2000; ++number) {
      SCOPED_TRACE("before call " + std::to_string(number));
      for (const std::string& name : NamesNow()) {
        std::filesystem::remove(platform_.SettingsDir() + "/" + name);
      }
      prepare();
      SteppedProcess process(errand);
      if (!process.CanBeStopped()) GTEST_SKIP() << "no process may be traced here";
      if (!process.StopBeforeCall(number)) break;
      process.Kill();
      check();
      if (HasFailure()) return;
    }
    EXPECT_GT(number, 10);
    EXPECT_LT(number, 2000);
  }
  Names NamesNow() const {
    Names names;
    for (const auto& entry : std::filesystem::directory_iterator(platform_.SettingsDir())) {
      names.insert(entry.path().filename());
    }
    return names;
  }
  void MakeStore() const {
    SettingsDatabase database(path_, 0);
    database.Write("user.admin", Type::kJson, "{\"Groups\":1}");
    database.Write("user.anna", Type::kJson, "{\"Groups\":8}");
  }
  void ExpectTheStore(const std::string& annas_group) const {
    SettingsDatabase database(path_, 0);
    EXPECT_EQ(database.Keys(""), (std::vector<std::string>{"user.admin", "user.anna"}));
    EXPECT_EQ(database.Read("user.admin")->bytes, "{\"Groups\":1}");
    EXPECT_EQ(database.Read("user.anna")->bytes, "{\"Groups\":" + annas_group + "}");
  }

  const NoFlushes no_flushes_;
  const support::PlatformFixture platform_;
  const std::string path_;
};

TEST_F(KilledAnywhere, WhileItSettlesAndCopiesAStoreLosesNothing) {
  std::unique_ptr<OpenStore> open;
  const Errand errand = {[&] {
                           open->settler.Settle();
                           open->settler.KeepCopy();
                         },
                         [] { return true; },
                         [&] {
                           open = std::make_unique<OpenStore>(path_);
                           open->database.Write("user.anna", Type::kJson, "{\"Groups\":4}");
                         }};
  AtEveryCallOf(
      errand, [this] { MakeStore(); },
      [this] {
        if (std::filesystem::exists(SettingsFile::CopyOf(path_))) {
          SqliteFile copy(SettingsFile::CopyOf(path_), SqliteFile::Access::kAlone);
          EXPECT_TRUE(
              SettingsInspection::Of(copy, SettingsInspection::Keep::kNothing).damage.empty());
        }
        ExpectTheStore("4");
        for (const std::string& name : NamesNow()) {
          EXPECT_TRUE(name == "vigila.db" || name == "vigila.db.witness" ||
                      name == "vigila.db.copy")
              << name << " is left";
        }
      });
}

TEST_F(KilledAnywhere, WhileItRepairsAStoreLeavesTheOldOneOrTheNew) {
  const std::vector<SettingsRecord> records = {{"user.admin", 2, "{\"Groups\":1}"},
                                               {"user.anna", 2, "{\"Groups\":8}"}};
  const Errand errand = {[&] { SettingsRepair("vigila").PutInForce(records, true); }};
  AtEveryCallOf(
      errand,
      [this] {
        MakeStore();
        platform_.Dir().Write("settings/vigila.db-wal", "not a log, but something to keep");
        platform_.Dir().Write("settings/vigila.db", "damaged");
      },
      [&] {
        bool is_old = false;
        try {
          ExpectTheStore("8");
        } catch (const SettingsFailure&) {
          is_old = true;
        }
        if (!is_old) return;
        EXPECT_EQ(platform_.Dir().Read("settings/vigila.db"), "damaged");
        SettingsRepair("vigila").PutInForce(records, true);
        ExpectTheStore("8");
      });
}

TEST_F(KilledAnywhere, WhileItUpgradesAStoreOfTheFirstFormatLosesNothing) {
  AtEveryCallOf(
      {[this] { const SettingsDatabase database(path_, 0); }},
      [this] { MakeStoreOfTheFirstFormat(path_); }, [this] { ExpectTheStore("8"); });
}

}  // namespace
}  // namespace krand::core
