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

TEST(TextTable, PutsAFirstCellThatIsTooLongOnALineOfItsOwn) {
  TextTable table({"NAME", "GROUP"});
  table.AddRow({"anna", "admins"});
  table.AddRow({"a name of 20 letters", "viewers"});
  EXPECT_EQ(table.Render(20), "NAME  GROUP\nanna  admins\na name of 20 letters\n      viewers\n");
  EXPECT_EQ(table.Render(29), table.Render());
  EXPECT_NE(table.Render(28), table.Render());
}

TEST(TextTable, CutsNoCellHoweverNarrowTheTerminal) {
  TextTable table({"NAME", "GROUP"});
  table.AddRow({"anna and bert", "admins"});
  table.AddRow({});
  EXPECT_EQ(table.Render(1), "NAME  GROUP\nanna and bert\n      admins\n\n");
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
