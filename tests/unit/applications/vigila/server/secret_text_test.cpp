#include "vigila/server/secret_text.h"

#include <gtest/gtest.h>

#include <string>
#include <type_traits>
#include <utility>

namespace vigila::server {
namespace {

TEST(SecretText, HoldsCountedBytes) {
  const SecretText text(std::string_view("a\0b", 3));
  EXPECT_EQ(3u, text.Size());
  EXPECT_EQ(std::string("a\0b", 3), text.View());
  EXPECT_FALSE(text.Empty());
}

TEST(SecretText, IsEmptyByDefaultAndFromAnEmptyText) {
  EXPECT_TRUE(SecretText().Empty());
  EXPECT_TRUE(SecretText(std::string_view()).Empty());
  EXPECT_EQ("", SecretText().View());
}

TEST(SecretText, IsNeverCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<SecretText>);
  EXPECT_FALSE(std::is_copy_assignable_v<SecretText>);
}

TEST(SecretText, LeavesNothingBehindWhenMoved) {
  SecretText source(std::string_view("secret"));
  const SecretText target(std::move(source));
  EXPECT_EQ("secret", target.View());
  EXPECT_TRUE(source.Empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(nullptr, source.Data());
}

TEST(SecretText, OverwritesWhatAnAssignmentReplaces) {
  SecretText target(std::string_view("old"));
  target = SecretText(std::string_view("new text"));
  EXPECT_EQ("new text", target.View());
  SecretText& itself = target;
  target = std::move(itself);
  EXPECT_EQ("new text", target.View());
}

TEST(SecretText, OverwritesWhatIsCutOff) {
  SecretText text(std::string_view("secret"));
  text.Shorten(2);
  EXPECT_EQ("se", text.View());
  EXPECT_EQ(0, text.Data()[2]);
  EXPECT_EQ(0, text.Data()[5]);
  text.Shorten(10);
  EXPECT_EQ("se", text.View());
}

TEST(SecretText, ComparesBytesAndLengths) {
  const SecretText text(std::string_view("secret"));
  EXPECT_TRUE(text.Equals("secret"));
  EXPECT_FALSE(text.Equals("Secret"));
  EXPECT_FALSE(text.Equals("secreT"));
  EXPECT_FALSE(text.Equals("secre"));
  EXPECT_FALSE(text.Equals("secretsecret"));
  EXPECT_FALSE(text.Equals(""));
}

TEST(SecretText, ComparesBeyondAZeroByte) {
  const SecretText text(std::string_view("a\0b", 3));
  EXPECT_TRUE(text.Equals(std::string_view("a\0b", 3)));
  EXPECT_FALSE(text.Equals(std::string_view("a\0c", 3)));
  EXPECT_FALSE(text.Equals("a"));
}

TEST(SecretText, FindsOnlyTheEmptyTextEqualToTheEmptyOne) {
  EXPECT_TRUE(SecretText().Equals(""));
  EXPECT_FALSE(SecretText().Equals("a"));
  EXPECT_FALSE(SecretText().Equals(std::string_view("\0", 1)));
}

TEST(SecretText, OverwritesAStringInPlace) {
  std::string text(100, 's');
  const char* const bytes = text.data();
  SecretText::WipeString(text);
  EXPECT_EQ("", text);
  ASSERT_EQ(bytes, text.data());
  text.resize(100, 'x');  // within the capacity: what resize does not write was wiped
  EXPECT_EQ(std::string(100, 'x'), text);
}

TEST(SecretText, OverwritesTheBytesBehindTheEndOfAString) {
  std::string text(100, 's');
  text.resize(20);
  SecretText::WipeString(text);
  const char* const bytes = text.data();
  for (size_t i = 1; i < 20; ++i) EXPECT_EQ(0, bytes[i]) << i;
}

}  // namespace
}  // namespace vigila::server
