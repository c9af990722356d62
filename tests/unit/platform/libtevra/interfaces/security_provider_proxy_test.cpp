#include <fcntl.h>
#include <gtest/gtest.h>

#include <climits>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "support/change_recorder.h"
#include "support/platform_fixture.h"
#include "support/recording_provider.h"
#include "support/text_thrown_by.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/interfaces/revocation_page.h"
#include "tevra/interfaces/revocation_page_writer.h"
#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/caller_roles.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"
#include "vigila/check/fake_msg_bus.h"

namespace tevra::interfaces {
namespace {

using check::fake::FakeMsgBus;
using msgbus::IMsgBus;
using msgbus::MsgBusMsg;
using support::TextThrownBy;

// A bus on which one server answers whatever it was told to.
class ScriptedBus : public FakeMsgBus {
 public:
  void SendMsgWaitForReply(MsgBusMsg& message, std::unique_ptr<MsgBusMsg>& reply,
                           int timeout_ms) override {
    requests.push_back(message);
    timeouts.push_back(timeout_ms);
    reply = answer ? answer(message) : nullptr;
  }
  void WatchDestination(const std::string& name) override {
    if (fail_to_watch) throw osa::Exception("cannot watch");
    watched.push_back(name);
  }
  void RegisterMessageHandler(const std::string& message, const std::string& interface,
                              msgbus::IMessageHandler* handler) override {
    handlers.push_back(interface + "#" + message);
    FakeMsgBus::RegisterMessageHandler(message, interface, handler);
  }
  void UnregisterMessageHandler(msgbus::IMessageHandler* handler) override {
    ++unregistered;
    FakeMsgBus::UnregisterMessageHandler(handler);
  }

  bool HasPeers() const override { return has_peers; }
  Shared SharedDescriptor(const std::string& name) override {
    EXPECT_EQ(name, ISecurityProvider::kDestination);
    if (shared < 0) return {nullptr, instance};
    return {std::make_shared<const osa::Descriptor>(fcntl(shared, F_DUPFD_CLOEXEC, 0)), instance};
  }

  bool has_peers = false;
  int shared = -1;
  uint64_t instance = 0;
  std::function<std::unique_ptr<MsgBusMsg>(const MsgBusMsg&)> answer;
  bool fail_to_watch = false;
  std::vector<MsgBusMsg> requests;
  std::vector<int> timeouts;
  std::vector<std::string> watched;
  std::vector<std::string> handlers;
  int unregistered = 0;
};

class Proxy : public testing::Test {
 protected:
  Proxy() {
    bus.StartServer();
    proxy.reset(ISecurityProvider::CreateClient(&bus));
  }

  template <typename... Values>
  void AnswerWith(Values... values) {
    bus.answer = [=](const MsgBusMsg& request) {
      auto reply = std::make_unique<MsgBusMsg>(MsgBusMsg::ReplyTo(request));
      (reply->Append(values), ...);
      return reply;
    };
  }
  void AnswerWithError(const std::string& name, const std::string& text) {
    bus.answer = [=](const MsgBusMsg& request) {
      return std::make_unique<MsgBusMsg>(MsgBusMsg::ErrorTo(request, name, text));
    };
  }
  void Notify(const char* interface, const char* name, std::vector<MsgBusMsg::Value> body) {
    MsgBusMsg message(interface, name, "");
    for (auto& value : body) message.Append(value);
    bus.SendMsg(message);
  }
  void NotifyChanged(std::vector<MsgBusMsg::Value> body) {
    Notify(ISecurityProvider::kInterface, ISecurityProvider::kChangedSignal, std::move(body));
  }
  void NotifyAppeared(std::vector<MsgBusMsg::Value> body) {
    Notify(IMsgBus::kLocalInterface, IMsgBus::kDestinationAppeared, std::move(body));
  }
  void NotifyVanished(std::vector<MsgBusMsg::Value> body) {
    Notify(IMsgBus::kLocalInterface, IMsgBus::kDestinationVanished, std::move(body));
  }

  ScriptedBus bus;
  std::unique_ptr<ISecurityProvider> proxy;
};

TEST_F(Proxy, AsksTheServersDestinationWithTheConfiguredDeadline) {
  AnswerWith(true);
  EXPECT_TRUE(proxy->Authorize("token", "/path"));
  ASSERT_EQ(bus.requests.size(), 1u);
  EXPECT_EQ(bus.requests[0].GetInterface(), ISecurityProvider::kInterface);
  EXPECT_EQ(bus.requests[0].GetName(), "Authorize");
  EXPECT_EQ(bus.requests[0].GetDestination(), ISecurityProvider::kDestination);
  EXPECT_EQ(bus.requests[0].Body(),
            (std::vector<MsgBusMsg::Value>{std::string("token"), std::string("/path")}));
  EXPECT_EQ(bus.timeouts, (std::vector<int>{-1}));
}

TEST_F(Proxy, WatchesTheServerAndListensForChanges) {
  EXPECT_EQ(bus.watched, (std::vector<std::string>{ISecurityProvider::kDestination}));
  EXPECT_EQ(bus.handlers, (std::vector<std::string>{"tevra.interfaces.ISecurityProvider#Changed",
                                                    "tevra.msgbus.Local#DestinationAppeared",
                                                    "tevra.msgbus.Local#DestinationVanished"}));
}

TEST_F(Proxy, SubscribesToNothingForWhoOnlyAsks) {
  ScriptedBus asked;
  asked.answer = [](const MsgBusMsg& request) {
    auto reply = std::make_unique<MsgBusMsg>(MsgBusMsg::ReplyTo(request));
    reply->Append(true);
    return reply;
  };
  {
    const std::unique_ptr<ISecurityProvider> one_shot(
        ISecurityProvider::CreateOneShotClient(&asked));
    EXPECT_TRUE(one_shot->Authorize("token", "/path"));
  }
  EXPECT_TRUE(asked.watched.empty());
  EXPECT_TRUE(asked.handlers.empty());
  EXPECT_EQ(asked.unregistered, 0);
}

TEST(OneShotClient, CostsNoThread) {
  const support::PlatformFixture platform;
  const auto threads = [] {
    using Tasks = std::filesystem::directory_iterator;
    return std::distance(Tasks("/proc/self/task"), Tasks());
  };
  support::RecordingProvider provider;
  msgbus::MsgBus serving;
  const std::unique_ptr<ISecurityProvider::IServer> server(
      ISecurityProvider::CreateServer(&serving, &provider));
  serving.StartServer();
  const auto before = threads();
  msgbus::MsgBus bus;
  const std::unique_ptr<ISecurityProvider> one_shot(ISecurityProvider::CreateOneShotClient(&bus));
  EXPECT_TRUE(one_shot->Authorize("token", "/path"));
  const auto without = threads();
  EXPECT_LE(without, before);
  const std::unique_ptr<ISecurityProvider> listening(ISecurityProvider::CreateClient(&bus));
  EXPECT_GT(threads(), without);
}

TEST_F(Proxy, TakesItsRegistrationsBack) {
  proxy.reset();
  EXPECT_EQ(bus.unregistered, 3);
  EXPECT_EQ(TextThrownBy([&] { NotifyChanged({true}); }), "no handler");
  EXPECT_EQ(TextThrownBy([&] { NotifyAppeared({std::string("x")}); }), "no handler");
  EXPECT_EQ(TextThrownBy([&] { NotifyVanished({std::string("x")}); }), "no handler");
}

TEST_F(Proxy, TakesItsRegistrationsBackWhenItCannotBeMade) {
  ScriptedBus failing;
  failing.fail_to_watch = true;
  EXPECT_EQ(TextThrownBy([&] { delete ISecurityProvider::CreateClient(&failing); }),
            "cannot watch");
  EXPECT_EQ(failing.unregistered, 3);
}

TEST_F(Proxy, TellsItsListenersTheBroadcastValue) {
  support::ChangeRecorder recorder;
  recorder.Attach(*proxy);
  NotifyChanged({true});
  NotifyChanged({false});
  EXPECT_EQ(recorder.Values(), (std::vector<bool>{true, false}));
}

TEST_F(Proxy, TellsItsListenersWheneverTheServerAppears) {
  support::ChangeRecorder recorder;
  recorder.Attach(*proxy);
  NotifyAppeared({std::string(ISecurityProvider::kDestination)});
  NotifyAppeared({std::string(ISecurityProvider::kDestination)});
  EXPECT_EQ(recorder.Values(), (std::vector<bool>{true, true}));
}

TEST_F(Proxy, TellsItsListenersWheneverTheServerVanishes) {
  support::ChangeRecorder recorder;
  recorder.Attach(*proxy);
  NotifyVanished({std::string(ISecurityProvider::kDestination)});
  NotifyVanished({std::string(ISecurityProvider::kDestination)});
  EXPECT_EQ(recorder.Values(), (std::vector<bool>{true, true}));
}

// A proxy whose server lives in another process.
class RemoteProxy : public Proxy {
 protected:
  RemoteProxy() {
    bus.has_peers = true;
    proxy.reset();
    proxy.reset(ISecurityProvider::CreateClient(&bus));
  }
  void Appear(uint64_t instance, const RevocationPageWriter* writer) {
    bus.instance = instance;
    bus.shared = writer != nullptr ? writer->Memory().get() : -1;
    NotifyAppeared({std::string(ISecurityProvider::kDestination)});
  }
  void AnswerAs(uint64_t instance) {
    bus.answer = [=](const MsgBusMsg& request) {
      auto reply = std::make_unique<MsgBusMsg>(MsgBusMsg::ReplyTo(request));
      reply->Append(true).SetInstance(instance);
      return reply;
    };
  }
};

TEST_F(Proxy, WithinAProcessHasThePageThatNeverChanges) {
  EXPECT_EQ(proxy->GetRevocationPage(), RevocationPage::Unchanging());
}

TEST_F(RemoteProxy, HasNoPageBeforeTheServerAppears) {
  EXPECT_EQ(proxy->GetRevocationPage(), nullptr);
}

TEST_F(RemoteProxy, ThatDoesNotListenNeverHasAPage) {
  proxy.reset();
  proxy.reset(ISecurityProvider::CreateOneShotClient(&bus));
  EXPECT_EQ(proxy->GetRevocationPage(), nullptr);
}

TEST_F(RemoteProxy, FollowsThePageOfTheServerThatAppeared) {
  RevocationPageWriter first(7);
  Appear(7, &first);
  const auto page = proxy->GetRevocationPage();
  ASSERT_NE(page, nullptr);
  EXPECT_EQ(page->Instance(), 7u);
  first.RaiseEpoch();
  EXPECT_EQ(page->Epoch(), 1u);
  const RevocationPageWriter second(8);
  Appear(8, &second);
  EXPECT_EQ(proxy->GetRevocationPage()->Instance(), 8u);
}

TEST_F(RemoteProxy, HasThePageBeforeItsListenersHearOfTheAppearance) {
  struct Looking {
    void OnChange(const bool&) { seen = provider->GetRevocationPage() != nullptr; }
    ISecurityProvider* provider;
    bool seen = false;
  } looking{proxy.get()};
  using Listener = core::VoidObjectMethodDelegate1<Looking, void (Looking::*)(const bool&), bool>;
  proxy->AddChangeListener(std::make_unique<Listener>(&looking, &Looking::OnChange));
  const RevocationPageWriter writer(7);
  Appear(7, &writer);
  EXPECT_TRUE(looking.seen);
}

TEST_F(RemoteProxy, HasNoPageOfAServerThatHandsOutNoneOrAnothers) {
  const RevocationPageWriter writer(7);
  Appear(7, nullptr);
  EXPECT_EQ(proxy->GetRevocationPage(), nullptr);
  Appear(8, &writer);
  EXPECT_EQ(proxy->GetRevocationPage(), nullptr);
}

TEST_F(RemoteProxy, LeavesThePageOfAServerThatVanished) {
  const RevocationPageWriter writer(7);
  Appear(7, &writer);
  NotifyVanished({std::string(ISecurityProvider::kDestination)});
  EXPECT_EQ(proxy->GetRevocationPage(), nullptr);
}

TEST_F(RemoteProxy, CountsAnswersOfOtherServersThanThatOfThePage) {
  const RevocationPageWriter writer(7);
  Appear(7, &writer);
  AnswerAs(7);
  EXPECT_TRUE(proxy->Authorize("t", "/p"));
  EXPECT_EQ(proxy->StrayAnswers(), 0u);
  AnswerAs(8);
  EXPECT_TRUE(proxy->Authorize("t", "/p"));
  EXPECT_EQ(proxy->StrayAnswers(), 1u);
}

TEST_F(RemoteProxy, CountsNotificationsWhereNoPageIsHandedOut) {
  Appear(0, nullptr);
  const auto page = proxy->GetRevocationPage();
  ASSERT_NE(page, nullptr);
  EXPECT_NE(page, RevocationPage::Unchanging());
  AnswerWith(true);
  EXPECT_TRUE(proxy->Authorize("t", "/p"));
  EXPECT_EQ(proxy->StrayAnswers(), 0u);
  EXPECT_EQ(page->Epoch(), 0u);
  NotifyChanged({true});
  NotifyChanged({false});
  EXPECT_EQ(page->Epoch(), 2u);
  NotifyVanished({std::string(ISecurityProvider::kDestination)});
  EXPECT_EQ(proxy->GetRevocationPage(), nullptr);
}

TEST_F(Proxy, IgnoresNotificationsThatAreNotForIt) {
  support::ChangeRecorder recorder;
  recorder.Attach(*proxy);
  NotifyAppeared({std::string("krand.target.permission")});
  NotifyAppeared({});
  NotifyAppeared({true});
  NotifyVanished({std::string("krand.target.permission")});
  NotifyVanished({});
  NotifyChanged({});
  NotifyChanged({std::string("true")});
  NotifyChanged({true, true});
  EXPECT_TRUE(recorder.Values().empty());
}

TEST_F(Proxy, ThrowsTheServersErrorText) {
  AnswerWithError("org.freedesktop.DBus.Error.Failed", "the store is 100% gone");
  EXPECT_EQ(TextThrownBy([&] { proxy->GetUsers(); }), "the store is 100% gone");
  AnswerWithError("org.freedesktop.DBus.Error.UnknownMethod", "");
  EXPECT_EQ(TextThrownBy([&] { proxy->GetUsers(); }), "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(Proxy, ThrowsAccessDeniedForARefusedCaller) {
  AnswerWithError(msgbus::BusError::kAccessDenied, "the role 'admin' is missing");
  try {
    proxy->GetUsers();
    FAIL() << "nothing thrown";
  } catch (const AccessDenied& e) {
    EXPECT_STREQ(e.what(), "the role 'admin' is missing");
  }
}

TEST_F(Proxy, ThrowsUnimplementedForAnOperationTheServerDoesNotSupport) {
  AnswerWithError("org.freedesktop.DBus.Error.NotSupported", "unimplemented");
  try {
    proxy->AllowHttpDigest();
    FAIL() << "nothing thrown";
  } catch (const osa::Exception& e) {
    EXPECT_EQ(e.code(), osa::Exception::kUnimplemented);
  }
}

TEST_F(Proxy, ThrowsWhatTheBusThrows) {
  bus.answer = [](const MsgBusMsg&) -> std::unique_ptr<MsgBusMsg> {
    throw osa::Exception("nobody serves that");
  };
  EXPECT_EQ(TextThrownBy([&] { proxy->IsProtected("/"); }), "nobody serves that");
}

TEST_F(Proxy, RefusesAReplyThatIsNotThere) {
  EXPECT_EQ(TextThrownBy([&] { proxy->IsProtected("/"); }), "malformed reply to IsProtected: none");
}

TEST_F(Proxy, RefusesABodyOfTheWrongTypes) {
  AnswerWith(std::string("true"));
  EXPECT_EQ(TextThrownBy([&] { proxy->IsProtected("/"); }),
            "malformed reply to IsProtected: (s) instead of (b)");
  AnswerWith();
  EXPECT_EQ(TextThrownBy([&] { proxy->AddUsers("{}"); }),
            "malformed reply to AddUsers: () instead of (i)");
  AnswerWith(true, true);
  EXPECT_EQ(TextThrownBy([&] { proxy->Authorize("t", "/"); }),
            "malformed reply to Authorize: (bb) instead of (b)");
  EXPECT_EQ(TextThrownBy([&] { proxy->Invalidate("*"); }),
            "malformed reply to Invalidate: (bb) instead of ()");
  AnswerWith(uint32_t{7});
  EXPECT_EQ(TextThrownBy([&] { proxy->DeleteUsers({}); }),
            "malformed reply to DeleteUsers: (u) instead of (i)");
}

TEST_F(Proxy, RefusesATokenThatIsTooLongToBeOne) {
  AnswerWith(std::string("12345678"));
  EXPECT_EQ(proxy->Authenticate(false, "", ""), "12345678");
  AnswerWith(std::string());
  EXPECT_EQ(proxy->Authenticate(false, "", ""), "");
  AnswerWith(std::string("123456789"));
  EXPECT_EQ(TextThrownBy([&] { proxy->Authenticate(false, "", ""); }),
            "malformed reply to Authenticate: a text of 9 bytes");
  EXPECT_EQ(TextThrownBy([&] { proxy->AuthenticateWsse(false, "", "", "", ""); }),
            "malformed reply to AuthenticateWsse: a text of 9 bytes");
  EXPECT_EQ(
      TextThrownBy([&] { proxy->AuthenticateHttp(false, "", "", "", false, "", "", "", ""); }),
      "malformed reply to AuthenticateHttp: a text of 9 bytes");
}

TEST_F(Proxy, RefusesANonceThatIsTooLongToBeOne) {
  AnswerWith(std::string(32, 'a'));
  EXPECT_EQ(proxy->GetNonce(), std::string(32, 'a'));
  AnswerWith(std::string(33, 'a'));
  EXPECT_EQ(TextThrownBy([&] { proxy->GetNonce(); }),
            "malformed reply to GetNonce: a text of 33 bytes");
}

TEST_F(Proxy, LeavesTheExpirationUntouchedOnFailure) {
  std::string expires = "before";
  AnswerWith(int32_t{1});
  EXPECT_NE(TextThrownBy([&] { proxy->GetExpiration("u", expires); }), "nothing thrown");
  EXPECT_EQ(expires, "before");
  AnswerWith(int32_t{INT_MAX}, std::string());
  EXPECT_EQ(proxy->GetExpiration("u", expires), INT_MAX);
  EXPECT_EQ(expires, "");
}

// Both halves against each other: whatever goes in at the proxy arrives at the provider.
class ProxyAndServer : public testing::Test {
 protected:
  ProxyAndServer() {
    bus.StartServer();
    server.reset(ISecurityProvider::CreateServer(&bus, &provider));
    proxy.reset(ISecurityProvider::CreateClient(&bus));
  }

  support::PlatformFixture platform;
  FakeMsgBus bus;
  support::RecordingProvider provider;
  std::unique_ptr<ISecurityProvider::IServer> server;
  std::unique_ptr<ISecurityProvider> proxy;
};

TEST_F(ProxyAndServer, AgreeOnEveryOperation) {
  provider.number = 5;
  provider.list = {"a", ""};
  std::string expires;
  EXPECT_EQ(proxy->Authenticate(true, "u", "p"), "answer");
  EXPECT_EQ(proxy->AuthenticateHttp(false, "u", "n", "h", true, "q", "c", "1", "r"), "answer");
  EXPECT_EQ(proxy->AuthenticateWsse(true, "u", "d", "n", "c"), "answer");
  proxy->Invalidate("u");
  EXPECT_TRUE(proxy->IsAuthenticated("t"));
  EXPECT_TRUE(proxy->IsProtected("/p"));
  EXPECT_EQ(proxy->GetAllowedPaths("t"), provider.list);
  EXPECT_EQ(proxy->GetAllowedPermissions("t"), provider.list);
  EXPECT_EQ(proxy->GetCredentials("t"), "");
  EXPECT_EQ(proxy->GetExpiration("u", expires), 5);
  EXPECT_EQ(expires, "answer");
  EXPECT_TRUE(proxy->Authorize("t", "/p"));
  EXPECT_EQ(proxy->GetNonce(), "answer");
  EXPECT_EQ(proxy->GetUsers(), "answer");
  EXPECT_EQ(proxy->AddUsers("{1}"), 5);
  EXPECT_EQ(proxy->ModifyUsers("{2}"), 5);
  EXPECT_EQ(proxy->DeleteUsers({"a", "b"}), 5);
  EXPECT_EQ(proxy->ValidatePassword("u", "c", "p"), 5);
  EXPECT_EQ(proxy->AddPassphrase("p", "a"), "answer");
  EXPECT_EQ(proxy->GetPassphrases(), "answer");
  EXPECT_EQ(proxy->GetPassphrase("i"), "answer");
  EXPECT_TRUE(proxy->DeletePassphrase("i"));
  const std::vector<std::string> expected = {
      "Authenticate(true, u, p)",
      "AuthenticateHttp(false, u, n, h, true, q, c, 1, r)",
      "AuthenticateWsse(true, u, d, n, c)",
      "Invalidate(u)",
      "IsAuthenticated(t)",
      "IsProtected(/p)",
      "GetAllowedPaths(t)",
      "GetAllowedPermissions(t)",
      "GetCredentials(t)",
      "GetExpiration(u)",
      "Authorize(t, /p)",
      "GetNonce()",
      "GetUsers()",
      "AddUsers({1})",
      "ModifyUsers({2})",
      "DeleteUsers([<a><b>])",
      "ValidatePassword(u, c, p)",
      "AddPassphrase(p, a)",
      "GetPassphrases()",
      "GetPassphrase(i)",
      "DeletePassphrase(i)",
  };
  EXPECT_EQ(provider.Calls(), expected);
}

TEST_F(ProxyAndServer, AgreeOnWhatIsUnimplemented) {
  const auto code_of = [](auto&& call) {
    try {
      call();
    } catch (const osa::Exception& e) {
      return static_cast<int>(e.code());
    }
    return -1;
  };
  EXPECT_EQ(code_of([&] { proxy->AllowHttpDigest(); }), osa::Exception::kUnimplemented);
  EXPECT_EQ(code_of([&] { proxy->TestLdap("a", "b", "c", 4, "e", "f", "g", "h", "i", "j", "k"); }),
            osa::Exception::kUnimplemented);
}

TEST_F(ProxyAndServer, CarryChangesToTheClientsListenersBeforeTheAnswer) {
  support::ChangeRecorder recorder;
  recorder.Attach(*proxy);
  provider.credentials = "alice";
  EXPECT_TRUE(proxy->Logout("t"));
  EXPECT_EQ(recorder.Values(), (std::vector<bool>{false}));
  proxy->Invalidate("*");
  provider.FireChangeListeners(true);
  EXPECT_EQ(recorder.Values(), (std::vector<bool>{false, false, true}));
}

TEST_F(ProxyAndServer, PassTheProvidersFailureOn) {
  provider.failure = std::make_exception_ptr(osa::Exception("no disk"));
  try {
    proxy->GetUsers();
    FAIL() << "nothing thrown";
  } catch (const osa::Exception& e) {
    EXPECT_STREQ(e.what(), "no disk");
  }
}

}  // namespace
}  // namespace tevra::interfaces
