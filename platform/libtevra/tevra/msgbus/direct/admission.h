#ifndef TEVRA_MSGBUS_DIRECT_ADMISSION_H_
#define TEVRA_MSGBUS_DIRECT_ADMISSION_H_

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "tevra/msgbus/bus_config.h"
#include "tevra/msgbus/caller_roles.h"

namespace tevra::msgbus {

// Who may have a connection. Root and the service's own user always may, and count nowhere. Others
// need a role, and whoever has none counts against no one who has one. Connections are bounded for
// each user and for each role (who has both counts as an admin), and end before the process's
// descriptors do, so that the owner finds one. Not synchronised.
class Admission final {
 public:
  struct Refusal {
    const char* error_name;
    std::string text;
  };

  // Reads the roles; throws tevra::osa::Exception on a group that does not exist. `config` must
  // outlive the object.
  explicit Admission(const BusConfig& config) : config_(config) {}

  // Counts whom it lets in; each of them must Leave. `descriptor` is the connection's.
  std::optional<Refusal> Enter(const Credentials& caller, int descriptor);
  void Leave(const Credentials& caller);
  // As the welcome tells them.
  uint32_t RolesOf(const Credentials& caller) const;

 private:
  CallerRoles::Role CountedAs(const Credentials& caller) const {
    return roles_.Holds(caller, CallerRoles::kAdmin) ? CallerRoles::kAdmin : CallerRoles::kService;
  }

  const BusConfig& config_;
  const CallerRoles roles_;
  std::map<uid_t, size_t> of_user_;
  std::array<size_t, 2> of_role_{};
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_ADMISSION_H_
