// A store that lost bits or files: it opens with everything that was settled, or it is refused.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "krand/core/settings_copy.h"
#include "krand/core/settings_database.h"
#include "krand/core/settings_failure.h"
#include "krand/core/settings_settler.h"
#include "settings_tests.h"
#include "support/temp_dir.h"

namespace krand::core {
namespace {

using Type = SettingsDatabase::Type;
using Records = std::map<std::string, std::string>;
using Files = std::map<std::string, std::string>;

constexpr const char* kStore = "vigila.db";
constexpr const char* kLog = "vigila.db-wal";
constexpr size_t kPage = 4096;
constexpr size_t kLogHeader = 32;
constexpr size_t kFrameHeader = 24;

class DamagedStore : public testing::Test {
 protected:
  DamagedStore() : path_(dir_.File(kStore)) {}

  // An administrator and a viewer, settled; then the log holds a viewer's change that is not.
  void MakeUnsettledStore() {
    SettingsDatabase database(path_, 0);
    TransactionGate gate;
    SettingsSettler settler(path_, gate, database);
    database.Begin();
    database.Write("user.admin", Type::kJson, "{\"Groups\":1}");
    database.Write("user.anna", Type::kJson, "{\"Groups\":8}");
    database.Mark();
    database.Commit();
    settler.Settle();
    settled_ = Contents(database);
    database.Write("user.anna", Type::kJson, "{\"Groups\":4}");
    newest_ = Contents(database);
    killed_ = FilesNow();
  }
  // The same without a log.
  void MakeSettledStore() {
    MakeUnsettledStore();
    { const SettingsDatabase closed(path_, 0); }
    settled_ = newest_;
    killed_ = FilesNow();
  }

  static Records Contents(SettingsDatabase& database) {
    Records records;
    for (const std::string& key : database.Keys("")) records[key] = database.Read(key)->bytes;
    return records;
  }
  Files FilesNow() const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
      const std::string name = entry.path().filename();
      if (!name.ends_with("-shm")) files[name] = dir_.Read(name);
    }
    return files;
  }
  void PutFiles(const Files& files) const {
    for (const auto& entry : std::filesystem::directory_iterator(dir_.Path())) {
      std::filesystem::remove(entry.path());
    }
    for (const auto& [name, content] : files) dir_.Write(name, content);
  }

  enum class Outcome { kNewest, kSettled, kRefused };

  // Opens a store of these files. It holds everything, all that was settled, or does not open and
  // says why; and one that does not open stays as it was.
  Outcome Open(const Files& files) {
    PutFiles(files);
    try {
      SettingsDatabase database(path_, 0);
      const Records found = Contents(database);
      if (found == newest_) return Outcome::kNewest;
      EXPECT_EQ(found, settled_);
      EXPECT_TRUE(database.IsMarked());
      return Outcome::kSettled;
    } catch (const SettingsFailure& failure) {
      EXPECT_TRUE(std::string(failure.what()).starts_with(path_)) << failure.what();
      refusal_ = failure.what();
    }
    Files after = FilesNow();
    if (!files.contains(kLog) && after[kLog].empty()) after.erase(kLog);
    EXPECT_EQ(after, files) << "a damaged store is left as it was found";
    return Outcome::kRefused;
  }

  const NoFlushes no_flushes_;
  const support::TempDir dir_;
  const std::string path_;
  Records settled_, newest_;
  Files killed_;
  std::string refusal_;
};

TEST_F(DamagedStore, KeepsWhatWasSettledWhicheverByteOfTheLogIsDamaged) {
  MakeUnsettledStore();
  std::map<Outcome, int> outcomes;
  for (size_t place = 0; place < killed_[kLog].size(); ++place) {
    SCOPED_TRACE("byte " + std::to_string(place));
    Files files = killed_;
    files[kLog][place] = static_cast<char>(files[kLog][place] ^ (1 << (place % 8)));
    ++outcomes[Open(files)];
    if (HasFailure()) return;
  }
  EXPECT_GT(outcomes[Outcome::kSettled], static_cast<int>(2 * kPage)) << "the change is lost";
}

TEST_F(DamagedStore, KeepsWhatWasSettledWhereverTheLogIsCut) {
  MakeUnsettledStore();
  const std::string log = killed_[kLog];
  ASSERT_EQ((log.size() - kLogHeader) % (kFrameHeader + kPage), 0u);
  for (size_t size = 0; size < log.size();
       size += size < kLogHeader ? kLogHeader : kFrameHeader + kPage) {
    for (const size_t cut : {size, size + 7}) {
      Files files = killed_;
      files[kLog] = log.substr(0, cut);
      EXPECT_EQ(Open(files), Outcome::kSettled) << cut;
    }
  }
  EXPECT_EQ(Open(killed_), Outcome::kNewest);
}

TEST_F(DamagedStore, KeepsWhatWasSettledWithoutALogOrAWitness) {
  MakeUnsettledStore();
  Files files = killed_;
  files.erase(kLog);
  EXPECT_EQ(Open(files), Outcome::kSettled);
  files.erase("vigila.db.witness");
  EXPECT_EQ(Open(files), Outcome::kSettled) << "as a copy of it elsewhere";
}

TEST_F(DamagedStore, IsNeverANewOneWhereOnlyTheStoreIsGone) {
  MakeSettledStore();
  Files files = killed_;
  files.erase(kStore);
  EXPECT_EQ(Open(files), Outcome::kRefused);
  EXPECT_EQ(refusal_, path_ + ": is missing, but " + path_ + ".witness is still there");
  const std::string copy = path_ + ".copy";
  EXPECT_EQ(Open({{"vigila.db.copy", "anything"}}), Outcome::kRefused);
  EXPECT_EQ(refusal_, path_ + ": is missing, but " + copy + " is still there");
}

TEST_F(DamagedStore, IsRefusedWhenItIsOlderThanItsWitness) {
  MakeUnsettledStore();
  const std::string older = killed_[kStore];
  MakeSettledStore();
  Files files = killed_;
  files[kStore] = older;
  EXPECT_EQ(Open(files), Outcome::kRefused);
  EXPECT_EQ(refusal_, path_ + ": is damaged: it is older than its witness says (change 1 of 4)");
}

TEST_F(DamagedStore, IsRefusedWhicheverBitOfItsWitnessIsDamaged) {
  MakeSettledStore();
  for (size_t bit = 0; bit < 8 * killed_["vigila.db.witness"].size(); ++bit) {
    Files files = killed_;
    char& byte = files["vigila.db.witness"][bit / 8];
    byte = static_cast<char>(byte ^ (1 << (bit % 8)));
    EXPECT_EQ(Open(files), Outcome::kRefused) << bit;
  }
  EXPECT_EQ(refusal_, path_ + ".witness: does not match its checksum");
}

TEST_F(DamagedStore, IsRefusedWhicheverBitOfARecordIsDamaged) {
  MakeSettledStore();
  const std::string whole = killed_[kStore];
  for (const auto& [key, value] : settled_) {
    // As it lies in its page: key, type and value one after the other.
    const size_t begin = whole.find(key + "\x02" + value);
    ASSERT_NE(begin, std::string::npos);
    for (size_t bit = 0; bit < 8 * (key.size() + 1 + value.size()); ++bit) {
      SCOPED_TRACE(key + ", bit " + std::to_string(bit));
      Files files = killed_;
      char& byte = files[kStore][begin + bit / 8];
      byte = static_cast<char>(byte ^ (1 << (bit % 8)));
      EXPECT_EQ(Open(files), Outcome::kRefused);
      if (HasFailure()) return;
    }
  }
}

TEST_F(DamagedStore, IsRefusedWhicheverTwoBitsOfAViewersGroupAreDamaged) {
  MakeSettledStore();
  const size_t begin = killed_[kStore].find("user.anna");
  const size_t digit = killed_[kStore].find("\"Groups\":", begin) + 9;
  ASSERT_EQ(killed_[kStore][digit], '4');
  for (int first = 0; first < 8; ++first) {
    for (int second = 0; second < first; ++second) {
      Files files = killed_;
      char& byte = files[kStore][digit];
      byte = static_cast<char>(byte ^ (1 << first) ^ (1 << second));
      EXPECT_EQ(Open(files), Outcome::kRefused);
    }
  }
}

TEST_F(DamagedStore, OpensWholeOrNotAtAllWhicheverByteOfItIsDamaged) {
  MakeSettledStore();
  std::map<Outcome, int> outcomes;
  for (size_t place = 0; place < killed_[kStore].size(); place += place < 200 ? 1 : 7) {
    SCOPED_TRACE("byte " + std::to_string(place));
    Files files = killed_;
    files[kStore][place] = static_cast<char>(files[kStore][place] ^ (1 << (place % 8)));
    ++outcomes[Open(files)];
    if (HasFailure()) return;
  }
  EXPECT_GT(outcomes[Outcome::kRefused], 100);
  EXPECT_GT(outcomes[Outcome::kNewest], 1000) << "most of it is empty";
}

void RunSql(const std::string& path, const std::string& sql) {
  sqlite3* database = nullptr;
  sqlite3_open(path.c_str(), &database);
  EXPECT_EQ(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  sqlite3_close(database);
}

TEST_F(DamagedStore, IsRefusedWhenRecordsAreMissingAddedOrExchanged) {
  const std::pair<const char*, const char*> changes[] = {
      {"DELETE FROM settings WHERE key = CAST('user.admin' AS BLOB)",
       "it holds 1 records and should hold 2"},
      {"DELETE FROM settings", "it holds 0 records and should hold 2"},
      {"UPDATE settings SET value = (SELECT value FROM settings WHERE key = CAST('user.admin' AS "
       "BLOB)), checksum = (SELECT checksum FROM settings WHERE key = CAST('user.admin' AS BLOB))",
       "record \"user.anna\" does not match its checksum"},
      {"DELETE FROM manifest", "the row that vouches for its records does not match its checksum"},
      {"UPDATE manifest SET change = 400",
       "the row that vouches for its records does not match its checksum"},
      {"INSERT INTO manifest SELECT * FROM manifest",
       "the row that vouches for its records does not match its checksum"},
  };
  for (const auto& [sql, damage] : changes) {
    PutFiles({});
    MakeSettledStore();
    RunSql(path_, sql);
    EXPECT_EQ(Open(FilesNow()), Outcome::kRefused);
    EXPECT_EQ(refusal_, path_ + ": is damaged: " + damage);
  }
}

// Of two sound stores each record is sound, and so is each change.
TEST_F(DamagedStore, IsRefusedWhenARecordOfAnEarlierTimeIsBack) {
  MakeSettledStore();
  const support::TempDir other;
  {
    SettingsDatabase database(other.File(kStore), 0);
    database.Write("user.anna", Type::kJson, "{\"Groups\":1}");
  }
  RunSql(path_,
         "ATTACH '" + other.File(kStore) +
             "' AS other; INSERT OR REPLACE INTO main.settings SELECT * FROM other.settings");
  EXPECT_EQ(Open(FilesNow()), Outcome::kRefused);
  EXPECT_EQ(refusal_, path_ + ": is damaged: its records are not those of its last change");
}

}  // namespace
}  // namespace krand::core
