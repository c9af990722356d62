#include "vigila/server/administration/administration_endpoint.h"

#include "tevra/core/logger.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"
#include "vigila/server/start_failure.h"

namespace vigila::server {

using tevra::interfaces::IAdministration;

AdministrationEndpoint::AdministrationEndpoint(ServerEnv& env)
    : administration_(env), server_(StartFailure::During(StartFailure::kBus, [&] {
        return IAdministration::CreateServer(
            env.GetMsgBus(), &administration_,
            {[&env] { return env.GetSecurityProvider()->Users().Size(); },
             [&env] { return env.GetSessionManager().Count(""); }});
      })) {}

AdministrationEndpoint::~AdministrationEndpoint() {
  if (const uint64_t refused = server_->RefusedCalls(); refused > 0) {
    tevra::core::Logger::GetLogger("Administration")
        ->Information("Calls refused: %llu", static_cast<unsigned long long>(refused));
  }
}

}  // namespace vigila::server
