// What opens as a store, and what is refused.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <set>
#include <string>

#include "krand/core/krand_core.h"
#include "settings_tests.h"
#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/settings_fixture.h"

namespace krand::core {
namespace {

using support::CapturingLog;
using support::SettingsFixture;

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
  std::set<std::string> files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    files.insert(entry.path().filename());
    ASSERT_EQ(stat(entry.path().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u) << entry.path();
  }
  EXPECT_EQ(files, (std::set<std::string>{"vigila.db", "vigila.db.witness"}));
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

}  // namespace
}  // namespace krand::core
