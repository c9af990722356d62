#include <memory>
#include <optional>
#include <string>

#include "vigila/contract/result_codes.h"
#include "vigila/contract/rules.h"
#include "vigilactl/administration_answer.h"
#include "vigilactl/commands.h"
#include "vigilactl/permission_names.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
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

ExitCode ShowEffect(Invocation& invocation, const std::string& path, const std::string& rule) {
  const Json answer = ReadAnswer(invocation.Administration().GetRuleEffect("", path, rule));
  const int code = CodeOf(answer);
  if (code == vigila::contract::kNoSuchRule) {
    return invocation.Refuse(answer, "The rule of \"" + path +
                                         "\" cannot be changed: \"vigilactl rule list\" shows "
                                         "which can.");
  }
  if (code != 0) return invocation.Refuse(answer, SentenceOf(code));
  const std::string doubt = RuleDoubt(rule);
  if (!doubt.empty()) invocation.Note(doubt);
  TextTable table;
  table.AddRow({"Open now", ListOpenTo(answer.at("OpenNow"))});
  table.AddRow({"Open then", ListOpenTo(answer.at("OpenTo"))});
  table.AddRow({"Gain access", ListNames(answer.at("Gains"))});
  table.AddRow({"Lose access", ListNames(answer.at("Loses"))});
  table.AddRow({"Their sessions", std::to_string(answer.at("Sessions").get<int64_t>())});
  return invocation.Answer(answer, table.Render());
}

// A verb that takes the path of a rule and a rule.
void AddRuleVerb(CLI::App& parent, Invocation& invocation, const char* name, const char* help,
                 ExitCode (*run)(Invocation&, const std::string&, const std::string&)) {
  const auto path = std::make_shared<std::string>();
  const auto rule = std::make_shared<std::string>();
  CLI::App* verb = parent.add_subcommand(name, help);
  verb->add_option(kPathArgument.name, *path, kPathArgument.help)->required();
  verb->add_option("RULE", *rule, "true, @group or {permission}; anything else refuses everybody")
      ->required();
  verb->callback([&invocation, path, rule, run] {
    invocation.Choose([&invocation, path, rule, run] { return run(invocation, *path, *rule); });
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
  AddRuleVerb(*parent, invocation, "set", "Change the rule of a path; it is kept", SetRule);
  AddRuleVerb(*parent, invocation, "effect", "Say what a rule would change; changes nothing",
              ShowEffect);
}

}  // namespace vigilactl
