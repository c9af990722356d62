#include <fcntl.h>
#include <gtest/gtest.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/capturing_log.h"
#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/interfaces/revocation_page.h"
#include "tevra/interfaces/revocation_page_writer.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/caller_roles.h"
#include "tevra/osa/exception.h"
#include "vigila/check/fake_msg_bus.h"

namespace tevra::interfaces {
namespace {

using check::fake::FakeMsgBus;
using msgbus::CallerRoles;
using msgbus::MsgBusMsg;
using support::RecordingProvider;
using Value = MsgBusMsg::Value;

constexpr uid_t kStranger = 61234;
constexpr gid_t kServiceGroup = 61000;
constexpr gid_t kAdminGroup = 61001;

struct Offer {
  const char* name;
  CallerRoles::Role role;
  std::vector<Value> arguments;
  const char* call;       // as the provider sees it
  const char* signature;  // of the answer
};

std::string S(const char* text) {
  return text;
}

const std::vector<Offer>& Offers() {
  static const std::vector<Offer> offers = {
      {"Authenticate",
       CallerRoles::kService,
       {true, S("u"), S("p")},
       "Authenticate(true, u, p)",
       "s"},
      {"AuthenticateHttp",
       CallerRoles::kService,
       {false, S("u"), S("n"), S("h"), true, S("q"), S("c"), S("1"), S("r")},
       "AuthenticateHttp(false, u, n, h, true, q, c, 1, r)",
       "s"},
      {"AuthenticateWsse",
       CallerRoles::kService,
       {true, S("u"), S("d"), S("n"), S("c")},
       "AuthenticateWsse(true, u, d, n, c)",
       "s"},
      {"Invalidate", CallerRoles::kAdmin, {S("u")}, "Invalidate(u)", ""},
      {"IsAuthenticated", CallerRoles::kService, {S("t")}, "IsAuthenticated(t)", "b"},
      {"IsProtected", CallerRoles::kService, {S("/p")}, "IsProtected(/p)", "b"},
      {"GetAllowedPaths", CallerRoles::kService, {S("t")}, "GetAllowedPaths(t)", "l"},
      {"GetAllowedPermissions", CallerRoles::kService, {S("t")}, "GetAllowedPermissions(t)", "l"},
      {"GetCredentials", CallerRoles::kService, {S("t")}, "GetCredentials(t)", "s"},
      {"GetExpiration", CallerRoles::kService, {S("u")}, "GetExpiration(u)", "is"},
      {"Authorize", CallerRoles::kService, {S("t"), S("/p")}, "Authorize(t, /p)", "b"},
      {"Logout", CallerRoles::kService, {S("t")}, "Logout(t)", "b"},
      {"GetNonce", CallerRoles::kService, {}, "GetNonce()", "s"},
      {"GetUsers", CallerRoles::kAdmin, {}, "GetUsers()", "s"},
      {"AddUsers", CallerRoles::kAdmin, {S("{}")}, "AddUsers({})", "i"},
      {"ModifyUsers", CallerRoles::kAdmin, {S("{}")}, "ModifyUsers({})", "i"},
      {"DeleteUsers",
       CallerRoles::kAdmin,
       {std::vector<std::string>{"a", "", "b"}},
       "DeleteUsers([<a><><b>])",
       "i"},
      {"ValidatePassword",
       CallerRoles::kAdmin,
       {S("u"), S("c"), S("p")},
       "ValidatePassword(u, c, p)",
       "i"},
      {"AddPassphrase", CallerRoles::kAdmin, {S("p"), S("a")}, "AddPassphrase(p, a)", "s"},
      {"GetPassphrases", CallerRoles::kAdmin, {}, "GetPassphrases()", "s"},
      {"GetPassphrase", CallerRoles::kAdmin, {S("i")}, "GetPassphrase(i)", "s"},
      {"DeletePassphrase", CallerRoles::kAdmin, {S("i")}, "DeletePassphrase(i)", "b"},
  };
  return offers;
}

class SignalRecorder : public msgbus::IMessageHandler {
 public:
  explicit SignalRecorder(const RecordingProvider* provider = nullptr) : provider_(provider) {}
  void HandleMessage(msgbus::IMsgBus&, MsgBusMsg& message) override {
    signatures.push_back(message.Signature());
    destinations.push_back(message.GetDestination());
    if (message.Signature() == "b") values.push_back(std::get<bool>(message.Body()[0]));
    if (provider_) calls_before.push_back(provider_->Calls().size());
  }
  std::vector<std::string> signatures;
  std::vector<std::string> destinations;
  std::vector<bool> values;
  std::vector<size_t> calls_before;

 private:
  const RecordingProvider* const provider_;
};

class Server : public testing::Test {
 protected:
  Server() {
    platform.Set("Access", "service_groups", std::to_string(kServiceGroup));
    platform.Set("Access", "admin_groups", std::to_string(kAdminGroup));
    bus.StartServer();
    Create();
  }
  void Create() { server.reset(ISecurityProvider::CreateServer(&bus, &provider)); }
  void Watch(SignalRecorder& recorder) {
    bus.RegisterMessageHandler(ISecurityProvider::kChangedSignal, ISecurityProvider::kInterface,
                               &recorder);
  }

  static MsgBusMsg Request(const std::string& name, const std::vector<Value>& arguments) {
    MsgBusMsg request(ISecurityProvider::kInterface, name, ISecurityProvider::kDestination);
    for (const Value& argument : arguments) request.Append(argument);
    return request;
  }
  std::unique_ptr<MsgBusMsg> Ask(MsgBusMsg request) {
    std::unique_ptr<MsgBusMsg> reply;
    bus.SendMsgWaitForReply(request, reply, -1);
    EXPECT_NE(reply, nullptr);
    return reply;
  }
  std::unique_ptr<MsgBusMsg> Ask(const std::string& name, const std::vector<Value>& arguments) {
    return Ask(Request(name, arguments));
  }
  std::unique_ptr<MsgBusMsg> AskAs(const msgbus::Credentials& sender, const Offer& offer) {
    MsgBusMsg request = Request(offer.name, offer.arguments);
    request.SetSender(sender);
    return Ask(std::move(request));
  }

  support::PlatformFixture platform;
  support::CapturingLog log;
  FakeMsgBus bus;
  support::RecordingProvider provider;
  std::unique_ptr<ISecurityProvider::IServer> server;
};

TEST_F(Server, HandsEveryOperationToTheProvider) {
  provider.list = {"one", "two"};
  for (const Offer& offer : Offers()) {
    SCOPED_TRACE(offer.name);
    provider.ForgetCalls();
    auto reply = Ask(offer.name, offer.arguments);
    ASSERT_FALSE(reply->IsError()) << reply->ErrorText();
    EXPECT_EQ(provider.Calls().back(), offer.call);
    EXPECT_EQ(reply->Signature(), offer.signature);
    EXPECT_EQ(reply->GetType(), MsgBusMsg::Type::kReply);
  }
}

TEST_F(Server, CarriesTheProvidersAnswers) {
  provider.text = std::string("a\0b\xff", 4);
  provider.number = -7;
  provider.flag = false;
  provider.list = {"", std::string(1, '\0'), "c"};
  EXPECT_EQ(std::get<std::string>(Ask("GetUsers", {})->Body()[0]), provider.text);
  EXPECT_EQ(std::get<int32_t>(Ask("AddUsers", {S("")})->Body()[0]), -7);
  EXPECT_FALSE(std::get<bool>(Ask("IsProtected", {S("/")})->Body()[0]));
  EXPECT_EQ(std::get<std::vector<std::string>>(Ask("GetAllowedPaths", {S("t")})->Body()[0]),
            provider.list);
  auto expiration = Ask("GetExpiration", {S("u")});
  EXPECT_EQ(std::get<int32_t>(expiration->Body()[0]), -7);
  EXPECT_EQ(std::get<std::string>(expiration->Body()[1]), provider.text);
}

TEST_F(Server, PassesTextsOfAnyBytesAndLength) {
  const std::string odd("\0\xff\n", 3);
  Ask("IsProtected", {odd});
  EXPECT_EQ(provider.Calls().back(), "IsProtected(" + odd + ")");
  const std::string large(1 << 20, 'x');
  Ask("IsProtected", {large});
  EXPECT_EQ(provider.Calls().back(), "IsProtected(" + large + ")");
}

TEST_F(Server, RefusesEveryOperationToACallerWithoutItsRole) {
  for (const Offer& offer : Offers()) {
    SCOPED_TRACE(offer.name);
    provider.ForgetCalls();
    auto reply = AskAs({kStranger, {100}}, offer);
    ASSERT_TRUE(reply->IsError());
    EXPECT_EQ(reply->ErrorName(), "org.freedesktop.DBus.Error.AccessDenied");
    EXPECT_EQ(reply->ErrorText(), std::string("the caller does not hold the role '") +
                                      CallerRoles::RoleName(offer.role) + "' that " + offer.name +
                                      " needs");
    EXPECT_TRUE(provider.Calls().empty());
  }
  EXPECT_EQ(server->RefusedCalls(), Offers().size());
}

TEST_F(Server, RefusesTheOptionalOperationsToACallerWithoutTheServiceRole) {
  for (const char* name : {"TestLdap", "AllowHttpDigest"}) {
    MsgBusMsg request = Request(name, {});
    request.SetSender({kStranger, {kAdminGroup}});
    EXPECT_EQ(Ask(request)->ErrorName(), msgbus::BusError::kAccessDenied);
    request.SetSender({kStranger, {kServiceGroup}});
    EXPECT_NE(Ask(request)->ErrorName(), msgbus::BusError::kAccessDenied);
  }
}

TEST_F(Server, ServesAGroupExactlyTheOperationsOfItsRole) {
  for (const Offer& offer : Offers()) {
    SCOPED_TRACE(offer.name);
    const bool admin = offer.role == CallerRoles::kAdmin;
    EXPECT_EQ(AskAs({kStranger, {kServiceGroup}}, offer)->IsError(), admin);
    EXPECT_EQ(AskAs({kStranger, {kAdminGroup}}, offer)->IsError(), !admin);
    EXPECT_FALSE(AskAs({kStranger, {kServiceGroup, kAdminGroup}}, offer)->IsError());
    EXPECT_FALSE(AskAs({0, {}}, offer)->IsError());
  }
}

TEST_F(Server, CountsRefusalsAndFoldsThoseOfOneUserInTheLog) {
  EXPECT_EQ(server->RefusedCalls(), 0u);
  MsgBusMsg request = Request("GetUsers", {});
  request.SetSender({kStranger, {}});
  Ask(request);
  Ask(request);
  EXPECT_EQ(server->RefusedCalls(), 2u);
  request.SetSender({kStranger + 1, {}});
  Ask(request);
  const std::vector<support::LogLine> expected = {
      {core::Logger::kNotice, "SecurityProviderServer",
       "Refused GetUsers to user 61234, who does not hold the role admin (refusal 1)"},
      {core::Logger::kNotice, "SecurityProviderServer",
       "Refused GetUsers to user 61235, who does not hold the role admin (refusal 3)"}};
  EXPECT_EQ(log.Lines(), expected);
}

TEST_F(Server, AnswersAWrongSignatureWithInvalidArgs) {
  const std::vector<std::vector<Value>> wrong = {{},
                                                 {S("t")},
                                                 {S("t"), true},
                                                 {S("t"), S("p"), S("x")},
                                                 {uint32_t{1}, S("p")},
                                                 {std::vector<std::string>{"t"}, S("p")}};
  for (const auto& arguments : wrong) {
    auto reply = Ask("Authorize", arguments);
    ASSERT_TRUE(reply->IsError());
    EXPECT_EQ(reply->ErrorName(), "org.freedesktop.DBus.Error.InvalidArgs");
  }
  EXPECT_EQ(Ask("Authorize", {true})->ErrorText(), "Authorize takes (ss), not (b)");
  EXPECT_EQ(Ask("GetNonce", {true})->ErrorText(), "GetNonce takes (), not (b)");
  EXPECT_TRUE(provider.Calls().empty());
}

TEST_F(Server, ChecksTheSignatureOfEveryOperation) {
  for (const Offer& offer : Offers()) {
    std::vector<Value> arguments = offer.arguments;
    arguments.push_back(uint32_t{0});
    EXPECT_EQ(Ask(offer.name, arguments)->ErrorName(), "org.freedesktop.DBus.Error.InvalidArgs")
        << offer.name;
  }
  EXPECT_TRUE(provider.Calls().empty());
}

TEST_F(Server, TellsACallerWithoutTheRoleNothingAboutArguments) {
  MsgBusMsg request = Request("GetUsers", {true, true});
  request.SetSender({kStranger, {}});
  EXPECT_EQ(Ask(request)->ErrorName(), msgbus::BusError::kAccessDenied);
}

TEST_F(Server, HasNoOtherOperations) {
  MsgBusMsg request = Request("Shutdown", {});
  std::unique_ptr<MsgBusMsg> reply;
  EXPECT_THROW(bus.SendMsgWaitForReply(request, reply, -1), osa::Exception);
}

TEST_F(Server, TurnsExceptionsIntoErrorReplies) {
  provider.failure = std::make_exception_ptr(osa::Exception("the store is %s", "gone"));
  auto reply = Ask("GetUsers", {});
  EXPECT_EQ(reply->ErrorName(), "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(reply->ErrorText(), "the store is gone");
  EXPECT_TRUE(log.Contains("GetUsers failed: the store is gone"));

  provider.failure = std::make_exception_ptr(std::runtime_error("other"));
  reply = Ask("GetUsers", {});
  EXPECT_EQ(reply->ErrorName(), "org.freedesktop.DBus.Error.Failed");
  EXPECT_EQ(reply->ErrorText(), "other");

  provider.failure = nullptr;
  EXPECT_FALSE(Ask("GetUsers", {})->IsError());
}

TEST_F(Server, AnswersUnimplementedOperationsWithNotSupported) {
  EXPECT_EQ(Ask("AllowHttpDigest", {})->ErrorName(), "org.freedesktop.DBus.Error.NotSupported");
  EXPECT_EQ(Ask("TestLdap",
                {S(""), S(""), S(""), int32_t{3}, S(""), S(""), S(""), S(""), S(""), S(""), S("")})
                ->ErrorName(),
            "org.freedesktop.DBus.Error.NotSupported");
  EXPECT_EQ(Ask("TestLdap", {})->ErrorText(), "TestLdap takes (sssisssssss), not ()");
}

TEST_F(Server, BroadcastsEveryChangeOfTheProvider) {
  SignalRecorder recorder;
  Watch(recorder);
  provider.FireChangeListeners(true);
  provider.FireChangeListeners(false);
  EXPECT_EQ(recorder.values, (std::vector<bool>{true, false}));
  EXPECT_EQ(recorder.destinations, (std::vector<std::string>{"", ""}));
}

TEST_F(Server, BroadcastsWhenSessionsHaveBeenInvalidated) {
  SignalRecorder recorder(&provider);
  Watch(recorder);
  EXPECT_FALSE(Ask("Invalidate", {S("*")})->IsError());
  EXPECT_EQ(recorder.values, (std::vector<bool>{false})) << "nothing but sessions has ended";
  EXPECT_EQ(recorder.calls_before, (std::vector<size_t>{1}));
}

TEST_F(Server, BroadcastsTheLogoutOfALiveSessionAfterItEnded) {
  SignalRecorder recorder(&provider);
  Watch(recorder);
  provider.credentials = "alice";
  EXPECT_TRUE(std::get<bool>(Ask("Logout", {S("t")})->Body()[0]));
  EXPECT_EQ(recorder.values, (std::vector<bool>{false})) << "nothing but a session has ended";
  EXPECT_EQ(provider.Calls(), (std::vector<std::string>{"GetCredentials(t)", "Logout(t)"}));
  EXPECT_EQ(recorder.calls_before, (std::vector<size_t>{2}));
}

TEST_F(Server, DoesNotBroadcastALogoutThatEndedNothing) {
  SignalRecorder recorder;
  Watch(recorder);
  EXPECT_TRUE(std::get<bool>(Ask("Logout", {S("NO_TOKEN")})->Body()[0]));
  provider.credentials = "alice";
  provider.flag = false;
  EXPECT_FALSE(std::get<bool>(Ask("Logout", {S("t")})->Body()[0]));
  provider.failure = std::make_exception_ptr(osa::Exception("no"));
  Ask("Logout", {S("t")});
  Ask("Invalidate", {S("t")});
  provider.failure = nullptr;
  Ask("Authorize", {S("t"), S("/")});
  EXPECT_TRUE(recorder.values.empty());
}

// A bus that can hand out a page; its timers run when the test says so.
class SharingBus : public FakeMsgBus {
 public:
  uint64_t Instance() const override { return instance; }
  void ShareDescriptor(const std::string& destination, int descriptor) override {
    EXPECT_EQ(destination, ISecurityProvider::kDestination);
    shared = osa::Descriptor(fcntl(descriptor, F_DUPFD_CLOEXEC, 0));
  }
  uint64_t StartTimer(std::chrono::milliseconds every, std::function<void()> task) override {
    interval = every;
    tick = std::move(task);
    return 5;
  }
  void StopTimer(uint64_t timer) override {
    EXPECT_EQ(timer, 5u);
    tick = nullptr;
  }

  uint64_t instance = 7;
  osa::Descriptor shared;
  std::chrono::milliseconds interval{0};
  std::function<void()> tick;
};

class SharingServer : public testing::Test {
 protected:
  SharingServer() {
    bus.StartServer();
    server.reset(ISecurityProvider::CreateServer(&bus, &provider));
    page = RevocationPage::Map(bus.shared);
  }
  static uint64_t Now() {
    timespec now;
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
  }

  support::PlatformFixture platform;
  support::CapturingLog log;
  SharingBus bus;
  RecordingProvider provider;
  std::unique_ptr<ISecurityProvider::IServer> server;
  std::shared_ptr<const RevocationPage> page;
};

TEST_F(SharingServer, HandsOutItsPage) {
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page->Instance(), 7u);
  EXPECT_TRUE(page->IsAlive(Now()));
}

TEST_F(SharingServer, RaisesTheEpochWithEveryChangeBeforeTheBroadcast) {
  struct Looking : msgbus::IMessageHandler {
    void HandleMessage(msgbus::IMsgBus&, MsgBusMsg&) override { epochs.push_back(page->Epoch()); }
    std::shared_ptr<const RevocationPage> page;
    std::vector<uint64_t> epochs;
  } looking;
  looking.page = page;
  bus.RegisterMessageHandler(ISecurityProvider::kChangedSignal, ISecurityProvider::kInterface,
                             &looking);
  provider.FireChangeListeners(true);
  provider.FireChangeListeners(false);
  EXPECT_EQ(looking.epochs, (std::vector<uint64_t>{1, 2}));
  bus.UnregisterMessageHandler(&looking);
}

TEST_F(SharingServer, RaisesTheSlotOfASessionThatEndsAndNotTheEpoch) {
  provider.FireSessionEndListeners("0F3A9C21");
  EXPECT_EQ(page->Slot(RevocationPage::SlotOf("0F3A9C21")), 1u);
  EXPECT_EQ(page->Ends(), 1u);
  EXPECT_EQ(page->Epoch(), 0u);
}

TEST_F(SharingServer, RenewsThePageOnTheThreadThatAnswersRequests) {
  EXPECT_EQ(bus.interval, RevocationPageWriter::kRenewal);
  const uint64_t end = Now() + std::chrono::nanoseconds(RevocationPageWriter::kLife).count();
  ASSERT_FALSE(page->IsAlive(end));
  ASSERT_TRUE(bus.tick);
  bus.tick();
  EXPECT_TRUE(page->IsAlive(end - 1));
}

TEST_F(SharingServer, EndsThePageAndItsRenewalWithItself) {
  server.reset();
  EXPECT_FALSE(page->IsAlive(0));
  EXPECT_FALSE(bus.tick);
  provider.FireSessionEndListeners("0F3A9C21");
  EXPECT_EQ(page->Ends(), 0u);
}

TEST_F(Server, AnswersThoughNoOneHearsTheBroadcast) {
  provider.credentials = "alice";
  EXPECT_FALSE(Ask("Logout", {S("t")})->IsError());
  EXPECT_FALSE(Ask("Invalidate", {S("*")})->IsError());
  EXPECT_NO_THROW(provider.FireChangeListeners(true));
  bus.StopServer();
  EXPECT_NO_THROW(provider.FireChangeListeners(true));
}

TEST_F(Server, LeavesNothingBehindOnTheBus) {
  SignalRecorder other;
  bus.RegisterMessageHandler("other", "test.Interface", &other);
  server.reset();
  for (const Offer& offer : Offers()) {
    MsgBusMsg request = Request(offer.name, offer.arguments);
    EXPECT_THROW(bus.SendMsg(request), osa::Exception) << offer.name;
  }
  std::unique_ptr<MsgBusMsg> reply;
  MsgBusMsg request("test.Interface", "other", ISecurityProvider::kDestination);
  EXPECT_NO_THROW(bus.SendMsg(request));
  EXPECT_THROW(bus.SendMsgWaitForReply(request, reply, -1), osa::Exception);
  provider.FireChangeListeners(true);
  Create();
  EXPECT_FALSE(Ask("GetNonce", {})->IsError());
}

class RefusingBus : public FakeMsgBus {
 public:
  void RegisterDestinationName(const std::string&) override { throw osa::Exception("name taken"); }
  void RegisterMessageHandler(const std::string& message, const std::string& interface,
                              msgbus::IMessageHandler* handler) override {
    ++registered;
    FakeMsgBus::RegisterMessageHandler(message, interface, handler);
  }
  void UnregisterMessageHandler(msgbus::IMessageHandler* handler) override {
    --registered;
    FakeMsgBus::UnregisterMessageHandler(handler);
  }
  int registered = 0;
};

TEST_F(Server, CleansUpWhenTheBusRefusesItsName) {
  RefusingBus refusing;
  support::RecordingProvider own;
  try {
    ISecurityProvider::CreateServer(&refusing, &own);
    FAIL() << "nothing thrown";
  } catch (const osa::Exception& e) {
    EXPECT_STREQ(e.what(), "name taken");
  }
  EXPECT_EQ(refusing.registered, 0);
  own.FireChangeListeners(true);
}

TEST_F(Server, DoesNotStartWithMisconfiguredRoles) {
  platform.Set("Access", "admin_groups", "no-such-group-here");
  EXPECT_THROW(ISecurityProvider::CreateServer(&bus, &provider), osa::Exception);
}

}  // namespace
}  // namespace tevra::interfaces
