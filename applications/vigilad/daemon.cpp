#include "vigilad/daemon.h"

#include <malloc.h>

#include <csignal>
#include <exception>

#include "tevra/core/logger.h"
#include "tevra/interfaces/i_security_provider.h"
#include "tevra/msgbus/msg_bus.h"
#include "tevra/osa/exception.h"
#include "vigila/server/security_provider.h"
#include "vigila/server/server_env.h"
#include "vigila/server/start_failure.h"

namespace vigila::daemon {
namespace {

using server::ServerEnv;
using server::StartFailure;

// The server takes its names last, with the store open and the default rules written. So a daemon
// that finds another one at work leaves before that. Of two that start at the same moment one is
// refused the store: it may have made or checked an empty one, and has read and written no setting.
void RefuseToBeTheSecond() {
  const char* const name = tevra::interfaces::ISecurityProvider::kDestination;
  if (tevra::msgbus::MsgBus().HasServer(name)) {
    throw tevra::osa::Exception("%s is served by another daemon", name);
  }
}

void Run(const DaemonConfiguration& configuration) {
  StartFailure::During(StartFailure::kBus, &RefuseToBeTheSecond);
  StartFailure::During(StartFailure::kStore, &ServerEnv::RefuseToReplaceALostStore);
  ServerEnv env;
  env.GetSessionManager().SetTimeout(configuration.session_timeout_secs);
  env.GetSecurityProvider()->EnforcePasswordPolicy(configuration.password_policy);
  // What the start has freed is not needed again for long.
  malloc_trim(0);
  env.GetVigilaServer().Run();
}

struct Ending {
  const char* text;
  ExitCode code;
};

Ending EndingFor(StartFailure::Cause cause) {
  switch (cause) {
    case StartFailure::kStore:
      return {"the store is unusable", kStoreUnusable};
    case StartFailure::kInUse:
      return {"the store is in use", kUnavailable};
    case StartFailure::kBus:
      break;
  }
  return {"the bus is not available", kUnavailable};
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
    const Ending ending = EndingFor(e.cause());
    logger->Error("Cannot start, %s: %s", ending.text, e.what());
    if (e.cause() == StartFailure::kStore) {
      logger->Error(
          "'vigilad --repair' shows what is left of a damaged store and what can be done");
    }
    return ending.code;
  } catch (const std::exception& e) {
    logger->Error("Ended by a failure: %s", e.what());
    return kFailed;
  }
}

}  // namespace vigila::daemon
