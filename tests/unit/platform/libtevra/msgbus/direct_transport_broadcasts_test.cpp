#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <string>
#include <variant>

#include "direct_transport_fixture.h"
#include "hostile_server.h"
#include "no_new_descriptors.h"
#include "support/event_log.h"
#include "support/function_handler.h"
#include "support/raw_socket.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/descriptor.h"

namespace tevra::msgbus {
namespace {

using support::EventLog;
using support::FunctionHandler;

using DirectTransportBroadcasts = DirectTransportTest;

TEST_F(DirectTransportBroadcasts, DropsAReceiverThatDoesNotReadAndNoOneElse) {
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

// A server that would not have the listening connection may still be reached by calls, and what it
// changes meanwhile is not heard of: so it is said again and again.
TEST_F(DirectTransportBroadcasts, SaysVanishedOfAServerThatRefusesToBeListenedTo) {
  const HostileServer server(SocketPath(), [](RawSocket& client) {
    std::string refusal;
    wire::AppendRefusal(&refusal, wire::kTooManyConnections, "no room");
    client.Write(refusal);
  });
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) {
    log.Add(message.GetName() + " " + std::get<std::string>(message.Body().at(0)));
  });
  auto listener = NewBus();
  for (const char* event : {IMsgBus::kDestinationAppeared, IMsgBus::kDestinationVanished}) {
    listener->RegisterMessageHandler(event, IMsgBus::kLocalInterface, &note);
  }
  listener->WatchDestination(kDestination);
  ASSERT_TRUE(log.WaitFor(2));
  listener.reset();
  for (const std::string& event : log.Events()) {
    EXPECT_EQ(event, std::string("DestinationVanished ") + kDestination);
  }
}

// What a memfd holds, and which server handed it out.
TEST_F(DirectTransportBroadcasts, HandOutADescriptorWithTheServersInstance) {
  osa::Descriptor page(memfd_create("page", MFD_CLOEXEC));
  ASSERT_EQ(write(page.get(), "stamp", 5), 5);
  auto server = NewBus();
  server->RegisterMessageHandler("Echo", kInterface, &echo_);
  server->ShareDescriptor(kDestination, page.get());
  page.Reset();
  server->StartServer(kDestination);
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto client = NewBus();
  client->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  EXPECT_FALSE(client->SharedDescriptor(kDestination).descriptor);
  client->WatchDestination(kDestination);
  ASSERT_TRUE(log.WaitFor(1));
  for (int i = 0; i < 2; ++i) {
    const IMsgBus::Shared shared = client->SharedDescriptor(kDestination);
    ASSERT_TRUE(shared.descriptor);
    char bytes[5] = {};
    EXPECT_EQ(pread(shared.descriptor->get(), bytes, 5, 0), 5);
    EXPECT_EQ(std::string(bytes, 5), "stamp");
    EXPECT_NE(shared.instance, 0u);
    EXPECT_EQ(shared.instance, server->Instance());
    EXPECT_EQ(shared.instance, Call(*client, Request("Echo"))->Instance());
  }
  const uint64_t before = server->Instance();
  server.reset();
  server = EchoServer();
  ASSERT_TRUE(log.WaitFor(2));
  const IMsgBus::Shared other = client->SharedDescriptor(kDestination);
  EXPECT_FALSE(other.descriptor) << "this one shares none";
  EXPECT_NE(other.instance, before);
  client.reset();
}

TEST_F(DirectTransportBroadcasts, HandOutTheDescriptorAlsoWhereNoNumberIsFree) {
  const osa::Descriptor page(memfd_create("page", MFD_CLOEXEC));
  auto server = NewBus();
  server->ShareDescriptor(kDestination, page.get());
  server->StartServer(kDestination);
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto client = NewBus();
  client->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  client->WatchDestination(kDestination);
  ASSERT_TRUE(log.WaitFor(1));
  {
    const NoNewDescriptors none;
    EXPECT_NE(client->SharedDescriptor(kDestination).descriptor, nullptr);
  }
  client.reset();
}

TEST_F(DirectTransportBroadcasts, HandTheDescriptorToThoseWithTheRoleServiceAlone) {
  if (geteuid() != 0) GTEST_SKIP() << "only root can play other users";
  platform_.Set("Access", "service_groups", "61001");
  platform_.Set("Access", "admin_groups", "61002");
  const osa::Descriptor page(memfd_create("page", MFD_CLOEXEC));
  auto server = NewBus();
  server->ShareDescriptor(kDestination, page.get());
  server->StartServer(kDestination);
  const auto flags_for = [this](gid_t group, uint8_t hello) {
    RawSocket client = ConnectAs(61234, {group});
    client.Write(RawHello(hello));
    const std::string welcome = client.ReadFrame();
    return wire::ParseBody(welcome)->flags;
  };
  EXPECT_EQ(flags_for(61001, wire::kWantsBroadcasts), wire::kHasDescriptor);
  EXPECT_EQ(flags_for(61001, 0), 0) << "a connection for calls has no use for it";
  EXPECT_EQ(flags_for(61002, wire::kWantsBroadcasts), 0);
}

TEST_F(DirectTransportBroadcasts, TellOfTheFirstAnswerAfterAFailureAsOfAnAppearance) {
  const auto server = EchoServer();
  std::promise<void> leave;
  FunctionHandler stuck([&leave](IMsgBus&, MsgBusMsg&) { leave.get_future().wait(); });
  server->RegisterMessageHandler("Stuck", kInterface, &stuck);
  EventLog log;
  FunctionHandler note([&log](IMsgBus&, MsgBusMsg& message) { log.Add(message.GetName()); });
  auto client = NewBus();
  client->RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  client->WatchDestination(kDestination);
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_NE(FailureOf(*client, Request("Stuck"), 20), "no failure");
  leave.set_value();
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  ASSERT_TRUE(log.WaitFor(2));
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
  client.reset();
  EXPECT_EQ(log.Events().size(), 2u) << "once for each failure";
}

TEST_F(DirectTransportBroadcasts, RunATimerOnTheThreadOfTheHandlersUntilItIsStopped) {
  auto bus = NewBus();
  EventLog log;
  std::atomic<bool> stopped{false};
  const uint64_t timer = bus->StartTimer(std::chrono::milliseconds(1),
                                         [&] { log.Add(stopped ? "too late" : "tick"); });
  EXPECT_TRUE(log.WaitFor(3));
  bus->StopTimer(timer);
  stopped = true;
  bus.reset();
  for (const std::string& event : log.Events()) EXPECT_EQ(event, "tick");
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

TEST_F(DirectTransportBroadcasts, BroadcastsNothingWhileItServesNoOne) {
  auto bus = NewBus();
  MsgBusMsg changed(kInterface, "Changed", "");
  EXPECT_NO_THROW(bus->SendMsg(changed));
  EXPECT_EQ(changed.Serial(), 1u);
}

}  // namespace
}  // namespace tevra::msgbus
