#include "vigila-gateway/ops/metrics.h"

#include <cstdio>

namespace vigila::gateway {
namespace {

// Upper bounds in seconds: memory, bus, password check, and beyond.
constexpr double kBounds[] = {0.000002, 0.00002, 0.0002, 0.002, 0.02, 0.2, 2};

std::string Number(double value) {
  char text[32];
  std::snprintf(text, sizeof(text), "%.9g", value);
  return text;
}

std::string Label(const char* name, const std::string& value) {
  return std::string(name) + "=\"" + value + "\"";
}

void Head(const std::string& name, const char* type, const char* help, std::string& text) {
  text += "# HELP " + name + " " + help + "\n# TYPE " + name + " " + type + "\n";
}

void Single(const std::string& name, const char* help, uint64_t count, std::string& text) {
  Head(name, "counter", help, text);
  text += name + " " + std::to_string(count) + "\n";
}

}  // namespace

void Metrics::Histogram::Observe(std::chrono::nanoseconds duration) {
  const double seconds = std::chrono::duration<double>(duration).count();
  size_t bucket = 0;
  while (bucket < kBuckets - 1 && seconds > kBounds[bucket]) ++bucket;
  ++buckets[bucket];
  sum += seconds;
}

void Metrics::Histogram::Print(const std::string& name, const std::string& label,
                               std::string& text) const {
  const std::string labels = label.empty() ? "" : label + ",";
  const std::string alone = label.empty() ? "" : "{" + label + "}";
  uint64_t total = 0;
  for (size_t i = 0; i < kBuckets; ++i) {
    total += buckets[i];
    const std::string bound = i == kBuckets - 1 ? "+Inf" : Number(kBounds[i]);
    text.append(name).append("_bucket{").append(labels).append(Label("le", bound));
    text.append("} ").append(std::to_string(total)).append("\n");
  }
  text += name + "_sum" + alone + " " + Number(sum) + "\n";
  text += name + "_count" + alone + " " + std::to_string(total) + "\n";
}

void Metrics::CountRequest(const std::string& handler, int status,
                           std::chrono::nanoseconds duration) {
  const std::string labels =
      Label("handler", handler) + "," + Label("code", std::to_string(status));
  const std::lock_guard lock(mutex_);
  ++requests_[labels];
  request_durations_.Observe(duration);
}

void Metrics::CountLogon(const std::string& scheme, const std::string& result) {
  const std::string labels = Label("scheme", scheme) + "," + Label("result", result);
  const std::lock_guard lock(mutex_);
  ++logons_[labels];
}

void Metrics::CountAuthorization(bool granted) {
  const std::string labels = Label("result", granted ? "granted" : "refused");
  const std::lock_guard lock(mutex_);
  ++authorizations_[labels];
}

void Metrics::CountRateLimited() {
  const std::lock_guard lock(mutex_);
  ++rate_limited_;
}

void Metrics::ObserveCall(const std::string& operation, std::chrono::nanoseconds duration) {
  const std::lock_guard lock(mutex_);
  call_durations_[operation].Observe(duration);
}

void Metrics::Print(const std::string& name, const Counters& counters, std::string& text) {
  for (const auto& [labels, count] : counters) {
    text.append(name).append("{").append(labels).append("} ");
    text.append(std::to_string(count)).append("\n");
  }
}

std::string Metrics::Text(const ServiceCounts& service) const {
  const std::lock_guard lock(mutex_);
  std::string text;
  Head("vigila_gateway_http_requests_total", "counter", "Requests answered.", text);
  Print("vigila_gateway_http_requests_total", requests_, text);
  Head("vigila_gateway_logons_total", "counter", "Logons tried.", text);
  Print("vigila_gateway_logons_total", logons_, text);
  Head("vigila_gateway_authorizations_total", "counter", "Decisions on a path.", text);
  Print("vigila_gateway_authorizations_total", authorizations_, text);
  Single("vigila_gateway_cache_hits_total", "Answers of the service taken from memory.",
         service.cache_hits, text);
  Single("vigila_gateway_cache_misses_total", "Answers that memory did not hold.",
         service.cache_misses, text);
  Single("vigila_gateway_service_failures_total", "Calls that the service did not answer.",
         service.failures, text);
  Single("vigila_gateway_rate_limited_requests_total", "Requests refused by a rate limit.",
         rate_limited_, text);
  Head("vigila_gateway_http_request_duration_seconds", "histogram", "Time to answer a request.",
       text);
  request_durations_.Print("vigila_gateway_http_request_duration_seconds", "", text);
  Head("vigila_gateway_service_call_duration_seconds", "histogram",
       "Time of a call to the service, the client's memory included.", text);
  for (const auto& [operation, histogram] : call_durations_) {
    histogram.Print("vigila_gateway_service_call_duration_seconds", Label("operation", operation),
                    text);
  }
  return text;
}

}  // namespace vigila::gateway
