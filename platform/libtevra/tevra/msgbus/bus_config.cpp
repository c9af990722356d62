#include "tevra/msgbus/bus_config.h"

#include <pwd.h>
#include <stdlib.h>
#include <unistd.h>

#include <climits>
#include <vector>

#include "tevra/core/platform_config.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr const char* kSection = "MsgBus";

const core::ConfigKey kTransport{kSection, "transport", "direct"};
const core::ConfigKey kAddress{kSection, "address", "system"};
const core::ConfigKey kRuntimeDir{kSection, "runtime_dir", "/run/vigila"};
const core::ConfigKey kSocketMode{kSection, "socket_mode", "0666"};
const core::ConfigKey kTimeout{kSection, "timeout_ms", "5000"};
const core::ConfigKey kHandshakeTimeout{kSection, "handshake_timeout_ms", "5000"};
const core::ConfigKey kMaxConnections{kSection, "max_connections", "256"};
const core::ConfigKey kMaxConnectionsPerUid{kSection, "max_connections_per_uid", "128"};
const core::ConfigKey kMaxMessageBytes{kSection, "max_message_bytes", "2097152"};
const core::ConfigKey kMaxOutputBytes{kSection, "max_output_bytes", "4194304"};
const core::ConfigKey kPoolSize{kSection, "pool_size", "8"};
const core::ConfigKey kIdleTimeout{kSection, "idle_timeout_ms", "10000"};
const core::ConfigKey kServiceUser{kSection, "service_user", "root"};

const char* EnvironmentOr(const char* name, const char* fallback) {
  const char* value = secure_getenv(name);
  return value != nullptr && *value != '\0' ? value : fallback;
}

std::string ResolveAddress(const std::string& address) {
  if (address == "system") {
    return EnvironmentOr("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/run/dbus/system_bus_socket");
  }
  if (address != "session") return address;
  std::string given = EnvironmentOr("DBUS_SESSION_BUS_ADDRESS", "");
  if (!given.empty()) return given;
  return std::string("unix:path=") + EnvironmentOr("XDG_RUNTIME_DIR", "/run") + "/bus";
}

mode_t ParseMode(const std::string& text) {
  char* end = nullptr;
  const unsigned long mode = strtoul(text.c_str(), &end, 8);
  if (text.empty() || *end != '\0' || text[0] == '-' || mode > 0777) {
    throw osa::Exception("[%s] socket_mode: \"%s\" is no file mode", kSection, text.c_str());
  }
  return static_cast<mode_t>(mode);
}

uid_t ParseUser(const std::string& text) {
  char* end = nullptr;
  const unsigned long number = strtoul(text.c_str(), &end, 10);
  if (!text.empty() && *end == '\0' && text[0] >= '0' && text[0] <= '9' && number < UINT_MAX) {
    return static_cast<uid_t>(number);
  }
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  if (getpwnam_r(text.c_str(), &entry, buffer.data(), buffer.size(), &found) != 0 ||
      found == nullptr) {
    throw osa::Exception("[%s] service_user: there is no user \"%s\"", kSection, text.c_str());
  }
  return found->pw_uid;
}

size_t GetSize(const core::ConfigKey& key, long minimum, long maximum) {
  return static_cast<size_t>(core::PlatformConfig::Get().GetInt(key, minimum, maximum));
}

std::chrono::milliseconds GetTime(const core::ConfigKey& key) {
  return std::chrono::milliseconds(core::PlatformConfig::Get().GetInt(key, 1, INT_MAX));
}

}  // namespace

BusConfig BusConfig::FromPlatform() {
  const core::PlatformConfig& platform = core::PlatformConfig::Get();
  BusConfig config;
  const std::string transport = platform.GetString(kTransport);
  if (transport == "broker") {
    config.transport = Transport::kBroker;
  } else if (transport != "direct") {
    throw osa::Exception("[%s] transport: \"%s\" is neither direct nor broker", kSection,
                         transport.c_str());
  }
  config.address = ResolveAddress(platform.GetString(kAddress));
  config.runtime_dir = platform.GetString(kRuntimeDir);
  config.socket_mode = ParseMode(platform.GetString(kSocketMode));
  config.timeout = GetTime(kTimeout);
  config.handshake_timeout = GetTime(kHandshakeTimeout);
  config.max_connections = GetSize(kMaxConnections, 1, 1 << 20);
  config.max_connections_per_uid = GetSize(kMaxConnectionsPerUid, 1, 1 << 20);
  config.max_message_bytes = GetSize(kMaxMessageBytes, 1024, 1 << 27);
  config.max_output_bytes = GetSize(kMaxOutputBytes, 1024, 1 << 30);
  config.pool_size = GetSize(kPoolSize, 1, 1024);
  config.idle_timeout = GetTime(kIdleTimeout);
  config.service_uid = ParseUser(platform.GetString(kServiceUser));
  return config;
}

bool BusConfig::Trusts(uid_t uid) const {
  return uid == 0 || uid == geteuid() || uid == service_uid;
}

}  // namespace tevra::msgbus
