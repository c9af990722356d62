#include "vigilad/daemon.h"

#include <csignal>
#include <exception>

#include "tevra/core/logger.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"
#include "vigila/server/start_failure.h"

namespace vigila::daemon {
namespace {

using server::ServerEnv;
using server::StartFailure;

void Run(const DaemonConfiguration& configuration) {
  ServerEnv::ConfigureKeyFile(configuration.key_file);
  ServerEnv env;
  env.GetSessionManager().SetTimeout(configuration.session_timeout_secs);
  env.GetSecurityProvider()->EnforcePasswordPolicy(configuration.password_policy);
  // Before the first request: an unreadable store must not look like an empty one, which is open.
  StartFailure::During(StartFailure::kStore, [&] { env.GetSecurityProvider()->CheckStore(); });
  env.GetVigilaServer().Run();
}

}  // namespace

ExitCode Serve(const DaemonConfiguration& configuration) {
  // A reader of our log that goes away must not take the service with it.
  std::signal(SIGPIPE, SIG_IGN);
  auto* const logger = tevra::core::Logger::GetLogger("vigilad");
  try {
    Run(configuration);
    return kStopped;
  } catch (const StartFailure& e) {
    const bool store = e.cause() == StartFailure::kStore;
    logger->Error("Cannot start, the %s: %s", store ? "store is unusable" : "bus is not available",
                  e.what());
    return store ? kStoreUnusable : kBusUnavailable;
  } catch (const std::exception& e) {
    logger->Error("Ended by a failure: %s", e.what());
    return kFailed;
  }
}

}  // namespace vigila::daemon
