#include <optional>
#include <string>

#include "tevra/core/platform_config.h"
#include "tevra/interfaces/access_denied.h"
#include "vigilactl/account_listing.h"
#include "vigilactl/commands.h"
#include "vigilactl/text_table.h"

namespace vigilactl {
namespace {

using tevra::core::ConfigKey;

const ConfigKey kTransport{"MsgBus", "transport", "direct"};
const ConfigKey kAddress{"MsgBus", "address", "system"};
const ConfigKey kRuntimeDir{"MsgBus", "runtime_dir", "/run/vigila"};

struct Transport {
  std::string kind;
  std::string address;
};

Transport ConfiguredTransport() {
  const tevra::core::PlatformConfig& config = tevra::core::PlatformConfig::Get();
  const std::string kind = config.GetString(kTransport);
  return {kind, kind == "broker" ? config.GetString(kAddress) : config.GetString(kRuntimeDir)};
}

std::optional<size_t> NumberOfAccounts(const tevra::interfaces::ISecurityProvider& provider) {
  try {
    return ListAccounts(provider).size();
  } catch (const tevra::interfaces::AccessDenied&) {
    return std::nullopt;
  }
}

ExitCode Status(Invocation& invocation) {
  const Transport transport = ConfiguredTransport();
  const bool administrator = AdministratorExists(invocation.Provider());
  const std::optional<size_t> accounts = NumberOfAccounts(invocation.Provider());

  Json object = {{"Reachable", true},
                 {"Transport", transport.kind},
                 {"Address", transport.address},
                 {"AdministratorExists", administrator}};
  if (accounts) {
    object["Accounts"] = *accounts;
  } else {
    object["Accounts"] = nullptr;
  }
  TextTable table;
  table.AddRow({"Service", "reachable"});
  table.AddRow({"Transport", transport.kind + " (" + transport.address + ")"});
  table.AddRow(
      {"Administrator", administrator ? "exists" : "none yet: the device is open to be set up"});
  table.AddRow({"Accounts", accounts ? std::to_string(*accounts) + ", \"nobody\" included"
                                     : "not shown: the caller lacks the role admin"});
  return invocation.Answer(object, table.Render());
}

}  // namespace

void AddStatusCommand(CLI::App& app, Invocation& invocation) {
  app.add_subcommand("status", "Say whether the service is there and set up")
      ->callback(
          [&invocation] { invocation.Choose([&invocation] { return Status(invocation); }); });
}

}  // namespace vigilactl
