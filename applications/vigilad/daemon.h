#ifndef VIGILAD_DAEMON_H_
#define VIGILAD_DAEMON_H_

#include "vigilad/daemon_configuration.h"
#include "vigilad/exit_code.h"

namespace vigila::daemon {

// Serves until SIGTERM or SIGINT. A failure is one line in the log and an exit code.
ExitCode Serve(const DaemonConfiguration& configuration);

}  // namespace vigila::daemon

#endif  // VIGILAD_DAEMON_H_
