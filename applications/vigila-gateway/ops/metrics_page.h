#ifndef VIGILA_GATEWAY_OPS_METRICS_PAGE_H_
#define VIGILA_GATEWAY_OPS_METRICS_PAGE_H_

#include <memory>

#include "vigila-gateway/http/http_server.h"
#include "vigila-gateway/ops/metrics.h"

namespace vigila::gateway {

// The counters at /metrics, on a listening address of their own: no logon is asked for.
class MetricsPage final : public HttpApplication {
 public:
  // Both must outlive the page.
  MetricsPage(const Metrics& metrics, const AuthService& service)
      : metrics_(metrics), service_(service) {}

  std::unique_ptr<HttpExchange> Open(HttpRequest request) override;

 private:
  const Metrics& metrics_;
  const AuthService& service_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_OPS_METRICS_PAGE_H_
