#include "vigila/server/server_env.h"

#include <unistd.h>

#include <boost/make_shared.hpp>
#include <cstdlib>
#include <vector>

#include "krand/base64/base64.h"
#include "krand/core/krand_api_exception.h"
#include "krand/interfaces/permission_target.h"
#include "tevra/core/platform_config.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"
#include "tevra/osa/mutex.h"
#include "vigila/check/explicit_time_source.h"
#include "vigila/check/fake_msg_bus.h"
#include "vigila/server/account_check.h"
#include "vigila/server/at_rest_cipher.h"
#include "vigila/server/key_proof.h"
#include "vigila/server/permission_impl.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/start_failure.h"
#include "vigila/server/store_lock.h"

namespace vigila::server {
namespace {

constexpr const char* kSettingsDomain = "vigila";
constexpr const char* kLoggingIdentity = "VIGILA_KRAND";
constexpr const char* kPermissionTarget = "permission";

// The permission target, whose changes reach the clients' caches.
class AnnouncedPermission final : public PermissionImpl {
 public:
  AnnouncedPermission(RuleManager& rules, void* context, bool test_settings,
                      SecurityProvider& provider)
      : PermissionImpl(rules, context, test_settings), provider_(provider) {}

  int setAccessRule(const char* path, const char* rule) override {
    const int result = PermissionImpl::setAccessRule(path, rule);
    if (result == 0) provider_.FireChangeListeners(true);
    return result;
  }

 private:
  SecurityProvider& provider_;
};

template <typename T>
std::unique_ptr<tevra::msgbus::IMsgBus> MakeBus() {
  return std::make_unique<T>();
}

void ThrowUnlessOk(krand_core_status status, const std::string& step) {
  if (status == KRAND_CORE_OK) return;
  throw tevra::osa::Exception("%s failed: %s", step.c_str(),
                              krand::core::statusToString(status).c_str());
}

const tevra::core::ConfigKey kKeyFile{ServerEnv::kSettingsGroupName, "key_file", ""};

std::string ConfiguredKeyFile() {
  return tevra::core::PlatformConfig::Get().GetString(kKeyFile);
}

// Deliberate: a provider is never deleted. A request of the platform may still hold it when the
// environment goes, and the process ends soon after. Held here, so that it is no leak.
void KeepUntilTheProcessEnds(SecurityProvider* provider) {
  static auto* const mutex = new tevra::osa::Mutex;
  static auto* const providers = new std::vector<SecurityProvider*>;
  tevra::osa::MutexAutoLock lock(*mutex);
  providers->push_back(provider);
}

}  // namespace

const char ServerEnv::kSettingsGroupName[] = "Applications/vigila";

ServerEnv::ServerEnv()
    : time_source_(std::make_unique<tevra::osa::SystemTimeSource>()),
      vigila_server_(*this),
      session_manager_(time_source_.get(), SessionManager::kDefaultTimeoutSecs) {
  Build(&MakeBus<tevra::msgbus::MsgBus>, false);
}

ServerEnv::ServerEnv(bool test_settings)
    : time_source_(std::make_unique<tevra::check::ExplicitTimeSource>()),
      vigila_server_(*this),
      session_manager_(time_source_.get(), SessionManager::kDefaultTimeoutSecs) {
  Build(&MakeBus<tevra::check::fake::FakeMsgBus>, test_settings);
}

ServerEnv::~ServerEnv() {
  // First, so that no request reaches the target any more.
  permission_runner_.reset();
  // Deliberate: the platform goes before the permission target, which outlives its own context and
  // must not use it any more.
  krand_core_settings_deinit();
  krand_core_deinit();
  krand_core_ipc_deinit(ipc_handle_);
  krand_core_logging_deinit(platform_context_);
  bus_.reset();
  time_source_.reset();
  permission_.reset();
}

void ServerEnv::Build(std::unique_ptr<tevra::msgbus::IMsgBus> (*make_bus)(), bool test_settings) {
  bus_ = make_bus();
  InitializePlatform();
  StartFailure::During(StartFailure::kStore, [&] { OpenAtRestKey(); });
  CreateServices(test_settings);
  StartFailure::During(StartFailure::kBus, [&] { bus_->StartServer(); });
}

void ServerEnv::InitializePlatform() {
  ThrowUnlessOk(krand_core_init(), "krand_core_init");
  StartFailure::During(StartFailure::kStore, [] {
    const krand_core_status status = krand_core_settings_init(kSettingsDomain);
    ThrowUnlessOk(status,
                  std::string("krand_core_settings_init of ") + krand_core_settings_location());
  });
  // Before any setting is read: what a second server had in memory would be out of date.
  store_lock_ = std::make_unique<StoreLock>(krand_core_settings_location());
  // Before the first request: a store that cannot be read must not look like an empty one, which is
  // open.
  StartFailure::During(StartFailure::kStore, &CheckAccounts);
  ThrowUnlessOk(krand_core_logging_init(kLoggingIdentity, &platform_context_),
                "krand_core_logging_init");
  ThrowUnlessOk(krand_core_ipc_initiator_init(platform_context_, 0, &ipc_handle_),
                "krand_core_ipc_initiator_init");
}

// Before another thread uses libcrypto: a child process proves the key.
void ServerEnv::OpenAtRestKey() {
  at_rest_cipher_ = std::make_unique<AtRestCipher>(ConfiguredKeyFile());
  OpenAndProveKey(*at_rest_cipher_);
}

void ServerEnv::CreateServices(bool test_settings) {
  security_provider_ = new SecurityProvider(this);
  KeepUntilTheProcessEnds(security_provider_);
  session_manager_.TellEnds([provider = security_provider_](const std::string& token) {
    provider->FireSessionEndListeners(token);
  });
  permission_ = StartFailure::During(StartFailure::kStore, [&] {
    return boost::make_shared<AnnouncedPermission>(rule_manager_, platform_context_, test_settings,
                                                   *security_provider_);
  });
  permission_runner_ = StartFailure::During(StartFailure::kBus, [&] {
    return std::make_unique<KrandApiPermissionTargetRun>(kPermissionTarget, platform_context_,
                                                         permission_);
  });
}

// A server makes its store before its key file. So a key file without a store is what is left of
// one, unless the key is a credential, which may have been given to a device before its first
// start.
void ServerEnv::RefuseToReplaceALostStore() {
  const std::string key_file = AtRestCipher(ConfiguredKeyFile()).KeyFile();
  const char* const credentials = std::getenv("CREDENTIALS_DIRECTORY");
  if (credentials != nullptr && key_file.starts_with(credentials)) return;
  // In this order: another server may make both in this moment.
  if (access(key_file.c_str(), F_OK) != 0) return;
  if (krand_core_settings_exist(kSettingsDomain) != 0) return;
  throw tevra::osa::Exception("the settings store is missing, but its key file %s is still there",
                              key_file.c_str());
}

std::string ServerEnv::Base64Encode(const std::string& data) {
  return krand::lib::Base64::Encode(data);
}

std::string ServerEnv::Base64Decode(const std::string& text) {
  return krand::lib::Base64::Decode(text);
}

}  // namespace vigila::server
