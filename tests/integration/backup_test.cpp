// Accounts that are moved in a file, and a device that is killed while they arrive.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "support/daemon_client.h"
#include "support/device_with_accounts.h"
#include "tevra/interfaces/i_administration.h"

namespace {

using support::Accounts;
using support::DaemonClient;
using support::DaemonProcess;
using support::DeviceWithAccounts;
using support::Finished;
using support::ProgramOptions;
using tevra::interfaces::IAdministration;
using Json = nlohmann::json;

const std::string kPassphrase = "correct horse battery";

class Backup : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(device_.Start()) << device_.device.Log(); }

  static Finished On(const DaemonProcess& device, std::vector<std::string> arguments,
                     const std::string& passphrase = kPassphrase) {
    arguments.insert(arguments.begin(), "backup");
    arguments.push_back("--passphrase-stdin");
    ProgramOptions options;
    options.input = passphrase + "\n";
    return device.Ctl(std::move(arguments), options);
  }
  Finished Do(std::vector<std::string> arguments, const std::string& passphrase = kPassphrase) {
    return On(device_.device, std::move(arguments), passphrase);
  }
  Finished Ctl(const std::vector<std::string>& arguments) { return device_.device.Ctl(arguments); }
  std::string File(const std::string& name) const { return device_.device.Dir().File(name); }
  static bool LogsOn(const DaemonProcess& device, const std::string& name) {
    return device.CtlWithSecret(DeviceWithAccounts::PasswordOf(name), {"login", name}).exit_code ==
           0;
  }
  static void Expect(const Finished& end, int exit_code, const std::string& out,
                     const std::string& err = "") {
    EXPECT_EQ(end.exit_code, exit_code) << end.out << end.err;
    EXPECT_EQ(end.out, out);
    EXPECT_EQ(end.err, err);
  }

  DeviceWithAccounts device_;
};

TEST_F(Backup, MovesEverythingToADeviceWithAnotherKey) {
  const std::string file = File("accounts.vigila");
  const std::string id =
      device_.device.CtlWithSecret("the phrase", {"passphrase", "add", "ntp"}).out.substr(0, 37);
  ASSERT_EQ(Ctl({"rule", "set", "/rtsp/*", "@managers"}).exit_code, 0);
  Expect(Do({"save", file}), 0, "Saved 3 accounts, 1 passphrase, 3 rules to " + file + ".\n");
  struct stat status;
  ASSERT_EQ(stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600u);
  EXPECT_EQ(device_.device.Dir().Read("accounts.vigila").find("admin"), std::string::npos);

  DaemonProcess other(DaemonProcess::Key::kOwn);
  ASSERT_EQ(other.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << other.Log();
  const Finished plan = On(other, {"show", file});
  EXPECT_EQ(plan.exit_code, 0) << plan.err;
  EXPECT_NE(plan.out.find("Accounts added       admin, view\n"), std::string::npos) << plan.out;
  EXPECT_NE(plan.out.find("/rtsp/*: {88049574-465a-4f41-89d4-d6d517e8c218} becomes @managers\n"),
            std::string::npos)
      << plan.out;
  EXPECT_FALSE(LogsOn(other, "admin"));
  Expect(On(other, {"restore", file, "--yes"}), 0, "Restored 3 accounts, 1 passphrase, 3 rules.\n");
  for (const bool restarted : {false, true}) {
    if (restarted) {
      other.Stop();
      ASSERT_EQ(other.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << other.Log();
    }
    EXPECT_TRUE(LogsOn(other, "admin"));
    EXPECT_TRUE(LogsOn(other, "view"));
    Expect(other.Ctl({"passphrase", "show", id}), 0, "the phrase\n");
    Expect(other.Ctl({"rule", "get", "/rtsp/*"}), 0, "@managers\n");
  }
}

TEST_F(Backup, IsNeverWrittenOverAFileAndSaysWhyItIsNotTaken) {
  const std::string file = File("accounts.vigila");
  ASSERT_EQ(Do({"save", file}).exit_code, 0);
  Expect(Do({"save", file}), 2, "",
         "vigilactl: \"" + file + "\" is there already: name a new file\n");
  Expect(Do({"show", file}, "another passphrase"), 1, "",
         "vigilactl: The passphrase is not the one of the backup.\n");
  Expect(Do({"save", File("other")}, "too short"), 1, "",
         "vigilactl: The passphrase of a backup has 12 bytes at least.\n");
  std::string bytes = device_.device.Dir().Read("accounts.vigila");
  bytes[100] = static_cast<char>(~bytes[100]);
  device_.device.Dir().Write("damaged", bytes);
  Expect(Do({"restore", File("damaged"), "--yes"}), 1, "",
         "vigilactl: The file is damaged, cut short, or not a backup.\n");
  EXPECT_EQ(Do({"show", File("missing")}).exit_code, 2);
  EXPECT_TRUE(LogsOn(device_.device, "admin"));
}

TEST_F(Backup, IsNotRestoredByAScriptThatDoesNotSayYes) {
  const std::string file = File("accounts.vigila");
  ASSERT_EQ(Do({"save", file}).exit_code, 0);
  ASSERT_TRUE(device_.Add("olga", "operators"));
  ProgramOptions options;
  options.input = kPassphrase;
  Expect(support::RunProgram(
             {"/usr/bin/setsid", "--wait", VIGILACTL_PATH, "--config", device_.device.ConfigFile(),
              "backup", "restore", file, "--passphrase-stdin"},
             options),
         2, "", "vigilactl: there is no terminal to ask whether to go on: use --yes\n");
  EXPECT_TRUE(LogsOn(device_.device, "olga"));
}

// A restoration up to its last step, asked for by this process.
class Offer {
 public:
  explicit Offer(const DaemonProcess& device) {
    tevra::core::PlatformConfig::LoadFrom(device.ConfigFile());
    bus_ = std::make_unique<tevra::msgbus::MsgBus>();
    administration_.reset(IAdministration::CreateClient(bus_.get()));
  }
  bool Put(const std::string& file) {
    id_ = Json::parse(administration_->PutBackup("", "", 0, file))["Id"];
    if (Json::parse(administration_->StartRestore("", id_, kPassphrase))["Code"] != 0) return false;
    for (;;) {
      const Json plan = Json::parse(administration_->GetRestorePlan("", id_));
      if (plan["Code"] != 0) return false;
      if (plan["Ready"]) return true;
      std::this_thread::yield();
    }
  }
  // True when the server has said that it is done.
  bool Commit() {
    try {
      return Json::parse(administration_->CommitRestore("", id_))["Code"] == 0;
    } catch (const std::exception&) {
      return false;
    }
  }

 private:
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<IAdministration> administration_;
  std::string id_;
};

// Kills the daemon within a restoration, as often as $VIGILA_RESTORE_KILLS says. The device has all
// of its accounts or all of the backup's, and the latter once it was told so.
TEST_F(Backup, RestoredOnADeviceThatIsKilledIsThereWholeOrNotAtAll) {
  const char* const wanted = std::getenv("VIGILA_RESTORE_KILLS");
  const int kills = wanted == nullptr ? 5 : std::atoi(wanted);
  const std::string empty = File("two"), full = File("many");
  ASSERT_EQ(Do({"save", empty}).exit_code, 0);
  for (int i = 0; i < 20; ++i) ASSERT_TRUE(device_.Add("account" + std::to_string(i), "viewers"));
  ASSERT_EQ(Do({"save", full}).exit_code, 0);
  const std::string files[] = {device_.device.Dir().Read("two"), device_.device.Dir().Read("many")};
  Accounts accounts[2];
  accounts[1] = DaemonClient(device_.device).Listed();
  accounts[0] = {{"admin", 1}, {"view", 8}};
  ASSERT_EQ(accounts[1].size(), 22u);

  std::minstd_rand random(20261121);
  std::chrono::microseconds longest(20000);  // that a restoration took
  size_t present = 1;
  int done = 0;
  for (int kill = 0; kill < kills; ++kill) {
    SCOPED_TRACE("kill " + std::to_string(kill));
    const size_t next = 1 - present;
    bool acknowledged = false;
    {
      Offer offer(device_.device);
      ASSERT_TRUE(offer.Put(files[next]));
      const auto start = std::chrono::steady_clock::now();
      const auto end = start + longest * static_cast<int>(random() % 1000) / 1000;
      std::thread killer([&] {
        while (std::chrono::steady_clock::now() < end) std::this_thread::yield();
        device_.device.Running().Signal(SIGKILL);
      });
      acknowledged = offer.Commit();
      killer.join();
    }
    device_.device.Finish();
    ASSERT_EQ(device_.device.LaunchAndAwaitReady(), DaemonProcess::Start::kReady)
        << device_.device.Log();
    const Accounts found = DaemonClient(device_.device).Listed();
    if (acknowledged) {
      ++done;
      EXPECT_EQ(found, accounts[next]);
    } else {
      EXPECT_TRUE(found == accounts[0] || found == accounts[1]);
    }
    present = found == accounts[1] ? 1 : 0;
    EXPECT_TRUE(LogsOn(device_.device, "admin"));
    EXPECT_EQ(LogsOn(device_.device, "account7"), present == 1);
    if (HasFailure()) return;
  }
  RecordProperty("acknowledged", done);
}

}  // namespace
