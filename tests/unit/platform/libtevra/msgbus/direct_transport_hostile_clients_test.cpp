#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <systemd/sd-bus.h>

#include <future>
#include <memory>
#include <string>
#include <vector>

#include "direct_transport_fixture.h"
#include "raw_socket.h"
#include "support/function_handler.h"
#include "tevra/msgbus/msg_bus.h"

namespace tevra::msgbus {
namespace {

using support::FunctionHandler;

using DirectTransportHostileClients = DirectTransportTest;

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
  client.Write(RawHeader((2 << 20) + 1, 16));
  EXPECT_TRUE(client.PeerCloses());
}

TEST_F(HostileClientTest, IsDroppedForARequestOverTheBoundRightBehindTheHandshake) {
  RawSocket client = RawSocket::ConnectTo(SocketPath());
  client.Write(std::string(1, '\0') + kHello + RawHeader(100 << 20, 16));
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
  client.Write(RawHeader(0, 64) + std::string(64, '\xff'));
  EXPECT_TRUE(client.PeerCloses());
  RawSocket in_parts = HandshakenClient();
  in_parts.Write(RawHeader(0, 64));
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
    client.Write(RawHeader(1000, 64));
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

TEST_F(DirectTransportHostileClients, DropsAClientThatNeverShakesHands) {
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

TEST_F(DirectTransportHostileClients, TakesNoMoreConnectionsThanItsBoundOfOneUser) {
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

TEST_F(DirectTransportHostileClients, TakesNoMoreConnectionsThanItsBoundOfAllUsers) {
  platform_.Set("MsgBus", "max_connections", "2");
  const auto server = EchoServer();
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  RawSocket second = HandshakenClient();
  RawSocket third = RawSocket::ConnectTo(SocketPath());
  EXPECT_TRUE(third.PeerCloses());
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(DirectTransportHostileClients, ServesOthersWhileAThousandConnect) {
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

}  // namespace
}  // namespace tevra::msgbus
