#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/event_log.h"
#include "support/function_handler.h"
#include "support/platform_fixture.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

using osa::Exception;
using support::EventLog;
using support::FunctionHandler;
using Clock = std::chrono::steady_clock;

constexpr const char* kDestination = "tevra.Test";
constexpr const char* kInterface = "tevra.test.ITest";
constexpr const char* kHello = "AUTH EXTERNAL\r\nDATA\r\nBEGIN\r\n";
constexpr const char* kWelcome = "DATA\r\nOK 0123456789abcdef0123456789abcdef\r\n";

#if defined(__SANITIZE_THREAD__)
constexpr bool kUnderThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif
#else
constexpr bool kUnderThreadSanitizer = false;
#endif

// A stream socket that speaks bytes of the test's choice. Every wait is bounded.
class RawSocket {
 public:
  explicit RawSocket(int fd) : fd_(fd) {}
  RawSocket(RawSocket&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  ~RawSocket() { Close(); }

  static RawSocket ConnectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    return RawSocket(fd);
  }

  void Close() {
    if (fd_ >= 0) close(std::exchange(fd_, -1));
  }
  bool Write(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      const ssize_t count = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (count <= 0) return false;
      done += static_cast<size_t>(count);
    }
    return true;
  }
  // What comes until `end` has come or the peer closes.
  std::string ReadUntil(const std::string& end) {
    std::string bytes;
    while (bytes.find(end) == std::string::npos) {
      char buffer[4096];
      pollfd descriptor{fd_, POLLIN, 0};
      if (poll(&descriptor, 1, 10000) != 1) break;
      const ssize_t count = read(fd_, buffer, sizeof buffer);
      if (count <= 0) break;
      bytes.append(buffer, static_cast<size_t>(count));
    }
    return bytes;
  }
  // Whether the peer has closed the connection within ten seconds; what it still said is dropped.
  bool PeerCloses() {
    for (;;) {
      char buffer[65536];
      pollfd descriptor{fd_, POLLIN, 0};
      if (poll(&descriptor, 1, 10000) != 1) return false;
      if (read(fd_, buffer, sizeof buffer) <= 0) return true;
    }
  }
  int fd() const { return fd_; }

 private:
  int fd_;
};

std::string Header(uint32_t body, uint32_t fields) {
  std::string header = {'l', 1, 0, 1};
  for (uint32_t value : {body, 1u, fields}) {
    for (int shift = 0; shift < 32; shift += 8) header += static_cast<char>(value >> shift);
  }
  return header;
}

// A whole call without arguments, as it goes over the wire.
std::string RawCall(const std::string& interface, const std::string& member) {
  std::string fields;
  const auto text = [&fields](char code, char type, const std::string& value) {
    fields.resize((fields.size() + 7) / 8 * 8);
    fields += {code, 1, type, 0, static_cast<char>(value.size()), 0, 0, 0};
    fields += value + '\0';
  };
  text(1, 'o', "/p");
  text(2, 's', interface);
  text(3, 's', member);
  std::string call = Header(0, static_cast<uint32_t>(fields.size())) + fields;
  call.resize((call.size() + 7) / 8 * 8);
  return call;
}

// A destination whose server does what the test says with each connection, on a thread of its own.
class HostileServer {
 public:
  using Behaviour = std::function<void(RawSocket& client)>;

  HostileServer(const std::string& path, Behaviour behaviour) : behaviour_(std::move(behaviour)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(fd_, 64), 0);
    thread_ = std::thread([this] { Run(); });
  }
  ~HostileServer() {
    shutdown(fd_, SHUT_RDWR);
    thread_.join();
    close(fd_);
  }

 private:
  void Run() {
    for (;;) {
      const int client = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) return;
      RawSocket socket(client);
      behaviour_(socket);
    }
  }

  const Behaviour behaviour_;
  int fd_ = -1;
  std::thread thread_;
};

// Takes a client in and reads its first call.
void Welcome(RawSocket& client) {
  client.ReadUntil("BEGIN\r\n");
  client.Write(kWelcome);
  client.ReadUntil(kInterface);
}

// The server side of sd-bus, for answers that are well-formed and wrong.
void ServeOneCall(RawSocket& client, const std::function<void(sd_bus_message* call)>& answer) {
  sd_bus* bus = nullptr;
  sd_id128_t id{};
  ASSERT_GE(sd_bus_new(&bus), 0);
  const int fd = fcntl(client.fd(), F_DUPFD_CLOEXEC, 3);
  ASSERT_GE(sd_bus_set_fd(bus, fd, fd), 0);
  ASSERT_GE(sd_bus_set_server(bus, 1, id), 0);
  ASSERT_GE(sd_bus_set_anonymous(bus, 1), 0);
  ASSERT_GE(sd_bus_start(bus), 0);
  for (bool answered = false;;) {
    sd_bus_message* message = nullptr;
    const int result = sd_bus_process(bus, &message);
    if (result < 0) break;
    if (message != nullptr && sd_bus_message_is_method_call(message, kInterface, nullptr) > 0) {
      if (!answered) answer(message);
      answered = true;
      sd_bus_flush(bus);
    }
    sd_bus_message_unref(message);
    if (result == 0 && sd_bus_wait(bus, 10000000) <= 0) break;
  }
  sd_bus_close_unref(bus);
}

class DirectTransportTest : public ::testing::Test {
 protected:
  std::unique_ptr<MsgBus> NewBus() { return std::make_unique<MsgBus>(); }
  std::string SocketPath() const { return platform_.RuntimeDir() + "/" + kDestination; }

  static MsgBusMsg Request(const std::string& name) {
    return MsgBusMsg(kInterface, name, kDestination);
  }
  static std::unique_ptr<MsgBusMsg> Call(MsgBus& bus, MsgBusMsg message, int timeout_ms = -1) {
    std::unique_ptr<MsgBusMsg> reply;
    bus.SendMsgWaitForReply(message, reply, timeout_ms);
    return reply;
  }
  static std::string FailureOf(MsgBus& bus, const MsgBusMsg& message, int timeout_ms = -1) {
    try {
      const auto reply = Call(bus, message, timeout_ms);
      return reply->IsError() ? "error reply " + reply->ErrorName() : "no failure";
    } catch (const Exception& failure) {
      return failure.what();
    }
  }
  // A server that echoes its arguments under "Echo".
  std::unique_ptr<MsgBus> EchoServer() {
    auto bus = NewBus();
    bus->RegisterMessageHandler("Echo", kInterface, &echo_);
    bus->StartServer(kDestination);
    return bus;
  }
  RawSocket HandshakenClient() {
    RawSocket client = RawSocket::ConnectTo(SocketPath());
    client.Write(std::string(1, '\0') + kHello);
    EXPECT_NE(client.ReadUntil("OK ").find("OK "), std::string::npos);
    return client;
  }

  support::PlatformFixture platform_;
  FunctionHandler echo_{[](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg reply = MsgBusMsg::ReplyTo(message);
    for (const MsgBusMsg::Value& value : message.Body()) reply.Append(value);
    bus.SendReply(reply);
  }};
};

// Names and sockets.

TEST_F(DirectTransportTest, RefusesNamesThatCouldLeaveTheDirectory) {
  auto bus = NewBus();
  for (const char* name : {"", ".", "..", "../x", "a/b", ".hidden", "a b", "a\n", "\xc3\xa9"}) {
    EXPECT_THROW(bus->RegisterDestinationName(name), Exception) << name;
    EXPECT_THROW(Call(*bus, MsgBusMsg(kInterface, "Echo", std::string(name) + "/")), Exception);
    EXPECT_THROW(bus->WatchDestination(name), Exception) << name;
  }
  EXPECT_THROW(bus->RegisterDestinationName(std::string("a\0b", 3)), Exception);
  EXPECT_THROW(bus->RegisterDestinationName(std::string(256, 'a')), Exception);
  EXPECT_NO_THROW(bus->RegisterDestinationName(std::string(255, 'a')));
}

TEST_F(DirectTransportTest, SaysWhenAPathIsTooLongForASocket) {
  auto bus = NewBus();
  EXPECT_THROW(bus->StartServer(std::string(120, 'a')), Exception);
  EXPECT_FALSE(bus->IsRunning());
}

TEST_F(DirectTransportTest, MakesTheDirectoryAndASocketForEverybody) {
  platform_.Set("MsgBus", "runtime_dir", platform_.RuntimeDir() + "/deep/er");
  const mode_t before = umask(077);
  const auto server = EchoServer();
  umask(before);
  struct stat status {};
  ASSERT_EQ(stat((platform_.RuntimeDir() + "/deep/er").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0755u);
  ASSERT_EQ(stat((platform_.RuntimeDir() + "/deep/er/" + kDestination).c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0666u);
}

TEST_F(DirectTransportTest, GivesTheSocketTheConfiguredMode) {
  platform_.Set("MsgBus", "socket_mode", "0600");
  const auto server = EchoServer();
  struct stat status {};
  ASSERT_EQ(stat(SocketPath().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
}

TEST_F(DirectTransportTest, RemovesItsSocketWhenItStops) {
  auto server = EchoServer();
  EXPECT_TRUE(std::filesystem::exists(SocketPath()));
  server->StopServer();
  EXPECT_FALSE(std::filesystem::exists(SocketPath()));
  server->StartServer();
  server.reset();
  EXPECT_FALSE(std::filesystem::exists(SocketPath()));
}

TEST_F(DirectTransportTest, TakesOverWhatADeadServerLeft) {
  {
    const HostileServer dead(SocketPath(), [](RawSocket&) {});
  }
  ASSERT_TRUE(std::filesystem::exists(SocketPath()));
  const auto server = EchoServer();
  EXPECT_FALSE(Call(*NewBus(), Request("Echo"))->IsError());
}

TEST_F(DirectTransportTest, NeverTakesADestinationFromALiveServer) {
  const auto server = EchoServer();
  auto rival = NewBus();
  EXPECT_THROW(rival->StartServer(kDestination), Exception);
  EXPECT_FALSE(rival->IsRunning());
  rival->StartServer();
  EXPECT_THROW(rival->RegisterDestinationName(kDestination), Exception);
  EXPECT_FALSE(Call(*NewBus(), Request("Echo"))->IsError());
}

TEST_F(DirectTransportTest, StartsAllDestinationsOrNone) {
  const auto server = EchoServer();
  auto rival = NewBus();
  rival->RegisterDestinationName("a.First");
  rival->RegisterDestinationName(kDestination);
  EXPECT_THROW(rival->StartServer(), Exception);
  EXPECT_FALSE(std::filesystem::exists(platform_.RuntimeDir() + "/a.First"));
}

TEST_F(DirectTransportTest, RefusesAWrongConfiguration) {
  platform_.Set("MsgBus", "transport", "pigeon");
  EXPECT_THROW(MsgBus(), Exception);
  platform_.Set("MsgBus", "transport", "direct");
  platform_.Set("MsgBus", "service_user", "no such user");
  EXPECT_THROW(MsgBus(), Exception);
  platform_.Set("MsgBus", "service_user", "0");
  platform_.Set("MsgBus", "socket_mode", "rw");
  EXPECT_THROW(MsgBus(), Exception);
  platform_.Set("MsgBus", "socket_mode", "0660");
  EXPECT_NO_THROW(MsgBus());
}

// Failures of calls.

TEST_F(DirectTransportTest, ThrowsAtOnceWithoutAServer) {
  const auto start = Clock::now();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: no server for tevra.Test: No such file or directory");
  {
    const HostileServer dead(SocketPath(), [](RawSocket&) {});
  }
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: no server for tevra.Test: Connection refused");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(DirectTransportTest, NamesTheErrorOfEachWayToFail) {
  const auto server = EchoServer();
  FunctionHandler unimplemented(
      [](IMsgBus&, MsgBusMsg&) { throw Exception(Exception::kUnimplemented); });
  FunctionHandler broken([](IMsgBus&, MsgBusMsg&) { throw Exception("bad \xff text"); });
  FunctionHandler strange([](IMsgBus&, MsgBusMsg&) { throw 1; });
  FunctionHandler silent([](IMsgBus&, MsgBusMsg&) {});
  server->RegisterMessageHandler("Unimplemented", kInterface, &unimplemented);
  server->RegisterMessageHandler("Broken", kInterface, &broken);
  server->RegisterMessageHandler("Strange", kInterface, &strange);
  server->RegisterMessageHandler("Silent", kInterface, &silent);
  auto client = NewBus();
  const auto error = [&](const char* name) {
    const auto reply = Call(*client, Request(name));
    return reply->ErrorName() + ": " + reply->ErrorText();
  };
  EXPECT_EQ(error("Unimplemented"), "org.freedesktop.DBus.Error.NotSupported: unimplemented");
  EXPECT_EQ(error("Broken"), "org.freedesktop.DBus.Error.Failed: bad ? text");
  EXPECT_EQ(error("Strange"), "org.freedesktop.DBus.Error.Failed: unknown exception");
  EXPECT_EQ(error("Silent"), "org.freedesktop.DBus.Error.Failed: no reply");
  EXPECT_EQ(error("Unknown"),
            "org.freedesktop.DBus.Error.UnknownMethod: no such operation: "
            "tevra.test.ITest.Unknown");
}

TEST_F(DirectTransportTest, GivesUpAtTheDeadline) {
  const HostileServer mute(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.PeerCloses();
  });
  auto client = NewBus();
  const auto start = Clock::now();
  EXPECT_EQ(FailureOf(*client, Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(50));
  EXPECT_EQ(FailureOf(*client, Request("Echo"), 0),
            "message bus: no answer from tevra.Test in time");
}

TEST_F(DirectTransportTest, GivesUpAtTheDeadlineOfAServerThatNeverShakesHands) {
  const HostileServer mute(SocketPath(), [](RawSocket& client) { client.PeerCloses(); });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
}

TEST_F(DirectTransportTest, UsesTheConfiguredDeadline) {
  platform_.Set("MsgBus", "timeout_ms", "50");
  const HostileServer mute(SocketPath(), [](RawSocket& client) { client.PeerCloses(); });
  const auto start = Clock::now();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: no answer from tevra.Test in time");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(DirectTransportTest, WaitsForABusyConnectionOnlyUntilTheDeadline) {
  platform_.Set("MsgBus", "pool_size", "1");
  std::promise<void> entered;
  std::promise<void> leave;
  FunctionHandler slow([&](IMsgBus& bus, MsgBusMsg& message) {
    entered.set_value();
    leave.get_future().wait();
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  });
  const auto server = EchoServer();
  server->RegisterMessageHandler("Slow", kInterface, &slow);
  auto client = NewBus();
  std::thread first([&] { EXPECT_FALSE(Call(*client, Request("Slow"))->IsError()); });
  entered.get_future().wait();
  EXPECT_EQ(FailureOf(*client, Request("Echo"), 50), "message bus: every connection is busy");
  leave.set_value();
  first.join();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(DirectTransportTest, FailsAtOnceWhenTheServerDiesInTheMiddle) {
  const HostileServer dying(SocketPath(), [](RawSocket& client) { Welcome(client); });
  const auto start = Clock::now();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(DirectTransportTest, ReconnectsToARestartedServerWithoutAWord) {
  auto server = EchoServer();
  auto client = NewBus();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    server.reset();
    server = EchoServer();
  }
}

TEST_F(DirectTransportTest, NeverAsksTwiceWhatMayHaveBeenDone) {
  std::atomic<int> asked{0};
  const HostileServer dying(SocketPath(), [&asked](RawSocket& client) {
    Welcome(client);
    ++asked;
  });
  auto client = NewBus();
  EXPECT_NE(FailureOf(*client, Request("Echo")), "no failure");
  EXPECT_EQ(asked, 1);
}

TEST_F(DirectTransportTest, RefusesTooLongMessagesBeforeSendingThem) {
  platform_.Set("MsgBus", "max_message_bytes", "4096");
  const auto server = EchoServer();
  auto client = NewBus();
  MsgBusMsg request = Request("Echo");
  request.Append(std::string(4096, 'x'));
  EXPECT_EQ(FailureOf(*client, request), "message bus: the message to tevra.Test is too long");
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(DirectTransportTest, AnswersATooLongReplyWithAnError) {
  platform_.Set("MsgBus", "max_message_bytes", "4096");
  const auto server = EchoServer();
  FunctionHandler giant([](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(MsgBusMsg::ReplyTo(message).Append(std::string(5000, 'x')));
  });
  server->RegisterMessageHandler("Giant", kInterface, &giant);
  EXPECT_EQ(FailureOf(*NewBus(), Request("Giant")),
            "error reply org.freedesktop.DBus.Error.Failed");
}

TEST_F(DirectTransportTest, DoesNotWaitForItselfInAHandler) {
  const auto server = EchoServer();
  std::string failure;
  FunctionHandler nested([&](IMsgBus& bus, MsgBusMsg& message) {
    failure = FailureOf(static_cast<MsgBus&>(bus), Request("Echo"));
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  });
  server->RegisterMessageHandler("Nested", kInterface, &nested);
  EXPECT_EQ(FailureOf(*NewBus(), Request("Nested")), "no failure");
  EXPECT_EQ(failure, "message bus: a handler cannot wait for its own bus");
  EXPECT_EQ(FailureOf(*server, Request("Echo")), "no failure");
}

TEST_F(DirectTransportTest, DoesNotConnectToItselfInAHandler) {
  auto server = EchoServer();
  std::string failure;
  FunctionHandler telling([&failure](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg one_way = Request("Echo");
    try {
      bus.SendMsg(one_way);
    } catch (const Exception& refused) {
      failure = refused.what();
    }
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  });
  server->RegisterMessageHandler("Tell", kInterface, &telling);
  const auto asked = Clock::now();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Tell")), "no failure");
  EXPECT_LT(Clock::now() - asked, std::chrono::seconds(4));
  EXPECT_EQ(failure, "message bus: a handler cannot wait for its own bus");
  server.reset();
}

TEST_F(DirectTransportTest, TellsWhetherANameIsServedByAnybody) {
  auto asking = NewBus();
  EXPECT_FALSE(asking->HasServer(kDestination));
  auto server = EchoServer();
  EXPECT_TRUE(asking->HasServer(kDestination));
  server->StopServer();
  EXPECT_FALSE(asking->HasServer(kDestination));
  server.reset();
  {
    const HostileServer foreign(SocketPath(), [](RawSocket&) {});
    EXPECT_TRUE(asking->HasServer(kDestination));
  }
  EXPECT_TRUE(std::filesystem::exists(SocketPath()));
  EXPECT_FALSE(asking->HasServer(kDestination)) << "what a dead server left is nobody";
  EXPECT_THROW(asking->HasServer("../x"), Exception);
}

TEST_F(DirectTransportTest, LetsAHandlerStopTheServer) {
  const auto server = EchoServer();
  FunctionHandler stop([](IMsgBus& bus, MsgBusMsg&) { bus.StopServer(); });
  server->RegisterMessageHandler("Stop", kInterface, &stop);
  EXPECT_NE(FailureOf(*NewBus(), Request("Stop")), "no failure");
  EXPECT_FALSE(server->IsRunning());
  server->StartServer();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

TEST_F(DirectTransportTest, DropsAReplyThatComesTooLate) {
  const auto server = EchoServer();
  std::unique_ptr<MsgBusMsg> late;
  FunctionHandler keep([&](IMsgBus& bus, MsgBusMsg& message) {
    late = std::make_unique<MsgBusMsg>(MsgBusMsg::ReplyTo(message));
    bus.SendReply(*late);
  });
  server->RegisterMessageHandler("Keep", kInterface, &keep);
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Keep")), "no failure");
  server->SendReply(*late);
  server->SendReply(MsgBusMsg::ReplyTo(Request("Echo")));
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(DirectTransportTest, IsDestroyedRightAfterCallsHaveEnded) {
  for (int i = 0; i < 10; ++i) {
    const auto server = EchoServer();
    auto client = NewBus();
    client->WatchDestination(kDestination);
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  }
}

size_t OpenDescriptors() {
  size_t count = 0;
  for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    ++count;
  }
  return count;
}

TEST_F(DirectTransportTest, LeaksNoDescriptor) {
  const size_t before = OpenDescriptors();
  for (int i = 0; i < 3; ++i) {
    const auto server = EchoServer();
    auto client = NewBus();
    client->WatchDestination(kDestination);
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    server->StopServer();
    EXPECT_NE(FailureOf(*client, Request("Echo")), "no failure");
  }
  EXPECT_EQ(OpenDescriptors(), before);
}

// Servers that misbehave.

TEST_F(DirectTransportTest, RefusesAServerOfAnotherUser) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can play another user";
  int ready[2];
  ASSERT_EQ(pipe2(ready, O_CLOEXEC), 0);
  ASSERT_EQ(chmod(platform_.RuntimeDir().c_str(), 0777), 0);
  ASSERT_EQ(chmod(platform_.Dir().Path().c_str(), 0755), 0);
  const std::string path = SocketPath();
  const pid_t other = fork();
  if (other == 0) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool listens = setresuid(65534, 65534, 65534) == 0 &&
                         bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                         listen(fd, 8) == 0 && write(ready[1], "", 1) == 1;
    if (listens) pause();
    _exit(1);
  }
  close(ready[1]);
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: tevra.Test refused: it is served by user 65534");
  platform_.Set("MsgBus", "service_user", "65534");
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
  kill(other, SIGKILL);
  waitpid(other, nullptr, 0);
  close(ready[0]);
}

TEST_F(DirectTransportTest, RefusesAGiantReplyAtItsHeader) {
  const HostileServer giant(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write(Header(100 << 20, 100) + std::string(1000, 'x'));
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
}

TEST_F(DirectTransportTest, RefusesGarbage) {
  for (const std::string& garbage :
       {std::string(64, '\0'), std::string("HTTP/1.1 200 OK\r\n\r\n"), Header(0, 8) + "garbage!"}) {
    std::filesystem::remove(SocketPath());
    const HostileServer server(SocketPath(), [&garbage](RawSocket& client) {
      Welcome(client);
      client.Write(garbage);
      client.PeerCloses();
    });
    EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
  }
}

TEST_F(DirectTransportTest, WaitsOnlyUntilTheDeadlineForTheRestOfAHeader) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write("l");
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
}

TEST_F(DirectTransportTest, RefusesAHandshakeOfNonsense) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    client.ReadUntil("BEGIN\r\n");
    client.Write("NO\r\nNO\r\n");
    client.PeerCloses();
  });
  const auto start = Clock::now();
  EXPECT_NE(FailureOf(*NewBus(), Request("Echo")), "no failure");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(DirectTransportTest, ThrowsForAReplyOfWrongType) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    ServeOneCall(client, [](sd_bus_message* call) {
      sd_bus_reply_method_return(call, "st", "text", uint64_t{1});
    });
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: malformed reply from tevra.Test");
}

TEST_F(DirectTransportTest, TakesTheFirstOfTwoAnswersAndNeverTheSecondForAnothers) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    ServeOneCall(client, [](sd_bus_message* call) {
      sd_bus_reply_method_return(call, "b", 1);
      sd_bus_reply_method_return(call, "b", 0);
    });
  });
  auto client = NewBus();
  const auto reply = Call(*client, Request("Echo"));
  EXPECT_EQ(reply->Body(), std::vector<MsgBusMsg::Value>{true});
  // The second call gets no answer from this server, least of all the spare one.
  EXPECT_EQ(FailureOf(*client, Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
}

TEST_F(DirectTransportTest, IgnoresAnswersToOtherCalls) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    // A reply to serial 999 without a body.
    const std::string fields = {5, 1, 'u', 0, static_cast<char>(0xe7), 3, 0, 0};
    std::string reply = Header(0, 8) + fields;
    reply[1] = 2;
    client.Write(reply);
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 100),
            "message bus: no answer from tevra.Test in time");
}

// Clients that misbehave. After each of them another client is served.

class HostileClientTest : public DirectTransportTest {
 protected:
  void SetUp() override { server_ = EchoServer(); }
  void TearDown() override {
    EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
    server_.reset();
  }
  std::unique_ptr<MsgBus> server_;
};

TEST_F(HostileClientTest, IsDroppedForARequestOverTheBound) {
  RawSocket client = HandshakenClient();
  client.Write(Header((2 << 20) + 1, 16));
  EXPECT_TRUE(client.PeerCloses());
}

TEST_F(HostileClientTest, IsDroppedForARequestOverTheBoundRightBehindTheHandshake) {
  RawSocket client = RawSocket::ConnectTo(SocketPath());
  client.Write(std::string(1, '\0') + kHello + Header(100 << 20, 16));
  EXPECT_TRUE(client.PeerCloses());
}

TEST_F(HostileClientTest, IsDroppedForGarbage) {
  RawSocket before = RawSocket::ConnectTo(SocketPath());
  before.Write("GET / HTTP/1.1\r\nHost: camera\r\n\r\n");
  EXPECT_TRUE(before.PeerCloses());
  RawSocket after = HandshakenClient();
  after.Write("GET / HTTP/1.1\r\nHost: camera\r\n\r\n");
  EXPECT_TRUE(after.PeerCloses());
}

TEST_F(HostileClientTest, IsDroppedForAHeaderThatLies) {
  RawSocket client = HandshakenClient();
  client.Write(Header(0, 64) + std::string(64, '\xff'));
  EXPECT_TRUE(client.PeerCloses());
  RawSocket in_parts = HandshakenClient();
  in_parts.Write(Header(0, 64));
  in_parts.Write(std::string(64, '\xff'));
  EXPECT_TRUE(in_parts.PeerCloses());
}

TEST_F(HostileClientTest, MayWriteAByteAtATime) {
  RawSocket client = HandshakenClient();
  const std::string call = RawCall("org.freedesktop.DBus.Peer", "Ping");
  for (char byte : call) ASSERT_TRUE(client.Write(std::string(1, byte)));
  pollfd descriptor{client.fd(), POLLIN, 0};
  ASSERT_EQ(poll(&descriptor, 1, 10000), 1);
  char type[2] = {0, 0};
  ASSERT_EQ(recv(client.fd(), type, 2, MSG_PEEK | MSG_WAITALL), 2);
  EXPECT_EQ(type[1], 2);
}

TEST_F(HostileClientTest, MayVanishInTheMiddleOfAnything) {
  RawSocket::ConnectTo(SocketPath());
  {
    RawSocket client = RawSocket::ConnectTo(SocketPath());
    client.Write(std::string(1, '\0') + "AUTH");
  }
  {
    RawSocket client = HandshakenClient();
    client.Write("l\1");
  }
  {
    RawSocket client = HandshakenClient();
    client.Write(Header(1000, 64));
  }
}

TEST_F(HostileClientTest, MayVanishBeforeItsReply) {
  std::promise<void> entered;
  std::promise<void> leave;
  FunctionHandler slow([&](IMsgBus& bus, MsgBusMsg& message) {
    entered.set_value();
    leave.get_future().wait();
    bus.SendReply(MsgBusMsg::ReplyTo(message).Append(std::string(1 << 20, 'x')));
  });
  server_->RegisterMessageHandler("Slow", kInterface, &slow);
  {
    RawSocket impatient = HandshakenClient();
    impatient.Write(RawCall(kInterface, "Slow"));
    entered.get_future().wait();
  }
  leave.set_value();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  server_->UnregisterMessageHandler(&slow);
}

TEST_F(HostileClientTest, GetsAnErrorForArgumentsOfForeignTypes) {
  RawSocket client = RawSocket::ConnectTo(SocketPath());
  sd_bus* bus = nullptr;
  ASSERT_GE(sd_bus_new(&bus), 0);
  const int fd = fcntl(client.fd(), F_DUPFD_CLOEXEC, 3);
  ASSERT_GE(sd_bus_set_fd(bus, fd, fd), 0);
  ASSERT_GE(sd_bus_start(bus), 0);
  for (int i = 0; i < 2; ++i) {
    sd_bus_error error = SD_BUS_ERROR_NULL;
    EXPECT_LT(sd_bus_call_method(bus, nullptr, "/any/path", kInterface, "Echo", &error, nullptr,
                                 "sd", "text", 1.5),
              0);
    EXPECT_STREQ(error.name, "org.freedesktop.DBus.Error.InvalidArgs");
    sd_bus_error_free(&error);
  }
  EXPECT_GE(
      sd_bus_call_method(bus, nullptr, "/any/path", kInterface, "Echo", nullptr, nullptr, "i", 7),
      0);
  sd_bus_close_unref(bus);
}

TEST_F(DirectTransportTest, DropsAClientThatNeverShakesHands) {
  platform_.Set("MsgBus", "handshake_timeout_ms", "50");
  const auto server = EchoServer();
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  RawSocket silent = RawSocket::ConnectTo(SocketPath());
  RawSocket slow = RawSocket::ConnectTo(SocketPath());
  slow.Write(std::string(1, '\0') + "AUTH");
  EXPECT_TRUE(silent.PeerCloses());
  EXPECT_TRUE(slow.PeerCloses());
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(DirectTransportTest, TakesNoMoreConnectionsThanItsBoundOfOneUser) {
  platform_.Set("MsgBus", "max_connections_per_uid", "3");
  const auto server = EchoServer();
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  RawSocket second = HandshakenClient();
  RawSocket third = HandshakenClient();
  RawSocket fourth = RawSocket::ConnectTo(SocketPath());
  EXPECT_TRUE(fourth.PeerCloses());
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  second.Close();
  // A place is free again as soon as the server has seen the end.
  for (bool admitted = false; !admitted;) {
    RawSocket again = RawSocket::ConnectTo(SocketPath());
    again.Write(std::string(1, '\0') + kHello);
    admitted = again.ReadUntil("OK ").find("OK ") != std::string::npos;
  }
}

TEST_F(DirectTransportTest, TakesNoMoreConnectionsThanItsBoundOfAllUsers) {
  platform_.Set("MsgBus", "max_connections", "2");
  const auto server = EchoServer();
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  RawSocket second = HandshakenClient();
  RawSocket third = RawSocket::ConnectTo(SocketPath());
  EXPECT_TRUE(third.PeerCloses());
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(DirectTransportTest, ServesOthersWhileAThousandConnect) {
  const auto server = EchoServer();
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  std::vector<RawSocket> crowd;
  for (int i = 0; i < 1000; ++i) {
    crowd.push_back(RawSocket::ConnectTo(SocketPath()));
    if (i % 100 != 0) continue;
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  }
  EXPECT_TRUE(crowd.back().PeerCloses());
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

// Broadcasts.

TEST_F(DirectTransportTest, DropsAReceiverThatDoesNotReadAndNobodyElse) {
  platform_.Set("MsgBus", "max_output_bytes", "65536");
  const auto server = EchoServer();
  // A subscriber that never reads again.
  RawSocket idle = HandshakenClient();
  idle.Write(RawCall("tevra.msgbus.Peer", "Subscribe"));
  pollfd answered{idle.fd(), POLLIN, 0};
  ASSERT_EQ(poll(&answered, 1, 10000), 1);

  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto listener = NewBus();
  listener->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  listener->RegisterMessageHandler("Big", kInterface, &note);
  listener->WatchDestination(kDestination);
  ASSERT_TRUE(log.WaitFor(1));
  MsgBusMsg big(kInterface, "Big", "");
  big.Append(std::string(100000, 'x'));
  constexpr size_t kCount = 400;
  for (size_t i = 0; i < kCount; ++i) {
    server->SendMsg(big);
    ASSERT_TRUE(log.WaitFor(2 + i));
  }
  EXPECT_TRUE(idle.PeerCloses());
  EXPECT_EQ(FailureOf(*listener, Request("Echo")), "no failure");
  listener.reset();
}

TEST_F(DirectTransportTest, NoticesAServerSoonWhereverTheDirectoryWas) {
  platform_.Set("MsgBus", "runtime_dir", platform_.RuntimeDir() + "/not/yet");
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg&) { log.Add("appeared"); });
  auto listener = NewBus();
  listener->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  listener->WatchDestination(kDestination);
  for (size_t i = 1; i <= 3; ++i) {
    auto server = EchoServer();
    ASSERT_TRUE(log.WaitFor(i));
    server.reset();
    std::filesystem::remove_all(platform_.RuntimeDir() + "/not");
  }
  listener.reset();
}

// A server that would not have the listening connection says so again and again: what it changes
// meanwhile is not heard of.
TEST_F(DirectTransportTest, SaysVanishedOfAServerThatRefusesToBeListenedTo) {
  platform_.Set("MsgBus", "max_connections_per_uid", "1");
  const auto server = EchoServer();
  auto listener = NewBus();
  EXPECT_EQ(FailureOf(*listener, Request("Echo")), "no failure");
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) {
    log.Add(message.GetName() + " " + std::get<std::string>(message.Body().at(0)));
  });
  for (const char* event : {IMsgBus::kDestinationAppeared, IMsgBus::kDestinationVanished}) {
    listener->RegisterMessageHandler(event, IMsgBus::kLocalInterface, &note);
  }
  listener->WatchDestination(kDestination);
  ASSERT_TRUE(log.WaitFor(2));
  EXPECT_EQ(FailureOf(*listener, Request("Echo")), "no failure") << "calls get through";
  listener.reset();
  for (const std::string& event : log.Events()) {
    EXPECT_EQ(event, std::string("DestinationVanished ") + kDestination);
  }
}

TEST_F(DirectTransportTest, SendsBroadcastsBeforeTheReplyOfTheCallThatCausedThem) {
  const auto server = EchoServer();
  EventLog log;
  FunctionHandler change([](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg changed(kInterface, "Changed", "");
    bus.SendMsg(changed);
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  });
  server->RegisterMessageHandler("Change", kInterface, &change);
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto client = NewBus();
  client->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  client->RegisterMessageHandler("Changed", kInterface, &note);
  client->WatchDestination(kDestination);
  ASSERT_TRUE(log.WaitFor(1));
  for (size_t i = 0; i < 20; ++i) {
    EXPECT_EQ(FailureOf(*client, Request("Change")), "no failure");
    ASSERT_TRUE(log.WaitFor(2 + i));
  }
  client.reset();
}

TEST_F(DirectTransportTest, BroadcastsNothingWhileItServesNobody) {
  auto bus = NewBus();
  MsgBusMsg changed(kInterface, "Changed", "");
  EXPECT_NO_THROW(bus->SendMsg(changed));
  EXPECT_EQ(changed.Serial(), 1u);
}

// Fork.

TEST_F(DirectTransportTest, WorksInAChildAfterForkAndStaysWholeInTheParent) {
  if (kUnderThreadSanitizer) GTEST_SKIP() << "the sanitizer allows no threads after fork";
  const auto server = EchoServer();
  auto client = NewBus();
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  client->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  client->WatchDestination(kDestination);
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  ASSERT_TRUE(log.WaitFor(1));
  for (int i = 0; i < 3; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(20);
      bool good = FailureOf(*client, Request("Echo")) == "no failure";
      good = log.WaitFor(2) && good;  // the watch follows the bus
      client.reset();
      _exit(good ? 0 : 1);
    }
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  }
  client.reset();
}

TEST_F(DirectTransportTest, AChildThatNeverUsesTheBusKeepsNothingOfIt) {
  auto server = EchoServer();
  int hold[2];
  ASSERT_EQ(pipe2(hold, O_CLOEXEC), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(hold[1]);
    char byte = 0;
    [[maybe_unused]] const ssize_t ended = read(hold[0], &byte, 1);
    _exit(0);
  }
  // The lock and the listening socket are the parent's alone, so a successor may start.
  server.reset();
  server = EchoServer();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  close(hold[1]);
  close(hold[0]);
  waitpid(child, nullptr, 0);
}

TEST_F(DirectTransportTest, AChildMayDestroyABusItNeverUsed) {
  auto server = EchoServer();
  const pid_t child = fork();
  if (child == 0) {
    alarm(20);
    server.reset();
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status));
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

}  // namespace
}  // namespace tevra::msgbus
