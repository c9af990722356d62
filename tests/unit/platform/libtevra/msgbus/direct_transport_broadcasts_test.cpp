#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <variant>

#include "direct_transport_fixture.h"
#include "support/event_log.h"
#include "support/function_handler.h"
#include "support/raw_socket.h"
#include "tevra/msgbus/msg_bus.h"

namespace tevra::msgbus {
namespace {

using support::EventLog;
using support::FunctionHandler;

using DirectTransportBroadcasts = DirectTransportTest;

TEST_F(DirectTransportBroadcasts, DropsAReceiverThatDoesNotReadAndNobodyElse) {
  platform_.Set("MsgBus", "max_output_bytes", "65536");
  const auto server = EchoServer();
  // A subscriber that never reads again.
  RawSocket idle = GreetedClient(wire::kWantsBroadcasts);

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

TEST_F(DirectTransportBroadcasts, NoticesAServerSoonWhereverTheDirectoryWas) {
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
TEST_F(DirectTransportBroadcasts, SaysVanishedOfAServerThatRefusesToBeListenedTo) {
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

TEST_F(DirectTransportBroadcasts, SendsBroadcastsBeforeTheReplyOfTheCallThatCausedThem) {
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

TEST_F(DirectTransportBroadcasts, BroadcastsNothingWhileItServesNobody) {
  auto bus = NewBus();
  MsgBusMsg changed(kInterface, "Changed", "");
  EXPECT_NO_THROW(bus->SendMsg(changed));
  EXPECT_EQ(changed.Serial(), 1u);
}

}  // namespace
}  // namespace tevra::msgbus
