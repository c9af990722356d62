#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <string>
#include <vector>

#include "support/daemon_process.h"
#include "support/raw_socket.h"

namespace {

using support::DaemonProcess;
using support::Fd;
using support::Finished;
using Values = std::vector<tevra::msgbus::MsgBusMsg::Value>;
namespace wire = tevra::msgbus::wire;

constexpr uid_t kNobody = 65534;
constexpr gid_t kServiceGroup = 61001;
constexpr gid_t kAdminGroup = 61002;
constexpr char kInterface[] = "tevra.interfaces.ISecurityProvider";

Fd ConnectTo(const std::string& path) {
  Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) fd.Close();
  return fd;
}

// A client that speaks the wire and knows nothing of the contract.
class RawClient {
 public:
  explicit RawClient(const DaemonProcess& device)
      : socket_(support::RawSocket::ConnectTo(device.ServiceSocket())) {
    socket_.Write(support::RawHello());
    EXPECT_FALSE(socket_.ReadFrame().empty());
  }

  void Send(const std::string& interface, const std::string& member, const Values& values) {
    EXPECT_TRUE(socket_.Write(support::RawCall(interface, member, values)));
  }
  // Answers the name of the error; empty without one.
  std::string Call(const std::string& interface, const std::string& member, const Values& values) {
    Send(interface, member, values);
    return ErrorOfAnswer();
  }
  // Calls with values that are in no form.
  std::string CallWith(const std::string& member, const std::string& malformed) {
    const std::string body =
        support::RawCall(kInterface, member).substr(wire::kLengthBytes) + malformed;
    socket_.Write(support::RawLength(static_cast<uint32_t>(body.size())) + body);
    return ErrorOfAnswer();
  }

 private:
  std::string ErrorOfAnswer() {
    const std::string body = socket_.ReadFrame();
    const auto frame = wire::ParseBody(body);
    if (!frame) return "no answer";
    return frame->kind == wire::Kind::kError ? std::string(frame->member) : "";
  }

  support::RawSocket socket_;
};

class Callers : public testing::Test {
 protected:
  void Start() {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  void ExpectStillServes() {
    const Finished end = device_.Ctl({"user", "list"});
    EXPECT_EQ(end.exit_code, 0) << end.err << device_.Log();
    EXPECT_EQ(end.out,
              "NAME    GROUP   STATE  EXPIRES  LAST LOGON  SESSIONS\n"
              "nobody  nobody  ok     -        -           -\n");
  }
  // vigilactl as the user nobody with these further groups.
  Finished AsNobody(std::vector<std::string> arguments, const std::vector<gid_t>& groups,
                    const std::string& input = "") {
    support::ProgramOptions options;
    options.identity = support::Identity{kNobody, kNobody, groups};
    options.input = input;
    return device_.Ctl(std::move(arguments), options);
  }
  static bool CanBeNobody() {
    if (geteuid() != 0) return false;
    support::ProgramOptions options;
    options.identity = support::Identity{kNobody, kNobody, {}};
    return support::RunProgram({VIGILACTL_PATH, "--version"}, options).exit_code == 0;
  }

  DaemonProcess device_;
};

TEST_F(Callers, WithoutARoleAreRefusedEverything) {
  if (!CanBeNobody()) GTEST_SKIP() << "needs root, and programs that everybody may run";
  Start();
  const std::vector<std::vector<std::string>> verbs = {{"status"},
                                                       {"user", "list"},
                                                       {"user", "unlock", "anna"},
                                                       {"session", "list"},
                                                       {"session", "end", "0123456789abcdef"},
                                                       {"session", "end", "--user", "anna"},
                                                       {"explain", "anna", "/jpeg/1"},
                                                       {"rule", "effect", "/jpeg*", "true"},
                                                       {"user", "delete", "anna"},
                                                       {"whoami", "12345678"},
                                                       {"authorize", "12345678", "/system"},
                                                       {"paths", "NO_TOKEN"},
                                                       {"permissions", "NO_TOKEN"},
                                                       {"protected", "/system"},
                                                       {"logout", "12345678"},
                                                       {"invalidate", "--all"},
                                                       {"passphrase", "list"},
                                                       {"passphrase", "show", "_x"},
                                                       {"passphrase", "delete", "_x"},
                                                       {"rule", "get", "/system"},
                                                       {"rule", "set", "/jpeg*", "true"},
                                                       {"rule", "list"}};
  for (const auto& verb : verbs) {
    const Finished end = AsNobody(verb, {});
    EXPECT_EQ(end.exit_code, 4) << testing::PrintToString(verb) << end.out << end.err;
    EXPECT_NE(end.err.find("not permitted"), std::string::npos) << end.err;
  }
  const Finished login = AsNobody({"login", "anna", "--password-stdin"}, {}, "secret");
  EXPECT_EQ(login.exit_code, 4) << login.err;
  EXPECT_NE(login.err.find("service"), std::string::npos) << "the missing role: " << login.err;
  const Finished add =
      AsNobody({"user", "add", "anna", "-g", "1", "--password-stdin", "--json"}, {}, "secret");
  EXPECT_EQ(add.exit_code, 4);
  EXPECT_EQ(add.out.rfind("{\"Exit\":4,\"Message\":\"not permitted", 0), 0u) << add.out;
  EXPECT_NE(add.out.find("admin"), std::string::npos) << "the missing role: " << add.out;
  ExpectStillServes();
  EXPECT_EQ(device_.Ctl({"rule", "get", "/jpeg*"}).out, "{88049574-465a-4f41-89d4-d6d517e8c218}\n");
  EXPECT_NE(device_.Log().find("65534"), std::string::npos)
      << "refusals are logged: " << device_.Log();
}

TEST_F(Callers, HoldTheRolesOfTheirGroupsAndNoOthers) {
  if (!CanBeNobody()) GTEST_SKIP() << "needs root, and programs that everybody may run";
  device_.Set("Access", "service_groups", std::to_string(kServiceGroup));
  device_.Set("Access", "admin_groups", std::to_string(kAdminGroup));
  Start();
  EXPECT_EQ(AsNobody({"protected", "/system"}, {kServiceGroup}).exit_code, 0);
  EXPECT_EQ(AsNobody({"user", "list"}, {kServiceGroup}).exit_code, 4);
  EXPECT_EQ(AsNobody({"rule", "get", "/system"}, {kServiceGroup}).exit_code, 0);
  EXPECT_EQ(AsNobody({"rule", "set", "/jpeg*", "true"}, {kServiceGroup}).exit_code, 4);
  EXPECT_EQ(AsNobody({"user", "list"}, {kAdminGroup}).exit_code, 0);
  EXPECT_EQ(AsNobody({"protected", "/system"}, {kAdminGroup}).exit_code, 4);
  EXPECT_EQ(AsNobody({"rule", "set", "/ws/*", "true"}, {kAdminGroup}).exit_code, 0);
  const Finished status = AsNobody({"status"}, {kServiceGroup});
  EXPECT_EQ(status.exit_code, 0) << status.err;
  EXPECT_NE(status.out.find("not shown: the caller lacks the role admin"), std::string::npos)
      << status.out;
  const Finished json = AsNobody({"status", "--json"}, {kServiceGroup});
  EXPECT_NE(json.out.find("\"Accounts\":null"), std::string::npos) << json.out;
  EXPECT_EQ(AsNobody({"status"}, {kServiceGroup, kAdminGroup}).exit_code, 0);
}

TEST_F(Callers, OfOneUserCannotTakeEveryConnection) {
  if (!CanBeNobody()) GTEST_SKIP() << "needs root, and programs that everybody may run";
  Start();
  int ready[2], finish[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  ASSERT_EQ(pipe2(finish, O_CLOEXEC), 0);
  const std::string socket_path = device_.ServiceSocket();
  const pid_t child = fork();
  if (child == 0) {
    const rlimit limit = {2048, 2048};
    setrlimit(RLIMIT_NOFILE, &limit);
    if (setgroups(0, nullptr) != 0 || setgid(kNobody) != 0 || setuid(kNobody) != 0) _exit(1);
    std::vector<Fd> connections;
    for (int i = 0; i < 1000; ++i) connections.push_back(ConnectTo(socket_path));
    if (write(ready[1], "x", 1) != 1) _exit(1);
    char byte = 0;
    _exit(read(finish[0], &byte, 1) == 1 ? 0 : 1);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  for (int i = 0; i < 5; ++i) ExpectStillServes();
  ASSERT_EQ(write(finish[1], "x", 1), 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
  for (const int fd : {ready[0], ready[1], finish[0], finish[1]}) close(fd);
  ExpectStillServes();
}

TEST_F(Callers, MayComeAndGoAThousandTimes) {
  Start();
  for (int i = 0; i < 1000; ++i) ConnectTo(device_.ServiceSocket());
  ExpectStillServes();
}

TEST_F(Callers, ThatVanishBeforeTheReplyAreForgotten) {
  Start();
  for (int i = 0; i < 50; ++i) RawClient(device_).Send(kInterface, "GetUsers", {});
  ExpectStillServes();
}

TEST_F(Callers, AreToldOfAWrongSignature) {
  Start();
  RawClient client(device_);
  const std::string invalid = "org.freedesktop.DBus.Error.InvalidArgs";
  EXPECT_EQ(client.Call(kInterface, "IsProtected", {7}), invalid);
  EXPECT_EQ(client.Call(kInterface, "IsProtected", {std::vector<std::string>{"/system"}}), invalid);
  EXPECT_EQ(client.CallWith("IsProtected", "d12345678"), invalid);
  EXPECT_EQ(client.Call(kInterface, "IsProtected", {}), invalid);
  const std::string path = "/system";
  EXPECT_EQ(client.Call(kInterface, "IsProtected", {path, path}), invalid);
  EXPECT_EQ(client.Call(kInterface, "IsProtected", {path}), "");
  ExpectStillServes();
}

TEST_F(Callers, AreToldOfAnUnknownOperation) {
  Start();
  RawClient client(device_);
  EXPECT_EQ(client.Call(kInterface, "Frobnicate", {}), "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(client.Call("tevra.interfaces.Other", "IsProtected", {}),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(client.Call(kInterface, "AllowHttpDigest", {}),
            "org.freedesktop.DBus.Error.NotSupported");
  ExpectStillServes();
}

TEST_F(Callers, MayPassAMebibyteOfArgument) {
  Start();
  RawClient client(device_);
  EXPECT_EQ(client.Call(kInterface, "IsProtected", {std::string(1 << 20, '/')}), "");
  EXPECT_EQ(client.Call(kInterface, "AddUsers", {std::string(1 << 20, '[')}), "");
  ExpectStillServes();
  const Finished login =
      device_.CtlWithSecret(std::string(700000, '\xff'), {"login", "anna", "--json"});
  EXPECT_EQ(login.exit_code, 1) << login.out << login.err;
  ExpectStillServes();
}

TEST_F(Callers, ThatDoNotSpeakTheWireAreDropped) {
  Start();
  const std::vector<std::string> openings = {"GET / HTTP/1.1\r\n\r\n", std::string(100000, '\0'),
                                             std::string("\0AUTH \xff\xff\r\n", 10),
                                             support::RawHello() + support::RawLength(0xffffffff)};
  for (const std::string& bytes : openings) {
    support::RawSocket stranger = support::RawSocket::ConnectTo(device_.ServiceSocket());
    stranger.Write(bytes);
    EXPECT_TRUE(stranger.PeerCloses());
  }
  ExpectStillServes();
}

}  // namespace
