#include "vigilactl/text_table.h"

#include <gtest/gtest.h>

namespace vigilactl {
namespace {

TEST(TextTable, AlignsColumnsWithoutBlanksAtTheEnds) {
  TextTable table({"NAME", "GROUP"});
  table.AddRow({"a", "admins"});
  table.AddRow({"longer name", ""});
  EXPECT_EQ(table.Render(), "NAME         GROUP\na            admins\nlonger name\n");
}

TEST(TextTable, AlignsByCharacters) {
  TextTable table;
  table.AddRow({"\xc3\xa4\xc3\xb6", "x"});
  table.AddRow({"abc", "y"});
  EXPECT_EQ(table.Render(), "\xc3\xa4\xc3\xb6   x\nabc  y\n");
}

TEST(TextTable, KeepsARowOnItsLine) {
  TextTable table;
  table.AddRow({"anna\nroot  admins", "viewers"});
  EXPECT_EQ(table.Render(), "anna\\x0aroot  admins  viewers\n");
}

TEST(TextTable, OfNothingIsNothing) {
  EXPECT_EQ(TextTable().Render(), "");
}

TEST(TextTable, TakesRowsOfDifferentLengths) {
  TextTable table({"A"});
  table.AddRow({"b", "c", "d"});
  table.AddRow({});
  EXPECT_EQ(table.Render(), "A\nb  c  d\n\n");
}

}  // namespace
}  // namespace vigilactl
