#ifndef VIGILA_GATEWAY_GATEWAY_H_
#define VIGILA_GATEWAY_GATEWAY_H_

#include <functional>
#include <memory>
#include <string>

#include "vigila-gateway/auth/authenticator.h"
#include "vigila-gateway/auth/challenge_nonces.h"
#include "vigila-gateway/auth/forward_auth.h"
#include "vigila-gateway/auth/rate_limiter.h"
#include "vigila-gateway/auth/used_tokens.h"
#include "vigila-gateway/auth/verdict_response.h"
#include "vigila-gateway/console/site.h"
#include "vigila-gateway/http/http_server.h"
#include "vigila-gateway/http/trusted_proxies.h"
#include "vigila-gateway/ops/access_log.h"
#include "vigila-gateway/ops/metrics.h"
#include "vigila-gateway/soap/web_service.h"

namespace vigila::gateway {

// All that the gateway serves at its main address: site, web service, forward-auth and health, each
// after the check of its kind, and a log line for every request.
class Gateway final : public HttpApplication {
 public:
  using Log = std::function<void(const AccessRecord&)>;

  struct Options {
    bool basic = false;
    bool secure_cookie = false;
    std::string device_name = "video device";
    std::vector<std::string> trusted_proxies;
    RateLimiter::Limits rate_limit;
  };

  // The service and the metrics must outlive the gateway. Throws std::invalid_argument for a proxy
  // that is no address.
  Gateway(AuthService& service, Metrics& metrics, std::unique_ptr<StaticFiles> files,
          const Options& options, Log log);
  ~Gateway() override;

  std::unique_ptr<HttpExchange> Open(HttpRequest request) override;

 private:
  class Exchange;

  HttpResponse RespondSite(const HttpRequest& request, const RequestTarget& target,
                           std::string& user);
  HttpResponse RespondHealth();
  AccessQuestion QuestionOf(const HttpRequest& request, const RequestTarget& target) const;

  AuthService& service_;
  Metrics& metrics_;
  const Log log_;
  const ResponseOptions response_options_;
  const TrustedProxies proxies_;
  RateLimiter rate_limiter_;
  ChallengeNonces nonces_;
  UsedTokens used_tokens_;
  Authenticator authenticator_;
  ForwardAuth forward_auth_;
  const Site site_;
  const WebService web_service_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_GATEWAY_H_
