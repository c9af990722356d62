#include "tevra/core/utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace tevra::core {
namespace {

using namespace std::string_view_literals;

TEST(Utf8SequenceLength, MeasuresTheFirstCharacter) {
  EXPECT_EQ(Utf8SequenceLength("a"), 1u);
  EXPECT_EQ(Utf8SequenceLength("\0"sv), 1u);
  EXPECT_EQ(Utf8SequenceLength("\x7f\x80"), 1u);
  EXPECT_EQ(Utf8SequenceLength("\xc3\xa9t\xc3\xa9"), 2u);
  EXPECT_EQ(Utf8SequenceLength("\xe2\x82\xac 5"), 3u);
  EXPECT_EQ(Utf8SequenceLength("\xf0\x9f\x93\xb7\xff"), 4u);
}

TEST(Utf8SequenceLength, TakesTheFirstAndTheLastOfEachForm) {
  for (const char* ends : {"\xc2\x80", "\xdf\xbf"}) EXPECT_EQ(Utf8SequenceLength(ends), 2u);
  for (const char* ends : {"\xe0\xa0\x80", "\xed\x9f\xbf", "\xee\x80\x80", "\xef\xbf\xbf"}) {
    EXPECT_EQ(Utf8SequenceLength(ends), 3u);
  }
  for (const char* ends : {"\xf0\x90\x80\x80", "\xf4\x8f\xbf\xbf"}) {
    EXPECT_EQ(Utf8SequenceLength(ends), 4u);
  }
}

TEST(Utf8SequenceLength, IsNoneForWhatOnlyLooksLikeUtf8) {
  EXPECT_EQ(Utf8SequenceLength(""), 0u);
  // A continuation first, overlong forms, surrogates, beyond U+10FFFF, bytes that are never used.
  for (const char* text :
       {"\x80", "\xbf", "\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xed\xbf\xbf",
        "\xf0\x8f\xbf\xbf", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xff"}) {
    EXPECT_EQ(Utf8SequenceLength(text), 0u);
  }
}

TEST(Utf8SequenceLength, IsNoneForACharacterCutShortOrBroken) {
  const std::string whole = "\xf0\x9f\x93\xb7";
  for (size_t size = 1; size < whole.size(); ++size) {
    EXPECT_EQ(Utf8SequenceLength(std::string_view(whole).substr(0, size)), 0u) << size;
    std::string broken = whole;
    broken[size] = 'x';
    EXPECT_EQ(Utf8SequenceLength(broken), 0u) << size;
  }
}

TEST(IsUtf8, TakesNothingButWellFormedSequences) {
  for (const auto text : {""sv, "plain"sv, "\0"sv, "\x7f\xc2\x80\xdf\xbf"sv,
                          "\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf"sv}) {
    EXPECT_TRUE(IsUtf8(text)) << testing::PrintToString(text);
  }
  // A decoder that is less strict would read "/" or "." in some of them.
  for (const char* text : {"\x80", "\xc0\x80", "\xc0\xaf", "\xc0\xae", "\xc2", "\xc2 ",
                           "\xe0\x80\xaf", "\xe0\xa0", "\xed\xa0\x80", "\xf0\x80\x80\xaf",
                           "\xf0\x90\x80", "\xf5\x80\x80\x80", "\xff", "\xe2\x82\xac\x80"}) {
    EXPECT_FALSE(IsUtf8(text)) << testing::PrintToString(text);
    EXPECT_FALSE(IsUtf8("a" + std::string(text) + "b")) << testing::PrintToString(text);
  }
}

TEST(Utf8CodePoint, IsTheCharacterOfTheSequence) {
  EXPECT_EQ(Utf8CodePoint("a"), 0x61u);
  EXPECT_EQ(Utf8CodePoint("\xc2\x9b"), 0x9bu);
  EXPECT_EQ(Utf8CodePoint("\xe2\x82\xac"), 0x20acu);
  EXPECT_EQ(Utf8CodePoint("\xf4\x8f\xbf\xbf"), 0x10ffffu);
}

TEST(ValidUtf8, HasAQuestionMarkForEveryByteThatIsNone) {
  EXPECT_EQ(ValidUtf8("plain \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"),
            "plain \xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
  EXPECT_EQ(ValidUtf8(std::string("a\0b\xff\xc3", 5)), "a?b??");
  EXPECT_EQ(ValidUtf8("\xc0\x80"), "??");            // overlong
  EXPECT_EQ(ValidUtf8("\xe0\x80\x80"), "???");       // overlong
  EXPECT_EQ(ValidUtf8("\xed\xa0\x80"), "???");       // surrogate
  EXPECT_EQ(ValidUtf8("\xf4\x90\x80\x80"), "????");  // beyond the last code point
  EXPECT_EQ(ValidUtf8(""), "");
}

}  // namespace
}  // namespace tevra::core
