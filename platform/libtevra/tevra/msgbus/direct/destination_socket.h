#ifndef TEVRA_MSGBUS_DIRECT_DESTINATION_SOCKET_H_
#define TEVRA_MSGBUS_DIRECT_DESTINATION_SOCKET_H_

#include <sys/un.h>

#include <string>

namespace tevra::msgbus {

// Where a destination of the direct transport lives in the file system.
class DestinationSocket final {
 public:
  // Throws tevra::osa::Exception on a name that is no destination's: letters, digits, "_", "-" and
  // "." only, 1 to 255 of them, not beginning with ".".
  static void CheckName(const std::string& name);

  static std::string PathOf(const std::string& runtime_dir, const std::string& name);
  static std::string LockPathOf(const std::string& runtime_dir, const std::string& name);
  // Under this name a socket waits until it is ready to be seen.
  static std::string HiddenPathOf(const std::string& runtime_dir, const std::string& name);

  // Throws when the path is too long for a socket.
  static sockaddr_un AddressOf(const std::string& path);
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_DIRECT_DESTINATION_SOCKET_H_
