#include "vigilactl/groups.h"

#include <algorithm>
#include <charconv>
#include <iterator>

#include "vigila/contract/groups.h"
#include "vigilactl/exit_code.h"
#include "vigilactl/printable_text.h"

namespace vigilactl {

namespace contract = vigila::contract;

uint32_t ParseGroup(const std::string& text) {
  for (const contract::Group& group : contract::kRuleGroups) {
    if (text == group.name) return group.bit;
  }
  if (text == contract::kNobodyName) return contract::kNobodyBit;
  uint32_t value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error != std::errc() || stop != end) {
    throw UsageError("\"" + Printable(text) +
                     "\" is no group: admins, managers, operators, viewers or a number");
  }
  return value;
}

std::string GroupName(uint32_t group) {
  const char* const name = contract::GroupName(group);
  return name == nullptr ? std::to_string(group) : name;
}

bool IsRuleGroup(const std::string& name) {
  return std::any_of(std::begin(contract::kRuleGroups), std::end(contract::kRuleGroups),
                     [&](const contract::Group& group) { return name == group.name; });
}

}  // namespace vigilactl
