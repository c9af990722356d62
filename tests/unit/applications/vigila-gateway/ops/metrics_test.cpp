#include "vigila-gateway/ops/metrics.h"

#include <gtest/gtest.h>

#include <string>

#include "support/fake_auth_service.h"
#include "vigila-gateway/auth/metered_auth_service.h"
#include "vigila-gateway/ops/metrics_page.h"

namespace {

using vigila::gateway::Body;
using vigila::gateway::HttpRequest;
using vigila::gateway::MeteredAuthService;
using vigila::gateway::Metrics;
using vigila::gateway::MetricsPage;

class AMeteredService : public testing::Test {
 protected:
  bool Says(const std::string& line) const {
    return ("\n" + metrics_.Text(metered_.Counts())).find("\n" + line + "\n") != std::string::npos;
  }
  FakeAuthService service_;
  Metrics metrics_;
  MeteredAuthService metered_{service_, metrics_};
};

TEST_F(AMeteredService, CountsLogonsByTheirResult) {
  for (const char* answer : {"0123ABCD", "0123ABCD", "NO_TOKEN", "_EXPIRED", "DISABLED"}) {
    service_.logon_answer = answer;
    EXPECT_EQ(metered_.LogOnWithDigest({}), answer);
  }
  service_.logon_answer = "NODIGEST";
  metered_.LogOnWithWsse({});
  metered_.LogOnWithPassword("u", "p");
  EXPECT_TRUE(Says("vigila_gateway_logons_total{scheme=\"digest\",result=\"success\"} 2"));
  EXPECT_TRUE(Says("vigila_gateway_logons_total{scheme=\"digest\",result=\"refused\"} 1"));
  EXPECT_TRUE(Says("vigila_gateway_logons_total{scheme=\"digest\",result=\"expired\"} 1"));
  EXPECT_TRUE(Says("vigila_gateway_logons_total{scheme=\"digest\",result=\"disabled\"} 1"));
  EXPECT_TRUE(Says("vigila_gateway_logons_total{scheme=\"wsse\",result=\"nodigest\"} 1"));
  EXPECT_TRUE(Says("vigila_gateway_logons_total{scheme=\"basic\",result=\"nodigest\"} 1"));
}

TEST_F(AMeteredService, TellsWhatTheClientCounts) {
  service_.counts = {3, 2, 1};
  EXPECT_TRUE(Says("vigila_gateway_cache_hits_total 3"));
  EXPECT_TRUE(Says("vigila_gateway_cache_misses_total 2"));
  EXPECT_TRUE(Says("vigila_gateway_service_failures_total 1"));
}

TEST_F(AMeteredService, CountsALogonWithoutAnAnswer) {
  service_.reachable = false;
  EXPECT_FALSE(metered_.IsReachable());
  metered_.LogOnWithDigest({});
  EXPECT_TRUE(
      Says("vigila_gateway_service_call_duration_seconds_count{operation=\"is_reachable\"} 1"));
  EXPECT_TRUE(Says("vigila_gateway_logons_total{scheme=\"digest\",result=\"unavailable\"} 1"));
}

TEST_F(AMeteredService, CountsAuthorizationsAndTimesQuestions) {
  service_.access["/x"] = {};
  metered_.Authorize("NO_TOKEN", "/x");
  metered_.Authorize("NO_TOKEN", "/y");
  EXPECT_TRUE(Says("vigila_gateway_authorizations_total{result=\"granted\"} 1"));
  EXPECT_TRUE(Says("vigila_gateway_authorizations_total{result=\"refused\"} 1"));
  EXPECT_TRUE(
      Says("vigila_gateway_service_call_duration_seconds_count{operation=\"authorize\"} 2"));
  EXPECT_TRUE(
      Says("vigila_gateway_service_call_duration_seconds_bucket{operation=\"authorize\",le=\"+"
           "Inf\"} 2"));
}

TEST_F(AMeteredService, PassesEveryQuestionOn) {
  service_.access["/x"] = {"u"};
  service_.sessions["0123ABCD"] = "u";
  service_.permissions = {"p"};
  EXPECT_TRUE(metered_.IsProtected("/x"));
  EXPECT_EQ(metered_.GetUser("0123ABCD"), "u");
  EXPECT_EQ(metered_.GetPermissions("0123ABCD"), std::vector<std::string>{"p"});
  EXPECT_EQ(metered_.GetNonce(), "nonce1");
  EXPECT_TRUE(metered_.Logout("0123ABCD"));
  EXPECT_TRUE(service_.sessions.empty());
}

TEST(Metrics, PutsDurationsIntoTheirBuckets) {
  Metrics metrics;
  metrics.CountRequest("site", 200, std::chrono::microseconds(2));
  metrics.CountRequest("site", 404, std::chrono::microseconds(3));
  metrics.CountRequest("site", 200, std::chrono::seconds(3));
  const std::string text = metrics.Text({});
  for (const char* line : {"vigila_gateway_http_requests_total{handler=\"site\",code=\"200\"} 2\n",
                           "vigila_gateway_http_request_duration_seconds_bucket{le=\"2e-06\"} 1\n",
                           "vigila_gateway_http_request_duration_seconds_bucket{le=\"2e-05\"} 2\n",
                           "vigila_gateway_http_request_duration_seconds_bucket{le=\"2\"} 2\n",
                           "vigila_gateway_http_request_duration_seconds_bucket{le=\"+Inf\"} 3\n",
                           "vigila_gateway_http_request_duration_seconds_sum 3.000005\n",
                           "vigila_gateway_http_request_duration_seconds_count 3\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  }
}

TEST(MetricsPage, IsThereAndNowhereElse) {
  Metrics metrics;
  FakeAuthService service;
  service.counts.failures = 7;
  MetricsPage page(metrics, service);
  EXPECT_EQ(page.Open(HttpRequest{"GET", "/metrics", "", {}})->Answer(Body::kComplete).body,
            metrics.Text(service.counts));
  EXPECT_EQ(page.Open(HttpRequest{"GET", "/", "", {}})->Answer(Body::kComplete).status, 404);
  EXPECT_EQ(page.Open(HttpRequest{"POST", "/metrics", "", {}})->Answer(Body::kComplete).status,
            405);
}

}  // namespace
