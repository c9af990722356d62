#ifndef VIGILACTL_COMPLETION_H_
#define VIGILACTL_COMPLETION_H_

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "vigilactl/invocation.h"

namespace vigilactl {

struct Offer {
  std::string word;
  std::string help;  // one line; may be empty
};

struct Offers {
  bool files = false;  // the name of a file is wanted, which the shell knows best
  std::vector<Offer> words;
};

// What may stand in the place of the last of `words`, which is being typed: verbs and options of
// the command line itself, and what the running service lists to this caller. The invocation's
// configuration must be that of the words.
Offers OffersFor(const CLI::App& app, Invocation& invocation, std::vector<std::string> words);

// Prints them for a shell: "files", or "words" and a line "WORD<tab>HELP" for each.
ExitCode Complete(const CLI::App& app, Invocation& invocation,
                  const std::vector<std::string>& words);

}  // namespace vigilactl

#endif  // VIGILACTL_COMPLETION_H_
