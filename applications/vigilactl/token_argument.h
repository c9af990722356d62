#ifndef VIGILACTL_TOKEN_ARGUMENT_H_
#define VIGILACTL_TOKEN_ARGUMENT_H_

#include <string>

namespace vigilactl {

// The session token of a verb: its argument, else $VIGILA_TOKEN. Throws UsageError without either.
std::string TokenFrom(const std::string& argument);

}  // namespace vigilactl

#endif  // VIGILACTL_TOKEN_ARGUMENT_H_
