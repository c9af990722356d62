#ifndef VIGILACTL_GROUPS_H_
#define VIGILACTL_GROUPS_H_

#include <cstdint>
#include <string>

namespace vigilactl {

// A group from the command line: one of the names, or a whole number, which the service judges.
// Throws UsageError on anything else.
uint32_t ParseGroup(const std::string& text);

// The group's name, or its number for a value without one.
std::string GroupName(uint32_t group);

// Whether a rule can name the group: "nobody" is none of the four.
bool IsRuleGroup(const std::string& name);

}  // namespace vigilactl

#endif  // VIGILACTL_GROUPS_H_
