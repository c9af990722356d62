#include "vigila-gateway/secret_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <string>
#include <utility>

namespace {

using vigila::gateway::SecretText;
using vigila::gateway::WipeText;

// A secret built in memory of the test's own, which can be looked at when it has gone.
bool LeavesNothing(const std::string& text) {
  alignas(SecretText) unsigned char memory[sizeof(SecretText)];
  auto* secret = new (memory) SecretText(std::string(text));
  EXPECT_EQ(secret->Text(), text);
  secret->~SecretText();
  const std::string left(reinterpret_cast<const char*>(memory), sizeof(memory));
  return left.find(text) == std::string::npos;
}

TEST(SecretText, IsWipedWhenItGoes) {
  EXPECT_TRUE(LeavesNothing("short secret"));
}

TEST(SecretText, WipesWhereItWasWhenItMoves) {
  std::string source = "short secret";
  const char* where = source.data();
  SecretText first(std::move(source));
  EXPECT_EQ(std::string(where, 12), std::string(12, '\0'));
  const char* inside = first.Text().data();
  SecretText second(std::move(first));
  EXPECT_EQ(second.Text(), "short secret");
  EXPECT_EQ(std::string(inside, 12), std::string(12, '\0'));
  const char* again = second.Text().data();
  SecretText third(std::string("other"));
  third = std::move(second);
  EXPECT_EQ(third.Text(), "short secret");
  EXPECT_EQ(std::string(again, 12), std::string(12, '\0'));
}

TEST(WipeText, OverwritesWhatLiesBehindTheEndToo) {
  std::string text(100, 'x');
  text.resize(50);
  WipeText(text);
  EXPECT_EQ(text, "");
  const char* memory = text.data();
  EXPECT_TRUE(std::all_of(memory, memory + 100, [](char c) { return c == '\0'; }));
}

}  // namespace
