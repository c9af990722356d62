#include "vigila/client/refusal_limiter.h"

#include <cstddef>
#include <cstdint>

namespace vigila::client {

namespace {

constexpr int64_t kPauseMicros = 60 * INT64_C(1000000);
// The text comes from the server.
constexpr std::size_t kMaxCauses = 16;

}  // namespace

bool RefusalLimiter::IsDue(const std::string& cause) {
  tevra::osa::TimeStruct now;
  clock_.GetTime(now);
  tevra::osa::MutexAutoLock lock(mutex_);
  std::erase_if(until_, [&now](const auto& entry) { return entry.second <= now; });
  if (until_.size() >= kMaxCauses) return false;
  tevra::osa::TimeStruct until = now;
  until += kPauseMicros;
  return until_.emplace(cause, until).second;
}

}  // namespace vigila::client
