#ifndef VIGILA_GATEWAY_AUTH_AUTHENTICATOR_H_
#define VIGILA_GATEWAY_AUTH_AUTHENTICATOR_H_

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

#include "vigila-gateway/auth/auth_service.h"
#include "vigila-gateway/auth/authorization_header.h"
#include "vigila-gateway/auth/challenge_nonces.h"
#include "vigila-gateway/auth/rate_limiter.h"
#include "vigila-gateway/auth/used_tokens.h"
#include "vigila-gateway/http/cookie.h"
#include "vigila-gateway/http/request_path.h"

namespace vigila::gateway {

// A request as the authenticator sees it.
struct AccessQuestion {
  std::string source;  // address of the client
  std::string method;
  RequestTarget target;
  std::vector<std::string_view> cookies;         // values of the Cookie headers
  std::vector<std::string_view> authorizations;  // values of the Authorization headers
};

struct Verdict {
  enum Outcome {
    kGranted,
    kLogonNeeded,  // with a nonce to challenge with
    kRefused,      // the user is known and may not
    kMalformed,    // the credentials cannot be read, or are for another resource
    kThrottled,    // too many failures from this source
    kUnavailable,  // the service gave no answer, or it is not to be trusted
  };

  Outcome outcome = kUnavailable;
  std::string token;         // of the session that was granted or refused; empty for none
  std::string user;          // when a logon came with this request
  bool new_session = false;  // the token came from a logon: hand it out
  bool drop_cookie = false;  // the cookie that came is worth nothing
  std::string nonce;
  bool stale = false;
  std::chrono::seconds retry_after{0};
};

// Decides on a request: open path, session cookie, Authorization header, challenge, in this order.
// Nothing is granted without the service's own word for this token and this path, so an
// unreachable service never looks like an open one.
class Authenticator final {
 public:
  struct Options {
    bool basic = false;
  };

  // All but the options must outlive the authenticator.
  Authenticator(AuthService& service, RateLimiter& rate_limiter, ChallengeNonces& nonces,
                UsedTokens& used_tokens, const Options& options)
      : service_(service),
        rate_limiter_(rate_limiter),
        nonces_(nonces),
        used_tokens_(used_tokens),
        options_(options) {}

  Verdict Decide(const AccessQuestion& question);
  // Adds the user to a session's grant. A session that has ended since is asked to log on again:
  // a grant that names no user would be taken for a grant to all.
  Verdict Name(Verdict verdict);
  // A web-service logon, for a path and the name of the rule that stands for all of its kind.
  Verdict DecideWsse(const std::string& source, const WsseLogon& logon,
                     const std::vector<std::string>& paths);
  // Ends the session of the request's cookie. Granted when none is left.
  Verdict LogOut(const AccessQuestion& question);
  // For whoever brings no credentials, or wrong ones.
  Verdict Challenge();

 private:
  Verdict DecideByCookie(const AccessQuestion& question, const SessionCookie& cookie);
  Verdict DecideByHeader(const AccessQuestion& question);
  Verdict DecideByDigest(const AccessQuestion& question, const DigestAnswer& answer);
  Verdict DecideByBasic(const AccessQuestion& question, const BasicAnswer& answer);
  Verdict AfterLogon(const std::string& source, const std::string& user, const std::string& token,
                     const std::vector<std::string>& paths);
  // For whoever gave the right answer to a nonce that is spent.
  Verdict ChallengeAgain(const std::string& source);
  // What a refusal is worth: that, or no answer at all.
  Verdict RefusedOrUnavailable(const std::string& user, const std::string& token);

  AuthService& service_;
  RateLimiter& rate_limiter_;
  ChallengeNonces& nonces_;
  UsedTokens& used_tokens_;
  const Options options_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_AUTHENTICATOR_H_
