#include "vigila-gateway/auth/client_auth_service.h"

#include "vigila/contract/result_tokens.h"

namespace vigila::gateway {

using client::VigilaClient;

// The logons' truth values are left aside: for a digest they count "DISABLED" as a success. The
// token tells.

bool ClientAuthService::IsProtected(const std::string& path) {
  return client_.IsProtected(path);
}

bool ClientAuthService::Authorize(const std::string& token, const std::string& path) {
  return client_.Authorize(token, path);
}

std::string ClientAuthService::LogOnWithPassword(const std::string& username,
                                                 const std::string& password) {
  std::string token;
  client_.Authenticate(username, password, VigilaClient::kReuseMode, token);
  return token;
}

std::string ClientAuthService::LogOnWithDigest(const DigestLogon& logon) {
  std::string token;
  client_.AuthenticateHttp(logon.username, logon.nonce, logon.ha2, logon.sess, logon.qop,
                           logon.cnonce, logon.nc, logon.response, VigilaClient::kReuseMode, token);
  return token;
}

std::string ClientAuthService::LogOnWithWsse(const WsseLogon& logon) {
  std::string token;
  client_.AuthenticateWsse(logon.username, logon.digest, logon.nonce, logon.created,
                           VigilaClient::kReuseMode, token);
  return token;
}

bool ClientAuthService::Logout(const std::string& token) {
  return client_.Logout(token);
}

std::string ClientAuthService::GetNonce() {
  return client_.GetNonce();
}

std::string ClientAuthService::GetUser(const std::string& token) {
  return client_.GetCredentials(token);
}

std::vector<std::string> ClientAuthService::GetPermissions(const std::string& token) {
  return client_.GetAllowedPermissions(token);
}

// Costs the service neither a nonce nor a session. A failure of another thread's question meanwhile
// counts as well: it was one just now.
bool ClientAuthService::IsReachable() {
  const uint64_t failures = client_.GetCounts().failures;
  client_.GetCredentials(contract::kNoToken);
  return client_.GetCounts().failures == failures;
}

ServiceCounts ClientAuthService::Counts() const {
  const VigilaClient::Counts counts = client_.GetCounts();
  return {counts.cache_hits, counts.cache_misses, counts.failures};
}

}  // namespace vigila::gateway
