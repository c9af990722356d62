#include "vigila/contract/permissions.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <string>

namespace vigila::contract {
namespace {

TEST(AtLeast, IsTheGroupAndEveryStrongerOne) {
  EXPECT_EQ(AtLeast(kAdministratorsBit), 1u);
  EXPECT_EQ(AtLeast(kManagersBit), 3u);
  EXPECT_EQ(AtLeast(kOperatorsBit), 7u);
  EXPECT_EQ(AtLeast(kViewersBit), 15u);
  EXPECT_EQ(AtLeast(kNobodyBit), 31u);
}

TEST(GroupName, IsNullForWhatIsNoGroup) {
  EXPECT_STREQ(GroupName(kAdministratorsBit), "admins");
  EXPECT_STREQ(GroupName(kViewersBit), "viewers");
  EXPECT_STREQ(GroupName(kNobodyBit), "nobody");
  for (const uint32_t group : {0u, 3u, 32u}) EXPECT_EQ(GroupName(group), nullptr) << group;
}

TEST(Permissions, HaveAnIdentifierAndANameEach) {
  std::set<std::string> identifiers;
  std::set<std::string> names;
  for (const Permission& permission : kPermissions) {
    identifiers.insert(permission.identifier);
    names.insert(permission.name);
  }
  EXPECT_EQ(identifiers.size(), std::size(kPermissions));
  EXPECT_EQ(names.size(), std::size(kPermissions));
}

// A front tells the group of an account by its permissions.
TEST(Permissions, TellEveryGroupThatARuleCanName) {
  for (const Group& group : kRuleGroups) {
    bool told = false;
    for (const Permission& permission : kPermissions) {
      told = told || permission.groups == AtLeast(group.bit);
    }
    EXPECT_TRUE(told) << group.name;
  }
}

}  // namespace
}  // namespace vigila::contract
