#include "tevra/msgbus/direct/destination_socket.h"

#include <sys/socket.h>

#include <cstring>

#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr size_t kMaxNameLength = 255;
constexpr const char* kNameCharacters =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-.";

}  // namespace

void DestinationSocket::CheckName(const std::string& name) {
  if (!name.empty() && name.size() <= kMaxNameLength && name[0] != '.' &&
      name.find_first_not_of(kNameCharacters) == std::string::npos) {
    return;
  }
  throw osa::Exception("message bus: \"%s\" is no destination name", name.c_str());
}

std::string DestinationSocket::PathOf(const std::string& runtime_dir, const std::string& name) {
  return runtime_dir + "/" + name;
}

std::string DestinationSocket::LockPathOf(const std::string& runtime_dir, const std::string& name) {
  return runtime_dir + "/." + name + ".lock";
}

std::string DestinationSocket::HiddenPathOf(const std::string& runtime_dir,
                                            const std::string& name) {
  return runtime_dir + "/." + name;
}

sockaddr_un DestinationSocket::AddressOf(const std::string& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.size() >= sizeof address.sun_path) {
    throw osa::Exception("message bus: the path %s is too long for a socket", path.c_str());
  }
  memcpy(address.sun_path, path.c_str(), path.size());
  return address;
}

}  // namespace tevra::msgbus
