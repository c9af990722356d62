#include "krand/core/settings_file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "krand/core/settings_database.h"
#include "settings_tests.h"
#include "support/stepped_process.h"
#include "support/temp_dir.h"

namespace {

using krand::core::SettingsDatabase;
using krand::core::SettingsFile;
using support::Errand;
using support::SteppedProcess;
using Names = std::set<std::string>;

constexpr int kBusyTimeoutMs = 10000;

Names NamesIn(const support::TempDir& dir) {
  Names names;
  for (const auto& entry : std::filesystem::directory_iterator(dir.Path())) {
    names.insert(entry.path().filename().string());
  }
  return names;
}

class SettingsFilePreparation : public testing::Test {
 protected:
  SettingsFilePreparation() : path_(dir_.File("vigila.db")) {}

  // Calls `check` with a process stopped before the first call of its way to a first store, then
  // with one stopped before the second, and so on.
  void AtEveryCallOf(const Errand& errand, const std::function<void(SteppedProcess&)>& check) {
    int number = 1;
    for (; number < 2000; ++number) {
      SCOPED_TRACE("before call " + std::to_string(number));
      for (const std::string& name : NamesIn(dir_)) std::filesystem::remove(dir_.File(name));
      SteppedProcess process(errand);
      if (!process.CanBeStopped()) GTEST_SKIP() << "no process may be traced here";
      if (!process.StopBeforeCall(number)) break;
      check(process);
      if (HasFailure()) return;
    }
    EXPECT_GT(number, 20) << "to make, fill, flush and move a file";
    EXPECT_LT(number, 2000);
  }
  // In a process of its own: when no one holds the pipe's other end any more, opens the store and
  // writes to it.
  [[noreturn]] void WriteWhenTold(const int (&start)[2], const std::string& key) {
    close(start[1]);
    char byte;
    int failed = read(start[0], &byte, 1) == 0 ? 0 : 1;
    try {
      SettingsDatabase(path_, kBusyTimeoutMs).Write(key, SettingsDatabase::Type::kString, "text");
    } catch (const std::exception& failure) {
      fprintf(stderr, "%s\n", failure.what());
      failed = 1;
    }
    _exit(failed);
  }
  bool HasKey(const std::string& key) {
    return SettingsDatabase(path_, kBusyTimeoutMs).Exists(key);
  }

  const krand::core::NoFlushes no_flushes_;
  const support::TempDir dir_;
  const std::string path_;
};

TEST_F(SettingsFilePreparation, LeavesNothingBesideTheStore) {
  SettingsFile::Prepare(path_);
  EXPECT_EQ(NamesIn(dir_), Names{"vigila.db"});
}

TEST_F(SettingsFilePreparation, RemovesWhatKilledMakersLeft) {
  for (const bool with_a_store : {false, true}) {
    for (const char* name : {"vigila.db.unfinished-Ab3dEf", "vigila.db.unfinished-Ab3dEf-wal",
                             "vigila.db.unfinished-Ab3dEf-shm", "vigila.db.unfinished-zzzzzz",
                             "vigila.db.unfinished-zzzzzz-journal"}) {
      dir_.Write(name, "half");
    }
    SettingsFile::Prepare(path_);
    EXPECT_EQ(NamesIn(dir_), Names{"vigila.db"}) << with_a_store;
  }
}

TEST_F(SettingsFilePreparation, LeavesAloneWhatNoMakerOfThisStoreLeft) {
  const Names others = {
      "vigila.db.backup",           "vigila.db.unfinished-",      "vigila.db.unfinished-seven77",
      "vigila.db.unfinished-five5", "other.db.unfinished-Ab3dEf", "vigila.db-journal",
      "unfinished-Ab3dEf"};
  for (const std::string& name : others) dir_.Write(name, "");
  std::filesystem::create_symlink("vigila.db.backup", dir_.File("vigila.db.unfinished-symlnk"));
  SettingsFile::Prepare(path_);
  Names all = others;
  all.insert({"vigila.db", "vigila.db.unfinished-symlnk"});
  EXPECT_EQ(NamesIn(dir_), all);
}

TEST_F(SettingsFilePreparation, LeavesAloneWhatIsLockedByItsMaker) {
  const Names names = {"vigila.db.unfinished-Ab3dEf", "vigila.db.unfinished-Ab3dEf-wal"};
  for (const std::string& name : names) dir_.Write(name, "half");
  const int maker = open(dir_.File("vigila.db.unfinished-Ab3dEf").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(flock(maker, LOCK_EX | LOCK_NB), 0);
  SettingsFile::Prepare(path_);
  Names all = names;
  all.insert("vigila.db");
  EXPECT_EQ(NamesIn(dir_), all);
  close(maker);
  SettingsFile::Prepare(path_);
  EXPECT_EQ(NamesIn(dir_), Names{"vigila.db"});
}

TEST_F(SettingsFilePreparation, MakesAWholeStoreAloneAfterAMakerThatWasKilledAnywhere) {
  AtEveryCallOf({[this] { SettingsFile::Prepare(path_); }}, [this](SteppedProcess& process) {
    process.Kill();
    SettingsFile::Prepare(path_);
    EXPECT_EQ(NamesIn(dir_), Names{"vigila.db"});
    EXPECT_EQ(SettingsDatabase(path_, 0).Keys(""), std::vector<std::string>());
  });
}

TEST_F(SettingsFilePreparation, GivesAMakerAndOneThatOvertakesItAnywhereTheSameStore) {
  const Errand errand = {[this] { SettingsFile::Prepare(path_); },
                         [this] { return HasKey("overtaker"); }};
  AtEveryCallOf(errand, [this](SteppedProcess& process) {
    SettingsDatabase database(path_, kBusyTimeoutMs);
    database.Write("overtaker", SettingsDatabase::Type::kString, "text");
    EXPECT_EQ(process.Finish(), 0);
    EXPECT_EQ(NamesIn(dir_),
              (Names{"vigila.db", "vigila.db-shm", "vigila.db-wal", "vigila.db.witness"}));
  });
}

TEST_F(SettingsFilePreparation, GivesSeveralMakersAtOnceTheSameStore) {
  for (int round = 0; round < 10; ++round) {
    for (const std::string& name : NamesIn(dir_)) std::filesystem::remove(dir_.File(name));
    int start[2];
    ASSERT_EQ(pipe2(start, O_CLOEXEC), 0);
    std::vector<pid_t> makers;
    for (int maker = 0; maker < 4; ++maker) {
      makers.push_back(fork());
      if (makers.back() == 0) WriteWhenTold(start, "maker " + std::to_string(maker));
    }
    close(start[0]);
    close(start[1]);
    for (const pid_t maker : makers) {
      int status = -1;
      ASSERT_EQ(waitpid(maker, &status, 0), maker);
      EXPECT_EQ(status, 0);
    }
    // Of two that close the store at the same moment, neither may be the last, who clears its log.
    EXPECT_EQ(SettingsDatabase(path_, 0).Keys("").size(), makers.size());
    EXPECT_EQ(NamesIn(dir_), (Names{"vigila.db", "vigila.db.witness"}));
  }
}

}  // namespace
