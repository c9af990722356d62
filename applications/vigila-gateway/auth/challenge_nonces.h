#ifndef VIGILA_GATEWAY_AUTH_CHALLENGE_NONCES_H_
#define VIGILA_GATEWAY_AUTH_CHALLENGE_NONCES_H_

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "vigila-gateway/auth/auth_service.h"
#include "vigila-gateway/auth/rate_limiter.h"

namespace vigila::gateway {

// The nonces of the challenges. The service remembers a bounded number and forgets the oldest, and
// a stranger may ask without end. So all who ask within a second get the same nonce, and strangers
// cost the service one nonce a second. Each client counts from 1 on a nonce, so of those who share
// one the first is let in, and the service calls the right answers of the others expired. With such
// an answer, and only with it, comes a nonce of one's own.
//
// Any thread may call; none waits for another one's question to the service.
class ChallengeNonces final {
 public:
  using Clock = RateLimiter::Clock;

  // For how long a nonce is handed to everyone, and for how long while its successor is fetched.
  static constexpr std::chrono::seconds kShared{1};
  static constexpr std::chrono::seconds kSharedMeanwhile{10};

  // The service must outlive the nonces.
  ChallengeNonces(AuthService& service, RateLimiter::Now now)
      : service_(service), now_(now), own_({256, std::chrono::milliseconds(62), 4096}, now) {}

  // Empty when the service is not there.
  std::string Shared();
  // How long the source must wait for one more nonce of its own; nothing when not at all. Whoever
  // has an account, or a recorded answer of somebody who has, could push everyone's nonces out.
  std::optional<std::chrono::seconds> MustWait(std::string_view source) {
    return own_.MustWait(source);
  }
  // Empty when the service gives none.
  std::string Own(std::string_view source);

 private:
  AuthService& service_;
  const RateLimiter::Now now_;
  RateLimiter own_;
  std::mutex mutex_;
  // Guarded by mutex_.
  std::string shared_;
  Clock::time_point fetched_;
  uint64_t failures_ = 0;  // of questions to the service, as it was fetched
  bool fetching_ = false;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_CHALLENGE_NONCES_H_
