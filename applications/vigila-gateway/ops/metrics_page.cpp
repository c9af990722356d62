#include "vigila-gateway/ops/metrics_page.h"

#include <utility>

namespace vigila::gateway {
namespace {

class Exchange final : public HttpExchange {
 public:
  Exchange(const Metrics& metrics, const AuthService& service, HttpRequest request)
      : metrics_(metrics), service_(service), request_(std::move(request)) {}

  HttpResponse Answer(Body) override {
    if (request_.target != "/metrics") return TextResponse(404, "See /metrics.");
    if (request_.method != "GET" && request_.method != "HEAD") {
      return TextResponse(405, "This cannot be done here.");
    }
    HttpResponse response;
    response.headers = {{"Content-Type", "text/plain; version=0.0.4; charset=utf-8"}};
    response.body = metrics_.Text(service_.Counts());
    return response;
  }

 private:
  const Metrics& metrics_;
  const AuthService& service_;
  const HttpRequest request_;
};

}  // namespace

std::unique_ptr<HttpExchange> MetricsPage::Open(HttpRequest request) {
  return std::make_unique<Exchange>(metrics_, service_, std::move(request));
}

}  // namespace vigila::gateway
