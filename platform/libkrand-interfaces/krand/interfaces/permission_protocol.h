#ifndef KRAND_INTERFACES_PERMISSION_PROTOCOL_H_
#define KRAND_INTERFACES_PERMISSION_PROTOCOL_H_

#include <string>

namespace krand::interfaces {

// How a permission target and its initiators speak on the message bus. Statuses are those of the
// target's operations: 0 done, 1 refused.
struct PermissionProtocol {
  static constexpr const char* kInterface = "krand.interfaces.PermissionTarget";
  static constexpr const char* kGetAccessRule = "getAccessRule";  // path -> status, rule
  static constexpr const char* kSetAccessRule = "setAccessRule";  // path, rule -> status
  static constexpr int kDone = 0;
  static constexpr int kRefused = 1;

  static std::string Destination(const std::string& target_name) {
    return "krand.target." + target_name;
  }
};

}  // namespace krand::interfaces

#endif  // KRAND_INTERFACES_PERMISSION_PROTOCOL_H_
