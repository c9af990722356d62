#include "vigila-gateway/auth/authenticator.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "vigila-gateway/auth/digest.h"
#include "vigila/contract/result_tokens.h"

namespace vigila::gateway {
namespace {

// The service's word for a right answer to a nonce that is too old or was used before.

Verdict Plain(Verdict::Outcome outcome) {
  Verdict verdict;
  verdict.outcome = outcome;
  return verdict;
}

Verdict Throttled(std::chrono::seconds wait) {
  Verdict verdict = Plain(Verdict::kThrottled);
  verdict.retry_after = wait;
  return verdict;
}

Verdict ChallengeWith(std::string nonce) {
  Verdict verdict = Plain(nonce.empty() ? Verdict::kUnavailable : Verdict::kLogonNeeded);
  verdict.nonce = std::move(nonce);
  return verdict;
}

// The client signed the resource that it asks for, in whatever spelling. Some leave the query out:
// their answer holds for the path, which is all that access is decided by.
bool SignsTheTarget(const DigestAnswer& answer, const RequestTarget& target) {
  const std::optional<RequestTarget> signed_target = ParseRequestTarget(answer.uri);
  return signed_target && signed_target->path == target.path &&
         (signed_target->query.empty() || signed_target->query == target.query);
}

}  // namespace

Verdict Authenticator::Decide(const AccessQuestion& question) {
  const std::string& path = question.target.path;
  if (!service_.IsProtected(path) && service_.Authorize(contract::kNoToken, path)) {
    return Plain(Verdict::kGranted);
  }
  const SessionCookie cookie = FindSessionCookie(question.cookies);
  if (!cookie.present && question.authorizations.empty()) return Challenge();
  if (const auto wait = rate_limiter_.MustWait(question.source)) return Throttled(*wait);
  return DecideByCookie(question, cookie);
}

Verdict Authenticator::Name(Verdict verdict) {
  if (verdict.outcome != Verdict::kGranted || verdict.token.empty()) return verdict;
  if (verdict.user.empty()) verdict.user = service_.GetUser(verdict.token);
  if (!verdict.user.empty()) return verdict;
  Verdict ended = Challenge();
  ended.drop_cookie = ended.outcome == Verdict::kLogonNeeded;
  return ended;
}

Verdict Authenticator::DecideByCookie(const AccessQuestion& question, const SessionCookie& cookie) {
  if (!cookie.present) return DecideByHeader(question);
  if (!cookie.token.empty() && service_.Authorize(cookie.token, question.target.path)) {
    Verdict verdict = Plain(Verdict::kGranted);
    verdict.token = cookie.token;
    return verdict;
  }
  const bool living = !cookie.token.empty() && !service_.GetUser(cookie.token).empty();
  if (living && question.authorizations.empty()) return RefusedOrUnavailable("", cookie.token);
  // Whatever header came with it: beside one, guessing tokens must be no faster.
  if (!living && !cookie.token.empty() && service_.IsReachable()) {
    rate_limiter_.FailedWithToken(question.source, cookie.token);
  }
  // Somebody else may have logged on in the same browser; or the session has ended.
  Verdict verdict = question.authorizations.empty() ? Challenge() : DecideByHeader(question);
  verdict.drop_cookie = !living && verdict.outcome == Verdict::kLogonNeeded;
  return verdict;
}

Verdict Authenticator::DecideByHeader(const AccessQuestion& question) {
  // Two answers are two meanings; a proxy on the way might have read the other one.
  if (question.authorizations.size() != 1) return Plain(Verdict::kMalformed);
  const AuthorizationHeader header = ParseAuthorization(question.authorizations.front());
  if (const auto* unusable = std::get_if<UnusableAnswer>(&header)) {
    return *unusable == UnusableAnswer::kMalformed ? Plain(Verdict::kMalformed) : Challenge();
  }
  if (const auto* digest = std::get_if<DigestAnswer>(&header)) {
    return DecideByDigest(question, *digest);
  }
  return options_.basic ? DecideByBasic(question, std::get<BasicAnswer>(header)) : Challenge();
}

Verdict Authenticator::DecideByDigest(const AccessQuestion& question, const DigestAnswer& answer) {
  if (!SignsTheTarget(answer, question.target)) return Plain(Verdict::kMalformed);
  DigestLogon logon;
  logon.username = answer.username;
  logon.nonce = answer.nonce;
  logon.ha2 = RequestDigest(question.method, answer.uri);
  logon.sess = answer.sess;
  logon.qop = answer.qop;
  logon.cnonce = answer.cnonce;
  logon.nc = answer.nc;
  logon.response = answer.response;
  const std::string token = service_.LogOnWithDigest(logon);
  // The response was right, only its nonce is not: no failure, and no new question to the user.
  if (token == contract::kExpiredToken) return ChallengeAgain(question.source);
  return AfterLogon(question.source, answer.username, token, {question.target.path});
}

Verdict Authenticator::DecideByBasic(const AccessQuestion& question, const BasicAnswer& answer) {
  const std::string token = service_.LogOnWithPassword(answer.username, answer.password.Text());
  return AfterLogon(question.source, answer.username, token, {question.target.path});
}

Verdict Authenticator::DecideWsse(const std::string& source, const WsseLogon& logon,
                                  const std::vector<std::string>& paths) {
  if (const auto wait = rate_limiter_.MustWait(source)) return Throttled(*wait);
  switch (used_tokens_.Take(logon)) {
    case UsedTokens::Standing::kUsed:
      rate_limiter_.Failed(source);
      return Challenge();
    case UsedTokens::Standing::kCannotTell:
      return Plain(Verdict::kUnavailable);
    case UsedTokens::Standing::kNew:
      break;
  }
  const std::string token = service_.LogOnWithWsse(logon);
  used_tokens_.Settle(logon, contract::IsSessionToken(token));
  return AfterLogon(source, logon.username, token, paths);
}

Verdict Authenticator::AfterLogon(const std::string& source, const std::string& user,
                                  const std::string& token, const std::vector<std::string>& paths) {
  if (token.empty()) return Plain(Verdict::kUnavailable);
  if (!contract::IsSessionToken(token)) {
    rate_limiter_.Failed(source);
    return Challenge();
  }
  const bool granted = std::all_of(paths.begin(), paths.end(), [&](const std::string& path) {
    return service_.Authorize(token, path);
  });
  Verdict verdict = granted ? Plain(Verdict::kGranted) : RefusedOrUnavailable(user, token);
  verdict.token = token;
  verdict.user = user;
  verdict.new_session = verdict.outcome != Verdict::kUnavailable;
  return verdict;
}

Verdict Authenticator::LogOut(const AccessQuestion& question) {
  const SessionCookie cookie = FindSessionCookie(question.cookies);
  Verdict verdict = Plain(Verdict::kGranted);
  verdict.drop_cookie = cookie.present;
  if (cookie.token.empty()) return verdict;
  if (const auto wait = rate_limiter_.MustWait(question.source)) {
    verdict.outcome = Verdict::kThrottled;
    verdict.retry_after = *wait;
    return verdict;
  }
  const bool living = !service_.GetUser(cookie.token).empty();
  if (!service_.Logout(cookie.token)) {
    verdict.outcome = Verdict::kUnavailable;
  } else if (!living) {
    // A guessed token must not end somebody's session faster than it could open something.
    rate_limiter_.FailedWithToken(question.source, cookie.token);
  }
  return verdict;
}

Verdict Authenticator::Challenge() {
  return ChallengeWith(nonces_.Shared());
}

Verdict Authenticator::ChallengeAgain(const std::string& source) {
  if (const auto wait = nonces_.MustWait(source)) return Throttled(*wait);
  Verdict verdict = ChallengeWith(nonces_.Own(source));
  verdict.stale = true;
  return verdict;
}

Verdict Authenticator::RefusedOrUnavailable(const std::string& user, const std::string& token) {
  Verdict verdict = Plain(service_.IsReachable() ? Verdict::kRefused : Verdict::kUnavailable);
  verdict.user = user;
  verdict.token = token;
  return verdict;
}

}  // namespace vigila::gateway
