#ifndef VIGILACTL_COMMANDS_H_
#define VIGILACTL_COMMANDS_H_

#include <CLI/CLI.hpp>

#include "vigilactl/invocation.h"

namespace vigilactl {

// Each adds its verbs to the command line. A verb chosen there runs later, through the invocation,
// which must outlive the application.
void AddUserCommands(CLI::App& app, Invocation& invocation);
void AddSessionCommands(CLI::App& app, Invocation& invocation);
void AddAccessCommands(CLI::App& app, Invocation& invocation);
void AddPassphraseCommands(CLI::App& app, Invocation& invocation);
void AddRuleCommands(CLI::App& app, Invocation& invocation);
void AddLivingSessionCommands(CLI::App& app, Invocation& invocation);
void AddBackupCommands(CLI::App& app, Invocation& invocation);
void AddExplainCommand(CLI::App& app, Invocation& invocation);
void AddStatusCommand(CLI::App& app, Invocation& invocation);
void AddDoctorCommand(CLI::App& app, Invocation& invocation);
void AddWsseCheckCommand(CLI::App& app, Invocation& invocation);

}  // namespace vigilactl

#endif  // VIGILACTL_COMMANDS_H_
