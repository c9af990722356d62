#ifndef VIGILA_GATEWAY_AUTH_RATE_LIMITER_H_
#define VIGILA_GATEWAY_AUTH_RATE_LIMITER_H_

#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace vigila::gateway {

// A rate limiter that makes guessing slow: each source may fail `Limits::burst` times at once, and
// then once per `Limits::recovery`. A session token has only 8 digits, so unknown tokens count like
// wrong passwords.
//
// Never waits: it only says how long the source should. Bounded: the source that failed longest ago
// is forgotten first. Any thread may call.
class RateLimiter final {
 public:
  using Clock = std::chrono::steady_clock;
  using Now = std::function<Clock::time_point()>;

  struct Limits {
    size_t burst = 20;
    std::chrono::milliseconds recovery{6000};
    size_t sources = 4096;
  };

  RateLimiter(const Limits& limits, Now now) : limits_(limits), now_(std::move(now)) {}

  // How long the source must wait before its credentials are looked at; nothing when not at all.
  std::optional<std::chrono::seconds> MustWait(std::string_view address);
  void Failed(std::string_view address);
  // By a token that stands for no session. The same one again is no guess but a page whose session
  // has ended, and counts no more than once in a row.
  void FailedWithToken(std::string_view address, std::string_view token);

  size_t Sources() const;

 private:
  struct Source {
    std::string name;
    // When everything counted so far is forgiven.
    Clock::time_point forgiven;
    std::string token;  // that it failed with last
  };
  using SourceList = std::list<Source>;  // that failed last comes first

  // Under mutex_.
  Source& Count(const std::string& source);

  const Limits limits_;
  const Now now_;
  mutable std::mutex mutex_;
  SourceList sources_;  // guarded by mutex_, as the index is
  std::unordered_map<std::string, SourceList::iterator> index_;
};

// Whom an address counts for: itself, but for IPv6 the network of 64 bits, which one host has
// whole.
std::string RateLimitSource(std::string_view address);

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_RATE_LIMITER_H_
