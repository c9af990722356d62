#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "support/daemon_process.h"

namespace {

using support::DaemonProcess;
using support::Finished;
using Json = nlohmann::ordered_json;

class Doctor : public testing::Test {
 protected:
  Doctor() { device_.Set("Applications/vigila", "password_policy", "true"); }
  void Start() {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  void AddAdministrator() {
    ASSERT_EQ(device_.CtlWithSecret("secret1", {"user", "add", "admin", "-g", "admins"}).exit_code,
              0);
  }
  // The level of every check but the gateway's, which is this machine's.
  std::map<std::string, std::string> Levels(int exit_code,
                                            const support::ProgramOptions& options = {}) {
    const Finished end = device_.Ctl({"doctor", "--json"}, options);
    EXPECT_EQ(end.exit_code, exit_code) << end.out << end.err;
    std::map<std::string, std::string> levels;
    const Json answer = Json::parse(end.out, nullptr, false);
    if (!answer.is_object()) return levels;
    for (const Json& check : answer["Checks"]) levels[check["Check"]] = check["Level"];
    levels.erase("gateway");
    return levels;
  }

  DaemonProcess device_{DaemonProcess::Key::kOwn};
  const std::map<std::string, std::string> healthy_ = {
      {"configuration", "ok"}, {"service", "ok"},
      {"socket", "ok"},        {"broker-policy", "skipped"},
      {"roles", "ok"},         {"administrator", "ok"},
      {"lock-out", "ok"},      {"store", "ok"},
      {"key", "ok"},           {"space", "ok"},
      {"clock", "ok"}};
};

TEST_F(Doctor, FindsADeviceThatIsSetUpHealthy) {
  Start();
  AddAdministrator();
  EXPECT_EQ(Levels(0), healthy_);
}

TEST_F(Doctor, MissesAnAdministrator) {
  Start();
  auto levels = healthy_;
  levels["administrator"] = "problem";
  EXPECT_EQ(Levels(1), levels);
  const Finished end = device_.Ctl({"doctor"});
  EXPECT_EQ(end.exit_code, 1);
  EXPECT_EQ(end.err, "");
  EXPECT_NE(
      end.out.find("\nproblem  administrator  there is none: every token counts as authenticated\n"
                   "         Add the first: vigilactl user add NAME -g admins\n"),
      std::string::npos)
      << end.out;
}

TEST_F(Doctor, LooksAtADeviceWhoseDaemonIsDown) {
  Start();
  AddAdministrator();
  EXPECT_EQ(device_.Stop().exit_code, 0);
  auto levels = healthy_;
  levels["service"] = levels["socket"] = "problem";
  levels["roles"] = levels["administrator"] = "skipped";
  EXPECT_EQ(Levels(1), levels);
}

TEST_F(Doctor, SeesAKeyThatOthersRead) {
  Start();
  AddAdministrator();
  ASSERT_EQ(chmod(device_.KeyFile().c_str(), 0644), 0);
  auto levels = healthy_;
  levels["key"] = "problem";
  EXPECT_EQ(Levels(1), levels);
}

TEST_F(Doctor, SaysToAnOrdinaryUserWhatItCouldNotLookAt) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  Start();
  AddAdministrator();
  support::ProgramOptions options;
  options.identity = support::Identity{65534, 65534, {}};
  auto levels = healthy_;
  levels["roles"] = "warning";
  levels["administrator"] = levels["store"] = levels["key"] = "skipped";
  EXPECT_EQ(Levels(0, options), levels);
}

TEST_F(Doctor, NamesAConfigurationThatCannotBeUsed) {
  device_.Set("MsgBus", "service_user", "no such user");
  const Finished end = device_.Ctl({"doctor"});
  EXPECT_EQ(end.exit_code, 1);
  EXPECT_NE(end.out.find("problem  configuration  [MsgBus] service_user: there is no user \"no "
                         "such user\"\n"),
            std::string::npos)
      << end.out;
  EXPECT_NE(end.out.find("skipped  service        not looked at: the configuration cannot be "
                         "used\n"),
            std::string::npos)
      << end.out;
}

}  // namespace
