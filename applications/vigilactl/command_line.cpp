#include "vigilactl/command_line.h"

#include <algorithm>
#include <iostream>
#include <memory>

#include "tevra/core/nearest_word.h"
#include "vigilactl/commands.h"
#include "vigilactl/help_formatter.h"
#include "vigilactl/word_kinds.h"

namespace vigilactl {
namespace {

constexpr char kFooter[] =
    "Passwords are asked for without echo, or read with --password-stdin; they are\n"
    "never given as arguments. \"vigilactl help VERB\" explains a verb.\n"
    "Exit status: 0 done or granted, 1 refused, 2 usage, 3 service not reachable,\n"
    "4 caller not permitted.";

std::vector<const CLI::App*> VerbsOf(const CLI::App& verb) {
  return verb.get_subcommands([](const CLI::App*) { return true; });
}

const CLI::App* FindVerb(const CLI::App& verb, const std::string& name) {
  for (const CLI::App* below : VerbsOf(verb)) {
    if (below->get_name() == name) return below;
  }
  return nullptr;
}

// "a", "a or b", "a, b or c".
std::string Alternatives(const std::vector<std::string>& words) {
  std::string text;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) text += i + 1 == words.size() ? " or " : ", ";
    text += words[i];
  }
  return text;
}

std::string SeeHelp(const CLI::App& verb) {
  return "; see \"vigilactl help" + (verb.get_parent() == nullptr ? "" : " " + NameOf(verb)) + "\"";
}

std::string UnknownSentence(const CommandWords& words) {
  const bool option = words.unknown.starts_with('-');
  const std::string name = NameOf(*words.verb);
  const std::string typed = (option || name.empty() ? "" : name + " ") + words.unknown;
  const std::string meant = tevra::core::DidYouMean(
      words.unknown, option ? OptionNames(*words.verb) : VerbNames(*words.verb));
  return std::string("there is no ") + (option ? "option" : "verb") + " \"" + typed + "\"" +
         (meant.empty() ? SeeHelp(*words.verb) : meant);
}

void FollowOption(const std::string& word, CommandWords& words) {
  const size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
  const CLI::Option* option = FindOption(*words.verb, word.substr(0, equals));
  if (option == nullptr) {
    if (words.unknown.empty()) words.unknown = word;
    return;
  }
  if (option->check_lname("json")) words.json = true;
  const bool flag = option->get_expected_max() == 0;
  if (!flag && equals == std::string::npos) words.awaiting = option;
  if (option->check_lname("config") && equals != std::string::npos) {
    words.config_file = word.substr(equals + 1);
  }
}

void AddHelpVerb(CLI::App& app) {
  const auto words = std::make_shared<std::vector<std::string>>();
  CLI::App* verb = app.add_subcommand("help", "Explain the program or a verb: help user add");
  verb->add_option("VERB", *words, "The verb");
  verb->callback([&app, words] {
    const CommandWords followed = FollowWords(app, *words);
    if (!followed.unknown.empty()) throw UsageError(UnknownSentence(followed));
    const CLI::App* parent = followed.verb->get_parent();
    const std::string above = parent == nullptr ? "" : "vigilactl " + NameOf(*parent);
    std::cout << followed.verb->help(above.substr(0, above.find_last_not_of(' ') + 1));
    throw CLI::Success();
  });
}

void SetHeadings(CLI::App& verb) {
  for (CLI::App* below : verb.get_subcommands([](CLI::App*) { return true; })) {
    below->group("Verbs");
    SetHeadings(*below);
  }
}

// Before any verb is added: verbs inherit these.
void SetDefaults(CLI::App& app) {
  app.require_subcommand(1);
  app.fallthrough();  // --json and --config may stand behind the verb
  app.formatter(std::make_shared<HelpFormatter>());
  app.set_help_flag("-h,--help", "Print this help");
}

}  // namespace

std::string NameOf(const CLI::App& verb) {
  if (verb.get_parent() == nullptr) return "";
  const std::string above = NameOf(*verb.get_parent());
  return above.empty() ? verb.get_name() : above + " " + verb.get_name();
}

std::vector<std::string> VerbNames(const CLI::App& verb) {
  std::vector<std::string> names;
  for (const CLI::App* below : VerbsOf(verb)) names.push_back(below->get_name());
  return names;
}

std::vector<std::string> OptionNames(const CLI::App& verb) {
  std::vector<std::string> names;
  for (const CLI::App* level = &verb; level != nullptr; level = level->get_parent()) {
    for (const CLI::Option* option : level->get_options()) {
      for (const std::string& name : option->get_lnames()) {
        const std::string dashed = "--" + name;
        if (std::find(names.begin(), names.end(), dashed) == names.end()) names.push_back(dashed);
      }
    }
  }
  return names;
}

const CLI::Option* FindOption(const CLI::App& verb, const std::string& name) {
  for (const CLI::App* level = &verb; level != nullptr; level = level->get_parent()) {
    const CLI::Option* option = level->get_option_no_throw(name);
    if (option != nullptr && option->nonpositional()) return option;
  }
  return nullptr;
}

CommandWords FollowWords(const CLI::App& app, const std::vector<std::string>& words) {
  CommandWords followed{&app};
  bool only_arguments = false;
  for (const std::string& word : words) {
    if (followed.awaiting != nullptr) {
      if (followed.awaiting->check_lname("config")) followed.config_file = word;
      followed.awaiting = nullptr;
    } else if (!only_arguments && word == "--") {
      only_arguments = true;
    } else if (!only_arguments && word.size() > 1 && word.front() == '-') {
      FollowOption(word, followed);
    } else if (VerbsOf(*followed.verb).empty()) {
      ++followed.arguments;
    } else if (const CLI::App* below = FindVerb(*followed.verb, word)) {
      followed.verb = below;
    } else if (followed.unknown.empty()) {
      followed.unknown = word;
    }
  }
  return followed;
}

std::string UsageSentence(const CommandWords& words, const CLI::ParseError& error) {
  if (!words.unknown.empty()) return UnknownSentence(words);
  const std::vector<std::string> verbs = VerbNames(*words.verb);
  if (verbs.empty()) return std::string(error.what()) + SeeHelp(*words.verb);
  if (words.verb->get_parent() == nullptr) return "a verb is missing" + SeeHelp(*words.verb);
  return "\"" + NameOf(*words.verb) + "\" needs a verb: " + Alternatives(verbs);
}

void AddCommandLine(CLI::App& app, Invocation& invocation) {
  SetDefaults(app);
  app.footer(kFooter);
  app.add_flag("--json", invocation.json, "Answer with one JSON object");
  app.add_option("--config", invocation.config_file,
                 "Default: $TEVRA_PLATFORM_CONFIG, /etc/tevra/platform.ini")
      ->type_name(kFileWord);
  AddStatusCommand(app, invocation);
  AddDoctorCommand(app, invocation);
  AddUserCommands(app, invocation);
  AddSessionCommands(app, invocation);
  AddLivingSessionCommands(app, invocation);
  AddAccessCommands(app, invocation);
  AddExplainCommand(app, invocation);
  AddRuleCommands(app, invocation);
  AddPassphraseCommands(app, invocation);
  AddBackupCommands(app, invocation);
  AddWsseCheckCommand(app, invocation);
  AddHelpVerb(app);
  SetHeadings(app);
}

}  // namespace vigilactl
