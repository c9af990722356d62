#include "vigila-gateway/soap/web_service.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include "support/fake_auth_service.h"

namespace {

using std::chrono::seconds;
using vigila::gateway::Authenticator;
using vigila::gateway::Body;
using vigila::gateway::ChallengeNonces;
using vigila::gateway::HttpResponse;
using vigila::gateway::IsSoapMediaType;
using vigila::gateway::RateLimiter;
using vigila::gateway::SoapVersion;
using vigila::gateway::SoapVersionOf;
using vigila::gateway::UsedTokens;
using vigila::gateway::WebService;
using vigila::gateway::WebServiceCall;

constexpr char kToken[] = "0123ABCD";

std::string Envelope(const std::string& token) {
  return "<s:Envelope "
         "xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\"><s:Header><wsse:Security>" +
         token + "</wsse:Security></s:Header><s:Body><x/></s:Body></s:Envelope>";
}
std::string UsernameToken(const std::string& type = "#PasswordDigest") {
  return "<UsernameToken><Username>view</Username><Password Type=\"" + type +
         "\">digest</Password><Nonce>nonce</Nonce><Created>2026-01-02T03:04:05Z</Created>"
         "</UsernameToken>";
}

class AWebService : public testing::Test {
 protected:
  void SetUp() override {
    service_.access["/onvif/*"] = {"view"};
    service_.sessions[kToken] = "view";
    service_.logon_answer = kToken;
  }
  HttpResponse Call(const std::string& envelope, SoapVersion version = SoapVersion::k12,
                    size_t piece = std::string::npos, Body body = Body::kComplete) {
    UsedTokens used_tokens({}, {});  // no call knows of those before it
    Authenticator authenticator(service_, rate_limiter_, nonces_, used_tokens, {});
    WebServiceCall call(web_service_, authenticator, "10.0.0.1", "/onvif/device", version);
    for (size_t at = 0; at < envelope.size(); at += std::min(piece, envelope.size())) {
      call.Receive(std::string_view(envelope).substr(at, piece));
    }
    return call.Answer(body);
  }

  FakeAuthService service_;
  RateLimiter rate_limiter_{{3, seconds(10), 16},
                            [] { return RateLimiter::Clock::time_point(seconds(1)); }};
  ChallengeNonces nonces_{service_, [] { return RateLimiter::Clock::time_point(seconds(1)); }};
  WebService web_service_{
      "A & B <1>", [] { return std::chrono::system_clock::time_point(seconds(1767323045)); }};
};

TEST_F(AWebService, TellsNameAndTimeToWhoeverLogsOn) {
  const HttpResponse response = Call(Envelope(UsernameToken()));
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.headers.front().second, "application/soap+xml; charset=utf-8");
  EXPECT_NE(response.body.find("<d:Name>A &amp; B &lt;1&gt;</d:Name>"
                               "<d:Time>2026-01-02T03:04:05Z</d:Time>"),
            std::string::npos)
      << response.body;
  ASSERT_EQ(service_.wsse.size(), 1u);
  EXPECT_EQ(service_.wsse[0].username, "view");
  EXPECT_EQ(service_.wsse[0].digest, "digest");
  EXPECT_EQ(service_.wsse[0].nonce, "nonce");
  EXPECT_EQ(service_.wsse[0].created, "2026-01-02T03:04:05Z");
}

TEST_F(AWebService, AsksForTheRuleOfAllWebServicesAndForThePath) {
  Call(Envelope(UsernameToken()));
  ASSERT_EQ(service_.authorized.size(), 2u);
  EXPECT_EQ(service_.authorized[0].second, "/onvif/*");
  EXPECT_EQ(service_.authorized[1].second, "/onvif/device");
}

TEST_F(AWebService, ReadsTheSameFromPiecesOfEverySize) {
  for (const size_t piece : {1u, 2u, 7u, 64u}) {
    EXPECT_EQ(Call(Envelope(UsernameToken()), SoapVersion::k11, piece).status, 200) << piece;
  }
}

TEST_F(AWebService, AnswersAWrongPasswordWithTheFaultOfItsVersion) {
  service_.logon_answer = "NO_TOKEN";
  const HttpResponse old = Call(Envelope(UsernameToken()), SoapVersion::k11);
  EXPECT_EQ(old.status, 500);
  EXPECT_EQ(old.headers.front().second, "text/xml; charset=utf-8");
  EXPECT_NE(old.body.find("<faultcode>wsse:FailedAuthentication</faultcode>"), std::string::npos);
  EXPECT_NE(old.body.find("http://schemas.xmlsoap.org/soap/envelope/"), std::string::npos);
  const HttpResponse now = Call(Envelope(UsernameToken()), SoapVersion::k12);
  EXPECT_EQ(now.status, 400);
  EXPECT_NE(now.body.find("<env:Code><env:Value>env:Sender</env:Value><env:Subcode><env:Value>"
                          "wsse:FailedAuthentication</env:Value></env:Subcode></env:Code>"),
            std::string::npos);
}

TEST_F(AWebService, RefusesAKnownUserWhoMayNot) {
  service_.access["/onvif/*"] = {"admin"};
  EXPECT_EQ(Call(Envelope(UsernameToken())).status, 403);
}

TEST_F(AWebService, RefusesAnEnvelopeWithoutALogon) {
  for (const char* envelope :
       {"<Envelope><Body/></Envelope>", "<Envelope><Header/><Body/></Envelope>",
        "<Envelope><Header><Security>", "<Envelope><Header><Security/></Header></Envelope>",
        "<Envelope><Header><Security><Timestamp/></Security></Header></Envelope>"}) {
    const HttpResponse response = Call(envelope, SoapVersion::k11);
    EXPECT_EQ(response.status, 500) << envelope;
    EXPECT_NE(response.body.find("wsse:FailedAuthentication"), std::string::npos) << envelope;
  }
  EXPECT_TRUE(service_.wsse.empty());
}

TEST_F(AWebService, CallsMalformedWhatCannotBeRead) {
  const std::string whole = Envelope(UsernameToken());
  for (const std::string& envelope :
       {std::string(), std::string("no xml"), std::string("{}"), std::string("<Body/>"),
        std::string("\xef\xbb\xbf<Envelope>"), std::string(300, ' '),
        whole.substr(0, whole.find("<Created")), whole.substr(0, whole.find("</wsse:Security>")),
        Envelope("<UsernameToken><Username>view</Username></UsernameToken>"),
        Envelope("<!-- x -->" + UsernameToken()),
        // All fields are there before the second one that contradicts the first.
        Envelope(UsernameToken() + "<UsernameToken><Username>admin</Username></UsernameToken>"),
        Envelope(UsernameToken() + "text" + std::string(300, ' '))}) {
    EXPECT_EQ(Call(envelope).status, 400) << envelope;
    EXPECT_EQ(Call(envelope).body.find("FailedAuthentication"), std::string::npos) << envelope;
  }
  EXPECT_TRUE(service_.wsse.empty());
}

// The table of the security notes, line by line.
TEST_F(AWebService, TakesWhatXmlMeansOtherwiseAsItsReferenceSays) {
  const auto answer = [this](const std::string& old, const std::string& now) {
    std::string envelope = Envelope(UsernameToken());
    envelope.replace(envelope.find(old), old.size(), now);
    const HttpResponse response = Call(envelope, SoapVersion::k11);
    const bool failed = response.body.find("wsse:FailedAuthentication") != std::string::npos;
    return std::to_string(response.status) + (failed ? " failed" : "") +
           (service_.wsse.empty() ? "" : " as " + service_.wsse.back().username);
  };
  for (const char* now : {"<!--x--><s:Envelope", "<!-- x --><s:Envelope"}) {
    EXPECT_EQ(answer("<s:Envelope", now), "200 as view") << now;
  }
  EXPECT_EQ(answer("<wsse:Security", "<!-- x --><wsse:Security"), "200 as view");
  EXPECT_EQ(answer(">view<", ">vi&amp;ew<"), "200 as vi&amp;ew");  // the service knows no such name
  EXPECT_EQ(answer(">view<", ">vi<!-- x -->ew<"), "200 as vi");
  EXPECT_EQ(answer(">view<", ">vi<![CDATA[ew]]><"), "200 as vi");
  service_.wsse.clear();
  EXPECT_EQ(answer(">view<", "><![CDATA[view]]><"), "500 failed");
  EXPECT_EQ(answer(">view<", "><!-- x -->view<"), "500 failed");
  EXPECT_EQ(answer(">digest<", "><![CDATA[digest]]><"), "400");
  EXPECT_EQ(answer(">nonce<", "><!-- x -->nonce<"), "400");
  EXPECT_EQ(answer("<UsernameToken>", "<!-- x --><UsernameToken>"), "400");
  EXPECT_EQ(answer("<Nonce>", "<!-- x --><Nonce>"), "400");
  EXPECT_EQ(answer("<s:Header>", "<!-- x --><s:Header>"), "400");
  EXPECT_EQ(answer("\"http://www.w3.org/2003/05/soap-envelope\"", "'urn:x'"), "400");
  EXPECT_EQ(answer("<s:Header>", "<a b='c'/><s:Header>"), "400");
  EXPECT_EQ(answer("\"#PasswordDigest\"", "'#PasswordDigest'"), "400");
  EXPECT_EQ(answer("</Username>", "</Username >"), "400");
  EXPECT_EQ(answer("</Username>", "</x:Username>"), "400");
  EXPECT_EQ(answer("<Nonce>", "<Nonce>other</Nonce><Nonce>"), "400");
  EXPECT_EQ(answer(">nonce<", "><"), "400");
  EXPECT_EQ(answer("<s:Envelope", "\xef\xbb\xbf<s:Envelope"), "400");
  EXPECT_EQ(answer("<s:Envelope", "\xff\xfe<s:Envelope"), "400");
}

TEST_F(AWebService, LooksAtNoPasswordInClear) {
  EXPECT_EQ(Call(Envelope(UsernameToken("x#PasswordText")), SoapVersion::k11).status, 500);
  // Such tokens often come without the rest.
  const HttpResponse response =
      Call(Envelope("<UsernameToken><Username>view</Username><Password Type=\"x#PasswordText\">"
                    "secret</Password></UsernameToken>"),
           SoapVersion::k11);
  EXPECT_EQ(response.status, 500);
  EXPECT_NE(response.body.find("wsse:FailedAuthentication"), std::string::npos);
  EXPECT_TRUE(service_.wsse.empty());
}

TEST_F(AWebService, TakesAPasswordWithoutATypeForOneInClear) {
  std::string envelope = Envelope(UsernameToken());
  const std::string type = " Type=\"#PasswordDigest\"";
  envelope.erase(envelope.find(type), type.size());
  const HttpResponse response = Call(envelope, SoapVersion::k11);
  EXPECT_EQ(response.status, 500);
  EXPECT_NE(response.body.find("wsse:FailedAuthentication"), std::string::npos);
  EXPECT_TRUE(service_.wsse.empty());
}

TEST_F(AWebService, IsUnavailableWithItsService) {
  service_.reachable = false;
  const HttpResponse response = Call(Envelope(UsernameToken()));
  EXPECT_EQ(response.status, 503);
  EXPECT_NE(response.body.find("env:Receiver"), std::string::npos);
  EXPECT_NE(Call(Envelope(UsernameToken()), SoapVersion::k11).body.find("env:Server"),
            std::string::npos);
}

TEST_F(AWebService, ReadsNoFurtherThanTheHeaderOfALargeEnvelope) {
  EXPECT_EQ(
      Call(Envelope(UsernameToken()) + std::string(10 << 20, '<'), SoapVersion::k12, 1460).status,
      200);
}

TEST_F(AWebService, HasAFaultOfBothVersionsForEveryRefusal) {
  const std::string fault11 = "<env:Body><env:Fault><faultcode>";
  const std::string fault12 = "<env:Body><env:Fault><env:Code><env:Value>";
  const auto expect = [&](const std::string& envelope, Body body, int status, const char* code11,
                          const char* code12) {
    const HttpResponse old = Call(envelope, SoapVersion::k11, 64, body);
    EXPECT_EQ(old.status, status) << old.body;
    EXPECT_NE(old.body.find(fault11 + code11 + "</faultcode><faultstring>"), std::string::npos)
        << old.body;
    const HttpResponse now = Call(envelope, SoapVersion::k12, 64, body);
    EXPECT_EQ(now.status, status) << now.body;
    EXPECT_NE(now.body.find(fault12 + code12 + "</env:Value>"), std::string::npos) << now.body;
    EXPECT_NE(now.body.find("<env:Reason><env:Text xml:lang=\"en\">"), std::string::npos);
    EXPECT_NE(now.body.find("http://www.w3.org/2003/05/soap-envelope"), std::string::npos);
  };
  const std::string whole = Envelope(UsernameToken());
  expect("no xml", Body::kComplete, 400, "env:Client", "env:Sender");
  expect(whole, Body::kTooLarge, 413, "env:Client", "env:Sender");
  service_.access["/onvif/*"] = {"admin"};
  expect(whole, Body::kComplete, 403, "wsse:FailedAuthentication", "env:Sender");
  service_.logon_answer = "NO_TOKEN";
  for (int i = 0; i < 3; ++i) Call(whole);
  expect(whole, Body::kComplete, 429, "env:Client", "env:Sender");
}

TEST_F(AWebService, IsUnavailableInBothVersions) {
  service_.reachable = false;
  EXPECT_EQ(Call(Envelope(UsernameToken()), SoapVersion::k11).status, 503);
  EXPECT_EQ(Call(Envelope(UsernameToken()), SoapVersion::k12).status, 503);
}

TEST_F(AWebService, RefusesEveryResultOfALogonThatIsNoSession) {
  for (const char* answer : {"NO_TOKEN", "DISABLED", "_EXPIRED", "NODIGEST"}) {
    service_.logon_answer = answer;
    RateLimiter rate_limiter{{100, seconds(10), 16},
                             [] { return RateLimiter::Clock::time_point(); }};
    UsedTokens used_tokens({}, {});
    Authenticator authenticator{service_, rate_limiter, nonces_, used_tokens, {}};
    WebServiceCall call(web_service_, authenticator, "10.0.0.1", "/onvif/device", SoapVersion::k11);
    call.Receive(Envelope(UsernameToken()));
    const HttpResponse response = call.Answer(Body::kComplete);
    EXPECT_EQ(response.status, 500) << answer;
    EXPECT_NE(response.body.find("wsse:FailedAuthentication"), std::string::npos) << answer;
    EXPECT_EQ(response.body.find(answer), std::string::npos) << "nobody learns which";
  }
}

TEST_F(AWebService, RefusesWhatIsTooLargeWithoutALogon) {
  EXPECT_EQ(Call(Envelope(UsernameToken()), SoapVersion::k12, 64, Body::kTooLarge).status, 413);
  EXPECT_TRUE(service_.wsse.empty());
}

TEST_F(AWebService, PutsOffWhoGuesses) {
  service_.logon_answer = "NO_TOKEN";
  for (int i = 0; i < 3; ++i) Call(Envelope(UsernameToken()));
  const HttpResponse response = Call(Envelope(UsernameToken()));
  EXPECT_EQ(response.status, 429);
  EXPECT_EQ(response.headers.back().first, "Retry-After");
  EXPECT_EQ(response.headers.back().second, "10");
}

TEST_F(AWebService, ReadsWhatRealClientsSend) {
  int read = 0;
  int logons = 0;
  for (const auto& file :
       std::filesystem::directory_iterator(std::string(TEST_DATA_DIR) + "/soap")) {
    std::ifstream stream(file.path(), std::ios::binary);
    const std::string envelope{std::istreambuf_iterator<char>(stream), {}};
    // One of them asks for the time first, without a logon.
    const bool logs_on = envelope.find("UsernameToken") != std::string::npos;
    EXPECT_EQ(Call(envelope, SoapVersion::k12, 7).status, logs_on ? 200 : 400) << file.path();
    logons += logs_on ? 1 : 0;
    ++read;
  }
  EXPECT_EQ(read, 12);
  EXPECT_EQ(logons, 11);
  EXPECT_EQ(service_.wsse.size(), 11u);
}

TEST(SoapMediaType, IsReadWithoutItsParametersInAnyCase) {
  EXPECT_TRUE(IsSoapMediaType("text/xml"));
  EXPECT_TRUE(IsSoapMediaType("Text/XML; charset=utf-8"));
  EXPECT_TRUE(IsSoapMediaType("application/soap+xml;action=\"x\""));
  EXPECT_FALSE(IsSoapMediaType(""));
  EXPECT_FALSE(IsSoapMediaType("text/xmlx"));
  EXPECT_FALSE(IsSoapMediaType("application/json"));
  EXPECT_EQ(SoapVersionOf("application/soap+xml"), SoapVersion::k12);
  EXPECT_EQ(SoapVersionOf("text/xml;charset=utf-8"), SoapVersion::k11);
}

}  // namespace
