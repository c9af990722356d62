#ifndef TEVRA_MSGBUS_CALLER_ROLES_H_
#define TEVRA_MSGBUS_CALLER_ROLES_H_

#include <unistd.h>

#include <string>
#include <vector>

#include "tevra/msgbus/msg_bus_msg.h"

namespace tevra::msgbus {

// Who may call what. Roles map to groups by [Access] service_groups and admin_groups in the
// platform configuration (comma-separated names or numbers; default none). Root and the process's
// own user hold both roles. Deny by default.
class CallerRoles {
 public:
  enum Role { kService, kAdmin };

  // Reads the configuration; throws tevra::osa::Exception on a group that does not exist.
  CallerRoles();
  // Whether the caller is root or the process's own user, whom nothing is refused.
  bool IsOwner(const Credentials& caller) const;
  bool Holds(const Credentials& caller, Role role) const;
  static const char* RoleName(Role role);  // "service", "admin"
  // What a refused caller is told; proxies turn BusError::kAccessDenied into AccessDenied.
  static std::string Refusal(Role role, const std::string& operation);

 private:
  const uid_t own_uid_ = geteuid();
  std::vector<gid_t> groups_[2];
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_CALLER_ROLES_H_
