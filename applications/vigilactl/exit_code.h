#ifndef VIGILACTL_EXIT_CODE_H_
#define VIGILACTL_EXIT_CODE_H_

#include <stdexcept>
#include <string>

namespace vigilactl {

// What the program's exit status says; scripts rely on the numbers.
enum ExitCode {
  kDone = 0,          // done, or granted
  kRefused = 1,       // the service said no
  kUsage = 2,         // the command line, the configuration or the input is wrong
  kUnreachable = 3,   // the service cannot be reached, or failed to answer
  kNotPermitted = 4,  // the caller lacks the role for this operation
};

// The caller's mistake, told in one sentence; ends the program with kUsage.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& sentence) : std::runtime_error(sentence) {}
};

}  // namespace vigilactl

#endif  // VIGILACTL_EXIT_CODE_H_
