#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "krand/core/krand_core.h"
#include "krand/core/settings_faults.h"
#include "support/capturing_log.h"
#include "support/settings_fixture.h"

namespace {

using support::CapturingLog;
using support::SettingsFixture;
using Texts = std::vector<std::string>;

std::vector<std::string> ErrorLines(const CapturingLog& log) {
  return log.TextsOf("krand", tevra::core::Logger::kError);
}

TEST(Settings, KeepValuesOfEachTypeOverAReopening) {
  SettingsFixture settings;
  settings.PutString("rule.jpeg", "@admins");
  settings.PutJson("user.alice", "{\"Groups\":1}");
  settings.PutArray("oldPasswords.alice", {"one", "", "three"});
  settings.Reopen();
  EXPECT_EQ(settings.GetString("rule.jpeg"), "@admins");
  EXPECT_EQ(settings.GetJson("user.alice"), "{\"Groups\":1}");
  EXPECT_EQ(settings.GetArray("oldPasswords.alice"), (Texts{"one", "", "three"}));
}

TEST(Settings, AnswerAMissingKeyWithANullValue) {
  SettingsFixture settings;
  char* text = const_cast<char*>("untouched");
  char** array = &text;
  size_t count = 7;
  EXPECT_EQ(krand_core_settings_get_string_value("no", &text), KRAND_CORE_OK);
  EXPECT_EQ(text, nullptr);
  text = const_cast<char*>("untouched");
  EXPECT_EQ(krand_core_settings_get_json_value("no", &text), KRAND_CORE_OK);
  EXPECT_EQ(text, nullptr);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("no", &array, &count), KRAND_CORE_OK);
  EXPECT_EQ(array, nullptr);
  EXPECT_EQ(count, 0u);
  EXPECT_EQ(krand_core_settings_does_key_exist("no"), 0);
}

TEST(Settings, TellAnEmptyValueFromAMissingOne) {
  SettingsFixture settings;
  settings.PutString("empty", "");
  settings.PutArray("none", {});
  EXPECT_EQ(settings.GetString("empty"), "");
  EXPECT_EQ(settings.GetArray("none"), Texts{});
  EXPECT_TRUE(settings.Exists("empty"));
  EXPECT_TRUE(settings.Exists("none"));
}

TEST(Settings, RefuseToReadAValueAsAnotherType) {
  SettingsFixture settings;
  settings.PutString("s", "text");
  settings.PutJson("j", "{}");
  settings.PutArray("a", {"x"});
  char* text = const_cast<char*>("untouched");
  char** array = &text;
  size_t count = 7;
  EXPECT_EQ(krand_core_settings_get_json_value("s", &text), KRAND_CORE_WRONG_TYPE);
  EXPECT_EQ(krand_core_settings_get_json_value("a", &text), KRAND_CORE_WRONG_TYPE);
  EXPECT_EQ(krand_core_settings_get_string_value("j", &text), KRAND_CORE_WRONG_TYPE);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("s", &array, &count),
            KRAND_CORE_WRONG_TYPE);
  EXPECT_STREQ(text, "untouched");
  EXPECT_EQ(array, &text);
  EXPECT_EQ(count, 7u);
}

TEST(Settings, ReplaceAValueOfAnotherType) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  settings.PutArray("key", {"x"});
  EXPECT_EQ(settings.GetArray("key"), Texts{"x"});
  settings.PutJson("key", "{}");
  EXPECT_EQ(settings.GetJson("key"), "{}");
}

TEST(Settings, DeleteAKeyOnceAndSucceedTwice) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  EXPECT_EQ(krand_core_settings_delete_key("key"), KRAND_CORE_OK);
  EXPECT_FALSE(settings.Exists("key"));
  EXPECT_EQ(krand_core_settings_delete_key("key"), KRAND_CORE_OK);
}

TEST(Settings, ListKeysByPrefixInByteOrder) {
  SettingsFixture settings;
  for (const char* key :
       {"user.b", "user.", "user", "user.a", "user/", "user.\xff", "user.\xff\xff", "User.a",
        "\xff", "\xff\xff", "user.a%", "user.a_", "user.B", ""}) {
    settings.PutString(key, "");
  }
  EXPECT_EQ(settings.Keys("user."), (Texts{"user.", "user.B", "user.a", "user.a%", "user.a_",
                                           "user.b", "user.\xff", "user.\xff\xff"}));
  EXPECT_EQ(settings.Keys("user.a_"), Texts{"user.a_"});
  EXPECT_EQ(settings.Keys("user.\xff"), (Texts{"user.\xff", "user.\xff\xff"}));
  EXPECT_EQ(settings.Keys("\xff"), (Texts{"\xff", "\xff\xff"}));
  EXPECT_EQ(settings.Keys("nothing"), Texts{});
  EXPECT_EQ(settings.Keys("").size(), 14u);
  EXPECT_EQ(settings.Keys("").front(), "");
}

TEST(Settings, CarryAnyBytesButZeroInKeysAndValues) {
  SettingsFixture settings;
  std::string bytes;
  for (int c = 1; c < 256; ++c) bytes.push_back(static_cast<char>(c));
  settings.PutString(bytes, bytes);
  settings.PutArray(bytes + "a", {bytes, bytes});
  settings.Reopen();
  EXPECT_EQ(settings.GetString(bytes), bytes);
  EXPECT_EQ(settings.GetArray(bytes + "a"), (Texts{bytes, bytes}));
  EXPECT_EQ(settings.Keys("\x01"), (Texts{bytes, bytes + "a"}));
}

TEST(Settings, CarryAValueOfSixteenMebibytes) {
  SettingsFixture settings;
  const std::string large(16u << 20, 'x');
  settings.PutString("large", large);
  settings.Reopen();
  EXPECT_EQ(settings.GetString("large"), large);
}

TEST(Settings, CarryTenThousandKeys) {
  SettingsFixture settings;
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  for (int i = 0; i < 10000; ++i) settings.PutString("k" + std::to_string(i), "v");
  ASSERT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(settings.Keys("k").size(), 10000u);
  EXPECT_EQ(settings.Keys("k99").size(), 111u);
}

TEST(Settings, RefuseNullArguments) {
  SettingsFixture settings;
  char* text = nullptr;
  char** array = nullptr;
  size_t count = 0;
  EXPECT_EQ(krand_core_settings_get_string_value(nullptr, &text), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_string_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_string_value(nullptr, "v"), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_string_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_json_value(nullptr, &text), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_json_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_json_value(nullptr, "v"), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_json_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value(nullptr, &array, &count),
            KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("k", nullptr, &count),
            KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("k", &array, nullptr), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_set_arrayofstring_value(nullptr, &text),
            KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_set_arrayofstring_value("k", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_delete_key(nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_settings_does_key_exist(nullptr), -1);
  EXPECT_EQ(krand_core_settings_get_keys_starting_with(nullptr), nullptr);
}

void ExpectNotInitialized() {
  char* text = nullptr;
  char** array = nullptr;
  size_t count = 0;
  EXPECT_EQ(krand_core_settings_get_string_value("k", &text), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_set_string_value("k", "v"), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_get_json_value("k", &text), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_set_json_value("k", "v"), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_get_arrayofstring_value("k", &array, &count),
            KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_set_arrayofstring_value("k", &text), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_delete_key("k"), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_does_key_exist("k"), -1);
  EXPECT_EQ(krand_core_settings_get_keys_starting_with(""), nullptr);
  EXPECT_EQ(krand_core_settings_begin(), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_rollback(), KRAND_CORE_NOT_INITIALIZED);
  EXPECT_EQ(krand_core_settings_deinit(), KRAND_CORE_NOT_INITIALIZED);
}

TEST(Settings, RefuseCallsBeforeInit) {
  EXPECT_STREQ(krand_core_settings_location(), "");
  ExpectNotInitialized();
}

TEST(Settings, RefuseCallsAfterDeinit) {
  SettingsFixture settings;
  settings.Close();
  EXPECT_STREQ(krand_core_settings_location(), "");
  ExpectNotInitialized();
}

TEST(Settings, RefuseASecondInitAndKeepTheFirst) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_ERROR);
  EXPECT_EQ(krand_core_settings_init("other"), KRAND_CORE_ERROR);
  EXPECT_EQ(settings.GetString("key"), "text");
  EXPECT_EQ(krand_core_settings_location(), settings.File());
}

TEST(Settings, RefuseDomainsThatAreNoFileName) {
  support::PlatformFixture platform;
  for (const char* domain : {"", ".", "..", ".hidden", "a/b", "../a", "a b", "a\n", "\xc3\xa4"}) {
    EXPECT_EQ(krand_core_settings_init(domain), KRAND_CORE_INVALID_ARGUMENT) << domain;
  }
  EXPECT_EQ(krand_core_settings_init(nullptr), KRAND_CORE_INVALID_ARGUMENT);
}

TEST(Settings, KeepDomainsApart) {
  SettingsFixture settings;
  settings.PutString("key", "text");
  settings.Close();
  ASSERT_EQ(krand_core_settings_init("other"), KRAND_CORE_OK);
  EXPECT_FALSE(settings.Exists("key"));
  settings.Reopen();
  EXPECT_EQ(krand_core_settings_location(), settings.File());
  EXPECT_EQ(settings.GetString("key"), "text");
}

TEST(Settings, FlushOncePerTransaction) {
  SettingsFixture settings;
  const unsigned long before = krand_core_settings_write_count();
  settings.PutString("a", "1");
  EXPECT_EQ(krand_core_settings_write_count(), before + 1);
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  for (int i = 0; i < 20; ++i) settings.PutString("k" + std::to_string(i), "v");
  EXPECT_EQ(krand_core_settings_write_count(), before + 1);
  ASSERT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_write_count(), before + 2);
}

TEST(Settings, FlushNothingWhereNothingChanges) {
  SettingsFixture settings;
  const unsigned long before = krand_core_settings_write_count();
  settings.Delete("no such key");
  ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
  ASSERT_EQ(krand_core_settings_commit(), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_write_count(), before);
}

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

TEST(SettingsFaults, MakeTheNthWriteFailAndNoOther) {
  SettingsFixture settings;
  CapturingLog log;
  const unsigned long before = krand_core_settings_write_count();
  krand_core_settings_fail_after(2);
  EXPECT_EQ(krand_core_settings_set_string_value("a", "1"), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_settings_delete_key("a"), KRAND_CORE_IO_ERROR);
  EXPECT_EQ(krand_core_settings_set_string_value("b", "1"), KRAND_CORE_OK);
  EXPECT_EQ(settings.Keys(), (Texts{"a", "b"}));
  EXPECT_EQ(krand_core_settings_write_count(), before + 2);
  EXPECT_EQ(ErrorLines(log),
            Texts{"Settings: " + settings.File() + ": a test made this write fail"});
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

TEST(SettingsInit, MakesTheDirectoryAndTheFileForTheOwnerAlone) {
  support::PlatformFixture platform;
  const std::string directory = platform.Dir().File("deep/er/settings");
  platform.Set("Settings", "directory", directory);
  ASSERT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_OK);
  ASSERT_EQ(krand_core_settings_set_string_value("a", "1"), KRAND_CORE_OK);
  struct stat status;
  ASSERT_EQ(stat(directory.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  for (const char* name : {"/vigila.db", "/vigila.db-wal", "/vigila.db-shm"}) {
    ASSERT_EQ(stat((directory + name).c_str(), &status), 0) << name;
    EXPECT_EQ(status.st_mode & 07777, 0600u) << name;
  }
  EXPECT_EQ(krand_core_settings_deinit(), KRAND_CORE_OK);
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    EXPECT_EQ(entry.path().filename(), "vigila.db");
    ++files;
  }
  EXPECT_EQ(files, 1u);
}

TEST(SettingsInit, ClosesAFileThatOthersCouldRead) {
  SettingsFixture settings;
  settings.Close();
  ASSERT_EQ(chmod(settings.File().c_str(), 0644), 0);
  settings.Open();
  struct stat status;
  ASSERT_EQ(stat(settings.File().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
}

// Init fails, one Error line names the file, nothing can be read, the file stays as it is.
void ExpectRefused(SettingsFixture& settings, const std::string& reason) {
  const support::TempDir& dir = settings.Dir();
  const std::string before = dir.Read("settings/vigila.db");
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_IO_ERROR);
  const Texts lines = ErrorLines(log);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].find("Settings: " + settings.File() + ": "), 0u) << lines[0];
  EXPECT_NE(lines[0].find(reason), std::string::npos) << lines[0];
  EXPECT_EQ(krand_core_settings_location(), settings.File());
  EXPECT_EQ(krand_core_settings_get_keys_starting_with(""), nullptr);
  EXPECT_EQ(dir.Read("settings/vigila.db"), before);
}

TEST(SettingsInit, RefusesAFileThatIsNoDatabase) {
  SettingsFixture settings;
  settings.Close();
  settings.Dir().Write("settings/vigila.db", std::string(8192, 'x'));
  ExpectRefused(settings, "file is not a database");
}

TEST(SettingsInit, RefusesAnEmptyFile) {
  SettingsFixture settings;
  settings.Close();
  settings.TruncateFile(0);
  ExpectRefused(settings, "is empty");
}

TEST(SettingsInit, RefusesAFileCutAnywhere) {
  SettingsFixture settings;
  for (int i = 0; i < 50; ++i) settings.PutString("k" + std::to_string(i), std::string(500, 'v'));
  settings.Close();
  const std::string whole = settings.Dir().Read("settings/vigila.db");
  for (size_t size = 1; size < whole.size(); size += size < 200 ? 33 : 1021) {
    settings.Dir().Write("settings/vigila.db", whole.substr(0, size));
    ExpectRefused(settings, "");
  }
  settings.Dir().Write("settings/vigila.db", whole);
  settings.Open();
  EXPECT_EQ(settings.Keys().size(), 50u);
}

TEST(SettingsInit, RefusesADamagedPage) {
  SettingsFixture settings;
  for (int i = 0; i < 50; ++i) settings.PutString("k" + std::to_string(i), std::string(500, 'v'));
  settings.Close();
  settings.OverwriteFile(2 * 4096, std::string(64, '\xff'));
  ExpectRefused(settings, "");
}

TEST(SettingsInit, RefusesAMissingFileWhoseLogIsStillThere) {
  SettingsFixture settings;
  settings.Close();
  std::filesystem::remove(settings.File());
  settings.Dir().Write("settings/vigila.db-wal", "changes");
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_IO_ERROR);
  EXPECT_EQ(ErrorLines(log), Texts{"Settings: " + settings.File() +
                                   ": is missing, but the log of its last changes is still there"});
  EXPECT_FALSE(std::filesystem::exists(settings.File()));
}

TEST(SettingsInit, RefusesADirectoryInPlaceOfTheFile) {
  SettingsFixture settings;
  settings.Close();
  std::filesystem::remove(settings.File());
  std::filesystem::create_directory(settings.File());
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_IO_ERROR);
  EXPECT_EQ(ErrorLines(log), Texts{"Settings: " + settings.File() + ": is not a regular file"});
}

TEST(SettingsInit, RefusesAFileInPlaceOfTheDirectory) {
  support::PlatformFixture platform;
  const std::string path = platform.Dir().Write("plain", "");
  platform.Set("Settings", "directory", path);
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_IO_ERROR);
  ASSERT_EQ(ErrorLines(log).size(), 1u);
  EXPECT_NE(ErrorLines(log)[0].find(path), std::string::npos);
}

TEST(SettingsInit, SaysWhichKeyOfTheConfigurationIsWrong) {
  support::PlatformFixture platform;
  platform.Set("Settings", "busy_timeout_ms", "soon");
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_ERROR);
  ASSERT_EQ(ErrorLines(log).size(), 1u);
  EXPECT_NE(ErrorLines(log)[0].find("busy_timeout_ms"), std::string::npos);
}

TEST(SettingsInit, WorksAgainOnceTheCauseIsGone) {
  SettingsFixture settings;
  settings.PutString("a", "1");
  settings.Close();
  const std::string whole = settings.Dir().Read("settings/vigila.db");
  settings.Dir().Write("settings/vigila.db", "broken");
  ExpectRefused(settings, "");
  settings.Dir().Write("settings/vigila.db", whole);
  settings.Open();
  EXPECT_EQ(settings.GetString("a"), "1");
}

// Runs `body` in a child and gives its exit code.
int InChild(const std::function<int()>& body) {
  const pid_t child = fork();
  if (child == 0) _exit(body());
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

TEST(SettingsInit, RefusesAStoreThatMayOnlyBeRead) {
  SettingsFixture settings;
  settings.PutString("a", "1");
  settings.Close();
  ASSERT_EQ(chmod(settings.Dir().Path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(settings.File().c_str(), 0600), 0);
  const int code = InChild([&settings] {
    CapturingLog log;
    if (geteuid() == 0) {
      if (chown(settings.File().c_str(), 65534, 65534) != 0) return 100;
      if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) return 101;
    }
    if (chmod(settings.File().c_str(), 0400) != 0) return 102;
    const krand_core_status status = krand_core_settings_init("vigila");
    if (!log.Contains(settings.File() + ": ")) return 103;
    return static_cast<int>(status);
  });
  EXPECT_EQ(code, KRAND_CORE_IO_ERROR);
}

TEST(SettingsInit, RefusesADirectoryThatMayNotBeWritten) {
  SettingsFixture settings;
  settings.PutString("a", "1");
  settings.Close();
  ASSERT_EQ(chmod(settings.Dir().Path().c_str(), 0755), 0);
  ASSERT_EQ(chmod(settings.SettingsDir().c_str(), 0555), 0);
  for (const bool there : {true, false}) {
    if (!there) {
      for (const char* part : {"", "-wal", "-shm"}) {
        std::filesystem::remove(settings.File() + part);
      }
    }
    const int code = InChild([&settings, there] {
      CapturingLog log;
      if (geteuid() == 0) {
        if (there && chown(settings.File().c_str(), 65534, 65534) != 0) return 100;
        if (setresgid(65534, 65534, 65534) != 0 || setresuid(65534, 65534, 65534) != 0) return 101;
      }
      const krand_core_status status = krand_core_settings_init("vigila");
      if (!log.Contains(settings.File() + ": ")) return 103;
      return static_cast<int>(status);
    });
    EXPECT_EQ(code, KRAND_CORE_IO_ERROR) << there;
  }
  ASSERT_EQ(chmod(settings.SettingsDir().c_str(), 0755), 0);
}

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

// Keeps the process's files from growing, as a full disk does.
class NoMoreSpace final {
 public:
  NoMoreSpace() {
    previous_handler_ = signal(SIGXFSZ, SIG_IGN);
    getrlimit(RLIMIT_FSIZE, &previous_);
    struct rlimit limit = previous_;
    limit.rlim_cur = 4096;
    setrlimit(RLIMIT_FSIZE, &limit);
  }
  ~NoMoreSpace() {
    setrlimit(RLIMIT_FSIZE, &previous_);
    signal(SIGXFSZ, previous_handler_);
  }
  NoMoreSpace(const NoMoreSpace&) = delete;
  NoMoreSpace& operator=(const NoMoreSpace&) = delete;

 private:
  struct rlimit previous_;
  void (*previous_handler_)(int);
};

TEST(SettingsOnAFullDisk, ReportTheWriteAndGoOnAfterwards) {
  SettingsFixture settings;
  settings.PutString("a", "old");
  CapturingLog log;
  {
    const NoMoreSpace full;
    EXPECT_EQ(krand_core_settings_set_string_value("a", "new"), KRAND_CORE_IO_ERROR);
    EXPECT_EQ(settings.GetString("a"), "old");
    ASSERT_EQ(krand_core_settings_begin(), KRAND_CORE_OK);
    krand_core_settings_set_string_value("a", "new");
    krand_core_settings_set_string_value("b", "new");
    EXPECT_EQ(krand_core_settings_commit(), KRAND_CORE_IO_ERROR);
  }
  ASSERT_FALSE(ErrorLines(log).empty());
  EXPECT_EQ(ErrorLines(log)[0].find("Settings: " + settings.File() + ": "), 0u);
  EXPECT_EQ(settings.GetString("a"), "old");
  EXPECT_FALSE(settings.Exists("b"));
  settings.PutString("a", "new");
  settings.Reopen();
  EXPECT_EQ(settings.GetString("a"), "new");
}

TEST(SettingsOnAFullDisk, DoNotOpenANewStore) {
  support::PlatformFixture platform;
  const NoMoreSpace full;
  CapturingLog log;
  EXPECT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_IO_ERROR);
  EXPECT_FALSE(std::filesystem::exists(platform.SettingsDir() + "/vigila.db"));
  EXPECT_TRUE(std::filesystem::is_empty(platform.SettingsDir()));
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
