#include "vigilactl/service_address.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/osa/descriptor.h"

namespace vigilactl {
namespace {

using tevra::core::ConfigKey;

const ConfigKey kTransport{"MsgBus", "transport", "direct"};
const ConfigKey kAddress{"MsgBus", "address", "system"};
const ConfigKey kRuntimeDir{"MsgBus", "runtime_dir", "/run/vigila"};

constexpr char kLookAtService[] =
    "; is vigilad running? \"systemctl status vigilad\" and \"journalctl -u vigilad\" tell";

// 0, or the error of a connection to the socket. Does not wait.
int TryToConnect(const std::string& socket_path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  if (socket_path.size() >= sizeof(address.sun_path)) return ENAMETOOLONG;
  socket_path.copy(address.sun_path, sizeof(address.sun_path) - 1);
  const tevra::osa::Descriptor probe(
      socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!probe) return errno;
  const auto* any_address = reinterpret_cast<const sockaddr*>(&address);
  return connect(probe.get(), any_address, sizeof(address)) == 0 ? 0 : errno;
}

}  // namespace

ServiceAddress ServiceAddress::Configured() {
  const tevra::core::PlatformConfig& config = tevra::core::PlatformConfig::Get();
  const std::string transport = config.GetString(kTransport);
  return {transport, config.GetString(transport == "broker" ? kAddress : kRuntimeDir)};
}

std::string WhyUnreachable(const ServiceAddress& service) {
  if (service.transport == "broker") return {};
  const std::string path =
      service.address + "/" + tevra::interfaces::ISecurityProvider::kDestination;
  const std::string not_reachable = "the service is not reachable: ";
  switch (const int error = TryToConnect(path)) {
    case 0:
    case EAGAIN:  // its backlog is full
      return {};
    case ENOENT:
      return not_reachable + "there is no socket " + path + kLookAtService;
    case ECONNREFUSED:
      return not_reachable + "no one answers at the socket " + path + kLookAtService;
    case EACCES:
      return not_reachable + "this user may not open the socket " + path +
             "; look at its mode and its directory's";
    default:
      return not_reachable + "the socket " + path + " cannot be opened: " + strerror(error) +
             kLookAtService;
  }
}

}  // namespace vigilactl
