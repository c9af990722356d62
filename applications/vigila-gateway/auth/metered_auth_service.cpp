#include "vigila-gateway/auth/metered_auth_service.h"

#include <chrono>

#include "vigila/contract/result_tokens.h"

namespace vigila::gateway {
namespace {

// A refusal by the service's own word for it; what is not known is not made a label of.
const char* ResultName(const std::string& token) {
  if (token.empty()) return "unavailable";
  if (contract::IsSessionToken(token)) return "success";
  if (token == contract::kExpiredToken) return "expired";
  if (token == contract::kDisabledToken) return "disabled";
  return token == contract::kNoDigestToken ? "nodigest" : "refused";
}

}  // namespace

template <typename Question>
auto MeteredAuthService::Timed(const char* operation, const Question& question) {
  const auto start = std::chrono::steady_clock::now();
  auto answer = question();
  metrics_.ObserveCall(operation, std::chrono::steady_clock::now() - start);
  return answer;
}

std::string MeteredAuthService::CountedLogon(const char* scheme, std::string token) {
  metrics_.CountLogon(scheme, ResultName(token));
  return token;
}

bool MeteredAuthService::IsProtected(const std::string& path) {
  return Timed("is_protected", [&] { return service_.IsProtected(path); });
}

bool MeteredAuthService::Authorize(const std::string& token, const std::string& path) {
  const bool granted = Timed("authorize", [&] { return service_.Authorize(token, path); });
  metrics_.CountAuthorization(granted);
  return granted;
}

std::string MeteredAuthService::LogOnWithPassword(const std::string& username,
                                                  const std::string& password) {
  return CountedLogon("basic", Timed("authenticate", [&] {
                        return service_.LogOnWithPassword(username, password);
                      }));
}

std::string MeteredAuthService::LogOnWithDigest(const DigestLogon& logon) {
  return CountedLogon("digest",
                      Timed("authenticate_http", [&] { return service_.LogOnWithDigest(logon); }));
}

std::string MeteredAuthService::LogOnWithWsse(const WsseLogon& logon) {
  return CountedLogon("wsse",
                      Timed("authenticate_wsse", [&] { return service_.LogOnWithWsse(logon); }));
}

bool MeteredAuthService::Logout(const std::string& token) {
  return Timed("logout", [&] { return service_.Logout(token); });
}

std::string MeteredAuthService::GetNonce() {
  return Timed("get_nonce", [&] { return service_.GetNonce(); });
}

std::string MeteredAuthService::GetUser(const std::string& token) {
  return Timed("get_credentials", [&] { return service_.GetUser(token); });
}

std::vector<std::string> MeteredAuthService::GetPermissions(const std::string& token) {
  return Timed("get_permissions", [&] { return service_.GetPermissions(token); });
}

bool MeteredAuthService::IsReachable() {
  return Timed("is_reachable", [&] { return service_.IsReachable(); });
}

}  // namespace vigila::gateway
