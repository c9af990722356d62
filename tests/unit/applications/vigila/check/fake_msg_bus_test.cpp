#include "vigila/check/fake_msg_bus.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/text_thrown_by.h"
#include "support/virtual_slot.h"
#include "tevra/osa/exception.h"

namespace tevra::check::fake {
namespace {

using msgbus::IMsgBus;
using msgbus::MsgBusMsg;
using support::TextThrownBy;

class ScriptedHandler : public msgbus::IMessageHandler {
 public:
  using Script = std::function<void(IMsgBus&, MsgBusMsg&)>;
  explicit ScriptedHandler(Script script = nullptr) : script_(std::move(script)) {}

  void HandleMessage(IMsgBus& bus, MsgBusMsg& message) override {
    names.push_back(message.GetName());
    serials.push_back(message.Serial());
    if (script_) script_(bus, message);
  }

  std::vector<std::string> names;
  std::vector<uint32_t> serials;

 private:
  Script script_;
};

MsgBusMsg Message(const std::string& name = "ask", const std::string& destination = "server") {
  return {"test.Interface", name, destination};
}

class FakeBus : public testing::Test {
 protected:
  std::string SendText(MsgBusMsg message = Message()) {
    return TextThrownBy([&] { bus.SendMsg(message); });
  }
  std::string CallText(MsgBusMsg message = Message()) {
    return TextThrownBy([&] { bus.SendMsgWaitForReply(message, reply, -1); });
  }
  void Register(ScriptedHandler& handler, const std::string& name = "ask") {
    bus.RegisterMessageHandler(name, "test.Interface", &handler);
  }

  FakeMsgBus bus;
  std::unique_ptr<MsgBusMsg> reply;
};

TEST_F(FakeBus, IsStoppedAfterConstruction) {
  EXPECT_FALSE(bus.IsRunning());
  EXPECT_EQ(SendText(), "not running");
  EXPECT_EQ(CallText(), "not running");
}

TEST_F(FakeBus, RunsAfterEitherStartAndStopsAfterEitherStop) {
  bus.StartServer();
  EXPECT_TRUE(bus.IsRunning());
  bus.StopServer();
  EXPECT_FALSE(bus.IsRunning());
  EXPECT_TRUE(bus.StartServer("server"));
  EXPECT_TRUE(bus.IsRunning());
  bus.StopServer("server");
  EXPECT_FALSE(bus.IsRunning());
}

TEST_F(FakeBus, ReportsThatItIsStoppedBeforeAnythingElse) {
  EXPECT_EQ(CallText(Message("unknown", "nowhere")), "not running");
}

TEST_F(FakeBus, ReportsAnUnregisteredDestinationBeforeAMissingHandler) {
  bus.StartServer();
  EXPECT_EQ(CallText(), "unregistered destination");
  bus.RegisterDestinationName("server");
  EXPECT_EQ(CallText(), "no handler");
}

TEST_F(FakeBus, SendsToAHandlerWhateverTheDestinationButCallsOnlyRegisteredOnes) {
  ScriptedHandler handler;
  Register(handler);
  bus.StartServer();
  EXPECT_EQ(SendText(Message("ask", "never registered")), "nothing thrown");
  EXPECT_EQ(handler.names.size(), 1u);
  EXPECT_EQ(CallText(Message("ask", "never registered")), "unregistered destination");
  EXPECT_EQ(handler.names.size(), 1u);
}

TEST_F(FakeBus, ThrowsWhenASentMessageHasNoHandler) {
  ScriptedHandler handler;
  Register(handler, "other");
  bus.StartServer();
  EXPECT_EQ(SendText(), "no handler");
}

TEST_F(FakeBus, TellsInterfacesApart) {
  ScriptedHandler handler;
  bus.RegisterMessageHandler("ask", "another.Interface", &handler);
  bus.StartServer();
  EXPECT_EQ(SendText(), "no handler");
}

TEST_F(FakeBus, LeavesANullReplyWhenTheHandlerSentNone) {
  ScriptedHandler handler;
  Register(handler);
  bus.StartServer("server");
  reply = std::make_unique<MsgBusMsg>(Message("old"));
  EXPECT_EQ(CallText(), "nothing thrown");
  EXPECT_EQ(reply, nullptr);
}

TEST_F(FakeBus, HandsTheReplyToTheCallerAsACopy) {
  ScriptedHandler handler([](IMsgBus& b, MsgBusMsg& m) {
    MsgBusMsg answer = MsgBusMsg::ReplyTo(m);
    answer.Append(std::string("first"));
    b.SendReply(answer);
    answer.Append(std::string("too late"));
  });
  Register(handler);
  bus.StartServer("server");
  EXPECT_EQ(CallText(), "nothing thrown");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->ReplySerial(), 1u);
  ASSERT_EQ(reply->Body().size(), 1u);
  EXPECT_EQ(std::get<std::string>(reply->Body()[0]), "first");
}

TEST_F(FakeBus, KeepsTheLastOfTwoReplies) {
  ScriptedHandler handler([](IMsgBus& b, MsgBusMsg& m) {
    b.SendReply(MsgBusMsg::ReplyTo(m).Append(int32_t{1}));
    b.SendReply(MsgBusMsg::ReplyTo(m).Append(int32_t{2}));
  });
  Register(handler);
  bus.StartServer("server");
  CallText();
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(std::get<int32_t>(reply->Body().at(0)), 2);
}

TEST_F(FakeBus, DropsTheReplyToAMessageThatNoOneWaitsFor) {
  ScriptedHandler answering([](IMsgBus& b, MsgBusMsg& m) { b.SendReply(MsgBusMsg::ReplyTo(m)); });
  ScriptedHandler silent;
  Register(answering, "answering");
  Register(silent, "silent");
  bus.StartServer("server");
  EXPECT_EQ(SendText(Message("answering")), "nothing thrown");
  EXPECT_EQ(CallText(Message("silent")), "nothing thrown");
  EXPECT_EQ(reply, nullptr);
}

TEST_F(FakeBus, ForgetsTheReplyOfAHandlerThatThrows) {
  ScriptedHandler failing([](IMsgBus& b, MsgBusMsg& m) {
    b.SendReply(MsgBusMsg::ReplyTo(m));
    throw osa::Exception("broken handler");
  });
  ScriptedHandler silent;
  Register(failing, "failing");
  Register(silent, "silent");
  bus.StartServer("server");
  EXPECT_EQ(CallText(Message("failing")), "broken handler");
  CallText(Message("silent"));
  EXPECT_EQ(reply, nullptr);
  EXPECT_EQ(SendText(Message("failing")), "broken handler");
  CallText(Message("silent"));
  EXPECT_EQ(reply, nullptr);
}

TEST_F(FakeBus, KeepsAReplySentOutsideACallForTheNextOne) {
  ScriptedHandler silent;
  Register(silent);
  bus.StartServer("server");
  bus.SendReply(Message("early"));
  CallText();
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(reply->GetName(), "early");
  CallText();
  EXPECT_EQ(reply, nullptr);
}

TEST_F(FakeBus, ReplacesTheHandlerOfTheSameKey) {
  ScriptedHandler first;
  ScriptedHandler second;
  Register(first);
  Register(second);
  bus.StartServer();
  SendText();
  EXPECT_TRUE(first.names.empty());
  EXPECT_EQ(second.names.size(), 1u);
}

TEST_F(FakeBus, UnregistersOnlyTheSmallestKeyOfAHandler) {
  ScriptedHandler handler;
  Register(handler, "zebra");
  Register(handler, "ant");
  bus.StartServer();
  bus.UnregisterMessageHandler(&handler);
  EXPECT_EQ(SendText(Message("ant")), "no handler");
  EXPECT_EQ(SendText(Message("zebra")), "nothing thrown");
  bus.UnregisterMessageHandler(&handler);
  EXPECT_EQ(SendText(Message("zebra")), "no handler");
}

TEST_F(FakeBus, IgnoresUnregisteringAHandlerItDoesNotHave) {
  ScriptedHandler held;
  ScriptedHandler stranger;
  Register(held);
  bus.StartServer();
  bus.UnregisterMessageHandler(&stranger);
  EXPECT_EQ(SendText(), "nothing thrown");
}

TEST_F(FakeBus, NumbersBothKindsOfSendingTogetherFromOne) {
  ScriptedHandler handler;
  Register(handler);
  bus.StartServer("server");
  SendText();
  CallText();
  SendText();
  EXPECT_EQ(handler.serials, (std::vector<uint32_t>{1, 2, 3}));
}

TEST_F(FakeBus, TakesNoNumberForAMessageItCannotDeliver) {
  ScriptedHandler handler;
  Register(handler);
  SendText();
  bus.StartServer();
  SendText(Message("unknown"));
  CallText();
  SendText();
  EXPECT_EQ(handler.serials, (std::vector<uint32_t>{1}));
}

TEST_F(FakeBus, WritesTheSerialMostSignificantByteFirst) {
  ScriptedHandler handler;
  Register(handler);
  bus.StartServer();
  MsgBusMsg message = Message();
  for (int i = 0; i < 0x102; ++i) bus.SendMsg(message);
  const uint8_t* header = message.GetDBusMessage()->header;
  EXPECT_EQ(header[8], 0);
  EXPECT_EQ(header[9], 0);
  EXPECT_EQ(header[10], 1);
  EXPECT_EQ(header[11], 2);
}

TEST_F(FakeBus, KeepsRegistrationsOverStopAndStart) {
  ScriptedHandler handler;
  Register(handler);
  bus.RegisterDestinationName("server");
  bus.StartServer();
  bus.StopServer();
  EXPECT_EQ(CallText(), "not running");
  bus.StartServer();
  EXPECT_EQ(CallText(), "nothing thrown");
  EXPECT_EQ(handler.names.size(), 1u);
}

TEST_F(FakeBus, RegistersADestinationOnceHoweverOftenItIsTold) {
  ScriptedHandler handler;
  Register(handler);
  bus.StartServer();
  bus.RegisterDestinationName("server");
  bus.RegisterDestinationName("server");
  bus.UnregisterDestinationName("server");
  EXPECT_EQ(CallText(), "unregistered destination");
  bus.UnregisterDestinationName("server");
}

TEST_F(FakeBus, StoppingWithANameTakesTheDestinationAway) {
  ScriptedHandler handler;
  Register(handler);
  bus.StartServer("server");
  bus.StopServer("server");
  bus.StartServer();
  EXPECT_EQ(CallText(), "unregistered destination");
}

TEST_F(FakeBus, RegistersThroughTheVirtualOperationsWhenStartedWithAName) {
  class Observing : public FakeMsgBus {
   public:
    void RegisterDestinationName(const std::string& name) override {
      events.push_back("register " + name + (IsRunning() ? " running" : " stopped"));
    }
    void UnregisterDestinationName(const std::string& name) override {
      events.push_back("unregister " + name + (IsRunning() ? " running" : " stopped"));
    }
    std::vector<std::string> events;
  };
  Observing observed;
  observed.StartServer("a");
  observed.StopServer("a");
  EXPECT_EQ(observed.events,
            (std::vector<std::string>{"register a stopped", "unregister a stopped"}));
}

TEST_F(FakeBus, DeliversAMessageThatAHandlerSendsWhileItHandlesAnother) {
  ScriptedHandler inner([](IMsgBus& b, MsgBusMsg& m) {
    b.SendReply(MsgBusMsg::ReplyTo(m).Append(std::string("inner")));
  });
  ScriptedHandler outer([](IMsgBus& b, MsgBusMsg& m) {
    MsgBusMsg question = Message("inner");
    std::unique_ptr<MsgBusMsg> answer;
    b.SendMsgWaitForReply(question, answer, -1);
    b.SendReply(MsgBusMsg::ReplyTo(m).Append(answer->Body().at(0)));
  });
  Register(inner, "inner");
  Register(outer, "outer");
  bus.StartServer("server");
  EXPECT_EQ(CallText(Message("outer")), "nothing thrown");
  ASSERT_NE(reply, nullptr);
  EXPECT_EQ(std::get<std::string>(reply->Body().at(0)), "inner");
}

TEST_F(FakeBus, HasNothingToDoForAWatchedDestination) {
  bus.WatchDestination("server");
  EXPECT_FALSE(bus.IsRunning());
}

#if defined(SUPPORT_HAS_VIRTUAL_SLOTS)
TEST_F(FakeBus, KeepsTheOrderOfTheBussesOperations) {
  using support::VirtualSlot;
  // Slots 0 and 1 are the destructor's.
  const size_t slots[] = {
      VirtualSlot(&IMsgBus::SendMsg),
      VirtualSlot(&IMsgBus::SendMsgWaitForReply),
      VirtualSlot(&IMsgBus::SendReply),
      VirtualSlot(static_cast<void (IMsgBus::*)()>(&IMsgBus::StartServer)),
      VirtualSlot(static_cast<bool (IMsgBus::*)(const std::string&)>(&IMsgBus::StartServer)),
      VirtualSlot(static_cast<void (IMsgBus::*)()>(&IMsgBus::StopServer)),
      VirtualSlot(static_cast<void (IMsgBus::*)(const std::string&)>(&IMsgBus::StopServer)),
      VirtualSlot(&IMsgBus::RegisterDestinationName),
      VirtualSlot(&IMsgBus::UnregisterDestinationName),
      VirtualSlot(&IMsgBus::IsRunning),
      VirtualSlot(&IMsgBus::RegisterMessageHandler),
      VirtualSlot(&IMsgBus::UnregisterMessageHandler),
  };
  size_t expected = 2;
  for (size_t slot : slots) EXPECT_EQ(slot, expected++);
}
#endif

}  // namespace
}  // namespace tevra::check::fake
