#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/settings_fixture.h"

namespace {

// A disk whose n-th write, truncation or flush fails, and every later one too when it is broken for
// good.
struct Disk {
  static void FailFrom(int operation, int error, bool for_good) {
    left_ = operation;
    error_ = error;
    for_good_ = for_good;
    failures_ = 0;
  }
  static void Work() { left_ = -1; }
  static int Failures() { return failures_; }

  static bool Fails() {
    if (left_ < 0) return false;
    if (left_ > 1) {
      --left_;
      return false;
    }
    if (!for_good_) left_ = -1;
    ++failures_;
    errno = error_;
    return true;
  }

 private:
  static inline int left_ = -1;
  static inline int error_ = EIO;
  static inline bool for_good_ = false;
  static inline int failures_ = 0;
};

bool plain_renames_only = false;

ssize_t Write(int fd, const void* bytes, size_t size) {
  return Disk::Fails() ? -1 : write(fd, bytes, size);
}

ssize_t WriteAt(int fd, const void* bytes, size_t size, off_t offset) {
  return Disk::Fails() ? -1 : pwrite(fd, bytes, size, offset);
}

int Truncate(int fd, off_t size) {
  return Disk::Fails() ? -1 : ftruncate(fd, size);
}

}  // namespace

// These three stand before the C library's functions.
extern "C" int fsync(int fd) {
  if (Disk::Fails()) return -1;
  ++krand::core::Flushes::count;
  return krand::core::NoFlushes::Hold() ? 0 : static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int fdatasync(int fd) {
  if (Disk::Fails()) return -1;
  ++krand::core::Flushes::count;
  return krand::core::NoFlushes::Hold() ? 0 : static_cast<int>(syscall(SYS_fdatasync, fd));
}

extern "C" int renameat2(int from_dir, const char* from, int to_dir, const char* to,
                         unsigned flags) noexcept {
  if (plain_renames_only && flags != 0) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<int>(syscall(SYS_renameat2, from_dir, from, to_dir, to, flags));
}

namespace {

using support::CapturingLog;
using support::SettingsFixture;

struct Failure {
  int error;
  bool for_good;
};

class SettingsOnAFailingDisk : public testing::TestWithParam<Failure> {
 protected:
  SettingsOnAFailingDisk() {
    Replace("write", reinterpret_cast<sqlite3_syscall_ptr>(Write));
    Replace("pwrite", reinterpret_cast<sqlite3_syscall_ptr>(WriteAt));
    Replace("pwrite64", reinterpret_cast<sqlite3_syscall_ptr>(WriteAt));
    Replace("ftruncate", reinterpret_cast<sqlite3_syscall_ptr>(Truncate));
  }
  ~SettingsOnAFailingDisk() override {
    Disk::Work();
    Replace(nullptr, nullptr);
  }

  static void Replace(const char* name, sqlite3_syscall_ptr function) {
    sqlite3_vfs* const files = sqlite3_vfs_find(nullptr);
    files->xSetSystemCall(files, name, function);
  }
  static void FailFrom(int operation) {
    Disk::FailFrom(operation, GetParam().error, GetParam().for_good);
  }
};

// What three changes, one of them a transaction, answered.
struct Answers {
  krand_core_status single;
  krand_core_status transaction;
  krand_core_status deletion;
};

Answers ChangeEverything() {
  Answers answers{};
  answers.single = krand_core_settings_set_string_value("single", "new");
  answers.transaction = krand_core_settings_begin();
  if (answers.transaction == KRAND_CORE_OK) {
    krand_core_settings_set_string_value("first", "new");
    krand_core_settings_set_string_value("second", "new");
    answers.transaction = krand_core_settings_commit();
  }
  answers.deletion = krand_core_settings_delete_key("doomed");
  return answers;
}

struct Values {
  std::optional<std::string> single, first, second, doomed;
  bool operator==(const Values&) const = default;
};

Values ReadEverything() {
  return {SettingsFixture::GetString("single"), SettingsFixture::GetString("first"),
          SettingsFixture::GetString("second"), SettingsFixture::GetString("doomed")};
}

void ExpectNothingLostNorHalved(const Answers& answers, const Values& values) {
  EXPECT_EQ(values.first, values.second);
  if (answers.single == KRAND_CORE_OK) {
    EXPECT_EQ(values.single, "new");
  }
  if (answers.transaction == KRAND_CORE_OK) {
    EXPECT_EQ(values.first, "new");
  }
  if (answers.deletion == KRAND_CORE_OK) {
    EXPECT_EQ(values.doomed, std::nullopt);
  }
}

void ExpectWhatWasAnswered(const Answers& answers, const Values& values) {
  ExpectNothingLostNorHalved(answers, values);
  if (answers.single != KRAND_CORE_OK) {
    EXPECT_EQ(values.single, "old");
  }
  if (answers.transaction != KRAND_CORE_OK) {
    EXPECT_EQ(values.first, std::nullopt);
  }
  if (answers.deletion != KRAND_CORE_OK) {
    EXPECT_EQ(values.doomed, "old");
  }
}

size_t Refusals(const Answers& answers) {
  size_t count = 0;
  for (const krand_core_status status : {answers.single, answers.transaction, answers.deletion}) {
    if (status != KRAND_CORE_OK) ++count;
  }
  return count;
}

// The store as a power cut at this moment would leave it, read by another process.
Values AfterAPowerCut(const SettingsFixture& settings) {
  const support::TempDir copy;
  for (const char* part : {"vigila.db", "vigila.db-wal"}) {
    std::filesystem::copy_file(settings.SettingsDir() + "/" + part, copy.File(part));
  }
  sqlite3* raw = nullptr;
  EXPECT_EQ(sqlite3_open_v2(copy.File("vigila.db").c_str(), &raw, SQLITE_OPEN_READWRITE, nullptr),
            SQLITE_OK);
  const auto read = [raw](const std::string& key) {
    const std::string sql =
        "SELECT CAST(value AS TEXT) FROM settings WHERE key = CAST('" + key + "' AS BLOB)";
    std::optional<std::string> value;
    sqlite3_exec(
        raw, sql.c_str(),
        [](void* found, int, char** columns, char**) {
          *static_cast<std::optional<std::string>*>(found) = columns[0];
          return 0;
        },
        &value, nullptr);
    return value;
  };
  const Values values = {read("single"), read("first"), read("second"), read("doomed")};
  sqlite3_close(raw);
  return values;
}

TEST_P(SettingsOnAFailingDisk, LoseNoAcknowledgedChangeWhicheverOperationFails) {
  int operation = 1;
  for (; operation < 500; ++operation) {
    SCOPED_TRACE("operation " + std::to_string(operation));
    SettingsFixture settings;
    settings.PutString("single", "old");
    settings.PutString("doomed", "old");
    CapturingLog log;
    FailFrom(operation);
    const Answers answers = ChangeEverything();
    const int failures = Disk::Failures();
    Disk::Work();
    if (failures == 0) {
      EXPECT_EQ(Refusals(answers), 0u);
      break;
    }
    EXPECT_GT(Refusals(answers), 0u);
    EXPECT_GE(log.TextsOf("krand", tevra::core::Logger::kError).size(), Refusals(answers));
    ExpectWhatWasAnswered(answers, ReadEverything());
    ExpectNothingLostNorHalved(answers, AfterAPowerCut(settings));
    settings.Reopen();
    ExpectWhatWasAnswered(answers, ReadEverything());
    settings.PutString("single", "newer");
    EXPECT_EQ(settings.GetString("single"), "newer");
    if (testing::Test::HasFailure()) return;
  }
  EXPECT_GT(operation, 6) << "at least a write and a flush for each change";
  EXPECT_LT(operation, 500);
}

TEST_P(SettingsOnAFailingDisk, AreMadeWholeOrNotAtAll) {
  int operation = 1;
  for (; operation < 500; ++operation) {
    SCOPED_TRACE("operation " + std::to_string(operation));
    const support::PlatformFixture platform;
    CapturingLog log;
    FailFrom(operation);
    const krand_core_status status = krand_core_settings_init("vigila");
    const int failures = Disk::Failures();
    Disk::Work();
    if (status == KRAND_CORE_OK) {
      krand_core_settings_deinit();
    } else {
      EXPECT_EQ(status, KRAND_CORE_IO_ERROR);
      EXPECT_EQ(log.TextsOf("krand", tevra::core::Logger::kError).size(), 1u);
      EXPECT_TRUE(log.Contains(platform.SettingsDir() + "/"));
    }
    ASSERT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_OK)
        << testing::PrintToString(log.TextsOf("krand", tevra::core::Logger::kError));
    SettingsFixture::PutString("a", "1");
    EXPECT_EQ(SettingsFixture::GetString("a"), "1");
    krand_core_settings_deinit();
    for (const auto& entry : std::filesystem::directory_iterator(platform.SettingsDir())) {
      const std::string name = entry.path().filename().string();
      EXPECT_TRUE(name == "vigila.db" || name == "vigila.db-wal" || name == "vigila.db-shm" ||
                  name == "vigila.db.witness")
          << name;
    }
    if (failures == 0 || testing::Test::HasFailure()) break;
  }
  EXPECT_GT(operation, 3);
  EXPECT_LT(operation, 500);
}

TEST_P(SettingsOnAFailingDisk, OfTheFirstFormatAreUpgradedWholeOrNotAtAll) {
  int operation = 1;
  for (; operation < 500; ++operation) {
    SCOPED_TRACE("operation " + std::to_string(operation));
    const support::PlatformFixture platform;
    krand::core::MakeStoreOfTheFirstFormat(platform.SettingsDir() + "/vigila.db");
    CapturingLog log;
    FailFrom(operation);
    const krand_core_status status = krand_core_settings_init("vigila");
    const int failures = Disk::Failures();
    Disk::Work();
    if (status == KRAND_CORE_OK) {
      krand_core_settings_deinit();
    } else {
      EXPECT_EQ(status, KRAND_CORE_IO_ERROR);
    }
    ASSERT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_OK)
        << testing::PrintToString(log.TextsOf("krand", tevra::core::Logger::kError));
    EXPECT_EQ(SettingsFixture::Keys("user."),
              (std::vector<std::string>{"user.admin", "user.anna"}));
    EXPECT_EQ(SettingsFixture::GetJson("user.admin"), "{\"Groups\":1}");
    EXPECT_EQ(SettingsFixture::GetJson("user.anna"), "{\"Groups\":8}");
    krand_core_settings_deinit();
    if (failures == 0 || testing::Test::HasFailure()) break;
  }
  EXPECT_GT(operation, 3);
  EXPECT_LT(operation, 500);
}

INSTANTIATE_TEST_SUITE_P(Disks, SettingsOnAFailingDisk,
                         testing::Values(Failure{ENOSPC, false}, Failure{ENOSPC, true},
                                         Failure{EIO, false}, Failure{EIO, true}),
                         [](const auto& disk) {
                           return std::string(disk.param.error == ENOSPC ? "Full" : "Broken") +
                                  (disk.param.for_good ? "ForGood" : "Once");
                         });

TEST(SettingsInit, MakesAStoreWhereTheFileSystemRenamesPlainlyOnly) {
  const support::PlatformFixture platform;
  plain_renames_only = true;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_OK);
  plain_renames_only = false;
  SettingsFixture::PutString("a", "1");
  krand_core_settings_deinit();
  EXPECT_FALSE(std::filesystem::is_empty(platform.SettingsDir() + "/vigila.db"));
}

}  // namespace
