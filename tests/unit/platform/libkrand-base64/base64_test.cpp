#include "krand/base64/base64.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using krand::lib::Base64;

TEST(KrandBase64, KeepsZeroBytes) {
  const std::string data("a\0b\0", 4);
  EXPECT_EQ(Base64::Encode(data), "YQBiAA==");
  EXPECT_EQ(Base64::Decode("YQBiAA=="), data);
}

TEST(KrandBase64, EncodesNothingAsNothing) {
  EXPECT_EQ(Base64::Encode(""), "");
  EXPECT_EQ(Base64::Decode(""), "");
}

TEST(KrandBase64, EncodesMoreThanOneLineWithoutABreak) {
  const std::string data(1000, 'x');
  const std::string text = Base64::Encode(data);
  EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
  EXPECT_EQ(Base64::Decode(text), data);
}

TEST(KrandBase64, DecodesAnythingElseThanTheOneSpellingToNothing) {
  EXPECT_EQ(Base64::Decode("YQ="), "");
  EXPECT_EQ(Base64::Decode("YR=="), "");
  EXPECT_EQ(Base64::Decode("YQ==\n"), "");
  EXPECT_EQ(Base64::Decode(std::string("YQ==\0\0\0\0", 8)), "");
  EXPECT_EQ(Base64::Decode("alice"), "");
}

}  // namespace
