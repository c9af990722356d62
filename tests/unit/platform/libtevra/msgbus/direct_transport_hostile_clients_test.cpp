#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "direct_transport_fixture.h"
#include "support/function_handler.h"
#include "support/raw_socket.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/descriptor.h"

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
  for (const uint32_t length : {(2u << 20) + 1, 0xffffffffu}) {
    RawSocket client = GreetedClient();
    client.Write(RawLength(length));
    EXPECT_TRUE(client.PeerCloses());
  }
}

TEST_F(HostileClientTest, IsDroppedForARequestOverTheBoundRightBehindTheHello) {
  RawSocket client = RawSocket::ConnectTo(SocketPath());
  client.Write(RawHello() + RawLength(0xffffffff));
  EXPECT_TRUE(client.PeerCloses());
}

TEST_F(HostileClientTest, IsDroppedForGarbage) {
  RawSocket before = RawSocket::ConnectTo(SocketPath());
  before.Write("GET / HTTP/1.1\r\nHost: camera\r\n\r\n");
  EXPECT_TRUE(before.PeerCloses());
  RawSocket after = GreetedClient();
  after.Write("GET / HTTP/1.1\r\nHost: camera\r\n\r\n");
  EXPECT_TRUE(after.PeerCloses());
}

TEST_F(HostileClientTest, IsDroppedForAFrameThatLies) {
  for (const std::string& body : {std::string(64, '\xff'), std::string(1, '\0'), std::string()}) {
    RawSocket client = GreetedClient();
    client.Write(RawLength(static_cast<uint32_t>(body.size())));
    client.Write(body);
    EXPECT_TRUE(client.PeerCloses());
  }
  RawSocket reply = GreetedClient();
  reply.Write(RawFrame({wire::Kind::kReply, 0, 1, {}, {}, {}}));
  EXPECT_TRUE(reply.PeerCloses()) << "no client answers";
}

TEST_F(HostileClientTest, IsToldThatItsVersionIsNotSpokenHere) {
  RawSocket client = RawSocket::ConnectTo(SocketPath());
  client.Write(RawFrame({wire::Kind::kHello, 0, 2, "tevra.msgbus", {}, {}}));
  const std::string body = client.ReadFrame();
  const auto refusal = wire::ParseBody(body);
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->kind, wire::Kind::kRefusal);
  EXPECT_EQ(refusal->serial, 1u);
  EXPECT_EQ(refusal->member, "tevra.msgbus.Error.Version");
  EXPECT_EQ(wire::ErrorText(*refusal),
            "the client speaks version 2 of the bus, this side version 1");
  EXPECT_TRUE(client.PeerCloses());
}

TEST_F(HostileClientTest, MayWriteAByteAtATime) {
  RawSocket client = RawSocket::ConnectTo(SocketPath());
  for (char byte : RawHello() + RawCall(kInterface, "Echo", {true})) {
    ASSERT_TRUE(client.Write(std::string(1, byte)));
  }
  EXPECT_TRUE(IsWelcome(client.ReadFrame()));
  const std::string body = client.ReadFrame();
  const auto reply = wire::ParseBody(body);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->kind, wire::Kind::kReply);
}

TEST_F(HostileClientTest, MayWriteManyCallsAtOnceAndGetsAllAnswersInOrder) {
  RawSocket client = RawSocket::ConnectTo(SocketPath());
  std::string calls = RawHello();
  constexpr uint32_t kCount = 1000;
  for (uint32_t serial = 1; serial <= kCount; ++serial) {
    calls += RawFrame({wire::Kind::kCall, 0, serial, kInterface, "Echo", {}}, {serial});
  }
  ASSERT_TRUE(client.Write(calls));
  EXPECT_TRUE(IsWelcome(client.ReadFrame()));
  for (uint32_t serial = 1; serial <= kCount; ++serial) {
    const std::string body = client.ReadFrame();
    const auto reply = wire::ParseBody(body);
    ASSERT_TRUE(reply);
    ASSERT_EQ(reply->serial, serial);
  }
}

TEST_F(HostileClientTest, MayVanishInTheMiddleOfAnything) {
  RawSocket::ConnectTo(SocketPath());
  {
    RawSocket client = RawSocket::ConnectTo(SocketPath());
    client.Write(RawHello().substr(0, 9));
  }
  {
    RawSocket client = GreetedClient();
    client.Write(RawLength(100).substr(0, 2));
  }
  {
    RawSocket client = GreetedClient();
    client.Write(RawLength(1000) + "x");
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
    RawSocket impatient = GreetedClient();
    impatient.Write(RawCall(kInterface, "Slow"));
    entered.get_future().wait();
  }
  leave.set_value();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  server_->UnregisterMessageHandler(&slow);
}

TEST_F(HostileClientTest, GetsAnErrorForMalformedArguments) {
  RawSocket client = GreetedClient();
  for (const char* values : {"x", "b\2", "i123", "s\1\0\0", "l\xff\xff\xff\x7f"}) {
    const std::string call = RawCall(kInterface, "Echo").substr(wire::kLengthBytes) + values;
    client.Write(RawLength(static_cast<uint32_t>(call.size())) + call);
    const std::string body = client.ReadFrame();
    const auto error = wire::ParseBody(body);
    ASSERT_TRUE(error);
    EXPECT_EQ(error->kind, wire::Kind::kError);
    EXPECT_EQ(error->member, "org.freedesktop.DBus.Error.InvalidArgs");
  }
  client.Write(RawCall(kInterface, "Echo", {7}));
  const std::string body = client.ReadFrame();
  ASSERT_TRUE(wire::ParseBody(body));
  EXPECT_EQ(wire::ParseBody(body)->kind, wire::Kind::kReply);
}

TEST_F(DirectTransportHostileClients, DropsAClientThatDoesNotFinishItsHelloOrAFrame) {
  platform_.Set("MsgBus", "handshake_timeout_ms", "50");
  const auto server = EchoServer();
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  RawSocket silent = RawSocket::ConnectTo(SocketPath());
  RawSocket slow = RawSocket::ConnectTo(SocketPath());
  slow.Write(RawHello().substr(0, 9));
  RawSocket stuck = GreetedClient();
  stuck.Write(RawLength(100) + "x");
  EXPECT_TRUE(silent.PeerCloses());
  EXPECT_TRUE(slow.PeerCloses());
  EXPECT_TRUE(stuck.PeerCloses());
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

constexpr uid_t kStranger = 61234;
constexpr gid_t kServiceGroup = 61001;

class StrangersTest : public DirectTransportTest {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can play other users";
    platform_.Set("Access", "service_groups", std::to_string(kServiceGroup));
  }
};

TEST_F(StrangersTest, WithoutARoleAreToldSoAndSentAway) {
  const auto server = EchoServer();
  RawSocket stranger = ConnectAs(kStranger, {});
  EXPECT_EQ(RefusalTo(stranger),
            "org.freedesktop.DBus.Error.AccessDenied: the caller is in none of the groups that "
            "hold the role 'service' or 'admin'");
  EXPECT_TRUE(stranger.PeerCloses());
}

TEST_F(StrangersTest, OverTheBoundOfAUserAreToldSoAndTheOwnerStillGetsIn) {
  platform_.Set("MsgBus", "max_connections_per_uid", "2");
  const auto server = EchoServer();
  RawSocket first = GreetedClientAs(kStranger, {kServiceGroup});
  RawSocket second = GreetedClientAs(kStranger, {kServiceGroup});
  RawSocket third = ConnectAs(kStranger, {kServiceGroup});
  EXPECT_EQ(RefusalTo(third),
            "tevra.msgbus.Error.Limit: user 61234 has as many connections as a user may");
  EXPECT_TRUE(third.PeerCloses());
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
  second.Close();
  // A place is free again as soon as the server has seen the end.
  for (bool admitted = false; !admitted;) {
    RawSocket again = ConnectAs(kStranger, {kServiceGroup});
    again.Write(RawHello());
    admitted = IsWelcome(again.ReadFrame());
  }
}

TEST_F(StrangersTest, WithoutARoleHoweverManyKeepNoOneOut) {
  platform_.Set("MsgBus", "max_connections", "3");
  const auto server = EchoServer();
  RawSocket honest = GreetedClientAs(kStranger, {kServiceGroup});
  std::vector<RawSocket> crowd;
  for (uid_t user : {61301u, 61302u}) {
    for (int i = 0; i < 128; ++i) crowd.push_back(ConnectAs(user, {}));
  }
  for (uid_t user : {61401u, 61402u}) crowd.push_back(GreetedClientAs(user, {kServiceGroup}));
  honest.Write(RawCall(kInterface, "Echo", {true}));
  EXPECT_FALSE(honest.ReadFrame().empty());
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

TEST_F(StrangersTest, WithARoleDoNotTakeTheLastDescriptorFromTheOwner) {
  const auto server = EchoServer();
  rlimit before{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  const rlimit few{256, before.rlim_max};
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  std::vector<osa::Descriptor> others;
  for (osa::Descriptor one(dup(0)); one; one.Reset(dup(0))) others.push_back(std::move(one));
  ASSERT_GE(others.size(), 2u);
  others.pop_back();
  RawSocket stranger = ConnectAs(kStranger, {kServiceGroup});
  EXPECT_EQ(RefusalTo(stranger), "tevra.msgbus.Error.Limit: the server has no descriptor left");
  others.pop_back();
  RawSocket owner = GreetedClient();
  owner.Write(RawCall(kInterface, "Echo", {true}));
  EXPECT_FALSE(owner.ReadFrame().empty());
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST_F(DirectTransportHostileClients, ServesTheOwnerWhileAThousandConnect) {
  const auto server = EchoServer();
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  std::vector<RawSocket> crowd;
  std::chrono::steady_clock::duration slowest{};
  for (int i = 0; i < 1000; ++i) {
    crowd.push_back(RawSocket::ConnectTo(SocketPath()));
    const auto asked = std::chrono::steady_clock::now();
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    slowest = std::max(slowest, std::chrono::steady_clock::now() - asked);
  }
  RecordProperty(
      "slowest_call_us",
      std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(slowest).count()));
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

}  // namespace
}  // namespace tevra::msgbus
