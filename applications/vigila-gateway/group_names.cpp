#include "vigila-gateway/group_names.h"

#include <algorithm>
#include <cctype>
#include <string_view>

namespace vigila::gateway {
namespace {

struct Group {
  std::string_view permission;  // that this group and those above it hold, and none below
  std::string_view name;
};

constexpr Group kGroups[] = {
    {"1ac07d72-3478-4824-b848-b3d1e653bebe", "admins"},
    {"5bff6465-ec25-4242-aebc-b089f32a0b90", "managers"},
    {"86343993-7e7e-4bbf-8f00-cf64e98d7aeb", "operators"},
    {"252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a", "viewers"},
};

bool Names(std::string text, std::string_view permission) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (text.size() == permission.size() + 2) text = text.substr(1, permission.size());
  return text == permission;
}

}  // namespace

std::string GroupNames(const std::vector<std::string>& permissions) {
  std::string names;
  for (const Group& group : kGroups) {
    const bool holds = std::any_of(permissions.begin(), permissions.end(),
                                   [&](const auto& text) { return Names(text, group.permission); });
    if (holds) names.append(names.empty() ? "" : ",").append(group.name);
  }
  return names;
}

}  // namespace vigila::gateway
