#include <malloc.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <string>

#include "tevra/core/logger.h"
#include "tevra/core/platform_config.h"
#include "vigilad/daemon.h"
#include "vigilad/daemon_configuration.h"
#include "vigilad/exit_code.h"
#include "vigilad/known_keys.h"
#include "vigilad/listings.h"
#include "vigilad/store_repair.h"

namespace {

using tevra::core::PlatformConfig;
using vigila::daemon::DaemonConfiguration;

constexpr const char* kFooter =
    "Exit codes:\n"
    "   0  stopped in order by SIGTERM or SIGINT, or nothing to do\n"
    "   2  wrong usage\n"
    "  69  the bus is not available, or another daemon has the name or the store\n"
    "  70  any other failure\n"
    "  74  the settings store or its key file is unusable, see --repair\n"
    "  78  the configuration is wrong";

struct Options {
  std::string config;
  bool check_config = false;
  std::string repair;
  bool list_keys = false;
  bool list_operations = false;
  std::string interface;
};

// A mistyped key would silently leave its default in force. Who checks the file wants to know; a
// device must start with a file that a newer or older release wrote.
bool TellUnknownKeys(bool check) {
  auto* const logger = tevra::core::Logger::GetLogger("vigilad");
  const auto sentences = vigila::daemon::UnknownIn(PlatformConfig::Get().File());
  for (const std::string& sentence : sentences) {
    if (check) {
      logger->Error("The configuration is wrong: %s", sentence.c_str());
    } else {
      logger->Warning("The configuration is not used in all: %s", sentence.c_str());
    }
  }
  return !sentences.empty();
}

int Start(const Options& options) {
  if (!options.interface.empty()) {
    if (vigila::daemon::PrintInterface(options.interface)) return vigila::daemon::kStopped;
    std::fprintf(stderr, "No interface '%s' is served; --list-operations shows those that are.\n",
                 options.interface.c_str());
    return vigila::daemon::kUsage;
  }
  if (options.list_keys || options.list_operations) {
    if (options.list_keys) vigila::daemon::ListKeys();
    if (options.list_operations) vigila::daemon::ListOperations();
    return vigila::daemon::kStopped;
  }
  DaemonConfiguration configuration;
  try {
    DaemonConfiguration::Load(options.config);
    configuration = DaemonConfiguration::Read();
  } catch (const std::exception& e) {
    tevra::core::Logger::GetLogger("vigilad")->Error("The configuration is wrong: %s", e.what());
    return vigila::daemon::kBadConfiguration;
  }
  const bool unknown_keys = TellUnknownKeys(options.check_config);
  if (options.check_config) {
    if (unknown_keys) return vigila::daemon::kBadConfiguration;
    std::puts("The configuration is good.");
    return vigila::daemon::kStopped;
  }
  if (!options.repair.empty()) return vigila::daemon::RepairStore(options.repair);
  return vigila::daemon::Serve(configuration);
}

}  // namespace

int main(int argc, char** argv) {
  // One thread does nearly all the work. A heap of its own would keep apart what the others freed.
  mallopt(M_ARENA_MAX, 1);
  CLI::App app("The device's authentication and authorization service.", "vigilad");
  Options options;
  app.add_option("--config", options.config,
                 std::string("Configuration file (default: $") +
                     PlatformConfig::kEnvironmentVariable + ", else " +
                     PlatformConfig::kDefaultPath + ")")
      ->type_name("FILE");
  app.add_flag("--check-config", options.check_config, "Check the configuration and exit");
  app.add_flag("--repair{show}", options.repair,
               "Show what is left of a damaged store (--repair), or put what is sound in it "
               "(--repair=records) or its copy (--repair=copy) in force")
      ->check(CLI::IsMember({"show", "records", "copy"}));
  app.add_flag("--list-keys", options.list_keys,
               "Print every configuration key with its section and default, and exit");
  app.add_flag("--list-operations", options.list_operations,
               "Print what is served on the bus, the role it takes and its types, and exit");
  app.add_option("--print-interface", options.interface,
                 "Print a served interface in D-Bus's introspection format, and exit")
      ->type_name("NAME");
  app.set_version_flag("--version", std::string("vigilad ") + VIGILA_VERSION);
  app.footer(kFooter);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    return app.exit(e) == 0 ? vigila::daemon::kStopped : vigila::daemon::kUsage;
  }
  return Start(options);
}
