#ifndef VIGILA_SERVER_VIGILA_DBUS_SERVER_H_
#define VIGILA_SERVER_VIGILA_DBUS_SERVER_H_

#include <memory>

#include "tevra/interfaces/i_security_provider.h"

namespace tevra::core {
class Logger;
}

namespace vigila::server {

// The bus endpoint: requests of clients reach the provider while it exists. Throws a
// StartFailure when the bus refuses the service's name.
class VigilaDbusServer {
 public:
  // Both must outlive the endpoint.
  VigilaDbusServer(tevra::msgbus::IMsgBus* bus, tevra::interfaces::ISecurityProvider* provider);
  virtual ~VigilaDbusServer();
  VigilaDbusServer(const VigilaDbusServer&) = delete;
  VigilaDbusServer& operator=(const VigilaDbusServer&) = delete;

 private:
  tevra::core::Logger* const logger_;
  std::unique_ptr<tevra::interfaces::ISecurityProvider::IServer> server_;
};

}  // namespace vigila::server

#endif  // VIGILA_SERVER_VIGILA_DBUS_SERVER_H_
