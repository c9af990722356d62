#ifndef VIGILACTL_ACCOUNT_STATE_VERBS_H_
#define VIGILACTL_ACCOUNT_STATE_VERBS_H_

#include <CLI/CLI.hpp>

#include "vigilactl/invocation.h"

namespace vigilactl {

// Adds "list" and "unlock" to the verbs of accounts. The invocation must outlive the application.
void AddAccountStateVerbs(CLI::App& user, Invocation& invocation);

}  // namespace vigilactl

#endif  // VIGILACTL_ACCOUNT_STATE_VERBS_H_
