#include "krand/interfaces/permission_initiator.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/function_handler.h"
#include "support/platform_fixture.h"
#include "support/text_thrown_by.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/caller_roles.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"

namespace {

using support::TextThrownBy;
using tevra::msgbus::IMsgBus;
using tevra::msgbus::MsgBusMsg;
using Values = std::vector<MsgBusMsg::Value>;

const Values kMalformedStatuses[] = {{}, {std::string("0")}, {true}, {uint32_t{0}}};

// A target on the bus that answers what the test tells it to, right or wrong.
class PermissionInitiator : public testing::Test {
 protected:
  using Answer = std::function<MsgBusMsg(const MsgBusMsg& request)>;

  void SetUp() override {
    for (const char* name : {"getAccessRule", "setAccessRule"}) {
      bus_.RegisterMessageHandler(name, "krand.interfaces.PermissionTarget", &handler_);
    }
    bus_.RegisterDestinationName("krand.target.permission");
    bus_.StartServer();
  }
  void TearDown() override {
    bus_.UnregisterMessageHandler(&handler_);
    bus_.UnregisterMessageHandler(&handler_);
    bus_.StopServer();
  }

  void AnswerWith(Answer answer) {
    const std::lock_guard<std::mutex> lock(mutex_);
    answer_ = std::move(answer);
  }
  void AnswerWithBody(const Values& body) {
    AnswerWith([body](const MsgBusMsg& request) {
      MsgBusMsg reply = MsgBusMsg::ReplyTo(request);
      for (const MsgBusMsg::Value& value : body) reply.Append(value);
      return reply;
    });
  }

  std::string FailureOfGet() {
    return TextThrownBy([this] { initiator_.GetAccessRule("/jpeg*"); });
  }
  std::string FailureOfSet() {
    return TextThrownBy([this] { initiator_.SetAccessRule("/jpeg*", "true"); });
  }

  const support::PlatformFixture platform_;
  KrandApiPermissionInitiator initiator_{"permission"};

 private:
  std::mutex mutex_;
  Answer answer_;
  support::FunctionHandler handler_{[this](IMsgBus& bus, MsgBusMsg& request) {
    const std::lock_guard<std::mutex> lock(mutex_);
    bus.SendReply(answer_(request));
  }};
  tevra::msgbus::MsgBus bus_;
};

TEST_F(PermissionInitiator, RefusesAnswersWithoutAStatus) {
  for (const Values& body : kMalformedStatuses) {
    AnswerWithBody(body);
    EXPECT_EQ(FailureOfSet(), "setAccessRule: malformed reply");
    Values with_rule = body;
    with_rule.push_back(std::string("@admins"));
    AnswerWithBody(with_rule);
    EXPECT_EQ(FailureOfGet(), "getAccessRule: malformed reply");
  }
}

TEST_F(PermissionInitiator, RefusesAnswersWithTooLittleOrTooMuch) {
  AnswerWithBody({int32_t{0}});
  EXPECT_EQ(FailureOfGet(), "getAccessRule: malformed reply");
  EXPECT_EQ(FailureOfSet(), "nothing thrown");
  AnswerWithBody({int32_t{0}, std::string("@admins")});
  EXPECT_EQ(FailureOfGet(), "nothing thrown");
  EXPECT_EQ(FailureOfSet(), "setAccessRule: malformed reply");
  AnswerWithBody({int32_t{0}, std::string("@admins"), std::string("true")});
  EXPECT_EQ(FailureOfGet(), "getAccessRule: malformed reply");
}

TEST_F(PermissionInitiator, RefusesAStatusThatIsNeitherDoneNorRefused) {
  for (const int32_t status : {-1, 2, 256}) {
    AnswerWithBody({status});
    EXPECT_EQ(FailureOfSet(), "setAccessRule: malformed reply") << status;
    AnswerWithBody({status, std::string("@admins")});
    EXPECT_EQ(FailureOfGet(), "getAccessRule: malformed reply") << status;
  }
}

TEST_F(PermissionInitiator, TakesNoRuleFromARefusal) {
  AnswerWithBody({int32_t{1}, std::string("true")});
  EXPECT_EQ(initiator_.GetAccessRule("/jpeg*"), std::nullopt);
}

TEST_F(PermissionInitiator, TellsTheTargetsOwnErrors) {
  AnswerWith([](const MsgBusMsg& request) {
    return MsgBusMsg::ErrorTo(request, "org.freedesktop.DBus.Error.Failed", "no %s today");
  });
  EXPECT_EQ(FailureOfGet(), "getAccessRule: no %s today");
  EXPECT_EQ(FailureOfSet(), "setAccessRule: no %s today");
}

TEST_F(PermissionInitiator, TellsARefusedCallerWhichRoleWasMissing) {
  AnswerWith([](const MsgBusMsg& request) {
    return MsgBusMsg::ErrorTo(request, tevra::msgbus::BusError::kAccessDenied,
                              "the caller lacks the %n role");
  });
  EXPECT_THROW(initiator_.GetAccessRule("/jpeg*"), tevra::interfaces::AccessDenied);
  EXPECT_THROW(initiator_.SetAccessRule("/jpeg*", "true"), tevra::interfaces::AccessDenied);
  EXPECT_EQ(FailureOfGet(), "the caller lacks the %n role");
}

TEST_F(PermissionInitiator, GivesEachOfSeveralThreadsItsOwnAnswer) {
  AnswerWith([](const MsgBusMsg& request) {
    MsgBusMsg reply = MsgBusMsg::ReplyTo(request);
    reply.Append(int32_t{0});
    reply.Append(request.Body()[0]);
    return reply;
  });
  std::vector<std::thread> threads;
  for (int id = 0; id < 4; ++id) {
    threads.emplace_back([this, id] {
      const std::string path(static_cast<std::size_t>(100 * id + 1), static_cast<char>('a' + id));
      for (int i = 0; i < 50; ++i) EXPECT_EQ(initiator_.GetAccessRule(path), path);
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
