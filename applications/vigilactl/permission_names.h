#ifndef VIGILACTL_PERMISSION_NAMES_H_
#define VIGILACTL_PERMISSION_NAMES_H_

#include <string>

namespace vigilactl {

// What a permission is called, from its identifier with or without braces; empty for an unknown.
std::string PermissionName(const std::string& identifier);

// Who passes a rule, in words.
std::string RuleMeaning(const std::string& rule);

// Why a rule's text is probably a mistake; empty for a good one. The service takes any text.
std::string RuleDoubt(const std::string& rule);

}  // namespace vigilactl

#endif  // VIGILACTL_PERMISSION_NAMES_H_
