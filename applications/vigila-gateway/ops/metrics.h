#ifndef VIGILA_GATEWAY_OPS_METRICS_H_
#define VIGILA_GATEWAY_OPS_METRICS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>

#include "vigila-gateway/auth/auth_service.h"

namespace vigila::gateway {

// What the gateway counts, and its text for a Prometheus server. Any thread may call.
class Metrics final {
 public:
  void CountRequest(const std::string& handler, int status, std::chrono::nanoseconds duration);
  void CountLogon(const std::string& scheme, const std::string& result);
  void CountAuthorization(bool granted);
  void CountRateLimited();
  void ObserveCall(const std::string& operation, std::chrono::nanoseconds duration);

  // With what the service's client counts.
  std::string Text(const ServiceCounts& service) const;

 private:
  static constexpr size_t kBuckets = 8;
  struct Histogram {
    uint64_t buckets[kBuckets] = {};  // the last has no upper bound
    double sum = 0;
    void Observe(std::chrono::nanoseconds duration);
    void Print(const std::string& name, const std::string& label, std::string& text) const;
  };
  using Counters = std::map<std::string, uint64_t>;  // by their labels as text

  static void Print(const std::string& name, const Counters& counters, std::string& text);

  mutable std::mutex mutex_;
  // Guarded by mutex_.
  Counters requests_;
  Counters logons_;
  Counters authorizations_;
  uint64_t rate_limited_ = 0;
  Histogram request_durations_;
  std::map<std::string, Histogram> call_durations_;  // by operation
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_OPS_METRICS_H_
