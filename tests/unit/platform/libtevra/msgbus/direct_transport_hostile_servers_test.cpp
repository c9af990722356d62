#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "direct_transport_fixture.h"
#include "hostile_server.h"
#include "raw_socket.h"
#include "tevra/msgbus/msg_bus.h"

namespace tevra::msgbus {
namespace {

using Clock = std::chrono::steady_clock;

using DirectTransportHostileServers = DirectTransportTest;

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

TEST_F(DirectTransportHostileServers, RefusesAServerOfAnotherUser) {
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

TEST_F(DirectTransportHostileServers, RefusesAGiantReplyAtItsHeader) {
  const HostileServer giant(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write(RawHeader(100 << 20, 100) + std::string(1000, 'x'));
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
}

TEST_F(DirectTransportHostileServers, RefusesGarbage) {
  for (const std::string& garbage : {std::string(64, '\0'), std::string("HTTP/1.1 200 OK\r\n\r\n"),
                                     RawHeader(0, 8) + "garbage!"}) {
    std::filesystem::remove(SocketPath());
    const HostileServer server(SocketPath(), [&garbage](RawSocket& client) {
      Welcome(client);
      client.Write(garbage);
      client.PeerCloses();
    });
    EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
  }
}

TEST_F(DirectTransportHostileServers, WaitsOnlyUntilTheDeadlineForTheRestOfAHeader) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write("l");
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
}

TEST_F(DirectTransportHostileServers, RefusesAHandshakeOfNonsense) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    client.ReadUntil("BEGIN\r\n");
    client.Write("NO\r\nNO\r\n");
    client.PeerCloses();
  });
  const auto start = Clock::now();
  EXPECT_NE(FailureOf(*NewBus(), Request("Echo")), "no failure");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(DirectTransportHostileServers, ThrowsForAReplyOfWrongType) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    ServeOneCall(client, [](sd_bus_message* call) {
      sd_bus_reply_method_return(call, "st", "text", uint64_t{1});
    });
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: malformed reply from tevra.Test");
}

TEST_F(DirectTransportHostileServers, TakesTheFirstOfTwoAnswersAndNeverTheSecondForAnothers) {
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

TEST_F(DirectTransportHostileServers, IgnoresAnswersToOtherCalls) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    // A reply to serial 999 without a body.
    const std::string fields = {5, 1, 'u', 0, static_cast<char>(0xe7), 3, 0, 0};
    std::string reply = RawHeader(0, 8) + fields;
    reply[1] = 2;
    client.Write(reply);
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 100),
            "message bus: no answer from tevra.Test in time");
}

}  // namespace
}  // namespace tevra::msgbus
