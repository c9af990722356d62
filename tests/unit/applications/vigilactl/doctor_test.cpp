#include "vigilactl/doctor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <sstream>
#include <string>

namespace vigilactl {
namespace {

using Level = Finding::Level;
using Transport = tevra::msgbus::BusConfig::Transport;

constexpr uid_t kServiceUid = 990;

SeenFile Seen(const std::string& path, mode_t mode, uid_t owner = kServiceUid) {
  return {path, SeenFile::Sight::kSeen, mode, owner};
}
SeenFile Missing(const std::string& path) {
  return {path, SeenFile::Sight::kMissing};
}
SeenFile Hidden(const std::string& path) {
  return {path, SeenFile::Sight::kHidden};
}

DoctorFacts HealthyDevice() {
  DoctorFacts facts;
  facts.configuration = "/etc/tevra/platform.ini";
  facts.bus.runtime_dir = "/run/vigila";
  facts.bus.socket_mode = 0666;
  facts.bus.service_uid = kServiceUid;
  facts.password_policy = true;
  facts.service_role = facts.admin_role = facts.has_administrator = true;
  facts.runtime_directory = Seen("/run/vigila", S_IFDIR | 0755);
  facts.socket = Seen("/run/vigila/tevra.SecurityProvider", S_IFSOCK | 0666);
  facts.store_directory = Seen("/var/lib/vigila", S_IFDIR | 0700);
  facts.store_files = {Seen("/var/lib/vigila/vigila.db", S_IFREG | 0600),
                       Missing("/var/lib/vigila/vigila.db-wal")};
  facts.key = Seen("/var/lib/vigila/vigila.key", S_IFREG | 0600);
  facts.space = {1024ull << 20, false};
  facts.now = 1795269600;
  facts.gateway = {GatewayFacts::State::kRuns, "127.0.0.1", 8090, ""};
  return facts;
}

// The finding of one check, as "level: found | remedy".
std::string Say(const DoctorFacts& facts, const std::string& check) {
  static constexpr const char* kNames[] = {"ok", "warning", "problem", "skipped"};
  for (const Finding& finding : Diagnose(facts)) {
    if (finding.check != check) continue;
    return kNames[static_cast<size_t>(finding.level)] + (": " + finding.found) +
           (finding.remedy.empty() ? "" : " | " + finding.remedy);
  }
  return "no such check";
}

TEST(Doctor, FindsAHealthyDeviceHealthy) {
  EXPECT_EQ(RenderFindings(Diagnose(HealthyDevice())),
            "ok       configuration  /etc/tevra/platform.ini\n"
            "ok       service        answers\n"
            "ok       socket         mode 0666 in /run/vigila\n"
            "skipped  broker-policy  not looked at: the transport is direct\n"
            "ok       roles          service and admin\n"
            "ok       administrator  there is one\n"
            "ok       lock-out       on\n"
            "ok       store          /var/lib/vigila/vigila.db\n"
            "ok       key            /var/lib/vigila/vigila.key\n"
            "ok       space          1024 MiB left\n"
            "ok       clock          2026-11-21 14:00 UTC\n"
            "ok       gateway        answers at 127.0.0.1 port 8090\n"
            "0 problems, 0 warnings.\n");
}

TEST(Doctor, SaysWhatToDoInALineBelow) {
  DoctorFacts facts = HealthyDevice();
  facts.password_policy = false;
  facts.key.mode = S_IFREG | 0644;
  const std::string text = RenderFindings(Diagnose(facts));
  EXPECT_NE(
      text.find("\nwarning  lock-out       off: guessing is free, and passwords never expire\n"
                "         Set password_policy = true in [Applications/vigila]; restart vigilad.\n"),
      std::string::npos)
      << text;
  EXPECT_NE(text.find("\nproblem  key            /var/lib/vigila/vigila.key has mode 0644\n"
                      "         chmod 600 /var/lib/vigila/vigila.key\n"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find("\n1 problem, 1 warning.\n"), std::string::npos) << text;
}

TEST(Doctor, NeverLetsATextSteerTheTerminal) {
  DoctorFacts facts = HealthyDevice();
  facts.silence = "no\033[2J answer\n";
  EXPECT_NE(RenderFindings(Diagnose(facts)).find("no\\x1b[2J answer\\x0a\n"), std::string::npos)
      << RenderFindings(Diagnose(facts));
}

TEST(Doctor, DescribesEveryFindingInJson) {
  DoctorFacts facts = HealthyDevice();
  facts.has_administrator = false;
  const Json answer = DescribeFindings(Diagnose(facts));
  EXPECT_EQ(answer["Problems"], 1);
  EXPECT_EQ(answer["Warnings"], 0);
  ASSERT_EQ(answer["Checks"].size(), 12u);
  EXPECT_EQ(answer["Checks"][1].dump(),
            "{\"Check\":\"service\",\"Level\":\"ok\",\"Found\":\"answers\",\"Do\":null}");
  EXPECT_EQ(
      answer["Checks"][5].dump(),
      "{\"Check\":\"administrator\",\"Level\":\"problem\",\"Found\":\"there is none: every token "
      "counts as authenticated\",\"Do\":\"Add the first: vigilactl user add NAME -g admins\"}");
}

TEST(Doctor, LooksAtTheFilesOfAServiceThatDoesNotAnswer) {
  DoctorFacts facts = HealthyDevice();
  facts.silence = "message bus: no server for tevra.SecurityProvider: No such file or directory";
  facts.service_role.reset();
  facts.admin_role.reset();
  facts.has_administrator.reset();
  facts.socket = Missing(facts.socket.path);
  EXPECT_EQ(Say(facts, "service"),
            "problem: does not answer: No such file or directory | systemctl start vigilad; why it "
            "ended: journalctl -u vigilad");
  EXPECT_EQ(Say(facts, "socket"),
            "problem: /run/vigila/tevra.SecurityProvider is not there | The service makes it; is "
            "runtime_dir the same in both configurations?");
  EXPECT_EQ(Say(facts, "roles"), "skipped: not looked at: the service does not answer");
  EXPECT_EQ(Say(facts, "administrator"), "skipped: not looked at: the service does not answer");
  EXPECT_EQ(Say(facts, "store"), "ok: /var/lib/vigila/vigila.db");
  EXPECT_EQ(Say(facts, "key"), "ok: /var/lib/vigila/vigila.key");
}

TEST(Doctor, SaysWhatAConfigurationThatCannotBeUsedHides) {
  DoctorFacts facts = HealthyDevice();
  facts.misconfigured = "[MsgBus] service_user: there is no user \"vigila\"";
  EXPECT_EQ(Say(facts, "configuration"),
            "problem: [MsgBus] service_user: there is no user \"vigila\" | Correct it in "
            "/etc/tevra/platform.ini; vigilad --check-config checks it.");
  for (const char* check : {"service", "socket", "broker-policy", "lock-out"}) {
    EXPECT_EQ(Say(facts, check), "skipped: not looked at: the configuration cannot be used");
  }
}

TEST(Doctor, LooksAtTheSocketAndItsDirectory) {
  const std::string path = "/run/vigila/tevra.SecurityProvider";
  DoctorFacts facts = HealthyDevice();
  facts.socket.mode = S_IFSOCK | 0600;
  EXPECT_EQ(Say(facts, "socket"),
            "warning: mode 0600, configured is 0666 | systemctl restart vigilad");
  facts.socket.owner = 1234567;
  EXPECT_EQ(Say(facts, "socket"),
            "problem: it belongs to uid 1234567, whom callers do not believe | Name the service's "
            "user in [MsgBus] service_user.");
  facts.socket.mode = S_IFREG | 0666;
  EXPECT_EQ(Say(facts, "socket"),
            "problem: " + path + " is no socket | Remove it: systemctl restart vigilad");
  facts.socket = Hidden(path);
  EXPECT_EQ(Say(facts, "socket"),
            "problem: " + path + " cannot be looked at | chmod 755 /run/vigila");
  facts.runtime_directory.mode = S_IFDIR | 01777;
  EXPECT_EQ(
      Say(facts, "socket"),
      "problem: /run/vigila has mode 1777: others may put a socket there | chmod 755 /run/vigila");
  facts.runtime_directory = Missing("/run/vigila");
  EXPECT_EQ(
      Say(facts, "socket"),
      "problem: /run/vigila is not there | The service's unit makes it: systemctl restart vigilad");
}

TEST(Doctor, AsksForAPolicyWhereABrokerCarriesTheCalls) {
  DoctorFacts facts = HealthyDevice();
  facts.bus.transport = Transport::kBroker;
  facts.broker_policies = {Missing("/etc/p.conf"), Missing("/usr/p.conf")};
  EXPECT_EQ(Say(facts, "socket"), "skipped: not looked at: the transport is a broker");
  EXPECT_EQ(Say(facts, "broker-policy"),
            "problem: the system bus has no policy for the service | Install "
            "tevra.SecurityProvider.conf under /usr/share/dbus-1/system.d.");
  facts.broker_policies[1] = Seen("/usr/p.conf", S_IFREG | 0644);
  EXPECT_EQ(Say(facts, "broker-policy"), "ok: /usr/p.conf");
}

TEST(Doctor, NamesTheRolesOfTheCaller) {
  struct Case {
    bool service, admin;
    const char* text;
  };
  const std::string remedy = " | Add your group to service_groups in [Access], or ask as root.";
  for (const Case& c : {Case{true, true, "ok: service and admin"},
                        Case{true, false, "ok: service; accounts and rules need admin"},
                        Case{false, true, "warning: admin, but not service: no logons, no queries"},
                        Case{false, false, "warning: none: the service refuses all you ask"}}) {
    DoctorFacts facts = HealthyDevice();
    facts.service_role = c.service;
    facts.admin_role = c.admin;
    if (!c.service) facts.has_administrator.reset();
    EXPECT_EQ(Say(facts, "roles"), c.text + (c.service ? std::string() : remedy));
    EXPECT_EQ(Say(facts, "administrator"),
              c.service ? "ok: there is one"
                        : "skipped: not looked at: the caller lacks the role service");
  }
}

TEST(Doctor, TakesADeviceWithoutAnAdministratorForAProblem) {
  DoctorFacts facts = HealthyDevice();
  facts.has_administrator = false;
  EXPECT_EQ(Say(facts, "administrator"),
            "problem: there is none: every token counts as authenticated | Add the first: "
            "vigilactl user add NAME -g admins");
}

TEST(Doctor, LooksAtTheModesAndOwnersOfTheStore) {
  DoctorFacts facts = HealthyDevice();
  facts.store_files[1] = Seen("/var/lib/vigila/vigila.db-wal", S_IFREG | 0600, 0);
  EXPECT_EQ(Say(facts, "store"),
            "problem: /var/lib/vigila/vigila.db-wal belongs to uid 0 | Give it to its directory's: "
            "chown 990 /var/lib/vigila/vigila.db-wal");
  facts.store_files[0].mode = S_IFREG | 0640;
  EXPECT_EQ(
      Say(facts, "store"),
      "problem: /var/lib/vigila/vigila.db has mode 0640 | chmod 600 /var/lib/vigila/vigila.db");
  facts.store_directory.mode = S_IFDIR | 0770;
  EXPECT_EQ(
      Say(facts, "store"),
      "problem: /var/lib/vigila has mode 0770: others may write it | chmod 700 /var/lib/vigila");
  facts.store_directory = Missing("/var/lib/vigila");
  EXPECT_EQ(Say(facts, "store"),
            "warning: /var/lib/vigila is not there | The service makes it at its first start; else "
            "see [Settings] directory.");
}

TEST(Doctor, SaysWhatACallerWhoIsNotRootMayNotLookAt) {
  DoctorFacts facts = HealthyDevice();
  for (SeenFile& file : facts.store_files) file = Hidden(file.path);
  facts.key = Hidden(facts.key.path);
  const std::string hidden = "skipped: not looked at: only root and the service's user may";
  EXPECT_EQ(Say(facts, "store"), hidden);
  EXPECT_EQ(Say(facts, "key"), hidden);
  EXPECT_EQ(CountOf(Diagnose(facts), Level::kProblem), 0u);
}

TEST(Doctor, TakesAKeyThatOthersReadForAProblem) {
  DoctorFacts facts = HealthyDevice();
  facts.key.mode = S_IFREG | 0644;
  const std::string open =
      "problem: /var/lib/vigila/vigila.key has mode 0644 | chmod 600 /var/lib/vigila/vigila.key";
  EXPECT_EQ(Say(facts, "key"), open);
  facts.key_is_credential = true;
  EXPECT_EQ(Say(facts, "key"), open);
  // The service manager gives its credentials to a group of its own.
  facts.key.mode = S_IFREG | 0440;
  facts.key.owner = 0;
  EXPECT_EQ(Say(facts, "key"), "ok: /var/lib/vigila/vigila.key, a credential");
  facts.key_is_credential = false;
  EXPECT_EQ(
      Say(facts, "key"),
      "problem: /var/lib/vigila/vigila.key has mode 0440 | chmod 600 /var/lib/vigila/vigila.key");
  facts.key.mode = S_IFREG | 0600;
  EXPECT_EQ(Say(facts, "key"),
            "problem: /var/lib/vigila/vigila.key belongs to uid 0 | Give it to the store's: chown "
            "990 /var/lib/vigila/vigila.key");
}

TEST(Doctor, MissesAKeyOnlyBesideAStore) {
  DoctorFacts facts = HealthyDevice();
  facts.key = Missing(facts.key.path);
  EXPECT_EQ(Say(facts, "key"),
            "problem: /var/lib/vigila/vigila.key is not there | Restore it from the backup: no "
            "stored password is readable without.");
  facts.store_files[0] = Missing(facts.store_files[0].path);
  EXPECT_EQ(
      Say(facts, "key"),
      "warning: /var/lib/vigila/vigila.key is not there | The service makes it with the store.");
  EXPECT_EQ(
      Say(facts, "store"),
      "warning: /var/lib/vigila/vigila.db is not there | The service makes it at its first start.");
}

TEST(Doctor, TakesADiskThatIsFullForAProblem) {
  const std::string remedy = " | Make room where /var/lib/vigila lies.";
  DoctorFacts facts = HealthyDevice();
  facts.space->bytes = (32ull << 20) - 1;
  EXPECT_EQ(Say(facts, "space"), "warning: 31 MiB left" + remedy);
  facts.space->bytes = 4ull << 20;
  EXPECT_EQ(Say(facts, "space"), "warning: 4 MiB left" + remedy);
  facts.space->bytes = 0;
  EXPECT_EQ(Say(facts, "space"), "problem: 0 MiB left: changes may fail" + remedy);
  facts.space = {1024ull << 20, true};
  EXPECT_EQ(Say(facts, "space"), "problem: the file system takes no more files" + remedy);
  facts.space.reset();
  EXPECT_EQ(Say(facts, "space"), "skipped: not looked at: the store's directory is not there");
}

TEST(Doctor, TakesAClockBefore2020ForOneThatIsNotSet) {
  DoctorFacts facts = HealthyDevice();
  facts.now = 1577836799;
  EXPECT_EQ(Say(facts, "clock"),
            "problem: 2019-12-31 23:59 UTC: it is not set | Set it (timedatectl): logons of web "
            "services and expiry go by it.");
  facts.now = 1577836800;
  EXPECT_EQ(Say(facts, "clock"), "ok: 2020-01-01 00:00 UTC");
}

TEST(Doctor, SaysHowTheGatewayStands) {
  using State = GatewayFacts::State;
  DoctorFacts facts = HealthyDevice();
  facts.gateway.failure = "Connection refused";
  EXPECT_EQ(
      Say(facts, "gateway"),
      "problem: 127.0.0.1 port 8090: Connection refused | Its words: journalctl -u vigila-gateway");
  facts.gateway = {State::kRuns, "", 0, ""};
  EXPECT_EQ(Say(facts, "gateway"), "ok: runs; its port is not known");
  facts.gateway.state = State::kFailed;
  EXPECT_EQ(Say(facts, "gateway"),
            "problem: has failed | Its last words: journalctl -u vigila-gateway");
  facts.gateway.state = State::kStopped;
  EXPECT_EQ(Say(facts, "gateway"), "warning: does not run | systemctl start vigila-gateway");
  facts.gateway.state = State::kNotInstalled;
  EXPECT_EQ(Say(facts, "gateway"), "skipped: not looked at: there is no unit vigila-gateway");
  facts.gateway.state = State::kUnknown;
  EXPECT_EQ(Say(facts, "gateway"),
            "skipped: not looked at: no service manager that could be asked");
}

// With the paths of an installation.
TEST(Doctor, KeepsTo80Columns) {
  std::vector<DoctorFacts> patients(12, HealthyDevice());
  patients[0].silence =
      "message bus: no server for tevra.SecurityProvider: No such file or directory";
  patients[0].has_administrator = false;
  patients[0].password_policy = false;
  patients[1].socket = Missing(patients[1].socket.path);
  patients[2].runtime_directory.mode = S_IFDIR | 0777;
  patients[2].store_files[1] = Seen("/var/lib/vigila/vigila.db-wal", S_IFREG | 0600, 0);
  patients[3].socket.owner = 1234567;
  patients[3].store_files[0].mode = S_IFREG | 0644;
  patients[4].bus.transport = Transport::kBroker;
  patients[4].key = Missing(patients[4].key.path);
  patients[5].admin_role = patients[5].service_role = false;
  patients[5].store_directory = Missing("/var/lib/vigila");
  patients[6].socket = Hidden(patients[6].socket.path);
  patients[6].now = 0;
  patients[7].runtime_directory = Hidden("/run/vigila");
  patients[7].key.owner = 0;
  patients[8].key.mode = S_IFREG | 0644;
  patients[8].gateway.failure = "Connection refused";
  patients[9].space->bytes = 0;
  patients[9].service_role = false;
  patients[10].socket.mode = S_IFREG | 0644;
  patients[10].store_directory.mode = S_IFDIR | 0777;
  patients[11].runtime_directory = Missing("/run/vigila");
  for (const DoctorFacts& facts : patients) {
    std::istringstream lines(RenderFindings(Diagnose(facts)));
    for (std::string line; std::getline(lines, line);) EXPECT_LE(line.size(), 80u) << line;
  }
}

}  // namespace
}  // namespace vigilactl
