#include "vigila-gateway/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace vigila::gateway {
namespace {

using namespace std::string_view_literals;

TEST(Utf8, MeasuresTheFirstCharacter) {
  EXPECT_EQ(Utf8SequenceLength("\0"sv), 1u);
  EXPECT_EQ(Utf8SequenceLength("/x"), 1u);
  for (const char* ends : {"\xc2\x80", "\xdf\xbf"}) EXPECT_EQ(Utf8SequenceLength(ends), 2u);
  for (const char* ends : {"\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf"}) {
    EXPECT_EQ(Utf8SequenceLength(ends), 3u);
  }
  for (const char* ends : {"\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(Utf8SequenceLength(ends), 4u);
  }
}

// A decoder that is less strict would read "/" or "." in some of them.
TEST(Utf8, KnowsNoOverlongFormSurrogateOrCharacterBeyondTheLast) {
  for (const char* text : {"\x80", "\xbf", "\xc0\xaf", "\xc0\xae", "\xc1\xbf", "\xe0\x80\xaf",
                           "\xe0\x9f\xbf", "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x80\x80\xaf",
                           "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xff"}) {
    EXPECT_EQ(Utf8SequenceLength(text), 0u);
    EXPECT_FALSE(IsUtf8(text));
    EXPECT_FALSE(IsUtf8("a" + std::string(text) + "b"));
  }
}

TEST(Utf8, KnowsNoCharacterThatIsCutShort) {
  const std::string whole = "\xf0\x9f\x93\xb7";
  EXPECT_TRUE(IsUtf8(whole));
  for (size_t size = 1; size < whole.size(); ++size) EXPECT_FALSE(IsUtf8(whole.substr(0, size)));
  EXPECT_FALSE(IsUtf8("\xf0\x9f\x93x"));
  EXPECT_EQ(Utf8SequenceLength(""), 0u);
  EXPECT_TRUE(IsUtf8(""));
}

}  // namespace
}  // namespace vigila::gateway
