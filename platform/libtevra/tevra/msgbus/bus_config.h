#ifndef TEVRA_MSGBUS_BUS_CONFIG_H_
#define TEVRA_MSGBUS_BUS_CONFIG_H_

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <string>

namespace tevra::msgbus {

// The keys of [MsgBus] in the platform configuration, read once by each bus.
struct BusConfig {
  enum class Transport { kDirect, kBroker };

  Transport transport = Transport::kDirect;
  std::string address;      // D-Bus address of the broker, "system" and "session" resolved
  std::string runtime_dir;  // where destinations have their sockets
  mode_t socket_mode = 0;
  std::chrono::milliseconds timeout{};
  std::chrono::milliseconds handshake_timeout{};  // for a client to say who it is
  size_t max_connections = 0;
  size_t max_connections_per_uid = 0;
  size_t max_message_bytes = 0;
  size_t max_output_bytes = 0;
  size_t pool_size = 0;
  std::chrono::milliseconds idle_timeout{};  // after which an unused connection is closed
  uid_t service_uid = 0;

  // Throws tevra::osa::Exception that names the key with a wrong value.
  static BusConfig FromPlatform();

  // Whether a server that runs as `uid` may be believed: root, this process's own user, or the
  // configured service user.
  bool Trusts(uid_t uid) const;

  bool operator==(const BusConfig&) const = default;
};

}  // namespace tevra::msgbus

#endif  // TEVRA_MSGBUS_BUS_CONFIG_H_
