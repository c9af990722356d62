#ifndef VIGILACTL_TOKEN_ARGUMENT_H_
#define VIGILACTL_TOKEN_ARGUMENT_H_

#include <string>

#include "vigilactl/text_verb.h"

namespace vigilactl {

inline constexpr TextArgument kTokenArgument = {
    "TOKEN", "The session's token; default $VIGILA_TOKEN", false};

// $VIGILA_TOKEN; empty when it is not set.
std::string EnvironmentToken();

// The session token of a verb: its argument, else $VIGILA_TOKEN. Throws UsageError without either.
std::string TokenFrom(const std::string& argument);

}  // namespace vigilactl

#endif  // VIGILACTL_TOKEN_ARGUMENT_H_
