#include "vigila-gateway/auth/authenticator.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support/fake_auth_service.h"
#include "vigila-gateway/auth/digest.h"

namespace {

using std::chrono::seconds;
using vigila::gateway::AccessQuestion;
using vigila::gateway::Authenticator;
using vigila::gateway::ChallengeNonces;
using vigila::gateway::ParseRequestTarget;
using vigila::gateway::RateLimiter;
using vigila::gateway::RequestDigest;
using vigila::gateway::UsedTokens;
using vigila::gateway::Verdict;
using vigila::gateway::WsseLogon;

constexpr char kToken[] = "0123ABCD";
constexpr char kOtherToken[] = "0123ABCE";

class AnAuthenticator : public testing::Test {
 protected:
  void SetUp() override {
    service_.access["/inject.cgi"] = {"admin"};
    service_.access["/jpeg/1"] = {"admin", "view"};
    service_.sessions[kToken] = "view";
  }
  AccessQuestion About(const std::string& target) {
    AccessQuestion question;
    question.source = "10.0.0.1";
    question.method = "GET";
    question.target = *ParseRequestTarget(target);
    return question;
  }
  AccessQuestion WithCookie(const std::string& target, const std::string& token) {
    AccessQuestion question = About(target);
    cookie_ = "vigila_session=" + token;
    question.cookies = {cookie_};
    return question;
  }
  AccessQuestion WithDigest(const std::string& target, const std::string& uri) {
    AccessQuestion question = About(target);
    AddDigest(question, uri);
    return question;
  }
  void AddDigest(AccessQuestion& question, const std::string& uri) {
    header_ = "Digest username=\"view\", realm=\"Varno\", nonce=\"n\", uri=\"" + uri +
              "\", qop=auth, nc=00000001, cnonce=\"c\", "
              "response=\"0123456789abcdef0123456789abcdef\"";
    question.authorizations = {header_};
  }
  Verdict Decide(const AccessQuestion& question) { return authenticator_.Decide(question); }
  Verdict::Outcome OutcomeOf(const AccessQuestion& question) { return Decide(question).outcome; }

  FakeAuthService service_;
  RateLimiter::Clock::time_point now_{seconds(1000)};
  RateLimiter rate_limiter_{{3, seconds(10), 16}, [this] { return now_; }};
  ChallengeNonces nonces_{service_, [this] { return now_; }};
  UsedTokens used_tokens_{{4, 4}, {}};
  Authenticator authenticator_{service_, rate_limiter_, nonces_, used_tokens_, {}};
  std::string cookie_;
  std::string header_;
};

TEST_F(AnAuthenticator, GrantsAnOpenPathToAnybody) {
  const Verdict verdict = Decide(About("/system"));
  EXPECT_EQ(verdict.outcome, Verdict::kGranted);
  EXPECT_EQ(verdict.token, "");
  EXPECT_EQ(service_.nonces, 0);
}

TEST_F(AnAuthenticator, GrantsNothingWithoutThePositiveWordOfTheService) {
  service_.reachable = false;
  EXPECT_EQ(OutcomeOf(About("/system")), Verdict::kUnavailable);
  EXPECT_EQ(OutcomeOf(About("/inject.cgi")), Verdict::kUnavailable);
  EXPECT_EQ(OutcomeOf(WithCookie("/jpeg/1", kToken)), Verdict::kUnavailable);
  EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", "/jpeg/1")), Verdict::kUnavailable);
  EXPECT_EQ(authenticator_.LogOut(WithCookie("/logout", kToken)).outcome, Verdict::kUnavailable);
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", {"u", "d", "n", "c"}, {"/x"}).outcome,
            Verdict::kUnavailable);
}

TEST_F(AnAuthenticator, DoesNotCountAnUnreachableServiceAsAFailedLogon) {
  service_.reachable = false;
  for (int i = 0; i < 10; ++i) {
    Decide(WithDigest("/jpeg/1", "/jpeg/1"));
    Decide(WithCookie("/jpeg/1", "00000000"));
  }
  EXPECT_EQ(rate_limiter_.MustWait("10.0.0.1"), std::nullopt);
}

TEST_F(AnAuthenticator, ChallengesWhoeverBringsNothingWithTheNonceOfTheSecond) {
  const Verdict verdict = Decide(About("/jpeg/1"));
  EXPECT_EQ(verdict.outcome, Verdict::kLogonNeeded);
  EXPECT_EQ(verdict.nonce, "nonce1");
  EXPECT_FALSE(verdict.stale);
  EXPECT_EQ(Decide(About("/jpeg/1")).nonce, "nonce1");
  now_ += seconds(1);
  EXPECT_EQ(Decide(About("/jpeg/1")).nonce, "nonce2");
}

TEST_F(AnAuthenticator, GivesNoStrangerANonceOfHisOwn) {
  AccessQuestion broken = About("/jpeg/1");
  broken.authorizations = {"Negotiate"};
  AccessQuestion ended = WithCookie("/jpeg/1", kOtherToken);
  EXPECT_EQ(Decide(ended).nonce, "nonce1");
  EXPECT_EQ(Decide(broken).nonce, "nonce1");
  EXPECT_EQ(Decide(WithDigest("/jpeg/1", "/jpeg/1")).nonce, "nonce1");
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", {"view", "d", "n", "c"}, {"/x"}).nonce, "nonce1");
  EXPECT_EQ(service_.nonces, 1);
}

TEST_F(AnAuthenticator, GrantsALivingSessionWhatItsUserMay) {
  const Verdict verdict = Decide(WithCookie("/jpeg/1", kToken));
  EXPECT_EQ(verdict.outcome, Verdict::kGranted);
  EXPECT_EQ(verdict.token, kToken);
  EXPECT_FALSE(verdict.new_session);
}

TEST_F(AnAuthenticator, RefusesAKnownUserWhatHeMayNot) {
  const Verdict verdict = Decide(WithCookie("/inject.cgi", kToken));
  EXPECT_EQ(verdict.outcome, Verdict::kRefused);
  EXPECT_FALSE(verdict.drop_cookie);
}

TEST_F(AnAuthenticator, TakesAnUnknownTokenForNoSession) {
  const Verdict verdict = Decide(WithCookie("/jpeg/1", kOtherToken));
  EXPECT_EQ(verdict.outcome, Verdict::kLogonNeeded);
  EXPECT_TRUE(verdict.drop_cookie);
}

TEST_F(AnAuthenticator, NeverAsksForTheServicesOwnWordsAsTokens) {
  for (const char* word : {"NO_TOKEN", "_EXPIRED", "DISABLED", "NODIGEST", ""}) {
    service_.sessions[word] = "admin";
    EXPECT_EQ(OutcomeOf(WithCookie("/inject.cgi", word)), Verdict::kLogonNeeded) << word;
    service_.sessions.erase(word);
    now_ += seconds(30);
  }
}

TEST_F(AnAuthenticator, ThrottlesWhoGuessesTokens) {
  for (int i = 0; i < 3; ++i) Decide(WithCookie("/jpeg/1", "0000000" + std::to_string(i)));
  const int before = service_.questions;
  const Verdict verdict = Decide(WithCookie("/jpeg/1", kToken));
  EXPECT_EQ(verdict.outcome, Verdict::kThrottled);
  EXPECT_EQ(verdict.retry_after, seconds(10));
  EXPECT_EQ(service_.questions, before + 1);  // whether the path is protected, and nothing else
  EXPECT_EQ(OutcomeOf(About("/system")), Verdict::kGranted);
  EXPECT_EQ(OutcomeOf(About("/jpeg/1")), Verdict::kLogonNeeded);
}

TEST_F(AnAuthenticator, ThrottlesWhoGuessesTokensBesideAnyHeader) {
  service_.sessions[kOtherToken] = "view";
  for (const char* header : {"Negotiate", "Digest nonsense", "", "the guesser's own"}) {
    service_.logon_answer = kOtherToken;
    for (int i = 0; i < 3; ++i) {
      AccessQuestion question = WithCookie("/jpeg/1", "0000000" + std::to_string(i));
      question.authorizations = {header};
      if (std::string(header) == "the guesser's own") AddDigest(question, "/jpeg/1");
      EXPECT_NE(OutcomeOf(question), Verdict::kThrottled) << header;
    }
    EXPECT_EQ(OutcomeOf(WithCookie("/jpeg/1", kToken)), Verdict::kThrottled) << header;
    now_ += seconds(100);
    EXPECT_EQ(OutcomeOf(WithCookie("/jpeg/1", kToken)), Verdict::kGranted) << header;
  }
}

TEST_F(AnAuthenticator, TakesASessionThatHasEndedForOneFailure) {
  for (int i = 0; i < 40; ++i) {
    const Verdict verdict = Decide(WithCookie("/jpeg/1", kOtherToken));
    EXPECT_EQ(verdict.outcome, Verdict::kLogonNeeded);
    EXPECT_TRUE(verdict.drop_cookie);
  }
}

TEST_F(AnAuthenticator, SpendsNoNonceOnARefusal) {
  EXPECT_EQ(OutcomeOf(WithCookie("/inject.cgi", kToken)), Verdict::kRefused);
  EXPECT_EQ(service_.nonces, 0);
}

TEST_F(AnAuthenticator, ThrottlesWhoGuessesPasswords) {
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", "/jpeg/1")), Verdict::kLogonNeeded);
  }
  EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", "/jpeg/1")), Verdict::kThrottled);
  EXPECT_EQ(service_.digests.size(), 3u);
  now_ += seconds(10);
  service_.logon_answer = kToken;
  EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", "/jpeg/1")), Verdict::kGranted);
}

TEST_F(AnAuthenticator, HandsTheServiceExactlyWhatTheClientSent) {
  service_.logon_answer = kToken;
  const Verdict verdict = Decide(WithDigest("/jpeg/1?x=1", "/jpeg/1?x=1"));
  EXPECT_EQ(verdict.outcome, Verdict::kGranted);
  EXPECT_EQ(verdict.token, kToken);
  EXPECT_EQ(verdict.user, "view");
  EXPECT_TRUE(verdict.new_session);
  ASSERT_EQ(service_.digests.size(), 1u);
  const auto& logon = service_.digests.front();
  EXPECT_EQ(logon.username, "view");
  EXPECT_EQ(logon.nonce, "n");
  EXPECT_EQ(logon.ha2, RequestDigest("GET", "/jpeg/1?x=1"));
  EXPECT_EQ(logon.qop, "auth");
  EXPECT_EQ(logon.nc, "00000001");
  EXPECT_EQ(logon.cnonce, "c");
  EXPECT_FALSE(logon.sess);
}

TEST_F(AnAuthenticator, SignsTheUriAsTheClientSpeltIt) {
  service_.logon_answer = kToken;
  EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", "http://device//jpeg/%31")), Verdict::kGranted);
  EXPECT_EQ(service_.digests.front().ha2, RequestDigest("GET", "http://device//jpeg/%31"));
}

TEST_F(AnAuthenticator, RefusesAnAnswerThatWasSignedForAnotherResource) {
  service_.logon_answer = kToken;
  for (const char* uri : {"/system", "/jpeg/1?x=1", "/jpeg/1/", "jpeg/1", "*", "/%zz"}) {
    EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", uri)), Verdict::kMalformed) << uri;
  }
  for (const char* uri : {"/jpeg/1?x=2", "/jpeg/1?x=1&y", "/jpeg/2", "/system?x=1"}) {
    EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1?x=1", uri)), Verdict::kMalformed) << uri;
  }
  EXPECT_TRUE(service_.digests.empty());
}

TEST_F(AnAuthenticator, TakesAnAnswerThatLeavesTheQueryOut) {
  service_.logon_answer = kToken;
  EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1?x=1", "/jpeg/1")), Verdict::kGranted);
  // What was signed is what the client wrote; what is judged is the path that is asked for.
  EXPECT_EQ(service_.digests.front().ha2, RequestDigest("GET", "/jpeg/1"));
  EXPECT_EQ(service_.authorized.back().second, "/jpeg/1");
  service_.sessions[kToken] = "view";
  EXPECT_EQ(OutcomeOf(WithDigest("/inject.cgi?x=1", "/inject.cgi")), Verdict::kRefused);
  EXPECT_EQ(OutcomeOf(WithDigest("/inject.cgi?x=1", "/jpeg/1")), Verdict::kMalformed);
}

// A request as it was recorded: its first line and its Authorization header.
struct Recorded {
  std::string method;
  std::string target;
  std::string authorization;
};

Recorded ReadRequest(const std::filesystem::path& file) {
  std::ifstream stream(file);
  Recorded request;
  stream >> request.method >> request.target;
  std::string line;
  while (std::getline(stream, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (line.size() > 15 && line.substr(1, 14) == "uthorization: ") {
      request.authorization = line.substr(15);
    }
  }
  return request;
}

TEST_F(AnAuthenticator, LetsInWhatRealClientsSend) {
  service_.logon_answer = kToken;
  int granted = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(std::string(TEST_DATA_DIR) + "/digest/requests")) {
    const Recorded request = ReadRequest(file.path());
    AccessQuestion question = About(request.target);
    question.method = request.method;
    question.authorizations = {request.authorization};
    service_.access[question.target.path] = {"view"};
    EXPECT_EQ(OutcomeOf(question), Verdict::kGranted) << file.path();
    EXPECT_EQ(service_.authorized.back().second, question.target.path);
    ++granted;
  }
  EXPECT_EQ(granted, 21);
}

TEST_F(AnAuthenticator, CallsANonceStaleExactlyWhenTheServiceDoes) {
  service_.logon_answer = "_EXPIRED";
  const Verdict stale = Decide(WithDigest("/jpeg/1", "/jpeg/1"));
  EXPECT_EQ(stale.outcome, Verdict::kLogonNeeded);
  EXPECT_TRUE(stale.stale);
  EXPECT_EQ(stale.nonce, "nonce1");
  service_.logon_answer = "NO_TOKEN";
  EXPECT_FALSE(Decide(WithDigest("/jpeg/1", "/jpeg/1")).stale);
}

TEST_F(AnAuthenticator, GivesEveryRightButStaleAnswerANonceOfItsOwn) {
  EXPECT_EQ(Decide(About("/jpeg/1")).nonce, "nonce1");
  service_.logon_answer = "_EXPIRED";
  EXPECT_EQ(Decide(WithDigest("/jpeg/1", "/jpeg/1")).nonce, "nonce2");
  EXPECT_EQ(Decide(WithDigest("/jpeg/1", "/jpeg/1")).nonce, "nonce3");
  EXPECT_EQ(Decide(About("/jpeg/1")).nonce, "nonce1");
}

TEST_F(AnAuthenticator, PutsOffWhoeverComesWithStaleAnswersWithoutEnd) {
  service_.logon_answer = "_EXPIRED";
  Verdict verdict;
  int challenges = 0;
  while (verdict.outcome != Verdict::kThrottled && challenges < 10000) {
    verdict = Decide(WithDigest("/jpeg/1", "/jpeg/1"));
    ++challenges;
  }
  EXPECT_EQ(verdict.retry_after, seconds(1));
  EXPECT_EQ(service_.nonces, 256);
  // It is not shut out: what is no stale answer is judged as ever.
  service_.logon_answer = kToken;
  EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", "/jpeg/1")), Verdict::kGranted);
}

TEST_F(AnAuthenticator, DoesNotCountAStaleNonceAsAFailure) {
  service_.logon_answer = "_EXPIRED";
  for (int i = 0; i < 10; ++i) {
    EXPECT_EQ(OutcomeOf(WithDigest("/jpeg/1", "/jpeg/1")), Verdict::kLogonNeeded);
  }
}

TEST_F(AnAuthenticator, TakesNoWordOfRefusalForASession) {
  for (const char* word : {"DISABLED", "NODIGEST", "NO_TOKEN", "0123abcd", "0123ABCDE"}) {
    service_.logon_answer = word;
    service_.sessions[word] = "admin";
    const Verdict verdict = Decide(WithDigest("/jpeg/1", "/jpeg/1"));
    EXPECT_EQ(verdict.outcome, Verdict::kLogonNeeded) << word;
    EXPECT_FALSE(verdict.new_session) << word;
    now_ += seconds(30);
  }
}

TEST_F(AnAuthenticator, KeepsTheSessionOfAKnownUserWhoMayNot) {
  service_.logon_answer = kToken;
  const Verdict verdict = Decide(WithDigest("/inject.cgi", "/inject.cgi"));
  EXPECT_EQ(verdict.outcome, Verdict::kRefused);
  EXPECT_TRUE(verdict.new_session);
  EXPECT_EQ(verdict.token, kToken);
}

TEST_F(AnAuthenticator, PrefersTheSessionToANewLogon) {
  AccessQuestion question = WithCookie("/jpeg/1", kToken);
  AddDigest(question, "/jpeg/1");
  EXPECT_EQ(OutcomeOf(question), Verdict::kGranted);
  EXPECT_TRUE(service_.digests.empty());
}

TEST_F(AnAuthenticator, FallsBackToTheHeaderWhenTheSessionHasEnded) {
  service_.logon_answer = kToken;
  AccessQuestion question = WithCookie("/jpeg/1", kOtherToken);
  AddDigest(question, "/jpeg/1");
  for (int i = 0; i < 10; ++i) EXPECT_EQ(OutcomeOf(question), Verdict::kGranted);
}

TEST_F(AnAuthenticator, LetsAnotherUserLogOnOverASessionThatMayNot) {
  service_.sessions[kOtherToken] = "admin";
  service_.logon_answer = kOtherToken;
  AccessQuestion question = WithCookie("/inject.cgi", kToken);
  AddDigest(question, "/inject.cgi");
  const Verdict verdict = Decide(question);
  EXPECT_EQ(verdict.outcome, Verdict::kGranted);
  EXPECT_EQ(verdict.token, kOtherToken);
}

TEST_F(AnAuthenticator, RefusesMalformedAndDoubledHeaders) {
  AccessQuestion question = About("/jpeg/1");
  question.authorizations = {"Digest nonsense"};
  EXPECT_EQ(OutcomeOf(question), Verdict::kMalformed);
  AddDigest(question, "/jpeg/1");
  question.authorizations.push_back(header_);
  EXPECT_EQ(OutcomeOf(question), Verdict::kMalformed);
  EXPECT_TRUE(service_.digests.empty());
}

TEST_F(AnAuthenticator, LooksAtNoPasswordUnlessBasicIsSwitchedOn) {
  AccessQuestion question = About("/jpeg/1");
  question.authorizations = {"Basic dmlldzpw"};
  EXPECT_EQ(OutcomeOf(question), Verdict::kLogonNeeded);
  EXPECT_TRUE(service_.passwords.empty());

  Authenticator basic(service_, rate_limiter_, nonces_, used_tokens_, {true});
  service_.logon_answer = kToken;
  EXPECT_EQ(basic.Decide(question).outcome, Verdict::kGranted);
  ASSERT_EQ(service_.passwords.size(), 1u);
  EXPECT_EQ(service_.passwords.front().first, "view");
  EXPECT_EQ(service_.passwords.front().second, "p");
}

TEST_F(AnAuthenticator, NeverCallsAnExpiredPasswordAStaleNonce) {
  Authenticator basic(service_, rate_limiter_, nonces_, used_tokens_, {true});
  service_.logon_answer = "_EXPIRED";
  AccessQuestion question = About("/jpeg/1");
  question.authorizations = {"Basic dmlldzpw"};
  const Verdict verdict = basic.Decide(question);
  EXPECT_EQ(verdict.outcome, Verdict::kLogonNeeded);
  EXPECT_FALSE(verdict.stale);
}

TEST_F(AnAuthenticator, LogsTheSessionOutAndDropsItsCookie) {
  const Verdict verdict = authenticator_.LogOut(WithCookie("/logout", kToken));
  EXPECT_EQ(verdict.outcome, Verdict::kGranted);
  EXPECT_TRUE(verdict.drop_cookie);
  EXPECT_TRUE(service_.sessions.empty());
  EXPECT_EQ(authenticator_.LogOut(About("/logout")).outcome, Verdict::kGranted);
}

TEST_F(AnAuthenticator, ThrottlesWhoGuessesTokensAtTheWayOut) {
  for (int i = 0; i < 3; ++i) {
    authenticator_.LogOut(WithCookie("/logout", "0000000" + std::to_string(i)));
  }
  EXPECT_EQ(authenticator_.LogOut(WithCookie("/logout", kToken)).outcome, Verdict::kThrottled);
  EXPECT_EQ(service_.sessions.count(kToken), 1u);
}

TEST_F(AnAuthenticator, AsksForEveryPathOfAWebService) {
  service_.logon_answer = kToken;
  service_.access["/onvif/*"] = {"view"};
  const std::vector<std::string> paths = {"/onvif/*", "/onvif/device"};
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", {"view", "d1", "n", "c"}, paths).outcome,
            Verdict::kGranted);
  service_.access["/onvif/device"] = {"admin"};
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", {"view", "d2", "n", "c"}, paths).outcome,
            Verdict::kRefused);
  service_.access["/onvif/*"] = {"admin"};
  service_.access.erase("/onvif/device");
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", {"view", "d3", "n", "c"}, paths).outcome,
            Verdict::kRefused);
}

TEST_F(AnAuthenticator, TakesAnAcceptedUsernameTokenOnceWhateverTheServiceRemembers) {
  service_.logon_answer = kToken;
  const WsseLogon logon = {"view", "d", "n", "c"};
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kGranted);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kLogonNeeded);
  }
  EXPECT_EQ(service_.wsse.size(), 1u);
  // A replay is a failed logon like any other.
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kThrottled);
}

TEST_F(AnAuthenticator, RemembersATokenAlsoWhenItsUserMayNot) {
  service_.logon_answer = kToken;
  service_.access["/x"] = {"admin"};
  const WsseLogon logon = {"view", "d", "n", "c"};
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kRefused);
  service_.access["/x"] = {"view"};
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kLogonNeeded);
}

TEST_F(AnAuthenticator, RemembersNoTokenThatTheServiceDidNotAccept) {
  const WsseLogon logon = {"view", "d", "n", "c"};
  service_.reachable = false;
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kUnavailable);
  service_.reachable = true;
  for (const char* word : {"NO_TOKEN", "_EXPIRED"}) {
    service_.logon_answer = word;
    EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kLogonNeeded);
  }
  service_.logon_answer = kToken;
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kGranted);
}

TEST_F(AnAuthenticator, GrantsNoTokenThatItCouldNotRemember) {
  service_.logon_answer = kToken;
  for (int i = 0; i < 4; ++i) {
    const WsseLogon logon = {"view", std::to_string(i), "n", "c"};
    EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", logon, {"/x"}).outcome, Verdict::kGranted);
  }
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", {"view", "4", "n", "c"}, {"/x"}).outcome,
            Verdict::kUnavailable);
  EXPECT_EQ(service_.wsse.size(), 4u);
}

TEST_F(AnAuthenticator, ThrottlesWebServiceLogonsAsTheOthers) {
  for (int i = 0; i < 3; ++i) {
    authenticator_.DecideWsse("10.0.0.1", {"view", "d", "n", "c"}, {"/x"});
  }
  EXPECT_EQ(authenticator_.DecideWsse("10.0.0.1", {"view", "d", "n", "c"}, {"/x"}).outcome,
            Verdict::kThrottled);
  EXPECT_EQ(service_.wsse.size(), 3u);
}

TEST(RequestDigest, IsThatOfThePublishedExample) {
  EXPECT_EQ(RequestDigest("GET", "/dir/index.html"), "39aff3a2bab6126f332b942af96d3366");
  EXPECT_EQ(RequestDigest("", ""), "853ae90f0351324bd73ea615e6487517");
}

}  // namespace
