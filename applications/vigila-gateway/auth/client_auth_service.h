#ifndef VIGILA_GATEWAY_AUTH_CLIENT_AUTH_SERVICE_H_
#define VIGILA_GATEWAY_AUTH_CLIENT_AUTH_SERVICE_H_

#include "vigila-gateway/auth/auth_service.h"
#include "vigila/client/vigila_client.h"

namespace vigila::gateway {

// The service of this device, through the client library. Logons share sessions: a browser that
// proves itself on six connections at once opens one session.
class ClientAuthService final : public AuthService {
 public:
  bool IsProtected(const std::string& path) override;
  bool Authorize(const std::string& token, const std::string& path) override;
  std::string LogOnWithPassword(const std::string& username, const std::string& password) override;
  std::string LogOnWithDigest(const DigestLogon& logon) override;
  std::string LogOnWithWsse(const WsseLogon& logon) override;
  bool Logout(const std::string& token) override;
  std::string GetNonce() override;
  std::string GetUser(const std::string& token) override;
  std::vector<std::string> GetPermissions(const std::string& token) override;
  bool IsReachable() override;
  ServiceCounts Counts() const override;

 private:
  const client::VigilaClient client_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_CLIENT_AUTH_SERVICE_H_
