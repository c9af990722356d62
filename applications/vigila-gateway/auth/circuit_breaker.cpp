#include "vigila-gateway/auth/circuit_breaker.h"

namespace vigila::gateway {

CircuitBreaker::CircuitBreaker(AuthService& service, const Options& options)
    : service_(service), options_(options), prober_([this] { Probe(); }) {}

CircuitBreaker::~CircuitBreaker() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_one();
  prober_.join();
}

template <typename Call>
auto CircuitBreaker::Through(const Call& call) {
  using Answer = decltype(call());
  if (open_.load()) return Answer{};
  const uint64_t failures = service_.Counts().failures;
  const auto start = std::chrono::steady_clock::now();
  Answer answer = call();
  // The failure may be another thread's: then the first trial closes the breaker again.
  const bool waited = std::chrono::steady_clock::now() - start >= options_.long_wait;
  if (waited && service_.Counts().failures != failures) Open();
  return answer;
}

void CircuitBreaker::Open() {
  const std::lock_guard lock(mutex_);
  open_.store(true);
  changed_.notify_one();
}

void CircuitBreaker::Probe() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (!open_.load()) {
      changed_.wait(lock);
      continue;
    }
    lock.unlock();
    const bool found = service_.IsReachable();
    lock.lock();
    if (found) {
      open_.store(false);
    } else {
      changed_.wait_for(lock, options_.pause, [this] { return stopping_; });
    }
  }
}

bool CircuitBreaker::IsProtected(const std::string& path) {
  return Through([&] { return service_.IsProtected(path); });
}

bool CircuitBreaker::Authorize(const std::string& token, const std::string& path) {
  return Through([&] { return service_.Authorize(token, path); });
}

std::string CircuitBreaker::LogOnWithPassword(const std::string& username,
                                              const std::string& password) {
  return Through([&] { return service_.LogOnWithPassword(username, password); });
}

std::string CircuitBreaker::LogOnWithDigest(const DigestLogon& logon) {
  return Through([&] { return service_.LogOnWithDigest(logon); });
}

std::string CircuitBreaker::LogOnWithWsse(const WsseLogon& logon) {
  return Through([&] { return service_.LogOnWithWsse(logon); });
}

bool CircuitBreaker::Logout(const std::string& token) {
  return Through([&] { return service_.Logout(token); });
}

std::string CircuitBreaker::GetNonce() {
  return Through([&] { return service_.GetNonce(); });
}

std::string CircuitBreaker::GetUser(const std::string& token) {
  return Through([&] { return service_.GetUser(token); });
}

std::vector<std::string> CircuitBreaker::GetPermissions(const std::string& token) {
  return Through([&] { return service_.GetPermissions(token); });
}

bool CircuitBreaker::IsReachable() {
  return Through([&] { return service_.IsReachable(); });
}

}  // namespace vigila::gateway
