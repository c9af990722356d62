#include <memory>
#include <optional>
#include <string>

#include "vigila/contract/result_codes.h"
#include "vigila/contract/rules.h"
#include "vigilactl/administration_answer.h"
#include "vigilactl/commands.h"
#include "vigilactl/confirmation.h"
#include "vigilactl/permission_names.h"
#include "vigilactl/printable_text.h"
#include "vigilactl/result_sentences.h"
#include "vigilactl/text_table.h"
#include "vigilactl/text_verb.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

constexpr TextArgument kPathArgument = {"PATH", "The rule's path, as listed", true, kRulePathWord};

ExitCode ListRules(Invocation& invocation) {
  TextTable table({"PATH", "RULE", "FIXED", "MEANING"});
  Json rules = Json::array();
  // The permission interface answers for one path at a time and lists nothing.
  for (const vigila::contract::Rule& known : vigila::contract::kRules) {
    const std::optional<std::string> rule = invocation.Permissions().GetAccessRule(known.path);
    if (!rule) continue;
    const bool changeable = known.setting != nullptr;
    table.AddRow({known.path, *rule, changeable ? "no" : "yes", RuleMeaning(*rule)});
    Json entry = {{"Path", known.path}, {"Rule", *rule}, {"Changeable", changeable}};
    rules.push_back(entry);
  }
  Json object = {{"Rules", rules}};
  return invocation.Answer(object, table.Render(invocation.Width()));
}

ExitCode GetRule(Invocation& invocation, const std::string& path) {
  const std::optional<std::string> rule = invocation.Permissions().GetAccessRule(path);
  Json object = {{"Path", path}};
  if (!rule) return invocation.Refuse(object, "There is no rule for this path.");
  object["Rule"] = *rule;
  return invocation.Answer(object, Printable(*rule) + "\n");
}

struct RuleOptions {
  std::string path;
  std::string rule;
  bool yes = false;
};

bool OpenToEveryone(const Json& opening) {
  return opening.at("Everyone").get<bool>();
}

// Those whose access changes; the daemon counts accounts, so callers without a session are added.
std::string ListChanged(const Json& accounts, bool anonymous_too) {
  if (!anonymous_too) return ListNames(accounts);
  const std::string anonymous = "callers without a session";
  const bool alone = accounts.at("Count").get<size_t>() == 0;
  return alone ? anonymous : anonymous + ", " + ListNames(accounts);
}

std::string EffectTable(const Json& effect) {
  const Json& now = effect.at("OpenNow");
  const Json& then = effect.at("OpenTo");
  const bool opened = OpenToEveryone(then) && !OpenToEveryone(now);
  const bool closed = OpenToEveryone(now) && !OpenToEveryone(then);
  TextTable table;
  table.AddRow({"Open now", ListOpenTo(now)});
  table.AddRow({"Open then", ListOpenTo(then)});
  table.AddRow({"Gain access", ListChanged(effect.at("Gains"), opened)});
  table.AddRow({"Lose access", ListChanged(effect.at("Loses"), closed)});
  table.AddRow({"Their sessions", std::to_string(effect.at("Sessions").get<int64_t>())});
  return table.Render();
}

bool OpenToNoOne(const Json& opening) {
  return !OpenToEveryone(opening) && opening.at("Count").get<size_t>() == 0;
}

// What a person is asked before a rule with this effect is set; empty when it may be set at once.
std::string QuestionBefore(const std::string& path, const Json& effect) {
  const Json& now = effect.at("OpenNow");
  const Json& then = effect.at("OpenTo");
  if (OpenToEveryone(then) && !OpenToEveryone(now)) {
    return "Open " + path + " to everyone, also without a session?";
  }
  return OpenToNoOne(then) && !OpenToNoOne(now) ? "Close " + path + " to everyone?" : "";
}

void NoteDoubt(Invocation& invocation, const std::string& rule) {
  const std::string doubt = RuleDoubt(rule);
  if (!doubt.empty()) invocation.Note(doubt);
}

ExitCode SetRule(Invocation& invocation, const RuleOptions& options) {
  // The rule itself is set by the caller's own role, so its effect is asked for by that role, too.
  const Json effect =
      ReadAnswer(invocation.Administration().GetRuleEffect("", options.path, options.rule));
  Json object = {{"Path", options.path}, {"Rule", options.rule}, {"Changed", false}};
  if (CodeOf(effect) == 0) {
    NoteDoubt(invocation, options.rule);
    invocation.Show(EffectTable(effect));
    const std::string question = QuestionBefore(options.path, effect);
    if (!question.empty() && !Confirmed(invocation, options.yes, question)) {
      return invocation.Refuse(object, "The rule stays as it was.");
    }
  }
  const bool changed = invocation.Permissions().SetAccessRule(options.path, options.rule);
  object["Changed"] = changed;
  if (!changed) return invocation.Refuse(object, "This path has no rule that can be changed.");
  return invocation.Answer(object, Printable(options.path) + " is now for: " +
                                       Printable(RuleMeaning(options.rule)) + "\n");
}

ExitCode ShowEffect(Invocation& invocation, const RuleOptions& options) {
  const Json answer = ReadAnswer(invocation.Administration().GetRuleEffect(
      invocation.OnBehalfOf(), options.path, options.rule));
  const int code = CodeOf(answer);
  if (code == vigila::contract::kNoSuchRule) {
    return invocation.Refuse(answer, "The rule of \"" + options.path +
                                         "\" cannot be changed: \"vigilactl rule list\" shows "
                                         "which can.");
  }
  if (code != 0) return invocation.Refuse(answer, SentenceOf(code));
  NoteDoubt(invocation, options.rule);
  return invocation.Answer(answer, EffectTable(answer));
}

// A verb that takes the path of a rule and a rule.
CLI::App* AddRuleVerb(CLI::App& parent, Invocation& invocation, const char* name, const char* help,
                      const std::shared_ptr<RuleOptions>& options,
                      ExitCode (*run)(Invocation&, const RuleOptions&)) {
  CLI::App* verb = parent.add_subcommand(name, help);
  verb->add_option(kPathArgument.name, options->path, kPathArgument.help)
      ->required()
      ->type_name(kPathArgument.kind);
  verb->add_option("RULE", options->rule,
                   "true, @group or {permission}; other texts refuse everybody")
      ->required()
      ->type_name(kRuleWord);
  verb->callback([&invocation, options, run] {
    invocation.Choose([&invocation, options, run] { return run(invocation, *options); });
  });
  return verb;
}

}  // namespace

void AddRuleCommands(CLI::App& app, Invocation& invocation) {
  CLI::App* parent = app.add_subcommand("rule", "Access rules: list, get, set, effect of a change");
  parent->require_subcommand(1);
  parent->add_subcommand("list", "List the access rules")->callback([&invocation] {
    invocation.Choose([&invocation] { return ListRules(invocation); });
  });
  AddTextVerb(*parent, invocation, "get", "Print the rule of a path", kPathArgument, GetRule);
  const auto options = std::make_shared<RuleOptions>();
  AddRuleVerb(*parent, invocation, "set", "Change the rule of a path; it is kept", options, SetRule)
      ->add_flag("-y,--yes", options->yes, kYesHelp);
  AddRuleVerb(*parent, invocation, "effect", "Say what a rule would change; changes nothing",
              options, ShowEffect);
}

}  // namespace vigilactl
