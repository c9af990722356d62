#include "vigila-gateway/auth/verdict_response.h"

#include <algorithm>
#include <string>

#include "vigila/contract/limits.h"

namespace vigila::gateway {
namespace {

struct Refusal {
  Verdict::Outcome outcome;
  int status;
  const char* line;
};

constexpr Refusal kRefusals[] = {
    {Verdict::kLogonNeeded, 401, "Log on to see this."},
    {Verdict::kRefused, 403, "This account may not see this."},
    {Verdict::kMalformed, 400, "The request cannot be understood."},
    {Verdict::kThrottled, 429, "Too many failed logons from this address."},
    {Verdict::kUnavailable, 503, "The authentication service cannot be reached."},
};

std::string DigestChallenge(const Verdict& verdict) {
  return std::string("Digest realm=\"") + contract::kRealm + "\", nonce=\"" + verdict.nonce +
         "\", qop=\"auth\", algorithm=MD5" + (verdict.stale ? ", stale=true" : "");
}

}  // namespace

HttpResponse RefusalResponse(const Verdict& verdict, const ResponseOptions& options) {
  const Refusal* refusal =
      std::find_if(std::begin(kRefusals), std::end(kRefusals),
                   [&](const Refusal& r) { return r.outcome == verdict.outcome; });
  // Closed: an outcome without a line of its own is no grant.
  if (refusal == std::end(kRefusals)) refusal = std::end(kRefusals) - 1;
  HttpResponse response = TextResponse(refusal->status, refusal->line);
  response.headers.emplace_back("Cache-Control", "no-store");
  if (verdict.outcome == Verdict::kLogonNeeded) {
    response.headers.emplace_back("WWW-Authenticate", DigestChallenge(verdict));
    if (options.offer_basic) {
      response.headers.emplace_back("WWW-Authenticate",
                                    std::string("Basic realm=\"") + contract::kRealm + "\"");
    }
  }
  if (verdict.outcome == Verdict::kThrottled) {
    response.headers.emplace_back("Retry-After", std::to_string(verdict.retry_after.count()));
  }
  AddSessionCookie(verdict, options, response);
  return response;
}

void AddSessionCookie(const Verdict& verdict, const ResponseOptions& options,
                      HttpResponse& response) {
  if (verdict.new_session) {
    response.headers.emplace_back("Set-Cookie",
                                  SetSessionCookie(verdict.token, options.secure_cookie));
  } else if (verdict.drop_cookie) {
    response.headers.emplace_back("Set-Cookie", ClearSessionCookie(options.secure_cookie));
  }
}

}  // namespace vigila::gateway
