#include "vigila/client/vigila_client_impl.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "support/client_fixture.h"
#include "tevra/core/delegate.h"
#include "tevra/interfaces/access_denied.h"
#include "tevra/msgbus/connection_refused.h"

namespace vigila::client {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using tevra::interfaces::RevocationPage;

constexpr const char* kUnreachable = "could not connect to vigila";

class VigilaClientImplTest : public ClientFixture {
 protected:
  std::size_t Asked() const { return proxy_->Calls().size(); }
  bool Authenticate(const std::string& username, const std::string& password,
                    const std::string& mode = "") {
    return impl_->Authenticate(username, password, mode, token_);
  }
  bool AuthenticateHttp() {
    return impl_->AuthenticateHttp("alice", "n", "h", true, "q", "c", "1", "r", "cache", token_);
  }
  bool AuthenticateWsse() { return impl_->AuthenticateWsse("alice", "d", "n", "c", "", token_); }

  std::unique_ptr<VigilaClient::Impl> impl_ = NewImpl();
  std::string token_ = "before";
};

TEST_F(VigilaClientImplTest, AnswersALogonFromTheCacheWhateverTheMode) {
  EXPECT_TRUE(Authenticate("alice", "secret", "cache"));
  EXPECT_EQ(token_, "12345678");
  token_ = "";
  EXPECT_TRUE(Authenticate("alice", "secret", ""));
  EXPECT_EQ(token_, "12345678");
  EXPECT_THAT(proxy_->Calls(), ElementsAre("Authenticate(true, YWxpY2U=, c2VjcmV0)"));
  EXPECT_THAT(Log(), ElementsAre("authenticate for alice successful, token = 12345678",
                                 "cached authentication for alice, token = 12345678",
                                 "authenticate for alice successful, token = 12345678"));
}

TEST_F(VigilaClientImplTest, TellsItsAnswersToTheDebugLogOnly) {
  for (int i = 0; i < 2; ++i) {
    Authenticate("alice", "secret");
    AuthenticateHttp();
    AuthenticateWsse();
    impl_->Authorize("t", "/p");
    impl_->IsAuthenticated("t");
    impl_->IsProtected("/p");
  }
  EXPECT_EQ(Log().size(), 16u) << "each answer, and each of the four hits";
  EXPECT_EQ(log_.TextsOf("VigilaClient", tevra::core::Logger::kDebug), Log());
}

TEST_F(VigilaClientImplTest, TakesOnlyTheExactModeForReuse) {
  const struct {
    const char* mode;
    bool reuse;
  } kModes[] = {{"cache", true},   {"", false},     {"Cache", false}, {"cache ", false},
                {" cache", false}, {"cach", false}, {"caches", false}};
  for (const auto& test : kModes) {
    impl_->FlushCaches(true);
    proxy_->ForgetCalls();
    Authenticate("a", "b", test.mode);
    EXPECT_EQ(proxy_->Calls()[0],
              std::string("Authenticate(") + (test.reuse ? "true" : "false") + ", YQ==, Yg==)")
        << test.mode;
  }
  proxy_->ForgetCalls();
  Authenticate("c", "d", std::string("cache\0", 6));
  EXPECT_EQ(proxy_->Calls()[0], "Authenticate(false, Yw==, ZA==)");
}

TEST_F(VigilaClientImplTest, KeepsARefusedLogonToo) {
  proxy_->text = "NO_TOKEN";
  EXPECT_FALSE(Authenticate("alice", "wrong"));
  proxy_->text = "12345678";
  token_ = "";
  EXPECT_FALSE(Authenticate("alice", "wrong"));
  EXPECT_EQ(token_, "NO_TOKEN");
  EXPECT_EQ(Asked(), 1u);
  EXPECT_THAT(Log(), ElementsAre("authenticate for alice failed",
                                 "cached authentication for alice, token = NO_TOKEN",
                                 "authenticate for alice failed"));
  At(1001, 500'000);
  EXPECT_TRUE(Authenticate("alice", "wrong"));
}

TEST_F(VigilaClientImplTest, CallsDifferentAnswersFailuresInTheThreeLogons) {
  const struct {
    const char* token;
    bool password;
    bool http;
    bool wsse;
  } kAnswers[] = {
      {"", false, false, false},         {"NO_TOKEN", false, false, false},
      {"DISABLED", false, true, false},  {"NODIGEST", true, true, false},
      {"_EXPIRED", false, false, false}, {"12345678", true, true, true},
      {"no_token", true, true, true},    {"EXPIRED", true, true, true},
      {"NO_TOKE", true, true, true},
  };
  for (const auto& test : kAnswers) {
    proxy_->text = test.token;
    impl_->FlushCaches(false);
    token_ = "before";
    EXPECT_EQ(Authenticate("alice", "secret"), test.password) << test.token;
    EXPECT_EQ(token_, test.token);
    EXPECT_EQ(Authenticate("alice", "secret"), test.password) << "once more, " << test.token;
    token_ = "before";
    EXPECT_EQ(AuthenticateHttp(), test.http) << test.token;
    EXPECT_EQ(token_, test.token);
    token_ = "before";
    EXPECT_EQ(AuthenticateWsse(), test.wsse) << test.token;
    EXPECT_EQ(token_, test.token);
  }
}

TEST_F(VigilaClientImplTest, NeverKeepsAnEmptyToken) {
  proxy_->text = "";
  EXPECT_FALSE(Authenticate("alice", "secret"));
  EXPECT_FALSE(Authenticate("alice", "secret"));
  EXPECT_EQ(Asked(), 2u);
}

TEST_F(VigilaClientImplTest, AsksForDigestLogonsEveryTime) {
  EXPECT_TRUE(AuthenticateHttp());
  EXPECT_TRUE(AuthenticateHttp());
  EXPECT_TRUE(AuthenticateWsse());
  EXPECT_TRUE(AuthenticateWsse());
  EXPECT_THAT(proxy_->Calls(), ElementsAre("AuthenticateHttp(true, alice, n, h, true, q, c, 1, r)",
                                           "AuthenticateHttp(true, alice, n, h, true, q, c, 1, r)",
                                           "AuthenticateWsse(false, alice, d, n, c)",
                                           "AuthenticateWsse(false, alice, d, n, c)"));
  EXPECT_EQ(Log()[0], "authenticate for alice successful, token = 12345678");
  proxy_->text = "_EXPIRED";
  AuthenticateHttp();
  AuthenticateWsse();
  EXPECT_EQ(Log()[4], "authenticate for alice failed");
  EXPECT_EQ(Log()[5], "authenticate for alice failed");
}

TEST_F(VigilaClientImplTest, KeepsGrantsAndAsksAgainAfterRefusals) {
  proxy_->flag = false;
  EXPECT_FALSE(impl_->Authorize("token", "/path"));
  EXPECT_FALSE(impl_->Authorize("token", "/path"));
  EXPECT_EQ(Asked(), 2u);
  proxy_->flag = true;
  EXPECT_TRUE(impl_->Authorize("token", "/path"));
  proxy_->flag = false;
  EXPECT_TRUE(impl_->Authorize("token", "/path"));
  EXPECT_FALSE(impl_->Authorize("token", "/other"));
  EXPECT_FALSE(impl_->Authorize("other", "/path"));
  EXPECT_EQ(Asked(), 5u);
  EXPECT_THAT(
      Log(),
      ElementsAre("authorize for token to /path failed", "authorize for token to /path failed",
                  "authorize for token to /path successful",
                  "cached authorization for token token to /path",
                  "authorize for token to /path successful", "authorize for token to /other failed",
                  "authorize for other to /path failed"));
}

TEST_F(VigilaClientImplTest, NeverCallsNoTokenAuthenticated) {
  EXPECT_FALSE(impl_->IsAuthenticated("NO_TOKEN"));
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
  EXPECT_THAT(Log(), IsEmpty());
  EXPECT_TRUE(impl_->IsAuthenticated("NO_TOKEN "));
  EXPECT_TRUE(impl_->IsAuthenticated(""));
}

TEST_F(VigilaClientImplTest, KeepsOnlyThatATokenLives) {
  proxy_->flag = false;
  EXPECT_FALSE(impl_->IsAuthenticated("token"));
  proxy_->flag = true;
  EXPECT_TRUE(impl_->IsAuthenticated("token"));
  proxy_->flag = false;
  EXPECT_TRUE(impl_->IsAuthenticated("token"));
  EXPECT_EQ(Asked(), 2u);
  EXPECT_THAT(
      Log(),
      ElementsAre("is_authenticated for token is false", "is_authenticated for token is true",
                  "cached is_authenticated for token", "is_authenticated for token is true"));
}

TEST_F(VigilaClientImplTest, KeepsBothAnswersAboutProtection) {
  EXPECT_TRUE(impl_->IsProtected("/a"));
  proxy_->flag = false;
  EXPECT_TRUE(impl_->IsProtected("/a"));
  EXPECT_FALSE(impl_->IsProtected("/b"));
  proxy_->flag = true;
  EXPECT_FALSE(impl_->IsProtected("/b"));
  EXPECT_EQ(Asked(), 2u);
  EXPECT_THAT(Log(), ElementsAre("is_protected for /a is true", "cached is_protected for /a",
                                 "is_protected for /a is true", "is_protected for /b is false",
                                 "cached is_protected for /b", "is_protected for /b is false"));
}

TEST_F(VigilaClientImplTest, AsksAgainWhenALifetimeHasPassedWithoutAQuestion) {
  impl_->IsProtected("/a");
  for (int second = 1001; second < 1020; ++second) {
    At(second);
    impl_->IsProtected("/a");
  }
  EXPECT_EQ(Asked(), 1u) << "every hit renews";
  At(1020, 499'999);
  impl_->IsProtected("/a");
  EXPECT_EQ(Asked(), 1u);
  At(1021, 999'999);
  impl_->IsProtected("/a");
  EXPECT_EQ(Asked(), 2u) << "exactly a lifetime old";
}

TEST_F(VigilaClientImplTest, AsksForTheRestEveryTimeAndLogsNothing) {
  proxy_->list = {"x", "y"};
  proxy_->credentials = "alice";
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(impl_->Logout("t"));
    impl_->Invalidate("alice");
    EXPECT_EQ(impl_->GetCredentials("t"), "alice");
    EXPECT_EQ(impl_->GetNonce(), "12345678");
    EXPECT_THAT(impl_->GetAllowedPaths("t"), ElementsAre("x", "y"));
    EXPECT_THAT(impl_->GetAllowedPermissions("t"), ElementsAre("x", "y"));
  }
  EXPECT_EQ(Asked(), 12u);
  EXPECT_EQ(proxy_->Calls()[1], "Invalidate(alice)");
  EXPECT_THAT(Log(), IsEmpty());
}

TEST_F(VigilaClientImplTest, LeavesCachedAnswersInPlaceAtALogoutAndAnInvalidate) {
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_TRUE(impl_->IsAuthenticated("t"));
  EXPECT_TRUE(impl_->Logout("t"));
  impl_->Invalidate("*");
  proxy_->ForgetCalls();
  proxy_->flag = false;
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_TRUE(impl_->IsAuthenticated("t"));
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
}

TEST_F(VigilaClientImplTest, EmptiesEveryCacheAtANotificationOfEitherValue) {
  for (const bool value : {true, false}) {
    Authenticate("a", "b");
    impl_->Authorize("t", "/p");
    impl_->IsAuthenticated("t");
    impl_->IsProtected("/p");
    proxy_->ForgetCalls();
    proxy_->FireChangeListeners(value);
    Authenticate("a", "b");
    impl_->Authorize("t", "/p");
    impl_->IsAuthenticated("t");
    impl_->IsProtected("/p");
    EXPECT_EQ(Asked(), 4u) << value;
  }
}

TEST_F(VigilaClientImplTest, DoesNotKeepAGrantThatWasAskedForBeforeAFlush) {
  proxy_->while_asking = [this] { proxy_->FireChangeListeners(true); };
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  proxy_->while_asking = nullptr;
  proxy_->flag = false;
  EXPECT_FALSE(impl_->Authorize("t", "/p")) << "the revoked grant must not come back to life";
  EXPECT_EQ(Asked(), 2u);
}

TEST_F(VigilaClientImplTest, DropsExpiredEntriesOfTheAskedCacheBeforeItAsks) {
  impl_->Authorize("t", "/old");
  At(1002);
  bool kept = true;
  proxy_->while_asking = [&] {
    // The clock stands where the old entry would be alive again if it were still there.
    At(1000);
    proxy_->while_asking = nullptr;
    proxy_->flag = false;
    kept = impl_->Authorize("t", "/old");
  };
  impl_->Authorize("t", "/new");
  EXPECT_FALSE(kept);
}

TEST_F(VigilaClientImplTest, LeavesExpiredEntriesOfOtherCachesToTheirOwnMisses) {
  impl_->IsProtected("/p");
  At(1002);
  impl_->Authorize("t", "/p");
  At(1000);
  proxy_->ForgetCalls();
  impl_->IsProtected("/p");
  EXPECT_THAT(proxy_->Calls(), IsEmpty());
}

TEST_F(VigilaClientImplTest, KeepsTheFirstOfTwoAnswersToTheSameQuestion) {
  proxy_->while_asking = [this] {
    proxy_->while_asking = nullptr;
    EXPECT_TRUE(impl_->Authorize("t", "/p"));
  };
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 2u);
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 2u);
}

TEST_F(VigilaClientImplTest, RefusesEverythingWithoutAServer) {
  proxy_->Fail();
  proxy_->list = {"x"};
  EXPECT_FALSE(Authenticate("a", "b"));
  EXPECT_EQ(token_, "");
  token_ = "before";
  EXPECT_FALSE(AuthenticateHttp());
  EXPECT_EQ(token_, "");
  token_ = "before";
  EXPECT_FALSE(AuthenticateWsse());
  EXPECT_EQ(token_, "");
  EXPECT_FALSE(impl_->Authorize("t", "/p"));
  EXPECT_FALSE(impl_->IsAuthenticated("t"));
  EXPECT_FALSE(impl_->IsProtected("/p"));
  EXPECT_FALSE(impl_->Logout("t"));
  impl_->Invalidate("alice");
  EXPECT_EQ(impl_->GetCredentials("t"), "");
  EXPECT_EQ(impl_->GetNonce(), "");
  EXPECT_THAT(impl_->GetAllowedPaths("t"), IsEmpty());
  EXPECT_THAT(impl_->GetAllowedPermissions("t"), IsEmpty());
  EXPECT_EQ(log_.TextsOf("VigilaClient", tevra::core::Logger::kError),
            std::vector<std::string>(12, kUnreachable))
      << "one line for each call";
}

TEST_F(VigilaClientImplTest, CatchesWhateverTheProxyThrows) {
  proxy_->failure = std::make_exception_ptr(42);
  EXPECT_FALSE(impl_->Authorize("t", "/p"));
  EXPECT_THAT(log_.TextsOf("VigilaClient", tevra::core::Logger::kError), ElementsAre(kUnreachable));
}

TEST_F(VigilaClientImplTest, WorksAgainWithTheServer) {
  proxy_->Fail();
  EXPECT_FALSE(impl_->Authorize("t", "/p"));
  EXPECT_FALSE(Authenticate("a", "b"));
  EXPECT_FALSE(impl_->IsAuthenticated("t"));
  proxy_->Recover();
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_TRUE(Authenticate("a", "b"));
  EXPECT_TRUE(impl_->IsAuthenticated("t"));
}

// The false answer of an unreachable server is kept and renewed; the server's appearance ends it.
TEST_F(VigilaClientImplTest, KeepsTheGuessAboutProtectionUntilTheServerAppears) {
  proxy_->Fail();
  EXPECT_FALSE(impl_->IsProtected("/p"));
  proxy_->Recover();
  for (int second = 1001; second < 1005; ++second) {
    At(second);
    EXPECT_FALSE(impl_->IsProtected("/p"));
  }
  proxy_->FireChangeListeners(true);
  EXPECT_TRUE(impl_->IsProtected("/p"));
}

TEST_F(VigilaClientImplTest, KeepsNoGuessBesideAServersPage) {
  proxy_->UsePage(page_);
  proxy_->Fail();
  EXPECT_FALSE(impl_->IsProtected("/p"));
  proxy_->Recover();
  EXPECT_TRUE(impl_->IsProtected("/p")) << "no server had said so";
  EXPECT_EQ(Asked(), 2u);
  EXPECT_TRUE(impl_->IsProtected("/p"));
  EXPECT_EQ(Asked(), 2u);
}

TEST_F(VigilaClientImplTest, KeepsNothingWithoutAPage) {
  proxy_->UsePage(nullptr);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(impl_->Authorize("t", "/p"));
    EXPECT_TRUE(impl_->IsAuthenticated("t"));
    EXPECT_TRUE(impl_->IsProtected("/p"));
    EXPECT_TRUE(Authenticate("a", "b"));
  }
  EXPECT_EQ(Asked(), 8u);
  proxy_->Fail();
  EXPECT_FALSE(impl_->IsProtected("/p"));
  proxy_->Recover();
  EXPECT_TRUE(impl_->IsProtected("/p"));
}

TEST_F(VigilaClientImplTest, KeepsNoAnswerOfAnotherServerThanThatOfThePage) {
  proxy_->UsePage(page_);
  proxy_->while_asking = [this] { proxy_->HearFrom(page_->Instance() + 1); };
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  proxy_->while_asking = [this] { proxy_->HearFrom(page_->Instance()); };
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 2u);
}

TEST_F(VigilaClientImplTest, KeepsNoAnswerThatEndedWhileItWasAsked) {
  proxy_->UsePage(page_);
  proxy_->while_asking = [this] { page_->EndSession("t"); };
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  proxy_->while_asking = [this] { page_->RaiseEpoch(); };
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  proxy_->while_asking = nullptr;
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 3u);
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 3u);
}

TEST_F(VigilaClientImplTest, ForgetsWhatConcernsASessionOnceItHasEndedAndNothingElse) {
  proxy_->UsePage(page_);
  const auto ask = [this] {
    proxy_->ForgetCalls();
    EXPECT_TRUE(impl_->Authorize("12345678", "/p"));
    EXPECT_TRUE(impl_->IsAuthenticated("12345678"));
    EXPECT_TRUE(Authenticate("alice", "secret"));
    EXPECT_TRUE(impl_->Authorize("0F3A9C21", "/p"));
    EXPECT_TRUE(impl_->IsProtected("/p"));
    return Asked();
  };
  EXPECT_EQ(ask(), 5u);
  EXPECT_EQ(ask(), 0u);
  page_->EndSession("12345678");
  proxy_->FireChangeListeners(false);
  EXPECT_EQ(ask(), 3u) << "the logon was answered with that token";
  page_->RaiseEpoch();
  EXPECT_EQ(ask(), 5u);
  proxy_->FireChangeListeners(true);
  EXPECT_EQ(ask(), 5u);
}

TEST_F(VigilaClientImplTest, EmptiesEveryCacheWhenAQuestionFindsTheEpochRaised) {
  proxy_->UsePage(page_);
  impl_->Authorize("t", "/1");
  impl_->IsProtected("/p");
  page_->RaiseEpoch();
  const long kept = page_.use_count();  // each kept answer holds its page
  impl_->Authorize("t", "/2");
  EXPECT_EQ(page_.use_count(), kept - 1) << "two have gone, one has come";
}

TEST_F(VigilaClientImplTest, KeepsNoAnswerUnderAPageThatWasReplacedMeanwhile) {
  // The first page goes with the answer that is kept under it, in the middle of the next question;
  // at that moment the second server is replaced by the third.
  const auto third = std::make_shared<RevocationPage>(3);
  proxy_->UsePage({new RevocationPage(1), [this, third](const RevocationPage* first) {
                     delete first;
                     proxy_->UsePage(third);
                     proxy_->FireChangeListeners(true);
                   }});
  EXPECT_TRUE(impl_->IsProtected("/p"));
  proxy_->UsePage(std::make_shared<RevocationPage>(2));
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 2u);
  third->EndSession("t");
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 3u);
}

TEST_F(VigilaClientImplTest, ForgetsEverythingAtANotificationWhereNoServerWritesThePage) {
  proxy_->UsePage(std::make_shared<RevocationPage>(0));
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  proxy_->FireChangeListeners(false);
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 2u);
}

TEST_F(VigilaClientImplTest, GivesNoAnswerOfAServerThatIsNotKnownToLive) {
  proxy_->UsePage(page_);
  page_->LiveUntil(1'000'500'000'000);
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  At(1000, 499'999);
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_EQ(Asked(), 1u);
  At(1000, 500'000);
  proxy_->Fail();
  EXPECT_FALSE(impl_->Authorize("t", "/p"));
}

TEST_F(VigilaClientImplTest, AnswersATryFromMemoryOnly) {
  EXPECT_EQ(impl_->TryAuthorize("t", "/p"), std::nullopt);
  EXPECT_EQ(impl_->TryIsProtected("/p"), std::nullopt);
  EXPECT_EQ(Asked(), 0u);
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  EXPECT_TRUE(impl_->IsProtected("/p"));
  proxy_->flag = false;
  EXPECT_FALSE(impl_->Authorize("t", "/refused"));
  EXPECT_FALSE(impl_->IsProtected("/open"));
  proxy_->ForgetCalls();
  log_.Clear();
  EXPECT_EQ(impl_->TryAuthorize("t", "/p"), true);
  EXPECT_EQ(impl_->TryIsProtected("/p"), true);
  EXPECT_EQ(impl_->TryAuthorize("t", "/refused"), std::nullopt) << "no refusal is kept";
  EXPECT_EQ(impl_->TryIsProtected("/open"), false);
  EXPECT_EQ(Asked(), 0u);
  EXPECT_THAT(Log(), ElementsAre("cached authorization for token t to /p",
                                 "authorize for t to /p successful", "cached is_protected for /p",
                                 "is_protected for /p is true", "cached is_protected for /open",
                                 "is_protected for /open is false"));
  EXPECT_EQ(impl_->GetCounts().cache_hits, 3u);
  EXPECT_EQ(impl_->GetCounts().cache_misses, 4u) << "what was not asked is no miss";
}

TEST_F(VigilaClientImplTest, RenewsWhatATryFinds) {
  EXPECT_TRUE(impl_->Authorize("t", "/p"));
  for (int second = 1001; second < 1005; ++second) {
    At(second);
    EXPECT_EQ(impl_->TryAuthorize("t", "/p"), true);
  }
  At(1006);
  EXPECT_EQ(impl_->TryAuthorize("t", "/p"), std::nullopt);
}

TEST_F(VigilaClientImplTest, RefusesToAuthorizeWhileProtectionIsAGuess) {
  proxy_->Fail();
  EXPECT_FALSE(impl_->IsProtected("/p"));
  EXPECT_FALSE(impl_->Authorize("NO_TOKEN", "/p"));
}

TEST_F(VigilaClientImplTest, PassesTextsOfAnyBytesAndLengthWhole) {
  const std::string huge(1 << 20, 'x');
  const std::string bytes("\0\xff\xfe\n%s", 6);
  impl_->AuthenticateWsse(bytes, huge, bytes, "", "", token_);
  impl_->AuthenticateHttp(bytes, "", huge, false, "", "", "", bytes, "", token_);
  impl_->Authorize(bytes, huge);
  EXPECT_EQ(proxy_->Calls()[0],
            "AuthenticateWsse(false, " + bytes + ", " + huge + ", " + bytes + ", )");
  EXPECT_EQ(proxy_->Calls()[1],
            "AuthenticateHttp(false, " + bytes + ", , " + huge + ", false, , , , " + bytes + ")");
  EXPECT_EQ(proxy_->Calls()[2], "Authorize(" + bytes + ", " + huge + ")");
}

TEST_F(VigilaClientImplTest, TakesTheNameAsTokenBuffer) {
  std::string name_and_token = "alice";
  EXPECT_TRUE(impl_->Authenticate(name_and_token, "secret", "", name_and_token));
  EXPECT_EQ(name_and_token, "12345678");
  EXPECT_EQ(Log()[0], "authenticate for alice successful, token = 12345678");
}

TEST_F(VigilaClientImplTest, TakesItsListenerBackAndDeletesTheProxy) {
  EXPECT_EQ(proxies_, 1);
  impl_.reset();
  EXPECT_EQ(proxies_, 0);
}

TEST_F(VigilaClientImplTest, LeavesTheProxyAloneWhenItKeepsTheListener) {
  class Stubborn final : public tevra::core::IVoidDelegate1<bool> {
   public:
    explicit Stubborn(const bool* refuses) : refuses_(refuses) {}
    bool Matches(void*) const override {
      if (*refuses_) throw std::runtime_error("not now");
      return false;
    }
    void Call(const bool&) override {}

   private:
    const bool* const refuses_;
  };
  bool refuses = true;
  ProxyDouble* const proxy = proxy_;
  proxy->AddChangeListener(std::make_unique<Stubborn>(&refuses));
  impl_.reset();
  EXPECT_EQ(proxies_, 1);
  delete proxy;
}

TEST_F(VigilaClientImplTest, SaysOnceAMinuteWhyTheServerRefusesIt) {
  const std::string refused = "could not connect to vigila";
  const std::string role = "vigila refuses this process: the role is missing";
  const std::string bound =
      "vigila refuses this process: message bus: x refuses the connection: too many";
  const auto lines_of = [this](std::exception_ptr failure) {
    const size_t before = Log().size();
    proxy_->failure = failure;
    impl_->GetNonce();
    proxy_->Recover();
    std::vector<std::string> lines = Log();
    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(before));
    return lines;
  };
  const auto no_role =
      std::make_exception_ptr(tevra::interfaces::AccessDenied("the role is missing"));
  const auto no_room =
      std::make_exception_ptr(tevra::msgbus::ConnectionRefused("x", "a.Name", "too many"));
  EXPECT_THAT(lines_of(no_role), ElementsAre(refused, role));
  EXPECT_THAT(lines_of(no_role), ElementsAre(refused));
  EXPECT_THAT(lines_of(no_room), ElementsAre(refused, bound)) << "another cause";
  At(1059, 999999);
  EXPECT_THAT(lines_of(no_role), ElementsAre(refused));
  At(1060);
  EXPECT_THAT(lines_of(no_role), ElementsAre(refused, role));
  EXPECT_THAT(lines_of(std::make_exception_ptr(std::runtime_error("no server"))),
              ElementsAre(refused))
      << "a server that is not there refuses no one";
}

TEST_F(VigilaClientImplTest, SaysNoMoreThanAFewCausesOfRefusals) {
  for (int i = 0; i < 100; ++i) {
    proxy_->failure =
        std::make_exception_ptr(tevra::interfaces::AccessDenied(std::to_string(i).c_str()));
    impl_->GetNonce();
  }
  EXPECT_EQ(Log().size(), 100u + 16u);
}

TEST_F(VigilaClientImplTest, CountsWhatBecameOfTheQuestions) {
  Authenticate("alice", "secret");
  Authenticate("alice", "secret");
  impl_->Authorize("t", "/p");
  impl_->IsProtected("/p");
  impl_->IsProtected("/p");
  impl_->IsAuthenticated("t");
  impl_->IsAuthenticated("NO_TOKEN");
  impl_->GetNonce();
  const VigilaClient::Counts before = impl_->GetCounts();
  EXPECT_EQ(before.cache_hits, 2u);
  EXPECT_EQ(before.cache_misses, 4u);
  EXPECT_EQ(before.failures, 0u);
  proxy_->Fail();
  impl_->GetNonce();
  AuthenticateHttp();
  impl_->Authorize("t", "/other");
  impl_->IsProtected("/p");
  const VigilaClient::Counts after = impl_->GetCounts();
  EXPECT_EQ(after.cache_hits, 3u);
  EXPECT_EQ(after.cache_misses, 5u);
  EXPECT_EQ(after.failures, 3u);
}

TEST_F(VigilaClientImplTest, ServesManyThreadsWhileChangesAreAnnounced) {
  log_.Clear();
  tevra::core::Logger::SetLevel(tevra::core::Logger::kNotice);
  std::atomic<int> wrong{0};
  std::vector<std::thread> threads;
  for (int id = 0; id < 4; ++id) {
    threads.emplace_back([this, id, &wrong] {
      for (int i = 0; i < 400; ++i) {
        const std::string key = std::to_string((id + i) % 13);
        std::string token;
        if (!impl_->Authenticate(key, "secret", "", token) || token != "12345678") ++wrong;
        if (!impl_->Authorize(key, "/p")) ++wrong;
        if (!impl_->IsAuthenticated(key)) ++wrong;
        if (!impl_->IsProtected("/" + key)) ++wrong;
      }
    });
  }
  for (int i = 0; i < 100; ++i) proxy_->FireChangeListeners(i % 2 == 0);
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(wrong, 0);
}

}  // namespace
}  // namespace vigila::client
