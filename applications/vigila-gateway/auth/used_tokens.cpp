#include "vigila-gateway/auth/used_tokens.h"

#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>

namespace vigila::gateway {
namespace {

// Times of forgotten tokens as near as this lie within the reach of the same creation times.
constexpr auto kNear = 4 * UsedTokens::kTolerance;
constexpr size_t kMaximumTimes = 8;

}  // namespace

// The password digest alone: it covers nonce, creation time and password, but not where one ends
// and the next begins, so bytes that are moved from one to the other leave it as it is.
UsedTokens::Key UsedTokens::KeyOf(const WsseLogon& logon) {
  unsigned char hash[EVP_MAX_MD_SIZE];
  if (EVP_Digest(logon.digest.data(), logon.digest.size(), hash, nullptr, EVP_sha256(), nullptr) !=
      1) {
    throw std::runtime_error("OpenSSL offers no SHA-256");
  }
  Key key;
  std::copy_n(hash, key.size(), key.begin());
  return key;
}

UsedTokens::Standing UsedTokens::Take(const WsseLogon& logon) {
  const Key key = KeyOf(logon);
  const std::lock_guard lock(mutex_);
  ForgetOld();
  if (used_.count(key) != 0) return Standing::kUsed;
  const auto user = users_.find(logon.username);
  const bool full = used_.size() >= limits_.tokens ||
                    (user != users_.end() && user->second >= limits_.tokens_of_a_user);
  if (full || MayHaveForgotten()) return Standing::kCannotTell;
  used_.insert(key);
  return Standing::kNew;
}

void UsedTokens::Settle(const WsseLogon& logon, bool accepted) {
  const Key key = KeyOf(logon);
  const std::lock_guard lock(mutex_);
  if (!accepted) {
    used_.erase(key);
    return;
  }
  const auto user = users_.emplace(logon.username, 0).first;
  accepted_.push_back({key, user, clocks_.steady(), clocks_.system()});
  ++user->second;
}

size_t UsedTokens::Size() const {
  const std::lock_guard lock(mutex_);
  return used_.size();
}

void UsedTokens::ForgetOld() {
  const SteadyClock::time_point now = clocks_.steady();
  while (!accepted_.empty() && now - accepted_.front().since > kKept) {
    const Accepted& oldest = accepted_.front();
    NoteForgotten(oldest.at);
    used_.erase(oldest.key);
    if (--oldest.user->second == 0) users_.erase(oldest.user);
    accepted_.pop_front();
  }
}

void UsedTokens::NoteForgotten(SystemClock::time_point at) {
  for (Times& times : forgotten_) {
    if (at < times.first - kNear || at > times.last + kNear) continue;
    times.first = std::min(times.first, at);
    times.last = std::max(times.last, at);
    return;
  }
  forgotten_.push_back({at, at});
  if (forgotten_.size() > kMaximumTimes) JoinNearestForgotten();
}

void UsedTokens::JoinNearestForgotten() {
  std::sort(forgotten_.begin(), forgotten_.end(),
            [](const Times& a, const Times& b) { return a.first < b.first; });
  size_t nearest = 1;
  for (size_t i = 2; i < forgotten_.size(); ++i) {
    const auto gap = forgotten_[i].first - forgotten_[i - 1].last;
    if (gap < forgotten_[nearest].first - forgotten_[nearest - 1].last) nearest = i;
  }
  Times& joined = forgotten_[nearest - 1];
  joined.last = std::max(joined.last, forgotten_[nearest].last);
  forgotten_.erase(forgotten_.begin() + static_cast<std::ptrdiff_t>(nearest));
}

// Not while the clock only goes forward: what is forgotten was accepted too long ago.
bool UsedTokens::MayHaveForgotten() const {
  const SystemClock::time_point now = clocks_.system();
  return std::any_of(forgotten_.begin(), forgotten_.end(), [now](const Times& times) {
    return now > times.first - 2 * kTolerance && now < times.last + 2 * kTolerance;
  });
}

}  // namespace vigila::gateway
