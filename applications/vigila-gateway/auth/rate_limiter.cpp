#include "vigila-gateway/auth/rate_limiter.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <cstring>

namespace vigila::gateway {

std::optional<std::chrono::seconds> RateLimiter::MustWait(std::string_view address) {
  const std::string source = RateLimitSource(address);
  const std::lock_guard lock(mutex_);
  const auto found = index_.find(source);
  if (found == index_.end()) return std::nullopt;
  // A source at its limit is let in again as soon as one failure is forgiven.
  const auto full = limits_.recovery * static_cast<long>(limits_.burst);
  const Clock::duration owed = found->second->forgiven - now_();
  const Clock::duration wait = owed - (full - limits_.recovery);
  if (wait <= Clock::duration::zero()) return std::nullopt;
  return std::chrono::ceil<std::chrono::seconds>(wait);
}

void RateLimiter::Failed(std::string_view address) {
  const std::string source = RateLimitSource(address);
  const std::lock_guard lock(mutex_);
  Count(source);
}

void RateLimiter::FailedWithToken(std::string_view address, std::string_view token) {
  const std::string source = RateLimitSource(address);
  const std::lock_guard lock(mutex_);
  const auto found = index_.find(source);
  if (found != index_.end() && found->second->token == token) return;
  Count(source).token = token;
}

RateLimiter::Source& RateLimiter::Count(const std::string& source) {
  const Clock::time_point now = now_();
  auto found = index_.find(source);
  if (found == index_.end()) {
    if (sources_.size() >= limits_.sources) {
      index_.erase(sources_.back().name);
      sources_.pop_back();
    }
    sources_.push_front({source, now, ""});
    found = index_.emplace(source, sources_.begin()).first;
  } else {
    sources_.splice(sources_.begin(), sources_, found->second);
  }
  // Failures beyond the limit do not add up: requests under way at once are one mistake of a page.
  const auto full = limits_.recovery * static_cast<long>(limits_.burst);
  Source& entry = *found->second;
  entry.forgiven = std::min(std::max(entry.forgiven, now) + limits_.recovery, now + full);
  return entry;
}

size_t RateLimiter::Sources() const {
  const std::lock_guard lock(mutex_);
  return sources_.size();
}

std::string RateLimitSource(std::string_view address) {
  std::string text(address);
  in6_addr six = {};
  if (inet_pton(AF_INET6, text.c_str(), &six) != 1) return text;
  char network[INET6_ADDRSTRLEN] = {};
  if (IN6_IS_ADDR_V4MAPPED(&six)) {
    inet_ntop(AF_INET, six.s6_addr + 12, network, sizeof(network));
    return network;
  }
  std::memset(six.s6_addr + 8, 0, 8);
  inet_ntop(AF_INET6, &six, network, sizeof(network));
  return network;
}

}  // namespace vigila::gateway
