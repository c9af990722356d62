#include <memory>
#include <optional>
#include <string>

#include "vigila/contract/rules.h"
#include "vigilactl/commands.h"
#include "vigilactl/permission_names.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/text_table.h"
#include "vigilactl/text_verb.h"

namespace vigilactl {
namespace {

constexpr TextArgument kPathArgument = {"PATH", "The rule's path, as listed", true};

ExitCode ListRules(Invocation& invocation) {
  TextTable table({"PATH", "RULE", "CHANGEABLE", "MEANING"});
  Json rules = Json::array();
  // The permission interface answers for one path at a time and lists nothing.
  for (const vigila::contract::Rule& known : vigila::contract::kRules) {
    const std::optional<std::string> rule = invocation.Permissions().GetAccessRule(known.path);
    if (!rule) continue;
    const bool changeable = known.setting != nullptr;
    table.AddRow({known.path, *rule, changeable ? "yes" : "no", RuleMeaning(*rule)});
    Json entry = {{"Path", known.path}, {"Rule", *rule}, {"Changeable", changeable}};
    rules.push_back(entry);
  }
  Json object = {{"Rules", rules}};
  return invocation.Answer(object, table.Render());
}

ExitCode GetRule(Invocation& invocation, const std::string& path) {
  const std::optional<std::string> rule = invocation.Permissions().GetAccessRule(path);
  Json object = {{"Path", path}};
  if (!rule) return invocation.Refuse(object, "There is no rule for this path.");
  object["Rule"] = *rule;
  return invocation.Answer(object, Printable(*rule) + "\n");
}

ExitCode SetRule(Invocation& invocation, const std::string& path, const std::string& rule) {
  const bool changed = invocation.Permissions().SetAccessRule(path, rule);
  Json object = {{"Path", path}, {"Rule", rule}, {"Changed", changed}};
  if (!changed) {
    return invocation.Refuse(object, "This path has no rule that can be changed.");
  }
  const std::string doubt = RuleDoubt(rule);
  if (!doubt.empty()) invocation.Note(doubt);
  return invocation.Answer(object, Printable(path) + " is now for: " + RuleMeaning(rule) + "\n");
}

void AddSetVerb(CLI::App& parent, Invocation& invocation) {
  const auto path = std::make_shared<std::string>();
  const auto rule = std::make_shared<std::string>();
  CLI::App* verb = parent.add_subcommand("set", "Change the rule of a path; it is kept");
  verb->add_option(kPathArgument.name, *path, kPathArgument.help)->required();
  verb->add_option("RULE", *rule, "true, @group or {permission}; anything else refuses everybody")
      ->required();
  verb->callback([&invocation, path, rule] {
    invocation.Choose([&invocation, path, rule] { return SetRule(invocation, *path, *rule); });
  });
}

}  // namespace

void AddRuleCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* parent = app.add_subcommand("rule", "Access rules");
  parent->require_subcommand(1);
  parent->add_subcommand("list", "List the access rules")->callback([&invocation] {
    invocation.Choose([&invocation] { return ListRules(invocation); });
  });
  AddTextVerb(*parent, invocation, "get", "Print the rule of a path", kPathArgument, GetRule);
  AddSetVerb(*parent, invocation);
}

}  // namespace vigilactl
