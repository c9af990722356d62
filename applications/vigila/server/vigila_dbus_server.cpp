#include "vigila/server/vigila_dbus_server.h"

#include "tevra/core/logger.h"
#include "vigila/server/start_failure.h"

namespace vigila::server {

VigilaDbusServer::VigilaDbusServer(tevra::msgbus::IMsgBus* bus,
                                   tevra::interfaces::ISecurityProvider* provider)
    : logger_(tevra::core::Logger::GetLogger("VigilaDbusServer")),
      server_(StartFailure::During(StartFailure::kBus, [&] {
        return tevra::interfaces::ISecurityProvider::CreateServer(bus, provider);
      })) {}

VigilaDbusServer::~VigilaDbusServer() {
  if (!server_) return;
  if (const uint64_t refused = server_->RefusedCalls(); refused > 0) {
    logger_->Information("Calls refused for want of a role: %llu",
                         static_cast<unsigned long long>(refused));
  }
}

}  // namespace vigila::server
