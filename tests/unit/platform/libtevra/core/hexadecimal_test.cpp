#include "tevra/core/hexadecimal.h"

#include <gtest/gtest.h>

namespace tevra::core {
namespace {

TEST(Hexadecimal, WritesTwoLowerCaseDigitsForEachByte) {
  EXPECT_EQ(Hexadecimal(""), "");
  EXPECT_EQ(Hexadecimal(std::string("\0\x09\x0a\x7f\x80\xff", 6)), "00090a7f80ff");
}

TEST(AppendHexadecimal, WritesBehindTheText) {
  std::string text = "%";
  AppendHexadecimal('\xaf', text);
  AppendHexadecimal('\xaf', text, LetterCase::kUpper);
  EXPECT_EQ(text, "%afAF");
}

}  // namespace
}  // namespace tevra::core
