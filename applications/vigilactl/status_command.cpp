#include <optional>
#include <string>

#include "tevra/interfaces/access_denied.h"
#include "vigilactl/account_listing.h"
#include "vigilactl/commands.h"
#include "vigilactl/service_address.h"
#include "vigilactl/text_table.h"

namespace vigilactl {
namespace {

std::optional<size_t> NumberOfAccounts(const tevra::interfaces::ISecurityProvider& provider) {
  try {
    return ListAccounts(provider).size();
  } catch (const tevra::interfaces::AccessDenied&) {
    return std::nullopt;
  }
}

ExitCode Status(Invocation& invocation) {
  const ServiceAddress service = ServiceAddress::Configured();
  const bool administrator = AdministratorExists(invocation.Provider());
  const std::optional<size_t> accounts = NumberOfAccounts(invocation.Provider());

  Json object = {{"Reachable", true},
                 {"Transport", service.transport},
                 {"Address", service.address},
                 {"AdministratorExists", administrator}};
  if (accounts) {
    object["Accounts"] = *accounts;
  } else {
    object["Accounts"] = nullptr;
  }
  TextTable table;
  table.AddRow({"Service", "reachable"});
  table.AddRow({"Transport", service.transport + " (" + service.address + ")"});
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
