#ifndef TESTS_INTEGRATION_SOAK_REVOKER_H_
#define TESTS_INTEGRATION_SOAK_REVOKER_H_

#include <exception>
#include <memory>
#include <string>

#include "dropped_log.h"
#include "krand/interfaces/permission_initiator.h"
#include "support/device_with_accounts.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"

namespace soak {

// Makes and ends what others are granted. An order is a verb, a blank and whom it is about; the
// answer is "done" when the daemon has said so.
class Revoker final {
 public:
  static constexpr char kDone[] = "done";
  static constexpr char kClosablePath[] = "/ws/1";

  explicit Revoker(const std::string& config) {
    tevra::core::PlatformConfig::LoadFrom(config);
    bus_ = std::make_unique<tevra::msgbus::MsgBus>();
    provider_.reset(tevra::interfaces::ISecurityProvider::CreateClient(bus_.get()));
    rules_ = std::make_unique<KrandApiPermissionInitiator>("permission");
  }

  std::string operator()(const std::string& order) {
    const size_t blank = order.find(' ');
    try {
      return Do(order.substr(0, blank), order.substr(blank + 1)) ? kDone : "refused";
    } catch (const std::exception&) {
      return "failed";
    }
  }

 private:
  bool Do(const std::string& verb, const std::string& whom) {
    if (verb == "add") {
      return provider_->AddUsers(R"({"Users":[{"Name":")" + whom + R"(","Password":")" +
                                 support::DeviceWithAccounts::PasswordOf(whom) +
                                 R"(","Group":8}]})") == 0;
    }
    if (verb == "delete") return provider_->DeleteUsers({whom}) == 0;
    if (verb == "logout") return provider_->Logout(whom);
    if (verb == "open") return rules_->SetAccessRule("/ws/*", "@viewers");
    if (verb == "close") return rules_->SetAccessRule("/ws/*", "@admins");
    provider_->Invalidate(whom);
    return verb == "invalidate";
  }

  const DroppedLog log_;
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<tevra::interfaces::ISecurityProvider> provider_;
  std::unique_ptr<KrandApiPermissionInitiator> rules_;
};

}  // namespace soak

#endif  // TESTS_INTEGRATION_SOAK_REVOKER_H_
