#include "tevra/core/trimmed.h"

#include <gtest/gtest.h>

namespace {

using tevra::core::Trimmed;

TEST(Trimmed, LeavesOutTheBlanksAtBothEndsOnly) {
  EXPECT_EQ(Trimmed(" \ta b\t "), "a b");
  EXPECT_EQ(Trimmed("a"), "a");
}

TEST(Trimmed, IsEmptyForBlanksAlone) {
  EXPECT_EQ(Trimmed(""), "");
  EXPECT_EQ(Trimmed(" \t \t"), "");
}

TEST(Trimmed, KnowsTheBlanksThatItIsGiven) {
  EXPECT_EQ(Trimmed(" a\r"), "a\r");
  EXPECT_EQ(Trimmed(" a\r", " \r"), "a");
  EXPECT_EQ(Trimmed("\ta", " \r"), "\ta");
}

}  // namespace
