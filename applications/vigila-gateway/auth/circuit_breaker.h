#ifndef VIGILA_GATEWAY_AUTH_CIRCUIT_BREAKER_H_
#define VIGILA_GATEWAY_AUTH_CIRCUIT_BREAKER_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vigila-gateway/auth/auth_service.h"

namespace vigila::gateway {

// A circuit breaker before a service that may hang. Without one a request would hold its serving
// thread for several deadlines, one for each call that it makes. Once a call has waited
// `Options::long_wait` and failed, the breaker opens: every call is answered at once as if the
// service could not be reached. A thread of the breaker's own tries the service every
// `Options::pause`, and its first answer closes the breaker. A service that is gone refuses at once
// by itself: that opens nothing.
//
// Any thread may call. Destruction waits for the trial that is under way.
class CircuitBreaker final : public AuthService {
 public:
  struct Options {
    std::chrono::milliseconds long_wait{1000};
    std::chrono::milliseconds pause{1000};  // between two trials of the service
  };

  // The service must outlive the breaker.
  CircuitBreaker(AuthService& service, const Options& options);
  ~CircuitBreaker() override;
  CircuitBreaker(const CircuitBreaker&) = delete;
  CircuitBreaker& operator=(const CircuitBreaker&) = delete;

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
  template <typename Call>
  auto Through(const Call& call);
  void Open();
  void Probe();

  AuthService& service_;
  const Options options_;
  std::atomic<bool> open_{false};  // written under mutex_
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;  // guarded by mutex_
  std::thread prober_;     // runs from construction to destruction
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_CIRCUIT_BREAKER_H_
