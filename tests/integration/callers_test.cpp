#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>

#include <cstring>
#include <string>
#include <vector>

#include "support/daemon_process.h"

namespace {

using support::DaemonProcess;
using support::Fd;
using support::Finished;

constexpr uid_t kNobody = 65534;
constexpr gid_t kServiceGroup = 61001;
constexpr gid_t kAdminGroup = 61002;
constexpr char kInterface[] = "tevra.interfaces.ISecurityProvider";
constexpr char kPath[] = "/tevra/interfaces/ISecurityProvider";

Fd ConnectTo(const std::string& path) {
  Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  if (connect(fd.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) fd.Close();
  return fd;
}

// A client that speaks D-Bus and knows nothing of the contract.
class RawClient {
 public:
  explicit RawClient(const DaemonProcess& device) {
    sd_bus_new(&bus_);
    sd_bus_set_address(bus_, ("unix:path=" + device.ServiceSocket()).c_str());
    started_ = sd_bus_start(bus_);
  }
  ~RawClient() {
    sd_bus_error_free(&error_);
    sd_bus_close_unref(bus_);
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  sd_bus_message* NewCall(const char* interface, const char* member) {
    sd_bus_message* message = nullptr;
    EXPECT_GE(started_, 0) << strerror(-started_);
    EXPECT_GE(sd_bus_message_new_method_call(bus_, &message, nullptr, kPath, interface, member), 0);
    return message;
  }
  // Calls, takes the message over, and answers the name of the error; empty without one.
  std::string Call(sd_bus_message* message) {
    sd_bus_error_free(&error_);
    sd_bus_message* reply = nullptr;
    const int result = sd_bus_call(bus_, message, 10000000, &error_, &reply);
    sd_bus_message_unref(message);
    sd_bus_message_unref(reply);
    if (result >= 0) return "";
    return error_.name != nullptr ? error_.name : strerror(-result);
  }
  void SendAndVanish(sd_bus_message* message) {
    sd_bus_send(bus_, message, nullptr);
    sd_bus_flush(bus_);
    sd_bus_message_unref(message);
    shutdown(sd_bus_get_fd(bus_), SHUT_RDWR);
  }
  std::string ErrorText() const { return error_.message != nullptr ? error_.message : ""; }

 private:
  sd_bus* bus_ = nullptr;
  int started_ = 0;
  sd_bus_error error_ = SD_BUS_ERROR_NULL;
};

void AppendBytes(sd_bus_message* message, const std::string& bytes) {
  ASSERT_GE(sd_bus_message_append_array(message, 'y', bytes.data(), bytes.size()), 0);
}

class Callers : public testing::Test {
 protected:
  void Start() {
    ASSERT_EQ(device_.LaunchAndAwaitReady(), DaemonProcess::Start::kReady) << device_.Log();
  }
  void ExpectStillServes() {
    const Finished end = device_.Ctl({"user", "list"});
    EXPECT_EQ(end.exit_code, 0) << end.err << device_.Log();
    EXPECT_EQ(end.out, "NAME    GROUP\nnobody  nobody\n");
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
  for (int i = 0; i < 50; ++i) {
    RawClient client(device_);
    client.SendAndVanish(client.NewCall(kInterface, "GetUsers"));
  }
  ExpectStillServes();
}

TEST_F(Callers, AreToldOfAWrongSignature) {
  Start();
  RawClient client(device_);
  sd_bus_message* number = client.NewCall(kInterface, "IsProtected");
  sd_bus_message_append(number, "i", 7);
  EXPECT_EQ(client.Call(number), "org.freedesktop.DBus.Error.InvalidArgs");
  sd_bus_message* text = client.NewCall(kInterface, "IsProtected");
  sd_bus_message_append(text, "s", "/system");
  EXPECT_EQ(client.Call(text), "org.freedesktop.DBus.Error.InvalidArgs");
  sd_bus_message* strange = client.NewCall(kInterface, "IsProtected");
  sd_bus_message_append(strange, "a{sv}", 1, "key", "d", 1.5);
  EXPECT_EQ(client.Call(strange), "org.freedesktop.DBus.Error.InvalidArgs");
  EXPECT_EQ(client.Call(client.NewCall(kInterface, "IsProtected")),
            "org.freedesktop.DBus.Error.InvalidArgs");
  sd_bus_message* surplus = client.NewCall(kInterface, "IsProtected");
  AppendBytes(surplus, "/system");
  AppendBytes(surplus, "/system");
  EXPECT_EQ(client.Call(surplus), "org.freedesktop.DBus.Error.InvalidArgs");
  sd_bus_message* right = client.NewCall(kInterface, "IsProtected");
  AppendBytes(right, "/system");
  EXPECT_EQ(client.Call(right), "") << client.ErrorText();
  ExpectStillServes();
}

TEST_F(Callers, AreToldOfAnUnknownOperation) {
  Start();
  RawClient client(device_);
  EXPECT_EQ(client.Call(client.NewCall(kInterface, "Frobnicate")),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(client.Call(client.NewCall("tevra.interfaces.Other", "IsProtected")),
            "org.freedesktop.DBus.Error.UnknownMethod");
  EXPECT_EQ(client.Call(client.NewCall(kInterface, "AllowHttpDigest")),
            "org.freedesktop.DBus.Error.NotSupported");
  ExpectStillServes();
}

TEST_F(Callers, MayPassAMebibyteOfArgument) {
  Start();
  RawClient client(device_);
  sd_bus_message* path = client.NewCall(kInterface, "IsProtected");
  AppendBytes(path, std::string(1 << 20, '/'));
  EXPECT_EQ(client.Call(path), "") << client.ErrorText();
  sd_bus_message* document = client.NewCall(kInterface, "AddUsers");
  AppendBytes(document, std::string(1 << 20, '['));
  EXPECT_EQ(client.Call(document), "") << client.ErrorText();
  ExpectStillServes();
  const Finished login =
      device_.CtlWithSecret(std::string(700000, '\xff'), {"login", "anna", "--json"});
  EXPECT_EQ(login.exit_code, 1) << login.out << login.err;
  ExpectStillServes();
}

TEST_F(Callers, ThatSendNoDBusAreDropped) {
  Start();
  const std::vector<std::string> openings = {
      "GET / HTTP/1.1\r\n\r\n", std::string(100000, '\0'), std::string("\0AUTH \xff\xff\r\n", 10),
      std::string("\0AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n\x6c\xff\xff\xff", 32)};
  for (const std::string& bytes : openings) {
    const Fd fd = ConnectTo(device_.ServiceSocket());
    ASSERT_GE(fd.Get(), 0);
    send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);
  }
  ExpectStillServes();
}

}  // namespace
