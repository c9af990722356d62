#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "direct_transport_fixture.h"
#include "hostile_server.h"
#include "support/function_handler.h"
#include "support/raw_socket.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

using osa::Exception;
using support::FunctionHandler;
using Clock = std::chrono::steady_clock;

using DirectTransportCalls = DirectTransportTest;

TEST_F(DirectTransportCalls, ThrowsAtOnceWithoutAServer) {
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

TEST_F(DirectTransportCalls, NamesTheErrorOfEachWayToFail) {
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

TEST_F(DirectTransportCalls, GivesUpAtTheDeadline) {
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

TEST_F(DirectTransportCalls, GivesUpAtTheDeadlineOfAServerThatNeverShakesHands) {
  const HostileServer mute(SocketPath(), [](RawSocket& client) { client.PeerCloses(); });
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo"), 50),
            "message bus: no answer from tevra.Test in time");
}

TEST_F(DirectTransportCalls, UsesTheConfiguredDeadline) {
  platform_.Set("MsgBus", "timeout_ms", "50");
  const HostileServer mute(SocketPath(), [](RawSocket& client) { client.PeerCloses(); });
  const auto start = Clock::now();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")),
            "message bus: no answer from tevra.Test in time");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(DirectTransportCalls, KeepsEachCallsOwnDeadlineOnOneConnection) {
  platform_.Set("MsgBus", "pool_size", "1");
  const auto server = EchoServer();
  std::promise<void> leave;
  FunctionHandler stuck([&leave](IMsgBus&, MsgBusMsg&) { leave.get_future().wait(); });
  server->RegisterMessageHandler("Stuck", kInterface, &stuck);
  auto client = NewBus();
  EXPECT_EQ(FailureOf(*client, Request("Echo"), 60000), "no failure");
  const auto start = Clock::now();
  EXPECT_EQ(FailureOf(*client, Request("Stuck"), 20),
            "message bus: no answer from tevra.Test in time");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(20));
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(10));
  leave.set_value();
  EXPECT_EQ(FailureOf(*client, Request("Echo"), 60000), "no failure");
}

TEST_F(DirectTransportCalls, WaitsForABusyConnectionOnlyUntilTheDeadline) {
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

TEST_F(DirectTransportCalls, FailsAtOnceWhenTheServerDiesInTheMiddle) {
  const HostileServer dying(SocketPath(), [](RawSocket& client) { Welcome(client); });
  const auto start = Clock::now();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "message bus: connection to tevra.Test lost");
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4));
}

TEST_F(DirectTransportCalls, ReconnectsToARestartedServerWithoutAWord) {
  auto server = EchoServer();
  auto client = NewBus();
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
    server.reset();
    server = EchoServer();
  }
}

TEST_F(DirectTransportCalls, NeverAsksTwiceWhatMayHaveBeenDone) {
  std::atomic<int> asked{0};
  const HostileServer dying(SocketPath(), [&asked](RawSocket& client) {
    Welcome(client);
    ++asked;
  });
  auto client = NewBus();
  EXPECT_NE(FailureOf(*client, Request("Echo")), "no failure");
  EXPECT_EQ(asked, 1);
}

TEST_F(DirectTransportCalls, RefusesTooLongMessagesBeforeSendingThem) {
  platform_.Set("MsgBus", "max_message_bytes", "4096");
  const auto server = EchoServer();
  auto client = NewBus();
  MsgBusMsg request = Request("Echo");
  request.Append(std::string(4096, 'x'));
  EXPECT_EQ(FailureOf(*client, request), "message bus: the message to tevra.Test is too long");
  EXPECT_EQ(FailureOf(*client, Request("Echo")), "no failure");
}

TEST_F(DirectTransportCalls, AnswersATooLongReplyWithAnError) {
  platform_.Set("MsgBus", "max_message_bytes", "4096");
  const auto server = EchoServer();
  FunctionHandler giant([](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(MsgBusMsg::ReplyTo(message).Append(std::string(5000, 'x')));
  });
  server->RegisterMessageHandler("Giant", kInterface, &giant);
  EXPECT_EQ(FailureOf(*NewBus(), Request("Giant")),
            "error reply org.freedesktop.DBus.Error.Failed");
}

TEST_F(DirectTransportCalls, DoesNotWaitForItselfInAHandler) {
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

TEST_F(DirectTransportCalls, DoesNotConnectToItselfInAHandler) {
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

TEST_F(DirectTransportCalls, TellsThatANameIsServedByAProgramOfAnotherMakerUntilThatDies) {
  auto asking = NewBus();
  {
    const HostileServer foreign(SocketPath(), [](RawSocket&) {});
    EXPECT_TRUE(asking->HasServer(kDestination));
  }
  EXPECT_TRUE(std::filesystem::exists(SocketPath()));
  EXPECT_FALSE(asking->HasServer(kDestination)) << "what a dead server left is nobody";
  EXPECT_THROW(asking->HasServer("../x"), Exception);
}

TEST_F(DirectTransportCalls, LetsAHandlerStopTheServer) {
  const auto server = EchoServer();
  FunctionHandler stop([](IMsgBus& bus, MsgBusMsg&) { bus.StopServer(); });
  server->RegisterMessageHandler("Stop", kInterface, &stop);
  EXPECT_NE(FailureOf(*NewBus(), Request("Stop")), "no failure");
  EXPECT_FALSE(server->IsRunning());
  server->StartServer();
  EXPECT_EQ(FailureOf(*NewBus(), Request("Echo")), "no failure");
}

TEST_F(DirectTransportCalls, DropsAReplyThatComesTooLate) {
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

TEST_F(DirectTransportCalls, IsDestroyedRightAfterCallsHaveEnded) {
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

TEST_F(DirectTransportCalls, LeaksNoDescriptor) {
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

}  // namespace
}  // namespace tevra::msgbus
