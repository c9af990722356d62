#include "tevra/msgbus/subscribers.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/platform_fixture.h"
#include "tevra/msgbus/handler_table.h"
#include "tevra/msgbus/msg_bus.h"

namespace tevra::msgbus {
namespace {

class SubscribersTest : public testing::Test, private IMessageHandler {
 protected:
  SubscribersTest() {
    handlers_.Register(IMsgBus::kLocalInterface, IMsgBus::kDestinationAppeared, this);
    handlers_.Register(IMsgBus::kLocalInterface, IMsgBus::kDestinationVanished, this);
    subscribers_.Add(dispatcher_, "a");
  }
  std::vector<std::string> Heard() { return std::exchange(heard_, {}); }

  support::PlatformFixture platform_;
  MsgBus bus_;
  HandlerTable handlers_;
  RequestDispatcher dispatcher_{bus_, handlers_, 1024};
  Subscribers subscribers_;

 private:
  void HandleMessage(IMsgBus&, MsgBusMsg& message) override { heard_.push_back(message.GetName()); }

  std::vector<std::string> heard_;
};

using Names = std::vector<std::string>;

TEST_F(SubscribersTest, AreToldOneByOneWhetherADestinationIsThere) {
  subscribers_.TellOne(&dispatcher_, "a");
  EXPECT_EQ(Heard(), Names{IMsgBus::kDestinationVanished});
  subscribers_.Appeared("a");
  EXPECT_EQ(Heard(), Names{IMsgBus::kDestinationAppeared});
  subscribers_.TellOne(&dispatcher_, "a");
  EXPECT_EQ(Heard(), Names{IMsgBus::kDestinationAppeared});
  subscribers_.Vanished("a");
  EXPECT_EQ(Heard(), Names{IMsgBus::kDestinationVanished});
  subscribers_.TellOne(&dispatcher_, "a");
  EXPECT_EQ(Heard(), Names{IMsgBus::kDestinationVanished});
}

// A call that was answered before the watch stood, and that comes to tell of it afterwards.
TEST_F(SubscribersTest, AreNotToldOfAVanishingBehindTheAppearanceThatMendedIt) {
  EXPECT_EQ(dispatcher_.watches().AfterAnswer("a"), WatchStates::News::kNone);
  dispatcher_.watches().Watch("a");
  ASSERT_EQ(dispatcher_.watches().AfterAnswer("a"), WatchStates::News::kVanished);
  subscribers_.Appeared("a");
  subscribers_.TellOne(&dispatcher_, "a");
  EXPECT_EQ(Heard(), (Names{IMsgBus::kDestinationAppeared, IMsgBus::kDestinationAppeared}));
}

TEST_F(SubscribersTest, OnlyHearOfWhatTheyWatch) {
  subscribers_.Appeared("b");
  subscribers_.TellOne(&dispatcher_, "b");
  EXPECT_EQ(Heard(), Names{});
}

}  // namespace
}  // namespace tevra::msgbus
