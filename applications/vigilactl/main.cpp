#include <iostream>

#include "vigilactl/commands.h"

namespace {

constexpr char kDescription[] = "Administers the accounts, sessions and access rules of a device.";
constexpr char kFooter[] =
    "\nPasswords are asked for without echo, or read with --password-stdin; never given as "
    "arguments.\nExit status: 0 done or granted, 1 refused, 2 usage, 3 service not reachable, "
    "4 caller not permitted.";

void AddEverything(CLI::App& app, vigilactl::Invocation& invocation) {
  app.set_version_flag("--version", "vigilactl " VIGILA_VERSION);
  app.require_subcommand(1);
  app.fallthrough();  // --json and --config may stand behind the verb
  app.footer(kFooter);
  app.add_flag("--json", invocation.json, "Answer with one JSON object");
  app.add_option("--config", invocation.config_file,
                 "Platform configuration; default $TEVRA_PLATFORM_CONFIG, /etc/tevra/platform.ini");
  vigilactl::AddStatusCommand(app, invocation);
  vigilactl::AddDoctorCommand(app, invocation);
  vigilactl::AddUserCommands(app, invocation);
  vigilactl::AddSessionCommands(app, invocation);
  vigilactl::AddLivingSessionCommands(app, invocation);
  vigilactl::AddAccessCommands(app, invocation);
  vigilactl::AddExplainCommand(app, invocation);
  vigilactl::AddRuleCommands(app, invocation);
  vigilactl::AddPassphraseCommands(app, invocation);
  vigilactl::AddWsseCheckCommand(app, invocation);
}

}  // namespace

int main(int argc, char** argv) {
  vigilactl::Invocation invocation(std::cout, std::cerr);
  CLI::App app(kDescription, "vigilactl");
  AddEverything(app, invocation);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? vigilactl::kDone : vigilactl::kUsage;
  }
  return invocation.Run();
}
