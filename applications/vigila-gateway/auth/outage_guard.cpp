#include "vigila-gateway/auth/outage_guard.h"

namespace vigila::gateway {

OutageGuard::OutageGuard(AuthService& service, const Options& options)
    : service_(service), options_(options), seeker_([this] { LookForTheService(); }) {}

OutageGuard::~OutageGuard() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_one();
  seeker_.join();
}

template <typename Question>
auto OutageGuard::Ask(const Question& question) {
  using Answer = decltype(question());
  if (outage_.load()) return Answer{};
  const uint64_t failures = service_.Counts().failures;
  const auto start = std::chrono::steady_clock::now();
  Answer answer = question();
  // The failure may be another thread's: then the seeker ends the outage with its first look.
  const bool waited = std::chrono::steady_clock::now() - start >= options_.long_wait;
  if (waited && service_.Counts().failures != failures) BeginOutage();
  return answer;
}

void OutageGuard::BeginOutage() {
  const std::lock_guard lock(mutex_);
  outage_.store(true);
  changed_.notify_one();
}

void OutageGuard::LookForTheService() {
  std::unique_lock lock(mutex_);
  while (!stopping_) {
    if (!outage_.load()) {
      changed_.wait(lock);
      continue;
    }
    lock.unlock();
    const bool found = service_.IsReachable();
    lock.lock();
    if (found) {
      outage_.store(false);
    } else {
      changed_.wait_for(lock, options_.pause, [this] { return stopping_; });
    }
  }
}

bool OutageGuard::IsProtected(const std::string& path) {
  return Ask([&] { return service_.IsProtected(path); });
}

bool OutageGuard::Authorize(const std::string& token, const std::string& path) {
  return Ask([&] { return service_.Authorize(token, path); });
}

std::string OutageGuard::LogOnWithPassword(const std::string& username,
                                           const std::string& password) {
  return Ask([&] { return service_.LogOnWithPassword(username, password); });
}

std::string OutageGuard::LogOnWithDigest(const DigestLogon& logon) {
  return Ask([&] { return service_.LogOnWithDigest(logon); });
}

std::string OutageGuard::LogOnWithWsse(const WsseLogon& logon) {
  return Ask([&] { return service_.LogOnWithWsse(logon); });
}

bool OutageGuard::Logout(const std::string& token) {
  return Ask([&] { return service_.Logout(token); });
}

std::string OutageGuard::GetNonce() {
  return Ask([&] { return service_.GetNonce(); });
}

std::string OutageGuard::GetUser(const std::string& token) {
  return Ask([&] { return service_.GetUser(token); });
}

std::vector<std::string> OutageGuard::GetPermissions(const std::string& token) {
  return Ask([&] { return service_.GetPermissions(token); });
}

bool OutageGuard::IsReachable() {
  return Ask([&] { return service_.IsReachable(); });
}

}  // namespace vigila::gateway
