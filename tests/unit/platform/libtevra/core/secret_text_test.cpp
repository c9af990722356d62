#include "tevra/core/secret_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

namespace tevra::core {
namespace {

bool IsZero(const void* data, size_t length) {
  const char* const bytes = static_cast<const char*>(data);
  return std::all_of(bytes, bytes + length, [](char c) { return c == 0; });
}

TEST(Wipe, OverwritesAllTheMemoryOfAText) {
  for (const size_t length : {0u, 1u, 15u, 16u, 1000u}) {
    std::string text(length, 'x');
    const char* const data = text.data();
    const size_t capacity = text.capacity();
    Wipe(text);
    EXPECT_TRUE(text.empty());
    ASSERT_EQ(text.data(), data);
    EXPECT_TRUE(IsZero(data, capacity)) << length;
  }
}

TEST(Wipe, OverwritesWhatALongerValueLeftBehind) {
  std::string text(100, 'x');
  text.resize(3);
  Wipe(text);
  EXPECT_TRUE(IsZero(text.data(), 100));
}

TEST(ScopedWipe, WipesWhenTheScopeIsLeftByAnException) {
  std::string text = "password";
  try {
    const ScopedWipe wipe(text);
    throw 1;
  } catch (int) {
  }
  EXPECT_TRUE(text.empty());
}

TEST(SecretText, HoldsCountedBytes) {
  const SecretText text(std::string("a\0b", 3));
  EXPECT_EQ(text.Size(), 3u);
  EXPECT_EQ(text.View(), std::string("a\0b", 3));
  EXPECT_FALSE(text.Empty());
  EXPECT_EQ(SecretText(size_t{4}).Text(), std::string(4, '\0'));
}

TEST(SecretText, IsEmptyByDefaultAndFromAnEmptyText) {
  EXPECT_TRUE(SecretText().Empty());
  EXPECT_TRUE(SecretText("").Empty());
  EXPECT_EQ(SecretText().View(), "");
}

TEST(SecretText, IsNeverCopied) {
  EXPECT_FALSE(std::is_copy_constructible_v<SecretText>);
  EXPECT_FALSE(std::is_copy_assignable_v<SecretText>);
}

// The secret is built in memory of the test's own, which can be looked at when it has gone.
TEST(SecretText, LeavesNothingInItselfWhenItGoes) {
  alignas(SecretText) unsigned char memory[sizeof(SecretText)];
  auto* secret = new (memory) SecretText("short secret");
  EXPECT_EQ(secret->Text(), "short secret");
  secret->~SecretText();
  const std::string left(reinterpret_cast<const char*>(memory), sizeof(memory));
  EXPECT_EQ(left.find("secret"), std::string::npos);
}

TEST(SecretText, WipesTheTextItTakesOver) {
  std::string source = "short secret";
  const char* const where = source.data();
  const SecretText secret(std::move(source));
  EXPECT_EQ(secret.Text(), "short secret");
  EXPECT_TRUE(IsZero(where, 12));
}

TEST(SecretText, WipesWhereItWasWhenItMoves) {
  SecretText first("short secret");
  const unsigned char* const inside = first.Data();
  SecretText second(std::move(first));
  EXPECT_EQ(second.Text(), "short secret");
  EXPECT_TRUE(first.Empty());  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(IsZero(inside, 12));
  const unsigned char* const again = second.Data();
  SecretText third("other");
  third = std::move(second);
  EXPECT_EQ(third.Text(), "short secret");
  EXPECT_TRUE(IsZero(again, 12));
}

TEST(SecretText, StaysWhenItIsAssignedToItself) {
  SecretText text("secret");
  SecretText& itself = text;
  text = std::move(itself);
  EXPECT_EQ(text.View(), "secret");
}

TEST(SecretText, OverwritesWhatIsCutOff) {
  SecretText text("secret");
  text.Shorten(2);
  EXPECT_EQ(text.View(), "se");
  EXPECT_TRUE(IsZero(text.Data() + 2, 4));
  text.Shorten(10);
  EXPECT_EQ(text.View(), "se");
}

TEST(EqualInConstantTime, ComparesBytesAndLengths) {
  EXPECT_TRUE(EqualInConstantTime("secret", "secret"));
  for (const char* other : {"Secret", "secreT", "secre", "secretsecret", ""}) {
    EXPECT_FALSE(EqualInConstantTime("secret", other)) << other;
    EXPECT_FALSE(EqualInConstantTime(other, "secret")) << other;
  }
}

TEST(EqualInConstantTime, ComparesBeyondAZeroByte) {
  const std::string text("a\0b", 3);
  EXPECT_TRUE(EqualInConstantTime(text, std::string("a\0b", 3)));
  EXPECT_FALSE(EqualInConstantTime(text, std::string("a\0c", 3)));
  EXPECT_FALSE(EqualInConstantTime(text, "a"));
}

TEST(EqualInConstantTime, FindsOnlyTheEmptyTextEqualToTheEmptyOne) {
  EXPECT_TRUE(EqualInConstantTime("", ""));
  EXPECT_FALSE(EqualInConstantTime("", "a"));
  EXPECT_FALSE(EqualInConstantTime("", std::string(1, '\0')));
  EXPECT_FALSE(EqualInConstantTime(std::string(1, '\0'), ""));
}

// A difference that does not fit the width of what is accumulated must not be lost.
TEST(EqualInConstantTime, SeesLengthsThatDifferByAMultipleOf256) {
  EXPECT_FALSE(EqualInConstantTime(std::string(256, 'a'), std::string(512, 'a')));
  EXPECT_FALSE(EqualInConstantTime("", std::string(256, '\0')));
}

}  // namespace
}  // namespace tevra::core
