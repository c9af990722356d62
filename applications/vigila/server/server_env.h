#ifndef VIGILA_SERVER_SERVER_ENV_H_
#define VIGILA_SERVER_SERVER_ENV_H_

#include <boost/shared_ptr.hpp>
#include <memory>
#include <string>

#include "krand/core/krand_core.h"
#include "tevra/msgbus/i_msg_bus.h"
#include "tevra/osa/time.h"
#include "vigila/server/export.h"
#include "vigila/server/rule_manager.h"
#include "vigila/server/session_manager.h"
#include "vigila/server/vigila_server.h"

class KrandApiPermissionTargetRun;

namespace vigila::server {

class AtRestCipher;
class PermissionImpl;
class SecurityProvider;
class StoreLock;

// The server's composition root: builds every long-lived object in a fixed order, owns them, and
// tears them down in a fixed order. One per process; built and destroyed on the main thread. From
// the end of construction the bus and the permission runner deliver requests on their own threads.
class VIGILA_EXPORT ServerEnv {
 public:
  // Group of the service's own settings.
  static const char kSettingsGroupName[];

  // Builds everything and starts the message bus. Throws what a member's constructor throws, and
  // tevra::osa::Exception with the failed step when the platform does not come up: a StartFailure
  // when it is the settings or the bus, or when another server has the settings.
  ServerEnv();
  // The same over an ExplicitTimeSource and a FakeMsgBus. `test_settings` true: older settings are
  // taken from an empty file instead of the device's.
  explicit ServerEnv(bool test_settings);
  virtual ~ServerEnv();
  ServerEnv(const ServerEnv&) = delete;
  ServerEnv& operator=(const ServerEnv&) = delete;

  tevra::osa::ITimeSource* GetTimeSource() const { return time_source_.get(); }
  VigilaServer& GetVigilaServer() { return vigila_server_; }
  SessionManager& GetSessionManager() { return session_manager_; }
  RuleManager& GetRuleManager() { return rule_manager_; }
  PermissionImpl& GetPermission() { return *permission_; }
  AtRestCipher& GetAtRestCipher() { return *at_rest_cipher_; }
  tevra::msgbus::IMsgBus* GetMsgBus() const { return bus_.get(); }
  void* GetPlatformContext() const { return platform_context_; }
  SecurityProvider* GetSecurityProvider() const { return security_provider_; }

  // For a start on a device: throws tevra::osa::Exception when there is no store, and a key file
  // says that there was one. Before construction, which would make a new one.
  static void RefuseToReplaceALostStore();

  // Standard base64 over counted bytes. Decoding is strict: a text that is not the one canonical
  // spelling gives no bytes.
  static std::string Base64Encode(const std::string& data);
  static std::string Base64Decode(const std::string& text);

 private:
  // Ends construction. Throws with the platform still initialised: the process that could not build
  // its server ends.
  void Build(std::unique_ptr<tevra::msgbus::IMsgBus> (*make_bus)(), bool test_settings);
  void InitializePlatform();
  void OpenAtRestKey();
  void CreateServices(bool test_settings);

  // In order of construction; what stands when construction fails goes in reverse order.
  std::unique_ptr<tevra::osa::ITimeSource> time_source_;
  VigilaServer vigila_server_;
  SessionManager session_manager_;
  RuleManager rule_manager_;
  std::unique_ptr<tevra::msgbus::IMsgBus> bus_;
  std::unique_ptr<StoreLock> store_lock_;
  std::unique_ptr<AtRestCipher> at_rest_cipher_;
  krand_core_ipc_handle ipc_handle_ = 0;
  void* platform_context_ = nullptr;
  SecurityProvider* security_provider_ = nullptr;  // lives until the process ends
  boost::shared_ptr<PermissionImpl> permission_;
  std::unique_ptr<KrandApiPermissionTargetRun> permission_runner_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_SERVER_ENV_H_
