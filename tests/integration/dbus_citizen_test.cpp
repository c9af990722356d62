// The daemon on a broker, as D-Bus's own tools and programs in other languages see it.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "support/daemon_process.h"
#include "support/private_dbus_daemon.h"

namespace {

using support::DaemonProcess;
using support::Finished;
using support::PrivateDbusDaemon;
using support::ProgramOptions;

constexpr const char* kService = "tevra.SecurityProvider";
constexpr const char* kPath = "/tevra/interfaces/ISecurityProvider";
constexpr const char* kInterface = "tevra.interfaces.ISecurityProvider";
constexpr const char* kAdministrationPath = "/tevra/interfaces/IAdministration1";
constexpr const char* kAdministration = "tevra.interfaces.IAdministration1";
constexpr gid_t kServiceGroup = 61000;
constexpr uid_t kStranger = 65534;

class DbusCitizen : public testing::Test {
 protected:
  void SetUp() override {
    if (access("/usr/bin/busctl", X_OK) != 0) GTEST_SKIP() << "busctl is not installed";
    broker_ = PrivateDbusDaemon::Start();
    if (!broker_) GTEST_SKIP() << "dbus-daemon is not installed";
    device_.Set("MsgBus", "transport", "broker");
    device_.Set("MsgBus", "address", broker_->address());
    device_.Set("Access", "service_groups", std::to_string(kServiceGroup));
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  Finished Busctl(std::vector<std::string> words, const ProgramOptions& options = {}) const {
    words.insert(words.begin(), {"/usr/bin/busctl", "--address=" + broker_->address()});
    return support::RunProgram(words, options);
  }
  // A counter as busctl writes it, "t 1".
  std::string Counter(const char* path, const char* interface, const char* name) const {
    const Finished end = Busctl({"get-property", kService, path, interface, name});
    EXPECT_EQ(end.exit_code, 0) << end.err;
    return end.out;
  }
  // What busctl shows of an object, with one blank between columns.
  std::string Introspected(const char* service, const char* path) const {
    const Finished end = Busctl({"introspect", service, path});
    EXPECT_EQ(end.exit_code, 0) << end.err;
    std::string text = end.out;
    const auto both_blank = [](char a, char b) { return a == ' ' && b == ' '; };
    text.erase(std::unique(text.begin(), text.end(), both_blank), text.end());
    return text;
  }
  static ProgramOptions AsStranger(std::vector<gid_t> groups) {
    ProgramOptions options;
    options.identity = support::Identity{kStranger, kStranger, std::move(groups)};
    return options;
  }
  static bool Contains(const std::string& text, const std::string& what) {
    return text.find(what) != std::string::npos;
  }

  std::unique_ptr<PrivateDbusDaemon> broker_;
  DaemonProcess device_;
};

TEST_F(DbusCitizen, ShowsItsObjectsAndTheirOperationsToBusctl) {
  const Finished tree = Busctl({"tree", "--list", kService});
  EXPECT_EQ(tree.exit_code, 0) << tree.err;
  EXPECT_EQ(tree.out,
            "/\n/tevra\n/tevra/interfaces\n/tevra/interfaces/IAdministration1\n"
            "/tevra/interfaces/ISecurityProvider\n");
  const std::string shown = Introspected(kService, kPath);
  EXPECT_TRUE(Contains(shown, "\n.AddPassphrase method ayay ay ")) << shown;
  EXPECT_TRUE(Contains(shown, "\n.GetExpiration method ay iay ")) << shown;
  EXPECT_TRUE(Contains(shown, "\n.DeleteUsers method aay i ")) << shown;
  EXPECT_TRUE(Contains(shown, "\n.Changed signal b ")) << shown;
  EXPECT_TRUE(Contains(shown, "\n.RefusedCalls property t 0 ")) << shown;
  const std::string rules =
      Introspected("krand.target.permission", "/krand/interfaces/PermissionTarget");
  EXPECT_TRUE(Contains(rules, "\n.getAccessRule method ay iay ")) << rules;
}

TEST_F(DbusCitizen, AnswersCallsOfBusctl) {
  const Finished asked =
      Busctl({"call", kService, kPath, kInterface, "IsProtected", "ay", "2", "47", "120"});
  EXPECT_EQ(asked.out, "b false\n") << asked.err;
  const Finished wrong = Busctl({"call", kService, kPath, kInterface, "IsProtected", "s", "/x"});
  EXPECT_EQ(wrong.err, "Call failed: IsProtected takes (ay), not (s)\n");
  const Finished lost = Busctl({"call", kService, "/elsewhere", kInterface, "GetNonce"});
  EXPECT_EQ(lost.err, "Call failed: there is no object /elsewhere\n");
}

TEST_F(DbusCitizen, CountsAccountsSessionsAndRefusals) {
  EXPECT_EQ(Counter(kAdministrationPath, kAdministration, "Accounts"), "t 1\n");
  ASSERT_EQ(device_.CtlWithSecret("a secret", {"user", "add", "anna", "-g", "admins"}).exit_code,
            0);
  ASSERT_EQ(device_.CtlWithSecret("a secret", {"login", "anna"}).exit_code, 0);
  EXPECT_EQ(Counter(kAdministrationPath, kAdministration, "Accounts"), "t 2\n");
  EXPECT_EQ(Counter(kAdministrationPath, kAdministration, "Sessions"), "t 1\n");
  EXPECT_EQ(Counter(kPath, kInterface, "RefusedCalls"), "t 0\n");
}

TEST_F(DbusCitizen, ShowsAStrangerWhatThereIsAndNoCounter) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can play another user";
  const auto stranger = AsStranger({});
  const std::vector<std::string> counter = {"get-property", kService, kPath, kInterface,
                                            "RefusedCalls"};
  EXPECT_EQ(Busctl({"tree", "--list", kService}, stranger).exit_code, 0);
  EXPECT_NE(Busctl(counter, stranger).exit_code, 0);
  EXPECT_EQ(Busctl(counter, AsStranger({kServiceGroup})).out, "t 1\n");
  EXPECT_TRUE(Contains(device_.Log(),
                       "Refused Properties to user 65534, who does not hold the role service"))
      << device_.Log();
}

// The script says what it found wrong, and nothing else.
TEST_F(DbusCitizen, ServesAProgramInPython) {
  ProgramOptions options;
  options.environment["DBUS_SESSION_BUS_ADDRESS"] = broker_->address();
  const Finished end =
      support::RunProgram({"/usr/bin/python3", DBUS_CITIZEN_SCRIPT, DBUS_INTERFACES_DIR}, options);
  EXPECT_EQ(end.exit_code, 0) << end.out << end.err;
}

}  // namespace
