#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <filesystem>
#include <string>
#include <vector>

#include "direct_transport_fixture.h"
#include "hostile_server.h"
#include "support/raw_socket.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/msg_bus.h"

namespace tevra::msgbus {
namespace {

using DirectTransportHostileServers = DirectTransportTest;

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

TEST_F(DirectTransportHostileServers, RefusesAGiantReplyAtItsLength) {
  const HostileServer giant(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write(RawLength(0xffffffff) + std::string(1000, 'x'));
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
}

// A server that is killed: the first call of its second life finds a connection of the first one.
TEST_F(DirectTransportHostileServers, AsksAnewWhatTheLastConnectionsPeerWentWithoutReading) {
  int connections = 0;
  const HostileServer server(SocketPath(), [&connections](RawSocket& client) {
    ++connections;
    Welcome(client);
    client.Write(RawReply({}));
    if (connections > 1) return static_cast<void>(client.PeerCloses());
    pollfd next_call{client.fd(), POLLIN, 0};
    EXPECT_EQ(poll(&next_call, 1, 10000), 1);
  });
  const auto bus = NewBus();
  EXPECT_EQ(FailureOf(*bus, Request("Echo")), "no failure");
  EXPECT_EQ(FailureOf(*bus, Request("Echo")), "no failure");
}

TEST_F(DirectTransportHostileServers, AsksOnceWhatThePeerHasReadBeforeItWent) {
  int calls = 0;
  {
    const HostileServer server(SocketPath(), [&calls](RawSocket& client) {
      Welcome(client);
      client.Write(RawReply({}));
      calls += client.ReadFrame().empty() ? 1 : 2;
    });
    const auto bus = NewBus();
    EXPECT_EQ(FailureOf(*bus, Request("Echo")), "no failure");
    EXPECT_EQ(FailureOf(*bus, Request("Echo")), "message bus: connection to tevra.Test lost");
  }
  EXPECT_EQ(calls, 2);
}

TEST_F(DirectTransportHostileServers, RefusesGarbage) {
  for (const std::string& garbage :
       {std::string(64, '\0'), std::string("HTTP/1.1 200 OK\r\n\r\n"), RawLength(8) + "garbage!",
        RawFrame({static_cast<wire::Kind>(9), 0, 1, {}, {}, {}})}) {
    std::filesystem::remove(SocketPath());
    const HostileServer server(SocketPath(), [&garbage](RawSocket& client) {
      Welcome(client);
      client.Write(garbage);
      client.PeerCloses();
    });
    EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
  }
}

TEST_F(DirectTransportHostileServers, WaitsOnlyUntilTheDeadlineForTheRestOfAFrame) {
  for (const std::string& part : {RawLength(8).substr(0, 1), RawLength(8) + "1234567"}) {
    std::filesystem::remove(SocketPath());
    const HostileServer server(SocketPath(), [&part](RawSocket& client) {
      Welcome(client);
      client.Write(part);
      client.PeerCloses();
    });
    EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 50),
              "message bus: no answer from tevra.Test in time");
  }
}

TEST_F(DirectTransportHostileServers, RefusesAHandshakeOfNonsense) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    client.ReadFrame();
    client.Write(RawReply({true}));
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: tevra.Test refuses the connection: that was no welcome");
}

TEST_F(DirectTransportHostileServers, TellsThatAServerSpeaksAnotherVersion) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    client.ReadFrame();
    client.Write(RawFrame({wire::Kind::kWelcome, 0, 7, "tevra.msgbus", {}, {}}));
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: tevra.Test refuses the connection: the server speaks version 7 of the "
            "bus, this side version 1");
}

TEST_F(DirectTransportHostileServers, PassesOnWhyAServerRefusesWithoutReadingTheHello) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    std::string refusal;
    wire::AppendRefusal(&refusal, wire::kTooManyConnections, "no room \xff here");
    client.Write(refusal);
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: tevra.Test refuses the connection: no room ? here");
}

TEST_F(DirectTransportHostileServers, AnswersThatARoleIsMissingWhereAServerSaysSo) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    std::string refusal;
    wire::AppendRefusal(&refusal, BusError::kAccessDenied, "not you");
    client.Write(refusal);
    client.PeerCloses();
  });
  auto client = NewBus();
  const auto reply = Call(*client, Request("Echo"));
  EXPECT_EQ(reply->ErrorName(), BusError::kAccessDenied);
  EXPECT_EQ(reply->ErrorText(), "not you");
  MsgBusMsg one_way = Request("Echo");
  EXPECT_THROW(client->SendMsg(one_way), osa::Exception);
}

TEST_F(DirectTransportHostileServers, ThrowsForAReplyOfMalformedValues) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write(RawLength(15) + RawReply({}).substr(wire::kLengthBytes) + "x");
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: malformed reply from tevra.Test");
}

TEST_F(DirectTransportHostileServers, TakesTheFirstOfTwoAnswersAndNeverTheSecondForAnothers) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write(RawReply({true}) + RawReply({false}));
    client.PeerCloses();
  });
  auto client = NewBus();
  const auto reply = Call(*client, Request("Echo"));
  EXPECT_EQ(reply->Body(), std::vector<MsgBusMsg::Value>{true});
  // The connection with the spare answer is not used again.
  EXPECT_EQ(Call(*client, Request("Echo"))->Body(), std::vector<MsgBusMsg::Value>{true});
}

TEST_F(DirectTransportHostileServers, IgnoresAnswersToOtherCalls) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    Welcome(client);
    client.Write(RawFrame({wire::Kind::kReply, 0, 999, {}, {}, {}}));
    client.PeerCloses();
  });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 100),
            "message bus: no answer from tevra.Test in time");
}

}  // namespace
}  // namespace tevra::msgbus
