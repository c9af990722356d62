#include "vigila-gateway/auth/verdict_response.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace {

using vigila::gateway::AddSessionCookie;
using vigila::gateway::HttpHeaders;
using vigila::gateway::HttpResponse;
using vigila::gateway::RefusalResponse;
using vigila::gateway::ResponseOptions;
using vigila::gateway::Verdict;

Verdict Of(Verdict::Outcome outcome) {
  Verdict verdict;
  verdict.outcome = outcome;
  return verdict;
}

// What every refusal has, and these headers behind it.
HttpHeaders With(const HttpHeaders& more) {
  HttpHeaders headers = {{"Content-Type", "text/plain; charset=utf-8"},
                         {"Cache-Control", "no-store"}};
  headers.insert(headers.end(), more.begin(), more.end());
  return headers;
}

TEST(Refusal, HasAStatusAndALineForEachOutcome) {
  const struct {
    Verdict::Outcome outcome;
    int status;
    const char* line;
  } rows[] = {
      {Verdict::kLogonNeeded, 401, "Log on to see this.\n"},
      {Verdict::kRefused, 403, "This account may not see this.\n"},
      {Verdict::kMalformed, 400, "The request cannot be understood.\n"},
      {Verdict::kThrottled, 429, "Too many failed logons from this address.\n"},
      {Verdict::kUnavailable, 503, "The authentication service cannot be reached.\n"},
  };
  for (const auto& row : rows) {
    const HttpResponse response = RefusalResponse(Of(row.outcome), {});
    EXPECT_EQ(response.status, row.status);
    EXPECT_EQ(response.body, row.line);
  }
}

TEST(Refusal, OfAnOutcomeThatIsNoneIsNoGrant) {
  EXPECT_EQ(RefusalResponse(Of(Verdict::kGranted), {}).status, 503);
  EXPECT_EQ(RefusalResponse(Verdict(), {}).status, 503);
}

TEST(Refusal, IsNotKeptByCachesAndChallengesOnlyWhoMustLogOn) {
  for (const auto outcome : {Verdict::kRefused, Verdict::kMalformed, Verdict::kUnavailable}) {
    Verdict verdict = Of(outcome);
    verdict.nonce = "n";
    verdict.retry_after = std::chrono::seconds(7);
    ResponseOptions options;
    options.offer_basic = true;
    EXPECT_EQ(RefusalResponse(verdict, options).headers, With({})) << outcome;
  }
}

TEST(Refusal, ChallengesWithTheNonce) {
  Verdict verdict = Of(Verdict::kLogonNeeded);
  verdict.nonce = "0123456789abcdef";
  EXPECT_EQ(RefusalResponse(verdict, {}).headers,
            With({{"WWW-Authenticate",
                   "Digest realm=\"Varno\", nonce=\"0123456789abcdef\", qop=\"auth\", "
                   "algorithm=MD5"}}));
  verdict.stale = true;
  EXPECT_EQ(RefusalResponse(verdict, {}).headers,
            With({{"WWW-Authenticate",
                   "Digest realm=\"Varno\", nonce=\"0123456789abcdef\", qop=\"auth\", "
                   "algorithm=MD5, stale=true"}}));
}

TEST(Refusal, OffersBasicBehindDigestWhenItMay) {
  Verdict verdict = Of(Verdict::kLogonNeeded);
  verdict.nonce = "n";
  ResponseOptions options;
  options.offer_basic = true;
  EXPECT_EQ(RefusalResponse(verdict, options).headers,
            With({{"WWW-Authenticate",
                   "Digest realm=\"Varno\", nonce=\"n\", qop=\"auth\", algorithm=MD5"},
                  {"WWW-Authenticate", "Basic realm=\"Varno\""}}));
}

TEST(Refusal, SaysWhenToTryAgain) {
  Verdict verdict = Of(Verdict::kThrottled);
  verdict.retry_after = std::chrono::seconds(120);
  EXPECT_EQ(RefusalResponse(verdict, {}).headers, With({{"Retry-After", "120"}}));
}

TEST(Refusal, SetsAndClearsTheCookieToo) {
  Verdict verdict = Of(Verdict::kRefused);
  verdict.new_session = true;
  verdict.token = "0123ABCD";
  EXPECT_EQ(RefusalResponse(verdict, {}).headers,
            With({{"Set-Cookie", "vigila_session=0123ABCD; Path=/; HttpOnly; SameSite=Strict"}}));
  verdict.new_session = false;
  verdict.drop_cookie = true;
  EXPECT_EQ(
      RefusalResponse(verdict, {}).headers,
      With({{"Set-Cookie", "vigila_session=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict"}}));
}

HttpHeaders CookieHeaders(const Verdict& verdict, bool secure) {
  ResponseOptions options;
  options.secure_cookie = secure;
  HttpResponse response;
  AddSessionCookie(verdict, options, response);
  EXPECT_EQ(response.status, 200);
  EXPECT_EQ(response.body, "");
  return response.headers;
}

TEST(SessionCookieOfAVerdict, IsNotTouchedByOneOfAnOldSession) {
  Verdict verdict = Of(Verdict::kGranted);
  verdict.token = "0123ABCD";
  EXPECT_EQ(CookieHeaders(verdict, false), HttpHeaders());
}

TEST(SessionCookieOfAVerdict, IsThatOfTheNewSessionEvenWhenAnOldOneIsWorthNothing) {
  Verdict verdict = Of(Verdict::kGranted);
  verdict.token = "0123ABCD";
  verdict.new_session = true;
  verdict.drop_cookie = true;
  EXPECT_EQ(
      CookieHeaders(verdict, false),
      (HttpHeaders{{"Set-Cookie", "vigila_session=0123ABCD; Path=/; HttpOnly; SameSite=Strict"}}));
}

TEST(SessionCookieOfAVerdict, GoesOverTlsOnlyWhenToldSo) {
  Verdict verdict = Of(Verdict::kGranted);
  verdict.token = "0123ABCD";
  verdict.new_session = true;
  EXPECT_EQ(CookieHeaders(verdict, true),
            (HttpHeaders{{"Set-Cookie",
                          "vigila_session=0123ABCD; Path=/; HttpOnly; SameSite=Strict; Secure"}}));
  verdict.new_session = false;
  verdict.drop_cookie = true;
  EXPECT_EQ(CookieHeaders(verdict, true),
            (HttpHeaders{{"Set-Cookie",
                          "vigila_session=; Max-Age=0; Path=/; HttpOnly; SameSite=Strict; "
                          "Secure"}}));
}

}  // namespace
