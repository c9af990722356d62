#ifndef SUPPORT_DAEMON_CLIENT_H_
#define SUPPORT_DAEMON_CLIENT_H_

#include <map>
#include <memory>
#include <sstream>
#include <string>

#include "json/reader.h"
#include "support/daemon_process.h"
#include "tevra/core/json_utils.h"
#include "tevra/core/platform_config.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"

namespace support {

using tevra::interfaces::ISecurityProvider;

// Groups by name, without "nobody".
using Accounts = std::map<std::string, unsigned>;

// The bus proxy of this process to the device's daemon.
class DaemonClient {
 public:
  explicit DaemonClient(const DaemonProcess& device) {
    tevra::core::PlatformConfig::LoadFrom(device.ConfigFile());
    bus_ = std::make_unique<tevra::msgbus::MsgBus>();
    provider_.reset(ISecurityProvider::CreateClient(bus_.get()));
  }
  ISecurityProvider& operator*() { return *provider_; }
  ISecurityProvider* operator->() { return provider_.get(); }

  Accounts Listed() {
    json::Object document;
    std::istringstream text(provider_->GetUsers());
    json::Reader::Read(document, text);
    Accounts accounts;
    for (const json::UnknownElement& user : json::Member(document, "Users")) {
      accounts[tevra::core::JsonUtils::AsString(user.at("Name"))] =
          tevra::core::JsonUtils::AsUnsigned(user.at("Group"));
    }
    accounts.erase("nobody");
    return accounts;
  }

 private:
  std::unique_ptr<tevra::msgbus::MsgBus> bus_;
  std::unique_ptr<ISecurityProvider> provider_;
};

}  // namespace support

#endif  // SUPPORT_DAEMON_CLIENT_H_
