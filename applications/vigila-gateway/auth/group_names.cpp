#include "vigila-gateway/auth/group_names.h"

#include <algorithm>
#include <cctype>
#include <string_view>

#include "vigila/contract/permissions.h"

namespace vigila::gateway {
namespace {

// With or without braces, in either case of letters.
bool Names(std::string text, std::string_view identifier) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text == identifier || "{" + text + "}" == identifier;
}

// An account counts as a group when it has a permission that this group and those above it hold,
// and none below.
bool CountsAs(const contract::Group& group, const std::vector<std::string>& held) {
  for (const contract::Permission& permission : contract::kPermissions) {
    if (permission.groups != contract::AtLeast(group.bit)) continue;
    const auto is_it = [&](const auto& text) { return Names(text, permission.identifier); };
    if (std::any_of(held.begin(), held.end(), is_it)) return true;
  }
  return false;
}

}  // namespace

std::string GroupNames(const std::vector<std::string>& permissions) {
  std::string names;
  for (const contract::Group& group : contract::kRuleGroups) {
    if (CountsAs(group, permissions)) names.append(names.empty() ? "" : ",").append(group.name);
  }
  return names;
}

}  // namespace vigila::gateway
