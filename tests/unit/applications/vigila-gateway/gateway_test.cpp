#include "vigila-gateway/gateway.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/fake_auth_service.h"
#include "support/temp_dir.h"
#include "vigila-gateway/auth/digest.h"

namespace {

using vigila::gateway::AccessRecord;
using vigila::gateway::Body;
using vigila::gateway::Gateway;
using vigila::gateway::HttpHeaders;
using vigila::gateway::HttpRequest;
using vigila::gateway::HttpResponse;
using vigila::gateway::Metrics;

constexpr char kToken[] = "0123ABCD";

class AGateway : public testing::Test {
 protected:
  void SetUp() override {
    service_.access["/inject.cgi"] = {"admin"};
    service_.access["/jpeg/1"] = {"admin", "view"};
    service_.access["/jpeg/"] = {"admin", "view"};
    service_.sessions[kToken] = "view";
    Build({});
  }
  void Build(const Gateway::Options& options) {
    gateway_ =
        std::make_unique<Gateway>(service_, metrics_, nullptr, options,
                                  [this](const AccessRecord& record) { log_.push_back(record); });
  }
  HttpResponse Ask(const std::string& method, const std::string& target,
                   const HttpHeaders& headers = {}, const std::string& peer = "127.0.0.1",
                   Body body = Body::kComplete) {
    return gateway_->Open(HttpRequest{method, target, peer, headers})->Answer(body);
  }
  HttpResponse AskAuth(const HttpHeaders& headers, const std::string& peer = "127.0.0.1") {
    return Ask("GET", "/auth", headers, peer);
  }
  static HttpHeaders Session() { return {{"Cookie", std::string("vigila_session=") + kToken}}; }
  static HttpHeaders Digest(const std::string& uri) {
    return {{"Authorization", "Digest username=\"view\", realm=\"Varno\", nonce=\"n\", uri=\"" +
                                  uri +
                                  "\", qop=auth, nc=00000001, cnonce=\"c\", "
                                  "response=\"0123456789abcdef0123456789abcdef\""}};
  }
  static std::vector<std::string> All(const HttpResponse& response, const std::string& name) {
    std::vector<std::string> values;
    for (const auto& [key, value] : response.headers) {
      if (key == name) values.push_back(value);
    }
    return values;
  }
  static std::string One(const HttpResponse& response, const std::string& name) {
    const auto values = All(response, name);
    return values.size() == 1 ? values.front() : "(" + std::to_string(values.size()) + ")";
  }

  FakeAuthService service_;
  Metrics metrics_;
  std::vector<AccessRecord> log_;
  std::unique_ptr<Gateway> gateway_;
};

TEST_F(AGateway, ChallengesWithTheExactText) {
  const HttpResponse response = Ask("GET", "/jpeg/1");
  EXPECT_EQ(response.status, 401);
  EXPECT_EQ(One(response, "WWW-Authenticate"),
            "Digest realm=\"Varno\", nonce=\"nonce1\", qop=\"auth\", algorithm=MD5");
}

TEST_F(AGateway, SaysStaleExactlyWhenTheServiceSaysExpired) {
  service_.logon_answer = "_EXPIRED";
  EXPECT_EQ(One(Ask("GET", "/jpeg/1", Digest("/jpeg/1")), "WWW-Authenticate"),
            "Digest realm=\"Varno\", nonce=\"nonce1\", qop=\"auth\", algorithm=MD5, stale=true");
  service_.logon_answer = "NO_TOKEN";
  EXPECT_EQ(One(Ask("GET", "/jpeg/1", Digest("/jpeg/1")), "WWW-Authenticate"),
            "Digest realm=\"Varno\", nonce=\"nonce2\", qop=\"auth\", algorithm=MD5");
}

TEST_F(AGateway, OffersBasicOnlyWhenItIsSwitchedOn) {
  Gateway::Options options;
  options.basic = true;
  Build(options);
  const auto challenges = All(Ask("GET", "/jpeg/1"), "WWW-Authenticate");
  ASSERT_EQ(challenges.size(), 2u);
  EXPECT_EQ(challenges[1], "Basic realm=\"Varno\"");
}

TEST_F(AGateway, HandsOutTheCookieOfANewSession) {
  service_.logon_answer = kToken;
  const HttpResponse response = Ask("GET", "/jpeg/1", Digest("/jpeg/1"));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(One(response, "Content-Type"), "image/jpeg");
  EXPECT_EQ(One(response, "Set-Cookie"),
            "vigila_session=0123ABCD; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(One(Ask("GET", "/jpeg/1", Session()), "Set-Cookie"), "(0)");
}

TEST_F(AGateway, MarksTheCookieSecureWithTlsInFront) {
  Gateway::Options options;
  options.secure_cookie = true;
  Build(options);
  service_.logon_answer = kToken;
  EXPECT_EQ(One(Ask("GET", "/jpeg/1", Digest("/jpeg/1")), "Set-Cookie"),
            "vigila_session=0123ABCD; Path=/; HttpOnly; SameSite=Strict; Secure");
}

TEST_F(AGateway, ServesThePathThatItChecked) {
  for (const char* target : {"/jpeg/../inject.cgi", "/%69nject.cgi", "//inject.cgi",
                             "/inject.cgi?x=/jpeg/1", "http://x/inject.cgi#/system"}) {
    EXPECT_EQ(Ask("GET", target, Session()).status, 403) << target;
    EXPECT_EQ(service_.authorized.back().second, "/inject.cgi") << target;
  }
}

TEST_F(AGateway, AnswersABrokenPathBeforeAskingAnything) {
  for (const char* target : {"/%00", "/%zz", "", "*", "/\xff"}) {
    EXPECT_EQ(Ask("GET", target).status, 400) << target;
  }
  EXPECT_EQ(service_.questions, 0);
}

TEST_F(AGateway, IsUnavailableWithItsServiceAndShowsNoPage) {
  service_.reachable = false;
  for (const char* target : {"/", "/system", "/jpeg/1", "/inject.cgi", "/nothing", "/healthz"}) {
    EXPECT_EQ(Ask("GET", target, Session()).status, 503) << target;
  }
  EXPECT_EQ(Ask("GET", "/jpeg/1", Digest("/jpeg/1")).status, 503);
  EXPECT_EQ(Ask("GET", "/logout", Session()).status, 503);
}

TEST_F(AGateway, RefusesOtherMethodsOnlyAfterAuthorization) {
  EXPECT_EQ(Ask("DELETE", "/jpeg/1").status, 401);
  EXPECT_EQ(Ask("DELETE", "/inject.cgi", Session()).status, 403);
  const HttpResponse response = Ask("DELETE", "/jpeg/1", Session());
  EXPECT_EQ(response.status, 405);
  EXPECT_EQ(One(response, "Allow"), "GET, HEAD");
  EXPECT_EQ(Ask("POST", "/jpeg/1", Session()).status, 405);
  EXPECT_EQ(Ask("HEAD", "/jpeg/1", Session()).status, 200);
  EXPECT_EQ(Ask("get", "/jpeg/1", Session()).status, 405);
}

TEST_F(AGateway, AnswersEveryKindOfPage) {
  EXPECT_EQ(Ask("GET", "/").status, 200);
  EXPECT_EQ(Ask("GET", "/system").status, 200);
  EXPECT_EQ(Ask("GET", "/nothing").status, 404);
  EXPECT_EQ(Ask("GET", "/jpeg/41").status, 404);
  EXPECT_EQ(Ask("GET", "/jpeg/01").status, 404);
  EXPECT_EQ(Ask("GET", "/healthz").body, "ok\n");
  const std::string gallery = Ask("GET", "/jpeg/", Session()).body;
  EXPECT_NE(gallery.find("<img src=\"/jpeg/1\""), std::string::npos);
  EXPECT_NE(gallery.find("<img src=\"/jpeg/40\""), std::string::npos);
  EXPECT_EQ(gallery.find("<img src=\"/jpeg/41\""), std::string::npos);
}

TEST_F(AGateway, LogsOutAndClearsTheCookie) {
  const HttpResponse response = Ask("GET", "/logout", Session());
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(One(response, "Set-Cookie"),
            "vigila_session=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict");
  EXPECT_EQ(Ask("GET", "/jpeg/1", Session()).status, 401);
}

TEST_F(AGateway, PutsOffWhoGuesses) {
  Gateway::Options options;
  options.rate_limit.burst = 2;
  Build(options);
  for (const char* guess : {"vigila_session=00000000", "vigila_session=00000001"}) {
    Ask("GET", "/jpeg/1", {{"Cookie", guess}});
  }
  const HttpResponse response = Ask("GET", "/jpeg/1", Session());
  EXPECT_EQ(response.status, 429);
  EXPECT_EQ(One(response, "Retry-After"), "6");
}

TEST_F(AGateway, RefusesABodyThatIsTooLarge) {
  EXPECT_EQ(Ask("POST", "/inject.cgi", {}, "127.0.0.1", Body::kTooLarge).status, 413);
  EXPECT_EQ(service_.questions, 0);
}

TEST_F(AGateway, LogsOneLinePerRequestWithoutSecrets) {
  service_.logon_answer = kToken;
  HttpHeaders headers = Digest("/jpeg/../jpeg/1?password=p");
  Ask("GET", "/jpeg/../jpeg/1?password=p", headers);
  ASSERT_EQ(log_.size(), 1u);
  const std::string line = AccessLine(log_.front());
  EXPECT_NE(line.find("\"path\":\"/jpeg/1\",\"user\":\"view\",\"status\":200"), std::string::npos)
      << line;
  for (const char* secret : {"password", kToken, "0123456789abcdef", "nonce"}) {
    EXPECT_EQ(line.find(secret), std::string::npos) << line;
  }
}

TEST_F(AGateway, AnswersAProxyWithUserAndGroups) {
  service_.permissions = {"{252EBB4C-d6cf-4f3d-892d-1b0d2431cb7a}",
                          "86343993-7e7e-4bbf-8f00-cf64e98d7aeb"};
  HttpHeaders headers = Session();
  headers.insert(headers.end(), {{"X-Original-Method", "GET"}, {"X-Original-URI", "/jpeg/1"}});
  const HttpResponse response = AskAuth(headers);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(One(response, "X-Auth-User"), "view");
  EXPECT_EQ(One(response, "X-Auth-Groups"), "operators,viewers");
}

TEST_F(AGateway, LogsWhatAProxyAskedAboutAndForWhom) {
  HttpHeaders headers = Session();
  headers.insert(headers.end(), {{"X-Original-Method", "GET"}, {"X-Original-URI", "/jpeg//1?x"}});
  AskAuth(headers);
  EXPECT_EQ(log_.back().handler, "auth");
  EXPECT_EQ(log_.back().path, "/jpeg/1");
  EXPECT_EQ(log_.back().user, "view");
  AskAuth({});
  EXPECT_EQ(log_.back().path, "/auth");
  EXPECT_EQ(log_.back().user, "");
}

// The client library may go on granting from memory for a while.
TEST_F(AGateway, GrantsAProxyNothingWithoutAUser) {
  service_.granted_from_memory = true;
  service_.sessions.clear();
  HttpHeaders headers = Session();
  headers.insert(headers.end(), {{"X-Original-Method", "GET"}, {"X-Original-URI", "/jpeg/1"}});
  const HttpResponse ended = AskAuth(headers);
  EXPECT_EQ(ended.status, 401);
  EXPECT_EQ(One(ended, "Set-Cookie"),
            "vigila_session=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict");
  service_.reachable = false;
  EXPECT_EQ(AskAuth(headers).status, 503);
}

TEST_F(AGateway, TellsItsHealthFromTheServiceAndNotFromMemory) {
  EXPECT_EQ(Ask("GET", "/healthz").status, 200);
  EXPECT_EQ(service_.questions, 0);
  EXPECT_EQ(service_.nonces, 0);
  service_.reachable = false;
  EXPECT_EQ(Ask("GET", "/healthz").status, 503);
}

TEST_F(AGateway, NamesNoOneToAProxyForAnOpenPath) {
  const HttpResponse response =
      AskAuth({{"X-Forwarded-Method", "GET"}, {"X-Forwarded-Uri", "/system"}});
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(One(response, "X-Auth-User"), "(0)");
}

TEST_F(AGateway, JudgesTheOriginalRequestNotTheProxys) {
  const HttpHeaders original = {{"X-Original-Method", "POST"}, {"X-Original-URI", "/jpeg/1?x"}};
  EXPECT_EQ(AskAuth(original).status, 401);
  service_.logon_answer = kToken;
  HttpHeaders headers = Digest("/jpeg/1?x");
  headers.insert(headers.end(), original.begin(), original.end());
  EXPECT_EQ(AskAuth(headers).status, 200);
  EXPECT_EQ(service_.digests.front().ha2, vigila::gateway::RequestDigest("POST", "/jpeg/1?x"));
  HttpHeaders refused = Session();
  refused.insert(refused.end(), {{"X-Original-Method", "GET"}, {"X-Original-URI", "/inject.cgi"}});
  EXPECT_EQ(AskAuth(refused).status, 403);
}

class AGatewayAskedAboutAnEnvelope : public AGateway {
 protected:
  static std::string Envelope(const std::string& token) {
    return "<Envelope><Header><Security>" + token + "</Security></Header><Body/></Envelope>";
  }
  // Another one each time.
  static std::string Token() {
    static int made = 0;
    return "<UsernameToken><Username>view</Username><Password Type=\"#PasswordDigest\">d" +
           std::to_string(++made) +
           "</Password><Nonce>n</Nonce><Created>c</Created></UsernameToken>";
  }
  HttpResponse AskAbout(const std::string& envelope, const std::string& uri = "/onvif/device",
                        const std::string& peer = "127.0.0.1") {
    const HttpHeaders headers = {{"Content-Type", "application/soap+xml"},
                                 {"X-Original-Method", "POST"},
                                 {"X-Original-URI", uri}};
    const auto exchange = gateway_->Open(HttpRequest{"POST", "/auth", peer, headers});
    for (size_t at = 0; at < envelope.size(); at += 7) exchange->Receive(envelope.substr(at, 7));
    return exchange->Answer(Body::kComplete);
  }
};

TEST_F(AGatewayAskedAboutAnEnvelope, GrantsTheSameLogonOnce) {
  service_.logon_answer = kToken;
  const std::string envelope = Envelope(Token());
  EXPECT_EQ(AskAbout(envelope).status, 200);
  EXPECT_EQ(AskAbout(envelope).status, 401);
  EXPECT_EQ(service_.wsse.size(), 1u);
}

TEST_F(AGatewayAskedAboutAnEnvelope, NamesTheUserWhoseLogonIsInIt) {
  service_.access["/onvif/*"] = {"view"};
  service_.logon_answer = kToken;
  const HttpResponse response = AskAbout(Envelope(Token()));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(One(response, "X-Auth-User"), "view");
  EXPECT_EQ(One(response, "Set-Cookie"), "(0)");
  ASSERT_EQ(service_.wsse.size(), 1u);
  EXPECT_EQ(service_.wsse[0].nonce, "n");
  ASSERT_GE(service_.authorized.size(), 2u);
  EXPECT_EQ(service_.authorized[0].second, "/onvif/*");
  EXPECT_EQ(service_.authorized[1].second, "/onvif/device");
}

TEST_F(AGatewayAskedAboutAnEnvelope, RefusesByStatus) {
  service_.access["/onvif/*"] = {"admin"};
  EXPECT_EQ(AskAbout(Envelope(Token())).status, 401);
  EXPECT_EQ(AskAbout(Envelope("")).status, 401);  // also where no rule protects the path itself
  EXPECT_EQ(AskAbout("<Envelope><Body/></Envelope>").status, 401);
  EXPECT_EQ(AskAbout("no xml").status, 400);
  EXPECT_EQ(AskAbout(Envelope(Token()), "/onvif/device", "10.0.0.9").status, 403);
  service_.logon_answer = kToken;
  EXPECT_EQ(AskAbout(Envelope(Token())).status, 403);
  service_.reachable = false;
  EXPECT_EQ(AskAbout(Envelope(Token())).status, 503);
  EXPECT_EQ(AskAbout(Envelope("")).status, 503);
}

TEST_F(AGatewayAskedAboutAnEnvelope, LooksForNoLogonInItForOtherPaths) {
  service_.logon_answer = kToken;
  EXPECT_EQ(AskAbout(Envelope(Token()), "/jpeg/1").status, 401);
  EXPECT_TRUE(service_.wsse.empty());
}

TEST_F(AGateway, TakesEnvelopesByPostOfTheirMediaTypesOnly) {
  const auto status = [this](const std::string& method, const std::string& type) {
    return Ask(method, "/onvif/device", {{"Content-Type", type}}).status;
  };
  EXPECT_EQ(status("POST", "text/xml"), 400);  // an empty one
  EXPECT_EQ(status("POST", "application/soap+xml; charset=utf-8"), 400);
  EXPECT_EQ(log_.back().handler, std::string("service"));
  EXPECT_EQ(status("POST", "application/json"), 405);
  EXPECT_EQ(status("POST", ""), 405);
  EXPECT_EQ(status("GET", "text/xml"), 404);
  EXPECT_EQ(Ask("POST", "/onvif", {{"Content-Type", "text/xml"}}).status, 405);
  EXPECT_EQ(
      Ask("POST", "/onvif/device", {{"Content-Type", "text/xml"}}, "127.0.0.1", Body::kTooLarge)
          .status,
      413);
}

TEST_F(AGateway, AnswersNoProxyThatIsNotTrusted) {
  const HttpHeaders headers = {{"X-Original-Method", "GET"}, {"X-Original-URI", "/system"}};
  EXPECT_EQ(AskAuth(headers, "10.0.0.9").status, 403);
  EXPECT_EQ(AskAuth(headers, "").status, 403);
  EXPECT_EQ(AskAuth(headers, "::1").status, 200);
  EXPECT_EQ(AskAuth(headers, "::ffff:127.0.0.1").status, 200);
  Gateway::Options options;
  options.trusted_proxies = {"10.0.0.9"};
  Build(options);
  EXPECT_EQ(AskAuth(headers, "10.0.0.9").status, 200);
}

TEST_F(AGateway, RefusesAProxyThatDoesNotSayWhatWasAsked) {
  const std::pair<std::string, std::string> method = {"X-Original-Method", "GET"};
  const std::pair<std::string, std::string> uri = {"X-Original-URI", "/system"};
  EXPECT_EQ(AskAuth({}).status, 400);
  EXPECT_EQ(AskAuth({method}).status, 400);
  EXPECT_EQ(AskAuth({uri}).status, 400);
  EXPECT_EQ(AskAuth({method, uri, uri}).status, 400);
  EXPECT_EQ(AskAuth({method, uri, {"X-Forwarded-Uri", "/jpeg/1"}}).status, 400);
  EXPECT_EQ(AskAuth({method, {"X-Original-URI", "/%00"}}).status, 400);
  EXPECT_EQ(AskAuth({{"X-Original-Method", ""}, uri}).status, 400);
}

TEST_F(AGateway, WritesANameIntoAHeaderSoThatItCannotEndIt) {
  service_.sessions[kToken] = "a\r\nb %\xe4";
  service_.access["/jpeg/1"] = {"a\r\nb %\xe4"};
  HttpHeaders headers = Session();
  headers.insert(headers.end(), {{"X-Original-Method", "GET"}, {"X-Original-URI", "/jpeg/1"}});
  EXPECT_EQ(One(AskAuth(headers), "X-Auth-User"), "a%0D%0Ab%20%25%E4");
}

TEST_F(AGateway, ServesAnIndexUnderItsOwnPathOnly) {
  const support::TempDir dir;
  std::filesystem::create_directory(dir.File("sub"));
  dir.Write("sub/index.html", "index");
  dir.Write("sub/a.html", "a");
  gateway_ = std::make_unique<Gateway>(service_, metrics_,
                                       std::make_unique<vigila::gateway::StaticFiles>(dir.Path()),
                                       Gateway::Options(), [](const AccessRecord&) {});
  service_.access["/sub/index.html"] = {"admin"};
  const HttpResponse response = Ask("GET", "/sub/", Session());
  EXPECT_EQ(response.status, 302);
  EXPECT_EQ(One(response, "Location"), "index.html");
  EXPECT_EQ(Ask("GET", "/sub/index.html", Session()).status, 403);
  EXPECT_EQ(Ask("GET", "/sub/a.html", Session()).body, "a");
  EXPECT_EQ(Ask("GET", "/sub/b.html", Session()).status, 404);
  EXPECT_EQ(Ask("GET", "/none/", Session()).status, 404);
  EXPECT_EQ(Ask("GET", "/sub", Session()).status, 404);
}

TEST_F(AGateway, ThrottlesTheClientAndNotItsProxy) {
  Gateway::Options options;
  options.rate_limit.burst = 1;
  Build(options);
  const HttpHeaders guess = {{"Cookie", "vigila_session=00000000"}};
  HttpHeaders one = guess, other = guess;
  one.emplace_back("X-Real-IP", "10.0.0.1");
  other.emplace_back("X-Forwarded-For", "10.0.0.1, 10.0.0.2");
  EXPECT_EQ(Ask("GET", "/jpeg/1", one).status, 401);
  EXPECT_EQ(Ask("GET", "/jpeg/1", one).status, 429);
  EXPECT_EQ(Ask("GET", "/jpeg/1", other).status, 401);
  // From outside, the header is only a claim.
  EXPECT_EQ(Ask("GET", "/jpeg/1", one, "10.0.0.1").status, 429);
  EXPECT_EQ(Ask("GET", "/jpeg/1", one, "10.0.0.3").status, 401);
  EXPECT_EQ(log_.back().source, "10.0.0.3");
}

TEST(AGatewayOf, AProxyThatIsNoAddressIsNotMade) {
  FakeAuthService service;
  Metrics metrics;
  Gateway::Options options;
  options.trusted_proxies = {"proxy.example"};
  EXPECT_THROW(Gateway(service, metrics, nullptr, options, [](const AccessRecord&) {}),
               std::invalid_argument);
}

}  // namespace
