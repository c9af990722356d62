// The daemon over a damaged store: it serves every account as it was, or it does not start and says
// why. What is damaged may undo a change of the last second, and nothing else.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "krand/core/krand_core.h"
#include "support/daemon_client.h"
#include "support/daemon_process.h"
#include "tevra/core/platform_config.h"

namespace {

using support::Accounts;
using support::DaemonClient;
using support::DaemonProcess;
using support::Finished;
using support::RunProgram;

using Files = std::map<std::string, std::string>;

constexpr int kStoreUnusable = 74;
constexpr const char* kStore = "vigila.db";
constexpr const char* kLog = "vigila.db-wal";
constexpr const char* kWitness = "vigila.db.witness";
constexpr const char* kCopy = "vigila.db.copy";

class DamagedDevice : public testing::Test {
 protected:
  void Start() {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  void AddAdministratorAndViewer() {
    Start();
    DaemonClient client(device_);
    ASSERT_EQ(client->AddUsers("{\"Users\":[{\"Name\":\"admin\",\"Password\":\"secret\","
                               "\"Group\":1}]}"),
              0);
    ASSERT_EQ(client->AddUsers("{\"Users\":[{\"Name\":\"anna\",\"Password\":\"secret\","
                               "\"Group\":8}]}"),
              0);
  }
  // Settled, with a copy, and then one change that is not.
  void MakeUnsettledStore() {
    AddAdministratorAndViewer();
    const std::string copy = device_.Database() + ".copy";
    while (!std::filesystem::exists(copy)) {
      ASSERT_FALSE(device_.Running().EndsWithin(std::chrono::milliseconds(10)));
    }
    settled_ = {{"admin", 1}, {"anna", 8}};
    newest_ = {{"admin", 1}, {"anna", 4}};
    DaemonClient client(device_);
    ASSERT_EQ(client->ModifyUsers("{\"Users\":[{\"Name\":\"anna\",\"Group\":4}]}"), 0);
    device_.Stop(SIGKILL);
    killed_ = FilesNow();
    ASSERT_EQ(std::set<std::string>({kStore, kLog, kWitness, kCopy}), NamesOf(killed_));
  }
  void MakeSettledStore() {
    MakeUnsettledStore();
    Start();
    device_.Stop();
    settled_ = newest_;
    killed_ = FilesNow();
    killed_.erase(kCopy);
    ASSERT_EQ(std::set<std::string>({kStore, kWitness}), NamesOf(killed_));
  }

  static std::set<std::string> NamesOf(const Files& files) {
    std::set<std::string> names;
    for (const auto& [name, content] : files) names.insert(name);
    return names;
  }
  Files FilesNow() const {
    Files files;
    for (const auto& entry : std::filesystem::directory_iterator(device_.SettingsDir())) {
      const std::string name = entry.path().filename();
      if (name.starts_with(kStore) && !name.ends_with("-shm") && !name.ends_with(".lock")) {
        files[name] = device_.Dir().Read("settings/" + name);
      }
    }
    return files;
  }
  void PutFiles(const Files& files) const {
    for (const auto& entry : std::filesystem::directory_iterator(device_.SettingsDir())) {
      if (entry.path().filename().string().starts_with(kStore)) {
        std::filesystem::remove(entry.path());
      }
    }
    for (const auto& [name, content] : files) device_.Dir().Write("settings/" + name, content);
  }

  // Starts over these files.
  void ExpectAllOrNothing(const Files& files) {
    PutFiles(files);
    switch (device_.LaunchAndAwaitReady()) {
      case DaemonProcess::Start::kReady: {
        const Accounts found = DaemonClient(device_).Listed();
        EXPECT_TRUE(found == newest_ || found == settled_) << testing::PrintToString(found);
        device_.Stop(SIGKILL);
        ++served_;
        return;
      }
      case DaemonProcess::Start::kEnded: {
        const Finished end = device_.Finish();
        EXPECT_EQ(end.exit_code, kStoreUnusable);
        EXPECT_NE(end.err.find(device_.Database()), std::string::npos) << end.err;
        EXPECT_NE(end.err.find("vigilad --repair"), std::string::npos) << end.err;
        ++refused_;
        return;
      }
      case DaemonProcess::Start::kLate:
        FAIL() << "neither ready nor ended";
    }
  }
  Files Damaged(const std::string& name, size_t bit) const {
    Files files = killed_;
    char& byte = files[name][bit / 8];
    byte = static_cast<char>(byte ^ (1 << (bit % 8)));
    return files;
  }

  Finished Repair(const std::string& option) const {
    return RunProgram({VIGILAD_PATH, "--config", device_.ConfigFile(), option});
  }

  DaemonProcess device_;
  Accounts settled_, newest_;
  Files killed_;
  int served_ = 0;
  int refused_ = 0;
};

TEST_F(DamagedDevice, KeepsItsAccountsWhateverHappensToTheLog) {
  MakeUnsettledStore();
  const size_t size = killed_[kLog].size();
  for (size_t i = 0; i < 100; ++i) {
    SCOPED_TRACE("damage " + std::to_string(i));
    ExpectAllOrNothing(Damaged(kLog, i * (8 * size - 1) / 99));
    if (HasFatalFailure()) return;
  }
  for (size_t i = 0; i < 40; ++i) {
    Files files = killed_;
    files[kLog].resize(i * size / 40);
    ExpectAllOrNothing(files);
  }
  Files files = killed_;
  files.erase(kLog);
  ExpectAllOrNothing(files);
  EXPECT_GT(served_, 100) << "what is settled needs no log";
}

TEST_F(DamagedDevice, IsNeverSetUpAnewNorChangedByABit) {
  MakeSettledStore();
  const std::string& store = killed_[kStore];
  for (const std::string account : {"user.admin", "user.anna"}) {
    const size_t begin = store.find(account + "\x02{");
    ASSERT_NE(begin, std::string::npos);
    // The key, and the group and some of the password behind it.
    for (size_t i = 0; i < 60; ++i) ExpectAllOrNothing(Damaged(kStore, 8 * begin + i * 5));
  }
  EXPECT_EQ(served_, 0);
  for (size_t i = 0; i < 40; ++i) {
    ExpectAllOrNothing(Damaged(kStore, i * (8 * store.size() - 1) / 39));
  }
  Files files = killed_;
  files.erase(kStore);
  refused_ = 0;
  ExpectAllOrNothing(files);
  EXPECT_EQ(refused_, 1);
}

TEST_F(DamagedDevice, IsRepairedFromWhatIsSoundInItsStore) {
  MakeSettledStore();
  PutFiles(Damaged(kStore, 8 * (killed_[kStore].find("user.anna\x02{") + 5)));
  const Finished shown = Repair("--repair");
  EXPECT_EQ(shown.exit_code, kStoreUnusable);
  EXPECT_NE(shown.out.find("does not match its checksum"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("admins"), std::string::npos);
  EXPECT_EQ(shown.out.find("Password"), std::string::npos) << "no secrets";
  EXPECT_EQ(shown.out.find("viewers"), std::string::npos) << "that one is lost";
  EXPECT_NE(shown.out.find("vigilad --repair=records"), std::string::npos);
  std::istringstream lines(shown.out);
  for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
  EXPECT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kEnded) << "only shown";
  device_.Finish();

  EXPECT_EQ(Repair("--repair=copy").exit_code, kStoreUnusable) << "there is none";
  EXPECT_EQ(Repair("--repair=records").exit_code, 0);
  size_t kept = 0;
  for (const auto& entry : std::filesystem::directory_iterator(device_.SettingsDir())) {
    const std::string name = entry.path().filename();
    if (name.starts_with("vigila.db.damaged-") && !name.ends_with("-wal")) ++kept;
  }
  EXPECT_EQ(kept, 1u);
  Start();
  EXPECT_EQ(DaemonClient(device_).Listed(), (Accounts{{"admin", 1}}));
  EXPECT_EQ(device_.CtlWithSecret("secret", {"login", "admin"}).exit_code, 0);
}

TEST_F(DamagedDevice, IsRepairedFromItsCopy) {
  MakeUnsettledStore();
  Files files = killed_;
  files.erase(kStore);
  files.erase(kLog);
  PutFiles(files);
  const Finished shown = Repair("--repair");
  EXPECT_EQ(shown.exit_code, kStoreUnusable);
  EXPECT_NE(shown.out.find("it is missing"), std::string::npos) << shown.out;
  EXPECT_NE(shown.out.find("vigilad --repair=copy"), std::string::npos) << shown.out;
  EXPECT_EQ(Repair("--repair=records").exit_code, kStoreUnusable);
  EXPECT_EQ(Repair("--repair=copy").exit_code, 0);
  Start();
  EXPECT_EQ(DaemonClient(device_).Listed(), settled_);
  EXPECT_EQ(Repair("--repair").exit_code, 69) << "the daemon has it";
  device_.Stop();
  EXPECT_EQ(Repair("--repair=copy").exit_code, 0) << "a sound store stays";
  Start();
  EXPECT_EQ(DaemonClient(device_).Listed(), settled_);
}

TEST_F(DamagedDevice, IsNeverRepairedIntoOneWithoutAnAdministrator) {
  MakeSettledStore();
  Files files = Damaged(kStore, 8 * (killed_[kStore].find("user.admin\x02{") + 5));
  PutFiles(files);
  const Finished shown = Repair("--repair");
  EXPECT_NE(shown.out.find("without an administrator"), std::string::npos) << shown.out;
  EXPECT_EQ(Repair("--repair=records").exit_code, kStoreUnusable);
  EXPECT_EQ(FilesNow()[kStore], files[kStore]) << "nothing is changed";
}

TEST_F(DamagedDevice, WithAStoreThatLostItsAdministratorDoesNotServe) {
  AddAdministratorAndViewer();
  device_.Stop();
  tevra::core::PlatformConfig::LoadFrom(device_.ConfigFile());
  ASSERT_EQ(krand_core_settings_init("vigila"), KRAND_CORE_OK);
  ASSERT_EQ(krand_core_settings_delete_key("user.admin"), KRAND_CORE_OK);
  ASSERT_EQ(krand_core_settings_deinit(), KRAND_CORE_OK);
  ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kEnded);
  const Finished end = device_.Finish();
  EXPECT_EQ(end.exit_code, kStoreUnusable);
  EXPECT_NE(end.err.find("it had an administrator and has none"), std::string::npos) << end.err;
}

}  // namespace
