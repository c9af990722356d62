#include "vigila-gateway/http/connection_bound.h"

#include "vigila-gateway/auth/rate_limiter.h"

namespace vigila::gateway {

bool ConnectionBound::Admits(std::string_view address) const {
  if (limit_ == 0) return true;
  const std::string source = RateLimitSource(address);
  const std::lock_guard lock(mutex_);
  const auto found = open_.find(source);
  return found == open_.end() || found->second < limit_;
}

void ConnectionBound::Opened(std::string_view address) {
  const std::string source = RateLimitSource(address);
  const std::lock_guard lock(mutex_);
  ++open_[source];
}

void ConnectionBound::Closed(std::string_view address) {
  const std::string source = RateLimitSource(address);
  const std::lock_guard lock(mutex_);
  const auto found = open_.find(source);
  if (found != open_.end() && --found->second == 0) open_.erase(found);
}

size_t ConnectionBound::Sources() const {
  const std::lock_guard lock(mutex_);
  return open_.size();
}

}  // namespace vigila::gateway
