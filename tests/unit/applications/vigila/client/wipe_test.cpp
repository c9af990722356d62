#include "vigila/client/wipe.h"

#include <gtest/gtest.h>

#include <string>

namespace vigila::client {
namespace {

bool IsZero(const char* data, std::size_t length) {
  for (std::size_t i = 0; i < length; ++i) {
    if (data[i] != 0) return false;
  }
  return true;
}

TEST(Wipe, OverwritesAllTheMemoryOfAText) {
  for (const std::size_t length : {0u, 1u, 15u, 16u, 1000u}) {
    std::string text(length, 'x');
    const char* const data = text.data();
    const std::size_t capacity = text.capacity();
    Wipe(text);
    EXPECT_TRUE(text.empty());
    ASSERT_EQ(text.data(), data);
    text.resize(capacity);
    EXPECT_TRUE(IsZero(data, capacity)) << length;
  }
}

TEST(Wipe, OverwritesWhatALongerValueLeftBehind) {
  std::string text(100, 'x');
  text.resize(3);
  Wipe(text);
  EXPECT_TRUE(IsZero(text.data(), text.capacity()));
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

}  // namespace
}  // namespace vigila::client
