#ifndef TEVRA_MSGBUS_SERVED_OPERATION_H_
#define TEVRA_MSGBUS_SERVED_OPERATION_H_

#include <string>

namespace tevra::msgbus {

// A row of a server's own table: what it serves, and the role that a caller needs for it
// ("service", "admin", or "either").
struct ServedOperation {
  std::string interface;
  std::string member;
  std::string role;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_SERVED_OPERATION_H_
