#ifndef VIGILACTL_TEXT_VERB_H_
#define VIGILACTL_TEXT_VERB_H_

#include <CLI/CLI.hpp>
#include <string>

#include "vigilactl/invocation.h"

namespace vigilactl {

// The one argument of a verb; empty for the verb when it is neither required nor given. Its kind is
// one of word_kinds.h, or none.
struct TextArgument {
  const char* name;
  const char* help;
  bool required;
  const char* kind = "";
};

// Adds a verb that takes one text and nothing else. The invocation must outlive the application.
void AddTextVerb(CLI::App& parent, Invocation& invocation, const char* name, const char* help,
                 const TextArgument& argument, ExitCode (*run)(Invocation&, const std::string&));

}  // namespace vigilactl

#endif  // VIGILACTL_TEXT_VERB_H_
