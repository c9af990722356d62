#ifndef VIGILA_GATEWAY_AUTH_OUTAGE_GUARD_H_
#define VIGILA_GATEWAY_AUTH_OUTAGE_GUARD_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "vigila-gateway/auth/auth_service.h"

namespace vigila::gateway {

// Keeps a service that hangs from holding the serving threads: a request has several questions, and
// each would wait for its own deadline. Once a question has waited long and in vain, all are
// answered as if the service could not be reached, at once, until a thread of the guard's own finds
// it there again. A service that is gone refuses at once by itself and is asked every time.
//
// Any thread may call. Destruction waits for the question that is being asked.
class OutageGuard final : public AuthService {
 public:
  struct Options {
    std::chrono::milliseconds long_wait{1000};
    std::chrono::milliseconds pause{1000};  // between two looks at the service
  };

  // The service must outlive the guard.
  OutageGuard(AuthService& service, const Options& options);
  ~OutageGuard() override;
  OutageGuard(const OutageGuard&) = delete;
  OutageGuard& operator=(const OutageGuard&) = delete;

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
  auto Ask(const Question& question);
  void BeginOutage();
  void LookForTheService();

  AuthService& service_;
  const Options options_;
  std::atomic<bool> outage_{false};  // written under mutex_
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stopping_ = false;  // guarded by mutex_
  std::thread seeker_;     // runs from construction to destruction
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_OUTAGE_GUARD_H_
