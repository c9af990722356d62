#include "vigilactl/permission_names.h"

#include <algorithm>

#include "vigilactl/groups.h"

namespace vigilactl {
namespace {

struct NamedPermission {
  const char* identifier;
  const char* name;
};

constexpr NamedPermission kPermissions[] = {
    {"00d8dc27-61d1-4b7d-85a8-519efb70d712", "API access"},
    {"1ac07d72-3478-4824-b848-b3d1e653bebe", "read administrators' data"},
    {"252ebb4c-d6cf-4f3d-892d-1b0d2431cb7a", "read system"},
    {"41414810-1b86-4b6a-a9cb-610264082e2e", "write secrets"},
    {"42c59193-e2f4-4ca2-904c-11063eab5d3b", "actuate"},
    {"5bff6465-ec25-4242-aebc-b089f32a0b90", "write"},
    {"86343993-7e7e-4bbf-8f00-cf64e98d7aeb", "read sensitive data"},
    {"88049574-465a-4f41-89d4-d6d517e8c218", "read media"},
    {"cf4f528d-3e7d-4c9d-b721-e8fc326cd661", "write, unrecoverable"},
    {"d6f86cee-5c0c-41ce-a91f-b8563a2b94d6", "control access"},
    {"e1f9915b-7818-4bf0-b1e4-0514a9d05231", "read secrets"},
};

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
  std::string plain =
      IsBraced(identifier) ? identifier.substr(1, identifier.size() - 2) : identifier;
  std::transform(plain.begin(), plain.end(), plain.begin(),
                 [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c + 32) : c; });
  for (const NamedPermission& permission : kPermissions) {
    if (plain == permission.identifier) return permission.name;
  }
  return {};
}

std::string RuleMeaning(const std::string& rule) {
  if (rule == "true") return "everybody";
  if (!rule.empty() && rule.front() == '{') {
    const std::string name = PermissionName(rule);
    return "who may: " + (name.empty() ? "(an unknown permission)" : name);
  }
  if (rule == "@admins") return "administrators";
  if (!rule.empty() && rule.front() == '@' && IsRuleGroup(rule.substr(1))) {
    return rule.substr(1) + " and above";
  }
  return "nobody at all";
}

std::string RuleDoubt(const std::string& rule) {
  if (rule == "true" || rule == "false") return {};
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
