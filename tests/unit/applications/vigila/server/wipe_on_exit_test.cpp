#include "vigila/server/wipe_on_exit.h"

#include <gtest/gtest.h>

namespace vigila::server {
namespace {

TEST(WipeOnExit, OverwritesTheTextAtTheEndOfTheScope) {
  std::string text = "secret";  // short: the bytes are in the object itself and stay readable
  const char* bytes = text.data();
  {
    const WipeOnExit wipe(text);
    EXPECT_EQ("secret", text);
  }
  EXPECT_TRUE(text.empty());
  EXPECT_EQ(std::string(6, '\0'), std::string(bytes, 6));
}

TEST(WipeOnExit, AcceptsAnEmptyText) {
  std::string text;
  { const WipeOnExit wipe(text); }
  EXPECT_TRUE(text.empty());
}

}  // namespace
}  // namespace vigila::server
