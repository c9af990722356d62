#include "vigila-gateway/soap/xml_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using vigila::gateway::XmlText;

TEST(XmlText, EscapesWhatWouldBeMarkup) {
  EXPECT_EQ(XmlText("<a> & </a>"), "&lt;a&gt; &amp; &lt;/a&gt;");
  EXPECT_EQ(XmlText("]]>"), "]]&gt;");
}

TEST(XmlText, EscapesEachCharacterOnce) {
  EXPECT_EQ(XmlText("&lt;"), "&amp;lt;");
  EXPECT_EQ(XmlText("&&"), "&amp;&amp;");
}

TEST(XmlText, LeavesEverythingElse) {
  EXPECT_EQ(XmlText(""), "");
  EXPECT_EQ(XmlText("Pump \"7\" 'left' \xc3\xa4\n"), "Pump \"7\" 'left' \xc3\xa4\n");
}

TEST(XmlText, IsNotCutAtAZeroByte) {
  EXPECT_EQ(XmlText(std::string("a\0<", 3)), std::string("a\0&lt;", 6));
}

}  // namespace
