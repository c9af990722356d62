#include "tevra/msgbus/direct/admission.h"

#include <sys/resource.h>

#include "tevra/msgbus/bus_error.h"
#include "tevra/msgbus/wire/handshake.h"

namespace tevra::msgbus {
namespace {

constexpr rlim_t kReservedDescriptors = 32;

// Numbers are given out from below, so a high one says how many are left.
bool IsAmongTheLast(int descriptor) {
  rlimit limit{};
  return getrlimit(RLIMIT_NOFILE, &limit) == 0 &&
         static_cast<rlim_t>(descriptor) + kReservedDescriptors >= limit.rlim_cur;
}

}  // namespace

std::optional<Admission::Refusal> Admission::Enter(const Credentials& caller, int descriptor) {
  if (roles_.IsOwner(caller)) return std::nullopt;
  if (RolesOf(caller) == 0) {
    return Refusal{BusError::kAccessDenied,
                   "the caller is in none of the groups that hold the role 'service' or 'admin'"};
  }
  const CallerRoles::Role role = CountedAs(caller);
  const auto of_this_user = of_user_.find(caller.uid);
  if (of_this_user != of_user_.end() && of_this_user->second >= config_.max_connections_per_uid) {
    return Refusal{wire::kTooManyConnections,
                   "user " + std::to_string(caller.uid) + " has as many connections as a user may"};
  }
  if (of_role_[role] >= config_.max_connections) {
    return Refusal{wire::kTooManyConnections, std::string("the callers with the role '") +
                                                  CallerRoles::RoleName(role) +
                                                  "' have as many connections as they may"};
  }
  if (IsAmongTheLast(descriptor)) {
    return Refusal{wire::kTooManyConnections, "the server has no descriptor left"};
  }
  ++of_user_[caller.uid];
  ++of_role_[role];
  return std::nullopt;
}

void Admission::Leave(const Credentials& caller) {
  if (roles_.IsOwner(caller)) return;
  const auto of_this_user = of_user_.find(caller.uid);
  if (--of_this_user->second == 0) of_user_.erase(of_this_user);
  --of_role_[CountedAs(caller)];
}

uint32_t Admission::RolesOf(const Credentials& caller) const {
  return (roles_.Holds(caller, CallerRoles::kService) ? wire::kServiceRole : 0u) |
         (roles_.Holds(caller, CallerRoles::kAdmin) ? wire::kAdminRole : 0u);
}

}  // namespace tevra::msgbus
