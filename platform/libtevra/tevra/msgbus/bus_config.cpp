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

size_t GetSize(const char* key, size_t fallback, long minimum, long maximum) {
  return static_cast<size_t>(core::PlatformConfig::Get().GetInt(
      kSection, key, static_cast<long>(fallback), minimum, maximum));
}

}  // namespace

BusConfig BusConfig::FromPlatform() {
  const core::PlatformConfig& platform = core::PlatformConfig::Get();
  BusConfig config;
  const std::string transport = platform.GetString(kSection, "transport", "direct");
  if (transport == "broker") {
    config.transport = Transport::kBroker;
  } else if (transport != "direct") {
    throw osa::Exception("[%s] transport: \"%s\" is neither direct nor broker", kSection,
                         transport.c_str());
  }
  config.address = ResolveAddress(platform.GetString(kSection, "address", "system"));
  config.runtime_dir = platform.GetString(kSection, "runtime_dir", "/run/vigila");
  config.socket_mode = ParseMode(platform.GetString(kSection, "socket_mode", "0666"));
  config.timeout =
      std::chrono::milliseconds(platform.GetInt(kSection, "timeout_ms", 5000, 1, INT_MAX));
  config.handshake_timeout = std::chrono::milliseconds(
      platform.GetInt(kSection, "handshake_timeout_ms", 5000, 1, INT_MAX));
  config.max_connections = GetSize("max_connections", config.max_connections, 1, 1 << 20);
  config.max_connections_per_uid =
      GetSize("max_connections_per_uid", config.max_connections_per_uid, 1, 1 << 20);
  config.max_message_bytes = GetSize("max_message_bytes", config.max_message_bytes, 1024, 1 << 27);
  config.max_output_bytes = GetSize("max_output_bytes", config.max_output_bytes, 1024, 1 << 30);
  config.pool_size = GetSize("pool_size", config.pool_size, 1, 1024);
  config.idle_timeout = std::chrono::milliseconds(
      platform.GetInt(kSection, "idle_timeout_ms", config.idle_timeout.count(), 1, INT_MAX));
  config.service_uid = ParseUser(platform.GetString(kSection, "service_user", "root"));
  return config;
}

bool BusConfig::Trusts(uid_t uid) const {
  return uid == 0 || uid == geteuid() || uid == service_uid;
}

}  // namespace tevra::msgbus
