#include "vigilactl/permission_names.h"

#include <gtest/gtest.h>

namespace vigilactl {
namespace {

TEST(PermissionName, TakesBothSpellings) {
  EXPECT_EQ(PermissionName("{88049574-465a-4f41-89d4-d6d517e8c218}"), "read media");
  EXPECT_EQ(PermissionName("88049574-465A-4F41-89D4-D6D517E8C218"), "read media");
  EXPECT_EQ(PermissionName("88049574-465a-4f41-89d4-d6d517e8c219"), "");
  EXPECT_EQ(PermissionName(""), "");
}

TEST(RuleMeaning, SaysWhoPasses) {
  EXPECT_EQ(RuleMeaning("true"), "everybody");
  EXPECT_EQ(RuleMeaning("@admins"), "administrators");
  EXPECT_EQ(RuleMeaning("@viewers"), "viewers and above");
  EXPECT_EQ(RuleMeaning("{88049574-465a-4f41-89d4-d6d517e8c218}"), "who may: read media");
  EXPECT_EQ(RuleMeaning("{}"), "who may: (an unknown permission)");
  for (const char* rule : {"", "false", "True", "@", "@nobody", "@Admins", "admins"}) {
    EXPECT_EQ(RuleMeaning(rule), "no one at all") << rule;
  }
}

TEST(RuleDoubt, IsSilentAboutGoodRules) {
  for (const char* rule :
       {"true", "false", "@admins", "@viewers", "{88049574-465a-4f41-89d4-d6d517e8c218}",
        "{00000000-0000-0000-0000-00000000000A}"}) {
    EXPECT_EQ(RuleDoubt(rule), "") << rule;
  }
}

TEST(RuleDoubt, FindsTheUsualMistakes) {
  for (const char* rule :
       {"", "True", "admins", "@", "@admin", "@nobody", "{", "{}",
        "88049574-465a-4f41-89d4-d6d517e8c218", "{88049574-465a-4f41-89d4-d6d517e8c21}",
        "{88049574-465a-4f41-89d4-d6d517e8c21g}", "{88049574x465a-4f41-89d4-d6d517e8c218}"}) {
    EXPECT_NE(RuleDoubt(rule), "") << rule;
  }
}

}  // namespace
}  // namespace vigilactl
