#include "tevra/msgbus/msg_bus.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bus_under_test.h"
#include "support/event_log.h"
#include "support/function_handler.h"
#include "tevra/osa/exception.h"

namespace {

using conformance::BusKind;
using support::EventLog;
using support::FunctionHandler;
using tevra::msgbus::IMsgBus;
using tevra::msgbus::MsgBus;
using tevra::msgbus::MsgBusMsg;
using tevra::osa::Exception;

constexpr const char* kDestination = "tevra.Test";
constexpr const char* kInterface = "tevra.test.ITest";

class MsgBusConformance : public conformance::BusConformance {
 protected:
  void TearDown() override {
    // Handlers stand in the tests' own scopes, so no bus may be left to call them.
    bus_.reset();
  }

  static MsgBusMsg Request(const std::string& name) {
    return MsgBusMsg(kInterface, name, kDestination);
  }

  std::unique_ptr<MsgBusMsg> Call(MsgBusMsg message) {
    std::unique_ptr<MsgBusMsg> reply;
    client().SendMsgWaitForReply(message, reply, -1);
    return reply;
  }

  // What a call that got no proper answer looks like differs from bus to bus: an exception, no
  // reply, or an error reply. No caller may take any of them for success.
  bool Fails(const MsgBusMsg& message) {
    try {
      const std::unique_ptr<MsgBusMsg> reply = Call(message);
      return !reply || reply->IsError();
    } catch (const Exception&) {
      return true;
    }
  }
};

// Sends back the arguments it got.
FunctionHandler Echo() {
  return FunctionHandler([](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg reply = MsgBusMsg::ReplyTo(message);
    for (const MsgBusMsg::Value& value : message.Body()) reply.Append(value);
    bus.SendReply(reply);
  });
}

TEST_P(MsgBusConformance, BringsArgumentsOfEveryTypeThereAndBack) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().StartServer(kDestination);
  std::string every_byte;
  for (int i = 0; i < 256; ++i) every_byte += static_cast<char>(i);
  const std::vector<std::string> list = {"", std::string("a\0b", 3), every_byte};
  MsgBusMsg request = Request("Echo");
  request.Append(true).Append(false).Append(int32_t{-2147483647 - 1}).Append(int32_t{2147483647});
  request.Append(uint32_t{0}).Append(uint32_t{4294967295u}).Append(std::string());
  request.Append(every_byte).Append(std::vector<std::string>()).Append(list);
  const auto reply = Call(request);
  ASSERT_TRUE(reply);
  EXPECT_FALSE(reply->IsError()) << reply->ErrorText();
  EXPECT_EQ(reply->Signature(), "bbiiuussll");
  EXPECT_EQ(reply->Body(), request.Body());
}

TEST_P(MsgBusConformance, BringsAMebibyteThereAndBack) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().StartServer(kDestination);
  MsgBusMsg request = Request("Echo");
  request.Append(std::string(1 << 20, '\xff'));
  const auto reply = Call(request);
  ASSERT_TRUE(reply);
  EXPECT_EQ(reply->Body(), request.Body());
}

TEST_P(MsgBusConformance, ShowsTheHandlerNamesAndSender) {
  EventLog log;
  FunctionHandler handler([&log](IMsgBus& bus, MsgBusMsg& message) {
    log.Add(message.GetInterface());
    log.Add(message.GetName());
    log.Add(message.GetDestination());
    log.Add(std::to_string(message.Sender().uid));
    log.Add(message.Sender().groups.empty() ? "" : std::to_string(message.Sender().groups[0]));
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  });
  server().RegisterMessageHandler("Who", kInterface, &handler);
  server().StartServer(kDestination);
  Call(Request("Who"));
  EXPECT_EQ(log.Events(),
            (std::vector<std::string>{kInterface, "Who", kDestination, std::to_string(geteuid()),
                                      std::to_string(getegid())}));
}

TEST_P(MsgBusConformance, CountsSerialsFromOneOverBothWaysOfSending) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().StartServer(kDestination);
  MsgBusMsg first = Request("Echo");
  MsgBusMsg second = Request("Echo");
  std::unique_ptr<MsgBusMsg> reply;
  client().SendMsg(first);
  client().SendMsgWaitForReply(second, reply, 1000);
  EXPECT_EQ(first.Serial(), 1u);
  EXPECT_EQ(second.Serial(), 2u);
  ASSERT_TRUE(reply);
}

TEST_P(MsgBusConformance, LetsTheLastOfTwoRepliesCount) {
  FunctionHandler handler([](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(MsgBusMsg::ReplyTo(message).Append(std::string("first")));
    bus.SendReply(MsgBusMsg::ReplyTo(message).Append(std::string("last")));
  });
  server().RegisterMessageHandler("Twice", kInterface, &handler);
  server().StartServer(kDestination);
  for (int i = 0; i < 3; ++i) {
    const auto reply = Call(Request("Twice"));
    ASSERT_TRUE(reply);
    EXPECT_EQ(std::get<std::string>(reply->Body().at(0)), "last");
  }
}

TEST_P(MsgBusConformance, BringsAnErrorReplyWithNameAndText) {
  FunctionHandler handler([](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(MsgBusMsg::ErrorTo(message, "tevra.Error.Refused", "not you"));
  });
  server().RegisterMessageHandler("Refuse", kInterface, &handler);
  server().StartServer(kDestination);
  const auto reply = Call(Request("Refuse"));
  ASSERT_TRUE(reply);
  EXPECT_TRUE(reply->IsError());
  EXPECT_EQ(reply->ErrorName(), "tevra.Error.Refused");
  EXPECT_EQ(reply->ErrorText(), "not you");
}

TEST_P(MsgBusConformance, FailsACallWhoseHandlerThrowsAndServesTheNext) {
  FunctionHandler thrower([](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(MsgBusMsg::ReplyTo(message));
    throw Exception("broken");
  });
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Throw", kInterface, &thrower);
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().StartServer(kDestination);
  EXPECT_TRUE(Fails(Request("Throw")));
  EXPECT_FALSE(Fails(Request("Echo")));
}

TEST_P(MsgBusConformance, NeverTakesAMissingReplyForAnAnswer) {
  FunctionHandler silent([](IMsgBus&, MsgBusMsg&) {});
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Silent", kInterface, &silent);
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().StartServer(kDestination);
  EXPECT_TRUE(Fails(Request("Silent")));
  EXPECT_FALSE(Fails(Request("Echo")));
}

TEST_P(MsgBusConformance, FailsACallWithoutAHandler) {
  server().StartServer(kDestination);
  EXPECT_TRUE(Fails(Request("Nothing")));
  EXPECT_TRUE(Fails(MsgBusMsg("tevra.test.Other", "Echo", kDestination)));
}

TEST_P(MsgBusConformance, ThrowsForADestinationThatNoOneServes) {
  server().StartServer(kDestination);
  EXPECT_THROW(Call(MsgBusMsg(kInterface, "Echo", "tevra.Nowhere")), Exception);
}

TEST_P(MsgBusConformance, ThrowsWhenTheServerWasNeverStarted) {
  server().RegisterDestinationName(kDestination);
  EXPECT_FALSE(server().IsRunning());
  EXPECT_THROW(Call(Request("Echo")), Exception);
}

TEST_P(MsgBusConformance, RefusesCallsWhileStoppedAndKeepsRegistrationsOverIt) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().RegisterDestinationName(kDestination);
  server().StartServer();
  EXPECT_TRUE(server().IsRunning());
  EXPECT_FALSE(Fails(Request("Echo")));
  server().StopServer();
  EXPECT_FALSE(server().IsRunning());
  EXPECT_THROW(Call(Request("Echo")), Exception);
  server().StartServer();
  EXPECT_FALSE(Fails(Request("Echo")));
}

TEST_P(MsgBusConformance, TellsWhetherADestinationIsServed) {
  auto* const asking = dynamic_cast<MsgBus*>(&client());
  if (asking == nullptr) GTEST_SKIP() << "a bus within one process does not tell";
  EXPECT_FALSE(asking->HasServer(kDestination));
  server().RegisterDestinationName(kDestination);
  EXPECT_FALSE(asking->HasServer(kDestination));
  server().StartServer();
  EXPECT_TRUE(asking->HasServer(kDestination));
  EXPECT_FALSE(asking->HasServer("tevra.Other"));
  server().StopServer();
  EXPECT_FALSE(asking->HasServer(kDestination));
}

TEST_P(MsgBusConformance, StartsAndStopsTwice) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  EXPECT_TRUE(server().StartServer(kDestination));
  EXPECT_TRUE(server().StartServer(kDestination));
  EXPECT_FALSE(Fails(Request("Echo")));
  server().StopServer();
  server().StopServer();
  EXPECT_THROW(Call(Request("Echo")), Exception);
}

TEST_P(MsgBusConformance, ForgetsADestinationWhenItIsStoppedByName) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().StartServer(kDestination);
  server().StopServer(kDestination);
  EXPECT_FALSE(server().IsRunning());
  server().StartServer();
  EXPECT_THROW(Call(Request("Echo")), Exception);
}

TEST_P(MsgBusConformance, RegistersAndUnregistersDestinationsWhileRunning) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("Echo", kInterface, &echo);
  server().StartServer();
  EXPECT_THROW(Call(Request("Echo")), Exception);
  server().RegisterDestinationName(kDestination);
  server().RegisterDestinationName(kDestination);
  EXPECT_FALSE(Fails(Request("Echo")));
  server().UnregisterDestinationName(kDestination);
  server().UnregisterDestinationName(kDestination);
  EXPECT_THROW(Call(Request("Echo")), Exception);
}

FunctionHandler Says(const std::string& text) {
  return FunctionHandler([text](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(MsgBusMsg::ReplyTo(message).Append(text));
  });
}

TEST_P(MsgBusConformance, LetsASecondHandlerReplaceTheFirst) {
  FunctionHandler first = Says("first");
  FunctionHandler second = Says("second");
  server().RegisterMessageHandler("Say", kInterface, &first);
  server().RegisterMessageHandler("Say", kInterface, &second);
  server().StartServer(kDestination);
  EXPECT_EQ(std::get<std::string>(Call(Request("Say"))->Body().at(0)), "second");
  server().UnregisterMessageHandler(&first);
  EXPECT_FALSE(Fails(Request("Say")));
}

TEST_P(MsgBusConformance, UnregistersTheSmallerOfAHandlersKeysFirst) {
  FunctionHandler echo = Echo();
  server().RegisterMessageHandler("B", kInterface, &echo);
  server().RegisterMessageHandler("A", kInterface, &echo);
  server().StartServer(kDestination);
  server().UnregisterMessageHandler(&echo);
  EXPECT_TRUE(Fails(Request("A")));
  EXPECT_FALSE(Fails(Request("B")));
  server().UnregisterMessageHandler(&echo);
  EXPECT_TRUE(Fails(Request("B")));
  server().UnregisterMessageHandler(&echo);
}

TEST_P(MsgBusConformance, DeliversAOneWayMessageAndDropsItsReply) {
  EventLog log;
  FunctionHandler handler([&log](IMsgBus& bus, MsgBusMsg& message) {
    bus.SendReply(MsgBusMsg::ReplyTo(message).Append(std::string("lost")));
    log.Add(std::get<std::string>(message.Body().at(0)));
  });
  FunctionHandler say = Says("kept");
  server().RegisterMessageHandler("Tell", kInterface, &handler);
  server().RegisterMessageHandler("Say", kInterface, &say);
  server().StartServer(kDestination);
  MsgBusMsg message = Request("Tell");
  message.Append(std::string("hear"));
  client().SendMsg(message);
  ASSERT_TRUE(log.WaitFor(1));
  EXPECT_EQ(log.Events(), std::vector<std::string>{"hear"});
  EXPECT_EQ(std::get<std::string>(Call(Request("Say"))->Body().at(0)), "kept");
}

// Waits until `client` hears `server`'s broadcasts.
void WatchAndWait(IMsgBus& server, IMsgBus& client, EventLog& log, FunctionHandler& handler,
                  bool has_peers) {
  client.RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &handler);
  client.RegisterMessageHandler("Changed", kInterface, &handler);
  server.StartServer(kDestination);
  client.StartServer();
  client.WatchDestination(kDestination);
  if (has_peers) {
    ASSERT_TRUE(log.WaitFor(1));
  }
}

FunctionHandler NoteTo(EventLog& log) {
  return FunctionHandler([&log](IMsgBus&, MsgBusMsg& message) {
    log.Add(message.GetName() + " " + std::get<std::string>(message.Body().at(0)));
  });
}

TEST_P(MsgBusConformance, BroadcastsToAWatchingClient) {
  EventLog log;
  FunctionHandler note = NoteTo(log);
  WatchAndWait(server(), client(), log, note, has_peers());
  MsgBusMsg changed(kInterface, "Changed", "");
  changed.Append(std::string("rules\0!", 7));
  server().SendMsg(changed);
  std::vector<std::string> expected;
  if (has_peers()) expected.push_back(std::string("DestinationAppeared ") + kDestination);
  expected.push_back(std::string("Changed rules\0!", 15));
  ASSERT_TRUE(log.WaitFor(expected.size()));
  EXPECT_EQ(log.Events(), expected);
}

TEST_P(MsgBusConformance, BroadcastsFromAHandler) {
  EventLog log;
  FunctionHandler note = NoteTo(log);
  FunctionHandler change([](IMsgBus& bus, MsgBusMsg& message) {
    MsgBusMsg changed(kInterface, "Changed", "");
    changed.Append(std::string("x"));
    if (bus.IsRunning()) bus.SendMsg(changed);
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  });
  server().RegisterMessageHandler("Change", kInterface, &change);
  WatchAndWait(server(), client(), log, note, has_peers());
  EXPECT_FALSE(Fails(Request("Change")));
  EXPECT_TRUE(log.WaitFor(has_peers() ? 2 : 1));
}

TEST_P(MsgBusConformance, TellsWhenAWatchedDestinationComesBack) {
  if (!has_peers()) GTEST_SKIP() << "a bus without peers has nothing to watch";
  EventLog log;
  FunctionHandler note = NoteTo(log);
  client().RegisterMessageHandler(IMsgBus::kDestinationAppeared, IMsgBus::kLocalInterface, &note);
  client().WatchDestination(kDestination);
  for (size_t i = 1; i <= 3; ++i) {
    server().StartServer(kDestination);
    ASSERT_TRUE(log.WaitFor(i));
    server().StopServer();
  }
  EXPECT_EQ(log.Events(),
            (std::vector<std::string>(3, std::string("DestinationAppeared ") + kDestination)));
}

TEST_P(MsgBusConformance, TellsWhenAWatchedDestinationVanishes) {
  if (!has_peers()) GTEST_SKIP() << "a bus without peers has nothing to watch";
  EventLog log;
  FunctionHandler note = NoteTo(log);
  for (const char* event : {IMsgBus::kDestinationAppeared, IMsgBus::kDestinationVanished}) {
    client().RegisterMessageHandler(event, IMsgBus::kLocalInterface, &note);
  }
  client().WatchDestination(kDestination);
  std::vector<std::string> expected;
  for (int i = 0; i < 2; ++i) {
    server().StartServer(kDestination);
    expected.push_back(std::string("DestinationAppeared ") + kDestination);
    ASSERT_TRUE(log.WaitFor(expected.size()));
    server().StopServer();
    expected.push_back(std::string("DestinationVanished ") + kDestination);
    ASSERT_TRUE(log.WaitFor(expected.size()));
  }
  EXPECT_EQ(log.Events(), expected);
}

TEST_P(MsgBusConformance, RunsHandlersOneAtATimeForAnyNumberOfCallers) {
  const bool one_thread_only = GetParam() == BusKind::kFake;
  int inside = 0;
  int overlaps = 0;
  int calls = 0;
  FunctionHandler handler([&](IMsgBus& bus, MsgBusMsg& message) {
    if (++inside != 1) ++overlaps;
    ++calls;
    bus.SendReply(MsgBusMsg::ReplyTo(message));
    --inside;
  });
  server().RegisterMessageHandler("Count", kInterface, &handler);
  server().StartServer(kDestination);
  std::vector<std::thread> callers;
  for (int i = 0; i < (one_thread_only ? 1 : 12); ++i) {
    callers.emplace_back([this] {
      for (int call = 0; call < 50; ++call) {
        if (Fails(Request("Count"))) ADD_FAILURE() << "a call failed";
      }
    });
  }
  for (std::thread& caller : callers) caller.join();
  server().StopServer();
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(calls, one_thread_only ? 50 : 600);
}

INSTANTIATE_TEST_SUITE_P(EveryBus, MsgBusConformance, conformance::EveryBus(),
                         conformance::BusName);

}  // namespace
