// The administration interface over a bus, its server and its proxy.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/recording_administration.h"
#include "support/text_thrown_by.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/interfaces/i_administration.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/osa/exception.h"
#include "vigila/check/fake_msg_bus.h"

namespace tevra::interfaces {
namespace {

using check::fake::FakeMsgBus;
using msgbus::MsgBusMsg;
using Value = MsgBusMsg::Value;

constexpr uid_t kStranger = 61234;
constexpr gid_t kServiceGroup = 61000;
constexpr gid_t kAdminGroup = 61001;

std::string S(const char* text) {
  return text;
}

struct Offer {
  const char* name;
  std::vector<Value> arguments;
};

const std::vector<Offer>& Offers() {
  static const std::vector<Offer> offers = {
      {"GetAccounts", {S("t"), S("c"), uint32_t{7}}},
      {"GetAccount", {S("t"), S("n")}},
      {"UnlockAccount", {S("t"), S("n")}},
      {"GetSessions", {S("t"), S("u"), S("c"), uint32_t{9}}},
      {"EndSession", {S("t"), S("i")}},
      {"EndSessions", {S("t"), S("u"), true}},
      {"SetSessionSource", {S("t"), S("s")}},
      {"ExplainAccount", {S("t"), S("n"), S("/p")}},
      {"ExplainSession", {S("t"), S("t"), S("/p")}},
      {"GetRuleEffect", {S("t"), S("/p"), S("@r")}},
      {"CheckPassword", {S("t"), S("n"), S("p")}},
      {"ChangePassword", {S("t"), S("c"), S("p")}},
      {"StartBackup", {S("t"), S("p")}},
      {"GetBackup", {S("t"), S("i"), uint32_t{5}}},
      {"PutBackup", {S("t"), S("i"), uint32_t{6}, S("b")}},
      {"StartRestore", {S("t"), S("i"), S("p")}},
      {"GetRestorePlan", {S("t"), S("i")}},
      {"CommitRestore", {S("t"), S("i")}},
  };
  return offers;
}

class AdministrationOnABus : public testing::Test {
 protected:
  AdministrationOnABus() {
    platform.Set("Access", "service_groups", std::to_string(kServiceGroup));
    platform.Set("Access", "admin_groups", std::to_string(kAdminGroup));
    bus.StartServer();
    bus.RegisterDestinationName(ISecurityProvider::kDestination);  // the provider's server does it
    server.reset(IAdministration::CreateServer(&bus, &administration, {}));
    proxy.reset(IAdministration::CreateClient(&bus));
  }
  std::unique_ptr<MsgBusMsg> Ask(const Offer& offer,
                                 const std::vector<gid_t>& groups = {kServiceGroup}) {
    MsgBusMsg request(IAdministration::kInterface, offer.name, ISecurityProvider::kDestination);
    for (const Value& argument : offer.arguments) request.Append(argument);
    request.SetSender({kStranger, groups});
    std::unique_ptr<MsgBusMsg> reply;
    bus.SendMsgWaitForReply(request, reply, -1);
    return reply;
  }

  support::PlatformFixture platform;
  support::CapturingLog log;
  FakeMsgBus bus;
  support::RecordingAdministration administration;
  std::unique_ptr<IAdministration::IServer> server;
  std::unique_ptr<IAdministration> proxy;
};

TEST_F(AdministrationOnABus, EveryOperationArrivesAsItWasCalled) {
  EXPECT_EQ(support::AskEverything(*proxy, "t"),
            std::vector<std::string>(Offers().size(), "{\"Code\":0}"));
  EXPECT_EQ(administration.Calls(), support::EverythingAsked("t, admin"));
}

TEST_F(AdministrationOnABus, TheServerTellsWhichRoleACallerHas) {
  for (const Offer& offer : Offers()) {
    EXPECT_FALSE(Ask(offer, {kServiceGroup})->IsError()) << offer.name;
    EXPECT_NE(administration.Calls().back().find("(t, service:"), std::string::npos) << offer.name;
    EXPECT_FALSE(Ask(offer, {kAdminGroup})->IsError()) << offer.name;
    EXPECT_NE(administration.Calls().back().find("(t, admin:"), std::string::npos) << offer.name;
    EXPECT_FALSE(Ask(offer, {kServiceGroup, kAdminGroup})->IsError()) << offer.name;
    EXPECT_NE(administration.Calls().back().find("(t, admin:"), std::string::npos) << offer.name;
  }
}

TEST_F(AdministrationOnABus, ACallerWithoutAnyRoleIsRefusedLoggedAndCounted) {
  for (const Offer& offer : Offers()) {
    const auto reply = Ask(offer, {100});
    EXPECT_EQ(reply->ErrorName(), msgbus::BusError::kAccessDenied) << offer.name;
    EXPECT_EQ(reply->ErrorText(), std::string("the caller does not hold the role 'service' that ") +
                                      offer.name + " needs");
  }
  EXPECT_TRUE(administration.Calls().empty());
  EXPECT_EQ(server->RefusedCalls(), Offers().size());
  EXPECT_TRUE(log.Contains(
      "Refused GetAccounts to user 61234, who does not hold the role service (refusal 1)"));
}

TEST_F(AdministrationOnABus, ACallerWhomTheAdministrationRefusesIsLoggedAndCounted) {
  administration.failure = std::make_exception_ptr(AccessDenied("log on again"));
  const auto reply = Ask(Offers()[1]);
  EXPECT_EQ(reply->ErrorName(), msgbus::BusError::kAccessDenied);
  EXPECT_EQ(reply->ErrorText(), "log on again");
  EXPECT_EQ(server->RefusedCalls(), 1u);
  EXPECT_TRUE(log.Contains("Refused GetAccount to user 61234: log on again (refusal 1)"));
  EXPECT_THROW(proxy->GetAccount("t", "n"), AccessDenied);
}

TEST_F(AdministrationOnABus, ArgumentsOfOtherTypesAreRefusedAndArriveNowhere) {
  for (const Offer& offer : Offers()) {
    for (size_t i = 0; i <= offer.arguments.size(); ++i) {
      Offer wrong = offer;
      if (i == offer.arguments.size()) {
        wrong.arguments.push_back(S("one more"));
      } else {
        wrong.arguments[i] = std::vector<std::string>{"another type"};
      }
      EXPECT_EQ(Ask(wrong)->ErrorName(), msgbus::BusError::kInvalidArgs) << offer.name << i;
    }
    EXPECT_EQ(Ask({offer.name, {}})->ErrorName(), msgbus::BusError::kInvalidArgs) << offer.name;
  }
  EXPECT_EQ(Ask({"EndSessions", {S("t"), S("u")}})->ErrorText(),
            "EndSessions takes (ssb), not (ss)");
  EXPECT_TRUE(administration.Calls().empty());
}

TEST_F(AdministrationOnABus, WhatGoesWrongIsAnErrorAndNotACrash) {
  administration.failure = std::make_exception_ptr(osa::Exception("no disk"));
  EXPECT_EQ(Ask(Offers()[2])->ErrorName(), msgbus::BusError::kFailed);
  EXPECT_EQ(support::TextThrownBy([&] { proxy->UnlockAccount("t", "n"); }), "no disk");
  EXPECT_TRUE(log.Contains("UnlockAccount failed: no disk"));
  EXPECT_EQ(server->RefusedCalls(), 0u);
}

TEST_F(AdministrationOnABus, TextsOfAnyBytesAndLengthsArrive) {
  const std::string odd("\0\xff\n", 3);
  const std::string large(1 << 20, 'x');
  proxy->ExplainAccount(odd, "", large);
  EXPECT_EQ(administration.Calls().back(), "ExplainAccount(" + odd + ", admin:  " + large + ")");
}

TEST_F(AdministrationOnABus, AnAnswerOfAnotherTypeIsMalformed) {
  server.reset();
  class Odd final : public msgbus::IMessageHandler {
    void HandleMessage(msgbus::IMsgBus& own, MsgBusMsg& message) override {
      MsgBusMsg reply = MsgBusMsg::ReplyTo(message);
      reply.Append(true);
      own.SendReply(reply);
    }
  } odd;
  bus.RegisterMessageHandler("GetAccount", IAdministration::kInterface, &odd);
  EXPECT_EQ(support::TextThrownBy([&] { proxy->GetAccount("t", "n"); }),
            "malformed reply to GetAccount: (b) instead of (s)");
  bus.UnregisterMessageHandler(&odd);
}

TEST_F(AdministrationOnABus, AServerThatIsGoneLeavesNothingBehind) {
  server.reset();
  EXPECT_THROW(proxy->GetAccount("t", "n"), osa::Exception);
  server.reset(IAdministration::CreateServer(&bus, &administration, {}));
  EXPECT_NO_THROW(proxy->GetAccount("t", "n"));
}

}  // namespace
}  // namespace tevra::interfaces
