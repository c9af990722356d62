#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <random>
#include <string>

#include "krand/core/krand_core.h"
#include "support/daemon_process.h"
#include "support/random_seed.h"
#include "tevra/core/platform_config.h"

namespace {

using support::DaemonProcess;
using support::Finished;
using support::ProgramOptions;
using support::RunProgram;
using testing::AssertionResult;

constexpr int kUsage = 2;
constexpr int kUnavailable = 69;
constexpr int kStoreUnusable = 74;
constexpr int kConfigurationWrong = 78;

AssertionResult EndedWith(const Finished& end, int exit_code) {
  if (end.exit_code == exit_code) return testing::AssertionSuccess();
  return testing::AssertionFailure()
         << "exit " << end.exit_code << ", signal " << end.signal
         << (end.timed_out ? ", timed out" : "") << "; said: " << end.out << end.err;
}

AssertionResult Mentions(const std::string& text, const std::string& part) {
  if (text.find(part) != std::string::npos) return testing::AssertionSuccess();
  return testing::AssertionFailure() << "\"" << part << "\" is not in: " << text;
}

class Daemon : public testing::Test {
 protected:
  // Starts the daemon, which must end by itself, with this code and a word about `subject`.
  void ExpectRefusesToStart(int exit_code, const std::string& subject) {
    EXPECT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kEnded);
    const Finished end = device_.Finish();
    EXPECT_TRUE(EndedWith(end, exit_code));
    EXPECT_TRUE(Mentions(end.err, subject));
  }
  // Leaves a store that holds one administrator.
  void FillStore() {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
    ASSERT_TRUE(EndedWith(
        device_.CtlWithSecret("secret-1", {"user", "add", "anna", "--group", "admins"}), 0));
    ASSERT_TRUE(EndedWith(device_.Stop(), 0));
  }
  Finished Vigilad(const std::vector<std::string>& arguments) {
    std::vector<std::string> argv = {VIGILAD_PATH};
    argv.insert(argv.end(), arguments.begin(), arguments.end());
    return RunProgram(argv);
  }

  DaemonProcess device_;
};

TEST_F(Daemon, SaysReadyOnTheNotifySocketAndThenAnswers) {
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  EXPECT_TRUE(EndedWith(device_.Ctl({"status"}), 0));
}

TEST(FirstStart, MakesAKeyThatOnlyTheDaemonMayRead) {
  DaemonProcess device(DaemonProcess::Key::kOwn);
  ASSERT_FALSE(std::filesystem::exists(device.KeyFile()));
  ASSERT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device.Log();
  struct stat key = {};
  ASSERT_EQ(stat(device.KeyFile().c_str(), &key), 0);
  EXPECT_EQ(key.st_mode & 07777u, 0600u);
}

TEST(FirstStart, KilledAnywhereLeavesTheNextOneACleanDirectory) {
  DaemonProcess device(DaemonProcess::Key::kOwn);
  std::mt19937 random = support::SeededGenerator();
  std::uniform_int_distribution<int> instant(0, 400000);
  for (int round = 0; round < 15; ++round) {
    for (const std::string& made : {device.KeyFile(), device.Database(), device.Database() + "-wal",
                                    device.Database() + "-shm", device.Database() + ".witness",
                                    device.Database() + ".copy"}) {
      std::filesystem::remove(made);
    }
    device.Launch();
    device.Running().EndsWithin(std::chrono::microseconds(instant(random)));
    device.Stop(SIGKILL);
  }
  ASSERT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device.Log();
  EXPECT_TRUE(EndedWith(device.Stop(), 0));
  for (const auto& entry : std::filesystem::directory_iterator(device.SettingsDir())) {
    EXPECT_TRUE(entry.path() == device.KeyFile() || entry.path() == device.Database() ||
                entry.path() == device.Database() + ".lock" ||
                entry.path() == device.Database() + ".witness" ||
                entry.path() == device.Database() + ".copy")
        << entry.path() << " is left";
  }
}

TEST_F(Daemon, TellsTheServiceManagersWatchdogThatItAnswers) {
  ProgramOptions options;
  options.environment["WATCHDOG_USEC"] = "200000";
  ASSERT_EQ(device_.LaunchAndAwaitReady(options), DaemonProcess::Start::kReady);
  EXPECT_EQ(device_.AwaitWord("WATCHDOG=1"), DaemonProcess::Start::kReady);
  EXPECT_EQ(device_.AwaitWord("WATCHDOG=1"), DaemonProcess::Start::kReady) << "again and again";
}

TEST_F(Daemon, IgnoresBrokenPipes) {
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  device_.Running().Signal(SIGPIPE);
  EXPECT_TRUE(EndedWith(device_.Ctl({"status"}), 0));
  EXPECT_TRUE(EndedWith(device_.Stop(), 0));
}

TEST_F(Daemon, StopsInOrderOnSigterm) {
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  EXPECT_TRUE(EndedWith(device_.Stop(SIGTERM), 0));
}

TEST_F(Daemon, StopsInOrderOnSigint) {
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  EXPECT_TRUE(EndedWith(device_.Stop(SIGINT), 0));
}

TEST_F(Daemon, StopsInOrderOnTwoSignalsAtOnce) {
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  device_.Running().Signal(SIGINT);
  const Finished end = device_.Stop(SIGTERM);
  // The second one may come when the default handling is back already.
  EXPECT_TRUE(end.exit_code == 0 || end.signal == SIGTERM || end.signal == SIGINT);
  EXPECT_FALSE(end.core);
}

TEST_F(Daemon, EndsWithoutHangOrCoreWhenASignalMeetsItsStart) {
  FillStore();
  std::mt19937 random = support::SeededGenerator();
  std::uniform_int_distribution<int> instant(0, 80000);
  for (int round = 0; round < 40; ++round) {
    const int number = round % 2 == 0 ? SIGINT : SIGTERM;
    device_.Launch();
    device_.Running().EndsWithin(std::chrono::microseconds(instant(random)));
    const Finished end = device_.Stop(number);
    EXPECT_TRUE(end.exit_code == 0 || end.signal == number)
        << "round " << round << ": exit " << end.exit_code << ", signal " << end.signal << end.err;
    EXPECT_FALSE(end.timed_out);
    EXPECT_FALSE(end.core);
  }
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  EXPECT_TRUE(Mentions(device_.Ctl({"user", "list"}).out, "anna"));
}

TEST_F(Daemon, StartsAgainAtOnceAfterItWasKilled) {
  for (int round = 0; round < 5; ++round) {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
    EXPECT_EQ(device_.Stop(SIGKILL).signal, SIGKILL);
  }
}

TEST_F(Daemon, TellsItsVersion) {
  const Finished end = Vigilad({"--version"});
  EXPECT_TRUE(EndedWith(end, 0));
  EXPECT_TRUE(Mentions(end.out, "1.0.0"));
}

TEST_F(Daemon, TellsItsOptionsAndExitCodes) {
  const Finished end = Vigilad({"--help"});
  EXPECT_TRUE(EndedWith(end, 0));
  for (const char* part : {"--config", "--check-config", "69", "74", "78"}) {
    EXPECT_TRUE(Mentions(end.out, part));
  }
}

TEST_F(Daemon, RefusesAnUnknownOption) {
  EXPECT_TRUE(EndedWith(Vigilad({"--frobnicate"}), kUsage));
}

TEST_F(Daemon, FindsNoFaultWithAGoodConfiguration) {
  EXPECT_TRUE(EndedWith(Vigilad({"--config", device_.ConfigFile(), "--check-config"}), 0));
}

TEST_F(Daemon, RefusesAConfigurationFileThatIsNotThere) {
  const std::string missing = device_.Dir().File("missing.ini");
  const Finished end = Vigilad({"--config", missing, "--check-config"});
  EXPECT_TRUE(EndedWith(end, kConfigurationWrong));
  EXPECT_TRUE(Mentions(end.err, missing));
}

TEST_F(Daemon, NamesTheFileOfAMalformedConfiguration) {
  const std::string file = device_.Dir().Write("bad.ini", "[MsgBus\ntransport=direct\n");
  const Finished end = Vigilad({"--config", file, "--check-config"});
  EXPECT_TRUE(EndedWith(end, kConfigurationWrong));
  EXPECT_TRUE(Mentions(end.err, file));
}

TEST_F(Daemon, NamesTheKeyOfAWrongValue) {
  device_.Set("Applications/vigila", "session_timeout", "soon");
  const Finished end = Vigilad({"--config", device_.ConfigFile(), "--check-config"});
  EXPECT_TRUE(EndedWith(end, kConfigurationWrong));
  EXPECT_TRUE(Mentions(end.err, "session_timeout"));
  ExpectRefusesToStart(kConfigurationWrong, "session_timeout");
}

TEST_F(Daemon, TellsEveryUnknownSectionAndKeyWithWhatWasProbablyMeant) {
  const std::string good =
      "[MsgBus]\ntimeout_ms = 100\n[Applications/vigila/Rules/Dynamic]\njpeg* =\n";
  const std::string file = device_.Dir().Write(
      "typos.ini", good +
                       "[MsgBus]\ntimout_ms = 1\nsession_timeout = 60\nfrobnicate = 1\n"
                       "[MsgBuss]\ntimeout_ms = 1\n[Nonsense]\n");
  const Finished end = Vigilad({"--config", file, "--check-config"});
  EXPECT_TRUE(EndedWith(end, kConfigurationWrong));
  for (const char* sentence :
       {"[MsgBus] timout_ms: there is no such key; did you mean \"timeout_ms\"?\n",
        "[MsgBus] session_timeout: there is no such key here; it belongs in "
        "[Applications/vigila]\n",
        "[MsgBus] frobnicate: there is no such key\n",
        "[MsgBuss]: there is no such section; did you mean \"MsgBus\"?\n",
        "[Nonsense]: there is no such section\n"}) {
    EXPECT_TRUE(Mentions(end.err, std::string("The configuration is wrong: ") + sentence));
  }
  EXPECT_TRUE(
      EndedWith(Vigilad({"--config", device_.Dir().Write("good.ini", good), "--check-config"}), 0));
}

TEST_F(Daemon, StartsWithAnUnknownKeyAndWarns) {
  device_.Set("Applications/vigila", "pasword_policy", "true");
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  EXPECT_TRUE(Mentions(device_.Log(),
                       "[Applications/vigila] pasword_policy: there is no such key; did you mean "
                       "\"password_policy\"?"));
}

TEST_F(Daemon, RefusesAnAccessGroupThatDoesNotExist) {
  device_.Set("Access", "admin_groups", "no-such-group-anywhere");
  ExpectRefusesToStart(kConfigurationWrong, "no-such-group-anywhere");
}

TEST_F(Daemon, RefusesAnUnknownTransport) {
  device_.Set("MsgBus", "transport", "pigeon");
  ExpectRefusesToStart(kConfigurationWrong, "transport");
}

TEST_F(Daemon, LeavesTheNameToTheDaemonThatHasIt) {
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  DaemonProcess second;
  second.Set("MsgBus", "runtime_dir", device_.RuntimeDir());
  EXPECT_EQ(second.LaunchAndAwaitReady(), DaemonProcess::Start::kEnded);
  EXPECT_TRUE(EndedWith(second.Finish(), kUnavailable));
  EXPECT_FALSE(std::filesystem::exists(second.Database())) << "it has no business there";
  EXPECT_TRUE(EndedWith(device_.Ctl({"status"}), 0)) << "the first one must not notice";
}

TEST_F(Daemon, LeavesTheStoreToTheDaemonThatHasItOnAnotherBus) {
  FillStore();
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  DaemonProcess second;
  second.Set("Settings", "directory", device_.SettingsDir());
  EXPECT_EQ(second.LaunchAndAwaitReady(), DaemonProcess::Start::kEnded);
  const Finished end = second.Finish();
  EXPECT_TRUE(EndedWith(end, kUnavailable));
  EXPECT_TRUE(Mentions(end.err, device_.Database() + " is held by another daemon"));
  EXPECT_TRUE(Mentions(device_.Ctl({"user", "list"}).out, "anna"));
  EXPECT_TRUE(EndedWith(device_.Stop(), 0));
  EXPECT_EQ(second.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << "it is free now";
}

TEST_F(Daemon, IsTheOnlyOneOfTwoThatStartAtTheSameMoment) {
  DaemonProcess second;
  second.Set("Settings", "directory", device_.SettingsDir());
  second.Set("MsgBus", "runtime_dir", device_.RuntimeDir());
  for (int round = 0; round < 10; ++round) {
    device_.Launch();
    second.Launch();
    const bool first_serves = device_.AwaitReady() == DaemonProcess::Start::kReady;
    const bool second_serves = second.AwaitReady() == DaemonProcess::Start::kReady;
    ASSERT_NE(first_serves, second_serves) << device_.Log() << second.Log();
    EXPECT_TRUE(EndedWith((first_serves ? second : device_).Finish(), kUnavailable));
    EXPECT_TRUE(EndedWith((first_serves ? device_ : second).Stop(), 0));
  }
}

TEST_F(Daemon, CannotServeInADirectoryThatIsAFile) {
  device_.Set("MsgBus", "runtime_dir", device_.Dir().Write("not-a-directory", ""));
  ExpectRefusesToStart(kUnavailable, "not-a-directory");
}

TEST_F(Daemon, NeverMakesANewKeyOverExistingPasswords) {
  FillStore();
  std::filesystem::remove(device_.KeyFile());
  ExpectRefusesToStart(kStoreUnusable, device_.KeyFile());
  EXPECT_FALSE(std::filesystem::exists(device_.KeyFile()));
}

TEST_F(Daemon, RefusesADamagedKey) {
  FillStore();
  {
    std::fstream key(device_.KeyFile(), std::ios::in | std::ios::out | std::ios::binary);
    key.seekp(100);
    key.write("damaged!", 8);
  }
  ExpectRefusesToStart(kStoreUnusable, device_.KeyFile());
}

TEST_F(Daemon, RefusesAShortenedKey) {
  FillStore();
  std::filesystem::resize_file(device_.KeyFile(),
                               std::filesystem::file_size(device_.KeyFile()) / 2);
  ExpectRefusesToStart(kStoreUnusable, device_.KeyFile());
}

TEST_F(Daemon, RefusesAKeyThatOthersCanRead) {
  FillStore();
  chmod(device_.KeyFile().c_str(), 0644);
  ExpectRefusesToStart(kStoreUnusable, device_.KeyFile());
}

TEST_F(Daemon, RefusesTheKeyOfAnotherDevice) {
  FillStore();
  DaemonProcess other(DaemonProcess::Key::kOwn);
  ASSERT_EQ(other.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  std::filesystem::copy_file(other.KeyFile(), device_.KeyFile(),
                             std::filesystem::copy_options::overwrite_existing);
  ExpectRefusesToStart(kStoreUnusable,
                       device_.KeyFile() + ": not the key of the only value in the settings");
}

TEST_F(Daemon, RefusesALibraryWithoutItsKindOfKeyAndLocksNoOne) {
  device_.Set("Applications/vigila", "password_policy", "true");
  FillStore();
  // A configuration of libcrypto that has no algorithm left.
  ProgramOptions options;
  options.environment["OPENSSL_CONF"] =
      device_.Dir().Write("openssl.cnf",
                          "openssl_conf = init\n[init]\nproviders = all\n"
                          "[all]\nnull = none\n[none]\nactivate = 1\n");
  EXPECT_EQ(device_.LaunchAndAwaitReady(options), DaemonProcess::Start::kEnded);
  const Finished end = device_.Finish();
  EXPECT_TRUE(EndedWith(end, kStoreUnusable));
  EXPECT_TRUE(Mentions(end.err, device_.KeyFile() + ": the key cannot be built: error:"));
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady);
  EXPECT_TRUE(EndedWith(device_.CtlWithSecret("secret-1", {"login", "anna"}), 0));
}

TEST_F(Daemon, RefusesADamagedDatabaseAndLeavesItAlone) {
  FillStore();
  std::filesystem::remove(device_.Database() + "-wal");
  std::filesystem::remove(device_.Database() + "-shm");
  {
    std::fstream database(device_.Database(), std::ios::in | std::ios::out | std::ios::binary);
    const std::string garbage(static_cast<size_t>(std::filesystem::file_size(device_.Database())),
                              '\x5a');
    database.write(garbage.data(), static_cast<std::streamsize>(garbage.size()));
  }
  const auto size = std::filesystem::file_size(device_.Database());
  ExpectRefusesToStart(kStoreUnusable, device_.Database());
  EXPECT_EQ(std::filesystem::file_size(device_.Database()), size);
}

TEST_F(Daemon, RefusesAStoreOfALaterFormatAndServesItWhenItIsUpdated) {
  FillStore();
  constexpr std::streamoff kFormatAt = 63;  // the last byte of the number in the file's header
  const auto write_format = [this](char format) {
    std::fstream database(device_.Database(), std::ios::in | std::ios::out | std::ios::binary);
    database.seekp(kFormatAt);
    database.put(format);
  };
  write_format(3);
  ExpectRefusesToStart(kStoreUnusable, device_.Database() +
                                           ": has the store format 3; this program reads formats "
                                           "1 to 2");
  write_format(2);
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  EXPECT_TRUE(EndedWith(device_.CtlWithSecret("secret-1", {"login", "anna"}), 0));
}

TEST_F(Daemon, RefusesAFileThatIsNoDatabase) {
  device_.Dir().Write("settings/vigila.db", "this is a letter, not a database\n");
  ExpectRefusesToStart(kStoreUnusable, device_.Database());
}

TEST_F(Daemon, CannotKeepItsStoreInADirectoryThatIsAFile) {
  device_.Set("Settings", "directory", device_.Dir().Write("no-directory", ""));
  ExpectRefusesToStart(kStoreUnusable, "no-directory");
}

TEST_F(Daemon, RefusesADirectoryThatItMayNotWrite) {
  support::ProgramOptions options;
  if (geteuid() == 0) {
    // Root writes everywhere.
    options.identity = support::Identity{65534, 65534, {}};
    ASSERT_EQ(chown(device_.SettingsDir().c_str(), 65534, 65534), 0);
  }
  chmod(device_.SettingsDir().c_str(), 0500);
  EXPECT_EQ(device_.LaunchAndAwaitReady(options), DaemonProcess::Start::kEnded);
  const Finished end = device_.Finish();
  EXPECT_TRUE(EndedWith(end, kStoreUnusable));
  EXPECT_TRUE(Mentions(end.err, device_.Database()));
  chmod(device_.SettingsDir().c_str(), 0700);
}

// A broken record is no reason to leave the device without its service, and none to guess either:
// the daemon is up, names it, and what needs the accounts fails until it is mended.
class MalformedRecord : public Daemon {
 protected:
  // Changes the settings of the stopped daemon.
  template <typename Change>
  void ChangeSettings(Change change) {
    tevra::core::PlatformConfig::LoadFrom(device_.ConfigFile());
    ASSERT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_OK);
    change();
    ASSERT_EQ(krand_core_settings_deinit(), KRAND_CORE_OK);
  }
  void ExpectServedButForTheAccounts(const std::string& name) {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
    EXPECT_TRUE(Mentions(device_.Log(), name));
    const Finished list = device_.Ctl({"user", "list"});
    EXPECT_TRUE(EndedWith(list, 3));
    EXPECT_TRUE(Mentions(list.err, name)) << "as the log names it";
    EXPECT_TRUE(EndedWith(device_.Ctl({"user", "list"}), 3)) << "the next call tries again";
    EXPECT_TRUE(EndedWith(device_.CtlWithSecret("secret-1", {"login", "anna"}), 3));
    EXPECT_TRUE(EndedWith(device_.Stop(), 0));
  }
};

TEST_F(MalformedRecord, WithATextThatIsNoAccount) {
  FillStore();
  ChangeSettings([] { krand_core_settings_set_json_value("user.anna", "{\"Groups\":"); });
  ExpectServedButForTheAccounts("user.anna");
  ChangeSettings([] {
    char* text = nullptr;
    krand_core_settings_get_json_value("user.anna", &text);
    EXPECT_STREQ(text, "{\"Groups\":") << "nothing is rewritten";
    free(text);
  });
}

TEST_F(MalformedRecord, OfAWrongType) {
  FillStore();
  ChangeSettings([] { krand_core_settings_set_string_value("user.anna", "{\"Groups\":1}"); });
  ExpectServedButForTheAccounts("user.anna");
  ChangeSettings([] { krand_core_settings_delete_key("user.anna"); });
  ExpectRefusesToStart(kStoreUnusable, "it had an administrator and has none");
}

TEST_F(MalformedRecord, WhoseNameAndValueAreNotUtf8) {
  FillStore();
  ChangeSettings([] { krand_core_settings_set_json_value("user.an\xff", "{\"\xfe\x1b"); });
  ExpectServedButForTheAccounts("user.an\\xff");
}

TEST_F(MalformedRecord, OfAHistoryOrAPassphrase) {
  FillStore();
  ChangeSettings([] {
    krand_core_settings_set_string_value("oldPasswords.anna", "none");
    krand_core_settings_set_json_value("phrase.broken", "[]");
  });
  ExpectServedButForTheAccounts("phrase.broken");
}

TEST_F(Daemon, RefusesADirectoryThatOthersMayWrite) {
  for (const mode_t mode : {0777, 01777, 0770}) {
    chmod(device_.SettingsDir().c_str(), mode);
    ExpectRefusesToStart(kStoreUnusable, "others may write the settings directory");
  }
}

TEST(FirstStart, IsNoneWhereOnlyTheKeyFileIsLeft) {
  DaemonProcess device(DaemonProcess::Key::kOwn);
  device.Dir().Write("settings/vigila.key", "a key");
  EXPECT_EQ(device.LaunchAndAwaitReady(), DaemonProcess::Start::kEnded);
  const Finished end = device.Finish();
  EXPECT_TRUE(EndedWith(end, kStoreUnusable));
  EXPECT_TRUE(Mentions(end.err, device.KeyFile() + " is still there"));
  EXPECT_FALSE(std::filesystem::exists(device.Database()));
}

}  // namespace
