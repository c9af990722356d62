#ifndef VIGILACTL_CONFIRMATION_H_
#define VIGILACTL_CONFIRMATION_H_

#include <string>

#include "vigilactl/invocation.h"

namespace vigilactl {

inline constexpr char kYesHelp[] = "Do not ask first";

// Whether a person agrees to what cannot be taken back easily. Asks only where there is someone to
// ask, with standard input and error output both a terminal; elsewhere, and with `yes`, it is taken
// for granted. Everything but "y" or "yes" is a no, the end of the input too.
bool Confirmed(Invocation& invocation, bool yes, const std::string& question);

}  // namespace vigilactl

#endif  // VIGILACTL_CONFIRMATION_H_
