#include "vigilactl/printable_text.h"

#include <gtest/gtest.h>

namespace vigilactl {
namespace {

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

TEST(DisplayWidth, CountsColumnsNotBytes) {
  EXPECT_EQ(DisplayWidth(""), 0u);
  EXPECT_EQ(DisplayWidth("a\xc3\xa4\xe2\x82\xac"), 3u);
  EXPECT_EQ(DisplayWidth("\xe7\x94\xb0\xe4\xb8\xad"), 4u) << "two characters of two columns";
  EXPECT_EQ(DisplayWidth("\xf0\x9f\x98\x80"), 2u);
  EXPECT_EQ(DisplayWidth("e\xcc\x81"), 1u) << "an accent is drawn onto the letter";
  EXPECT_EQ(DisplayWidth("\xf4\x8f\xbf\xbf"), 1u) << "a character that no one has defined";
}

}  // namespace
}  // namespace vigilactl
