#include "vigilad/daemon_configuration.h"

#include <climits>
#include <cstdlib>

#include "tevra/core/platform_config.h"
#include "tevra/msgbus/caller_roles.h"
#include "tevra/msgbus/msg_bus.h"
#include "vigila/server/server_env.h"

namespace vigila::daemon {
namespace {

using server::ServerEnv;
using tevra::core::ConfigKey;

const ConfigKey kSessionTimeout{ServerEnv::kSettingsGroupName, "session_timeout", "1800"};
const ConfigKey kPasswordPolicy{ServerEnv::kSettingsGroupName, "password_policy", "false"};
const ConfigKey kPresent{"DeviceInformation", "present", "true"};

}  // namespace

using tevra::core::PlatformConfig;

void DaemonConfiguration::Load(const std::string& path) {
  if (path.empty()) {
    PlatformConfig::Get();
    return;
  }
  PlatformConfig::LoadFrom(path);
  setenv(PlatformConfig::kEnvironmentVariable, path.c_str(), 1);
}

DaemonConfiguration DaemonConfiguration::Read() {
  const PlatformConfig& platform = PlatformConfig::Get();
  DaemonConfiguration configuration;
  configuration.session_timeout_secs =
      static_cast<int>(platform.GetInt(kSessionTimeout, 1, INT_MAX));
  configuration.password_policy = platform.GetBool(kPasswordPolicy);

  platform.GetBool(kPresent);
  // Each reads its section when it is made, and does nothing else until it is started.
  const tevra::msgbus::CallerRoles roles;
  const tevra::msgbus::MsgBus bus;
  return configuration;
}

}  // namespace vigila::daemon
