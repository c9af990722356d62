#ifndef VIGILA_CONTRACT_GROUPS_H_
#define VIGILA_CONTRACT_GROUPS_H_

#include <cstdint>

namespace vigila::contract {

// One bit per group, the strongest lowest.
inline constexpr uint32_t kAdministratorsBit = 1;
inline constexpr uint32_t kManagersBit = 2;
inline constexpr uint32_t kOperatorsBit = 4;
inline constexpr uint32_t kViewersBit = 8;
inline constexpr uint32_t kNobodyBit = 16;

// A group and every stronger one.
constexpr uint32_t AtLeast(uint32_t group) {
  return (group << 1) - 1;
}

// The anonymous account, and the group that only it may have.
inline constexpr char kNobodyName[] = "nobody";

struct Group {
  const char* name;
  uint32_t bit;
};

// The groups that a rule can name, strongest first. The anonymous account's is not among them.
inline constexpr Group kRuleGroups[] = {
    {"admins", kAdministratorsBit},
    {"managers", kManagersBit},
    {"operators", kOperatorsBit},
    {"viewers", kViewersBit},
};

// Null for what is no group.
constexpr const char* GroupName(uint32_t bit) {
  for (const Group& group : kRuleGroups) {
    if (group.bit == bit) return group.name;
  }
  return bit == kNobodyBit ? kNobodyName : nullptr;
}

}  // namespace vigila::contract

#endif  // VIGILA_CONTRACT_GROUPS_H_
