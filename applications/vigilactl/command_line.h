#ifndef VIGILACTL_COMMAND_LINE_H_
#define VIGILACTL_COMMAND_LINE_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "vigilactl/invocation.h"

namespace vigilactl {

// Adds every verb and every option of the program. The invocation must outlive the application.
void AddCommandLine(CLI::App& app, Invocation& invocation);

// How far the words of a command line lead into the verbs, whether or not it is complete.
struct CommandWords {
  const CLI::App* verb = nullptr;  // the last verb that is known
  std::string unknown{};           // a word in the place of a verb, or an option, which none is
  const CLI::Option* awaiting = nullptr;  // the option whose value would be the next word
  size_t arguments = 0;                   // of the verb
  bool json = false;                      // --json
  std::string config_file{};              // --config
};

CommandWords FollowWords(const CLI::App& app, const std::vector<std::string>& words);

// The verb as it is typed behind the program's name: "user add".
std::string NameOf(const CLI::App& verb);
// In the order of the help; of a verb, those below it.
std::vector<std::string> VerbNames(const CLI::App& verb);
// With their dashes: those of the verb, then those that hold for every verb.
std::vector<std::string> OptionNames(const CLI::App& verb);
// One of these; null when there is none of this name.
const CLI::Option* FindOption(const CLI::App& verb, const std::string& name);

// Why a command line that the parser refused is wrong, and what would be right.
std::string UsageSentence(const CommandWords& words, const CLI::ParseError& error);

}  // namespace vigilactl

#endif  // VIGILACTL_COMMAND_LINE_H_
