#include "tevra/msgbus/handler_table.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "support/function_handler.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

using support::FunctionHandler;

class HandlerTableTest : public ::testing::Test {
 protected:
  MsgBus bus_;
  HandlerTable table_;
  MsgBusMsg message_{"a.b", "C", "d.e"};
};

TEST_F(HandlerTableTest, FindsNothingInAnEmptyTable) {
  EXPECT_FALSE(table_.Run(bus_, message_));
}

TEST_F(HandlerTableTest, RunsTheHandlerOfInterfaceAndName) {
  int runs = 0;
  FunctionHandler handler([&runs](IMsgBus&, MsgBusMsg&) { ++runs; });
  table_.Register("a.b", "C", &handler);
  MsgBusMsg other_name("a.b", "D", "d.e");
  MsgBusMsg other_interface("a.c", "C", "d.e");
  EXPECT_TRUE(table_.Run(bus_, message_));
  EXPECT_FALSE(table_.Run(bus_, other_name));
  EXPECT_FALSE(table_.Run(bus_, other_interface));
  EXPECT_EQ(runs, 1);
}

TEST_F(HandlerTableTest, LetsExceptionsThroughAndRunsAgain) {
  FunctionHandler handler([](IMsgBus&, MsgBusMsg&) { throw osa::Exception("no"); });
  table_.Register("a.b", "C", &handler);
  EXPECT_THROW(table_.Run(bus_, message_), osa::Exception);
  EXPECT_THROW(table_.Run(bus_, message_), osa::Exception);
  table_.Unregister(&handler);
}

TEST_F(HandlerTableTest, UnregistersAHandlerFromWithinItself) {
  FunctionHandler* self = nullptr;
  FunctionHandler handler([&](IMsgBus&, MsgBusMsg&) { table_.Unregister(self); });
  self = &handler;
  table_.Register("a.b", "C", &handler);
  EXPECT_TRUE(table_.Run(bus_, message_));
  EXPECT_FALSE(table_.Run(bus_, message_));
}

TEST_F(HandlerTableTest, UnregisterWaitsForACallOnAnotherThread) {
  std::promise<void> entered;
  std::promise<void> leave;
  std::atomic<bool> left{false};
  FunctionHandler handler([&](IMsgBus&, MsgBusMsg&) {
    entered.set_value();
    leave.get_future().wait();
    left = true;
  });
  table_.Register("a.b", "C", &handler);
  std::thread runner([this] { table_.Run(bus_, message_); });
  entered.get_future().wait();
  std::atomic<bool> left_before_return{false};
  std::thread remover([&] {
    table_.Unregister(&handler);
    left_before_return = left.load();
  });
  // Whether the remover waits already or comes later, it must find the call finished.
  leave.set_value();
  remover.join();
  runner.join();
  EXPECT_TRUE(left_before_return);
}

TEST_F(HandlerTableTest, UnregisterOfAnotherHandlerDoesNotWait) {
  std::promise<void> entered;
  std::promise<void> leave;
  FunctionHandler busy([&](IMsgBus&, MsgBusMsg&) {
    entered.set_value();
    leave.get_future().wait();
  });
  FunctionHandler other([](IMsgBus&, MsgBusMsg&) {});
  table_.Register("a.b", "C", &busy);
  table_.Register("a.b", "D", &other);
  std::thread runner([this] { table_.Run(bus_, message_); });
  entered.get_future().wait();
  table_.Unregister(&other);
  leave.set_value();
  runner.join();
  MsgBusMsg gone("a.b", "D", "d.e");
  EXPECT_FALSE(table_.Run(bus_, gone));
}

}  // namespace
}  // namespace tevra::msgbus
