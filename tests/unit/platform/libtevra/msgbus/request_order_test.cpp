#include <gtest/gtest.h>

#include <future>
#include <string>
#include <vector>

#include "direct_transport_fixture.h"
#include "support/event_log.h"
#include "support/function_handler.h"

namespace tevra::msgbus {
namespace {

using support::EventLog;
using support::FunctionHandler;

// Notes the text that each call brings.
class NotingHandler final : public IMessageHandler {
 public:
  NotingHandler(EventLog& log, bool is_dear) : log_(log), is_dear_(is_dear) {}
  void HandleMessage(IMsgBus& bus, MsgBusMsg& message) override {
    log_.Add(std::get<std::string>(message.Body().at(0)));
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  }
  bool IsDear() const override { return is_dear_; }

 private:
  EventLog& log_;
  const bool is_dear_;
};

class RequestOrder : public DirectTransportTest {
 protected:
  RequestOrder() {
    server_ = NewBus();
    server_->RegisterMessageHandler("Cheap", kInterface, &cheap_);
    server_->RegisterMessageHandler("Dear", kInterface, &dear_);
    server_->RegisterMessageHandler("Block", kInterface, &block_);
    server_->StartServer(kDestination);
    blocker_ = GreetedClient();
  }
  // Keeps the server busy; what is written meanwhile is all there when it looks again.
  void Block() {
    blocker_.Write(RawCall(kInterface, "Block"));
    entered_.get_future().wait();
  }
  std::vector<std::string> EventsAfter(size_t count) {
    leave_.set_value();
    EXPECT_TRUE(log_.WaitFor(count));
    server_.reset();
    return log_.Events();
  }

  EventLog log_;
  NotingHandler cheap_{log_, false};
  NotingHandler dear_{log_, true};
  std::promise<void> entered_;
  std::promise<void> leave_;
  FunctionHandler block_{[this](IMsgBus& bus, MsgBusMsg& message) {
    entered_.set_value();
    leave_.get_future().wait();
    bus.SendReply(MsgBusMsg::ReplyTo(message));
  }};
  std::unique_ptr<MsgBus> server_;
  RawSocket blocker_{-1};
};

TEST_F(RequestOrder, TakesWaitingCheapCallsBeforeDearOnesThatCameEarlier) {
  std::vector<RawSocket> clients;
  for (int i = 0; i < 8; ++i) clients.push_back(GreetedClient());
  Block();
  for (size_t i = 0; i < clients.size(); ++i) {
    const std::string name = i < 4 ? "Dear" : "Cheap";
    clients[i].Write(RawCall(kInterface, name, {name}));
  }
  std::vector<std::string> expected(4, "Cheap");
  expected.insert(expected.end(), 4, "Dear");
  EXPECT_EQ(EventsAfter(8), expected);
}

TEST_F(RequestOrder, TakesOneCallOfEachConnectionAtATime) {
  RawSocket greedy = GreetedClient();
  RawSocket modest = GreetedClient();
  Block();
  std::string calls;
  for (int i = 0; i < 4; ++i) calls += RawCall(kInterface, "Dear", {std::string("greedy")});
  greedy.Write(calls);
  modest.Write(RawCall(kInterface, "Dear", {std::string("modest")}));
  const std::vector<std::string> events = EventsAfter(5);
  EXPECT_TRUE(events[0] == "modest" || events[1] == "modest") << testing::PrintToString(events);
}

TEST_F(RequestOrder, DoesNotWorkForACallerWhoHasHungUp) {
  RawSocket first = GreetedClient();
  RawSocket gone = GreetedClient();
  RawSocket last = GreetedClient();
  Block();
  first.Write(RawCall(kInterface, "Dear", {std::string("first")}));
  gone.Write(RawCall(kInterface, "Dear", {std::string("gone")}));
  gone.Close();
  last.Write(RawCall(kInterface, "Dear", {std::string("last")}));
  EXPECT_EQ(EventsAfter(2), (std::vector<std::string>{"first", "last"}));
}

}  // namespace
}  // namespace tevra::msgbus
