#include "vigilactl/permission_names.h"

#include <algorithm>

#include "vigila/contract/rules.h"
#include "vigilactl/groups.h"

namespace vigilactl {
namespace {

bool IsHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool IsIdentifier(const std::string& text) {
  if (text.size() != 36) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    if (dash ? text[i] != '-' : !IsHexDigit(text[i])) return false;
  }
  return true;
}

bool IsBraced(const std::string& text) {
  return text.size() > 2 && text.front() == '{' && text.back() == '}';
}

}  // namespace

std::string PermissionName(const std::string& identifier) {
  std::string braced = IsBraced(identifier) ? identifier : "{" + identifier + "}";
  std::transform(braced.begin(), braced.end(), braced.begin(),
                 [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c + 32) : c; });
  for (const vigila::contract::Permission& permission : vigila::contract::kPermissions) {
    if (braced == permission.identifier) return permission.name;
  }
  return {};
}

std::string RuleMeaning(const std::string& rule) {
  if (rule == vigila::contract::kOpenToEveryone) return "everybody";
  if (!rule.empty() && rule.front() == '{') {
    const std::string name = PermissionName(rule);
    return "who may: " + (name.empty() ? "(an unknown permission)" : name);
  }
  if (rule == vigila::contract::kAdministratorsOnly) return "administrators";
  if (!rule.empty() && rule.front() == '@' && IsRuleGroup(rule.substr(1))) {
    return rule.substr(1) + " and above";
  }
  return "no one at all";
}

std::string RuleDoubt(const std::string& rule) {
  if (rule == vigila::contract::kOpenToEveryone || rule == "false") return {};
  if (!rule.empty() && rule.front() == '@') {
    if (IsRuleGroup(rule.substr(1))) return {};
    return "no such group: the rule refuses everybody (groups: @admins, @managers, @operators, "
           "@viewers)";
  }
  if (!rule.empty() && rule.front() == '{') {
    if (IsBraced(rule) && IsIdentifier(rule.substr(1, rule.size() - 2))) return {};
    return "no permission identifier: the rule refuses everybody";
  }
  return "neither \"true\", a @group nor a {permission}: the rule refuses everybody";
}

}  // namespace vigilactl
