#include "tevra/msgbus/caller_roles.h"

#include <grp.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "support/platform_fixture.h"
#include "tevra/osa/exception.h"

namespace tevra::msgbus {
namespace {

constexpr uid_t kStranger = 61234;

class Roles : public testing::Test {
 protected:
  static bool Holds(const Credentials& caller, CallerRoles::Role role) {
    return CallerRoles().Holds(caller, role);
  }
  static std::string TextOfFailure() {
    try {
      CallerRoles roles;
    } catch (const osa::Exception& e) {
      return e.what();
    }
    return "nothing thrown";
  }

  support::PlatformFixture platform;
};

TEST_F(Roles, AreHeldByRootAndTheProcessesOwnUser) {
  for (uid_t uid : {uid_t{0}, geteuid()}) {
    EXPECT_TRUE(Holds({uid, {}}, CallerRoles::kService));
    EXPECT_TRUE(Holds({uid, {}}, CallerRoles::kAdmin));
  }
}

TEST_F(Roles, AreHeldByNoOneElseByDefault) {
  EXPECT_FALSE(Holds({kStranger, {0, 100, 61000}}, CallerRoles::kService));
  EXPECT_FALSE(Holds({kStranger, {0, 100, 61000}}, CallerRoles::kAdmin));
  EXPECT_FALSE(Holds({static_cast<uid_t>(-1), {}}, CallerRoles::kService));
}

TEST_F(Roles, AreGivenToGroupsByNumberOneByOne) {
  platform.Set("Access", "service_groups", "61000, 61001");
  platform.Set("Access", "admin_groups", "61002");
  EXPECT_TRUE(Holds({kStranger, {61000}}, CallerRoles::kService));
  EXPECT_TRUE(Holds({kStranger, {5, 61001}}, CallerRoles::kService));
  EXPECT_FALSE(Holds({kStranger, {61002}}, CallerRoles::kService));
  EXPECT_TRUE(Holds({kStranger, {61002}}, CallerRoles::kAdmin));
  EXPECT_FALSE(Holds({kStranger, {61000, 61001}}, CallerRoles::kAdmin));
  EXPECT_FALSE(Holds({kStranger, {}}, CallerRoles::kService));
}

TEST_F(Roles, AreGivenToGroupsByName) {
  const group* entry = getgrgid(0);
  ASSERT_NE(entry, nullptr);
  platform.Set("Access", "admin_groups", std::string("\t") + entry->gr_name + " ,");
  EXPECT_TRUE(Holds({kStranger, {0}}, CallerRoles::kAdmin));
  EXPECT_FALSE(Holds({kStranger, {0}}, CallerRoles::kService));
}

TEST_F(Roles, AreRefusedToAGroupThatDoesNotExist) {
  platform.Set("Access", "service_groups", "no-such-group-here");
  EXPECT_EQ(TextOfFailure(), "[Access] service_groups: there is no group 'no-such-group-here'");
  platform.Set("Access", "service_groups", "");
  platform.Set("Access", "admin_groups", "12x");
  EXPECT_EQ(TextOfFailure(), "[Access] admin_groups: there is no group '12x'");
}

TEST_F(Roles, TakeGroupNumbersUpToTheLargestThatExists) {
  platform.Set("Access", "service_groups", "4294967294");
  EXPECT_TRUE(Holds({kStranger, {4294967294u}}, CallerRoles::kService));
  platform.Set("Access", "service_groups", "4294967295");
  EXPECT_EQ(TextOfFailure(), "[Access] service_groups: there is no group '4294967295'");
  platform.Set("Access", "service_groups", "99999999999999999999");
  EXPECT_EQ(TextOfFailure(), "[Access] service_groups: there is no group '99999999999999999999'");
}

TEST_F(Roles, HaveNames) {
  EXPECT_STREQ(CallerRoles::RoleName(CallerRoles::kService), "service");
  EXPECT_STREQ(CallerRoles::RoleName(CallerRoles::kAdmin), "admin");
}

}  // namespace
}  // namespace tevra::msgbus
