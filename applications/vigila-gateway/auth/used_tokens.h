#ifndef VIGILA_GATEWAY_AUTH_USED_TOKENS_H_
#define VIGILA_GATEWAY_AUTH_USED_TOKENS_H_

#include <array>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "vigila-gateway/auth/auth_service.h"
#include "vigila/contract/limits.h"

namespace vigila::gateway {

// Remembers the UsernameTokens that were accepted for as long as their creation time could be
// accepted, so that a recorded message opens nothing when it comes again. The service remembers
// nonces as well, but the last thousand only, and for five minutes, while a message from a clock
// that is ahead is good for ten.
//
// Fails closed: where a token may have been forgotten (the memory is full of tokens that are still
// good, or the clock was set back to a time of which tokens were forgotten) there is no telling.
// Any thread may call.
class UsedTokens final {
 public:
  using SteadyClock = std::chrono::steady_clock;
  using SystemClock = std::chrono::system_clock;

  struct Clocks {
    std::function<SteadyClock::time_point()> steady = &SteadyClock::now;
    std::function<SystemClock::time_point()> system = &SystemClock::now;
  };
  struct Limits {
    size_t tokens = 65536;
    size_t tokens_of_a_user = 32768;  // so that one account alone cannot shut the others out
  };

  // A creation time is accepted up to so many whole seconds before and after the present.
  static constexpr std::chrono::seconds kTolerance{contract::kClockToleranceSecs + 1};
  // From a token's acceptance to when it cannot be accepted again, and a minute for a clock that
  // is corrected meanwhile.
  static constexpr std::chrono::seconds kKept = 2 * kTolerance + std::chrono::seconds(60);

  enum class Standing {
    kNew,
    kUsed,
    kCannotTell,
  };

  UsedTokens(const Limits& limits, Clocks clocks) : limits_(limits), clocks_(std::move(clocks)) {}

  // A new one counts as used at once: of two that are the same only one is ever asked about. It
  // must be settled when the service has spoken.
  Standing Take(const WsseLogon& logon);
  // One that was not accepted is new again.
  void Settle(const WsseLogon& logon, bool accepted);

  size_t Size() const;

 private:
  using Key = std::array<unsigned char, 16>;
  using Users = std::map<std::string, size_t>;  // how many tokens of each
  struct Accepted {
    Key key;
    Users::iterator user;
    SteadyClock::time_point since;
    SystemClock::time_point at;
  };
  // Times at which forgotten tokens were accepted.
  struct Times {
    SystemClock::time_point first;
    SystemClock::time_point last;
  };

  static Key KeyOf(const WsseLogon& logon);
  // All under mutex_.
  void ForgetOld();
  void NoteForgotten(SystemClock::time_point at);
  void JoinNearestForgotten();
  bool MayHaveForgotten() const;

  const Limits limits_;
  const Clocks clocks_;
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::set<Key> used_;
  std::deque<Accepted> accepted_;  // the oldest first; the others in used_ are not settled yet
  Users users_;
  std::vector<Times> forgotten_;
};

}  // namespace vigila::gateway

#endif  // VIGILA_GATEWAY_AUTH_USED_TOKENS_H_
