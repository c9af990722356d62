#include "vigilactl/confirmation.h"

#include <unistd.h>

#include <iostream>

#include "vigilactl/printable_text.h"

namespace vigilactl {

bool Confirmed(Invocation& invocation, bool yes, const std::string& question) {
  // Deliberate: a script that has no terminal goes on without --yes, as it did before there were
  // questions; no one is there who could answer.
  if (yes || isatty(STDIN_FILENO) == 0 || isatty(STDERR_FILENO) == 0) return true;
  invocation.Ask(Printable(question) + " [y/N] ");
  std::string answer;
  const bool answered = static_cast<bool>(std::getline(std::cin, answer));
  if (!answered) invocation.Ask("\n");
  return answer == "y" || answer == "yes" || answer == "Y" || answer == "Yes" || answer == "YES";
}

}  // namespace vigilactl
