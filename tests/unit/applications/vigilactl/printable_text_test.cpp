#include "vigilactl/printable_text.h"

#include <gtest/gtest.h>

namespace vigilactl {
namespace {

TEST(IsUtf8, TakesWhatTheEncodingAllows) {
  EXPECT_TRUE(IsUtf8(""));
  EXPECT_TRUE(IsUtf8("plain"));
  EXPECT_TRUE(IsUtf8(std::string(1, '\0')));
  EXPECT_TRUE(IsUtf8("\x7f\xc2\x80\xdf\xbf"));
  EXPECT_TRUE(IsUtf8("\xe0\xa0\x80\xed\x9f\xbf\xee\x80\x80\xef\xbf\xbf"));
  EXPECT_TRUE(IsUtf8("\xf0\x90\x80\x80\xf4\x8f\xbf\xbf"));
}

TEST(IsUtf8, RefusesWhatItDoesNot) {
  for (const char* text :
       {"\x80", "\xbf", "\xc0\x80", "\xc1\xbf", "\xc2", "\xc2 ", "\xe0\x9f\xbf", "\xe0\xa0",
        "\xed\xa0\x80", "\xed\xbf\xbf", "\xf0\x8f\xbf\xbf", "\xf0\x90\x80", "\xf4\x90\x80\x80",
        "\xf5\x80\x80\x80", "\xff", "a\xfe", "\xe2\x82\xac\x80"}) {
    EXPECT_FALSE(IsUtf8(text)) << testing::PrintToString(text);
  }
}

TEST(Printable, LeavesTextAlone) {
  EXPECT_EQ(Printable("anna b. \"#/\\~"), "anna b. \"#/\\~");
  EXPECT_EQ(Printable("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80"),
            "\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80");
}

TEST(Printable, EscapesWhatSteersATerminal) {
  EXPECT_EQ(Printable("\x1b[2J\r\n\t\x7f"), "\\x1b[2J\\x0d\\x0a\\x09\\x7f");
  EXPECT_EQ(Printable(std::string("a\0b", 3)), "a\\x00b");
  EXPECT_EQ(Printable("\xc2\x9b"), "\\xc2\\x9b") << "the one-character form of ESC [";
  EXPECT_EQ(Printable("\xe2\x80\xae"), "\\xe2\\x80\\xae") << "right-to-left override";
  EXPECT_EQ(Printable("\xe2\x80\x8b"), "\\xe2\\x80\\x8b") << "a blank without width";
}

TEST(Printable, EscapesBytesThatAreNotUtf8AndGoesOn) {
  EXPECT_EQ(Printable("a\xff\xc3\xa4\xc3"), "a\\xff\xc3\xa4\\xc3");
}

TEST(JsonWithoutStrayBytes, MakesTheDocumentReadable) {
  EXPECT_EQ(JsonWithoutStrayBytes("{\"a\xff\":\"\xc3\xa4\"}"), "{\"a\\\\xff\":\"\xc3\xa4\"}");
}

TEST(DisplayWidth, CountsCharactersNotBytes) {
  EXPECT_EQ(DisplayWidth(""), 0u);
  EXPECT_EQ(DisplayWidth("a\xc3\xa4\xe2\x82\xac"), 3u);
}

}  // namespace
}  // namespace vigilactl
