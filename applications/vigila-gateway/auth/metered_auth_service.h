#ifndef VIGILA_GATEWAY_AUTH_METERED_AUTH_SERVICE_H_
#define VIGILA_GATEWAY_AUTH_METERED_AUTH_SERVICE_H_

#include "vigila-gateway/auth/auth_service.h"
#include "vigila-gateway/ops/metrics.h"

namespace vigila::gateway {

// Passes every question on, and counts and times it.
class MeteredAuthService final : public AuthService {
 public:
  // Both must outlive this one.
  MeteredAuthService(AuthService& service, Metrics& metrics)
      : service_(service), metrics_(metrics) {}

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
  ServiceCounts Counts() const override { return service_.Counts(); }

 private:
  template <typename Question>
  auto Timed(const char* operation, const Question& question);
  std::string CountedLogon(const char* scheme, std::string token);

  AuthService& service_;
  Metrics& metrics_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_METERED_AUTH_SERVICE_H_
