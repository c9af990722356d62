#include "vigila-gateway/auth/challenge_nonces.h"

namespace vigila::gateway {

std::string ChallengeNonces::Shared() {
  // Before the question: the nonce is no older than that.
  const Clock::time_point asked = now_();
  const uint64_t failures = service_.Counts().failures;
  std::unique_lock lock(mutex_);
  if (!shared_.empty() && asked - fetched_ < (fetching_ ? kSharedMeanwhile : kShared)) {
    const std::string nonce = shared_;
    const bool doubtful = failures != failures_;
    lock.unlock();
    // A nonce from memory must not make a service that has gone look alive.
    return doubtful && !service_.IsReachable() ? "" : nonce;
  }
  fetching_ = true;
  lock.unlock();
  std::string nonce = service_.GetNonce();
  lock.lock();
  fetching_ = false;
  if (!nonce.empty()) {
    shared_ = nonce;
    fetched_ = asked;
    failures_ = failures;
  }
  return nonce;
}

std::string ChallengeNonces::Own(std::string_view source) {
  own_.Failed(source);
  return service_.GetNonce();
}

}  // namespace vigila::gateway
