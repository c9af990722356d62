#include "vigilactl/groups.h"

#include <charconv>

#include "tevra/interfaces/i_security_provider.h"
#include "vigilactl/exit_code.h"
#include "vigilactl/printable_text.h"

namespace vigilactl {
namespace {

using tevra::interfaces::ISecurityProvider;

struct NamedGroup {
  const char* name;
  uint32_t value;
};

constexpr NamedGroup kGroups[] = {{"admins", ISecurityProvider::kAdministrators},
                                  {"managers", ISecurityProvider::kManagers},
                                  {"operators", ISecurityProvider::kOperators},
                                  {"viewers", ISecurityProvider::kViewers},
                                  {"nobody", ISecurityProvider::kNobody}};

}  // namespace

uint32_t ParseGroup(const std::string& text) {
  for (const NamedGroup& group : kGroups) {
    if (text == group.name) return group.value;
  }
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
  for (const NamedGroup& named : kGroups) {
    if (group == named.value) return named.name;
  }
  return std::to_string(group);
}

bool IsRuleGroup(const std::string& name) {
  for (const NamedGroup& named : kGroups) {
    if (name == named.name) return named.value != ISecurityProvider::kNobody;
  }
  return false;
}

}  // namespace vigilactl
