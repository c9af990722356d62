#include "vigilactl/groups.h"

#include <gtest/gtest.h>

#include "vigilactl/exit_code.h"

namespace vigilactl {
namespace {

TEST(ParseGroup, KnowsTheNames) {
  EXPECT_EQ(ParseGroup("admins"), 1u);
  EXPECT_EQ(ParseGroup("managers"), 2u);
  EXPECT_EQ(ParseGroup("operators"), 4u);
  EXPECT_EQ(ParseGroup("viewers"), 8u);
  EXPECT_EQ(ParseGroup("nobody"), 16u);
}

TEST(ParseGroup, LeavesNumbersToTheService) {
  EXPECT_EQ(ParseGroup("0"), 0u);
  EXPECT_EQ(ParseGroup("3"), 3u);
  EXPECT_EQ(ParseGroup("4294967295"), 4294967295u);
}

TEST(ParseGroup, RefusesAnythingElse) {
  for (const char* text :
       {"", "Admins", "admin", "-1", "+1", " 1", "1 ", "1.0", "0x1", "4294967296", "1admins"}) {
    EXPECT_THROW(ParseGroup(text), UsageError) << text;
  }
}

TEST(GroupName, FallsBackToTheNumber) {
  EXPECT_EQ(GroupName(1), "admins");
  EXPECT_EQ(GroupName(16), "nobody");
  EXPECT_EQ(GroupName(0), "0");
  EXPECT_EQ(GroupName(3), "3");
}

}  // namespace
}  // namespace vigilactl
