#include "tevra/core/ini_file.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "support/temp_dir.h"
#include "tevra/osa/exception.h"

namespace {

using tevra::core::IniFile;
using tevra::osa::Exception;

IniFile Parse(const std::string& text) {
  return IniFile::Parse(text, "test.ini");
}

std::string RefusalOf(const std::string& text) {
  try {
    Parse(text);
  } catch (const Exception& error) {
    return error.what();
  }
  return "";
}

TEST(IniFile, IsEmptyWhenNew) {
  EXPECT_TRUE(IniFile().Sections().empty());
  EXPECT_EQ(IniFile().Get("a", "b"), std::nullopt);
}

TEST(IniFile, ReadsSectionsAndKeys) {
  const IniFile file = Parse("[Logging]\nlevel = debug\n\n[MsgBus]\ntransport=broker\n");
  EXPECT_EQ(file.Get("Logging", "level"), "debug");
  EXPECT_EQ(file.Get("MsgBus", "transport"), "broker");
  EXPECT_EQ(file.Get("MsgBus", "level"), std::nullopt);
  EXPECT_EQ(file.Get("Other", "level"), std::nullopt);
}

TEST(IniFile, DropsBlanksAroundNamesAndValuesOnly) {
  const IniFile file = Parse(" \t[ My Section ] \r\n  a key\t=\t some  value \t\r\n");
  EXPECT_EQ(file.Get("My Section", "a key"), "some  value");
}

TEST(IniFile, SkipsCommentLinesAndNothingElse) {
  const IniFile file = Parse("# a\n  ; b\n[s]\n#x=1\nkey = a # b ; c\n");
  EXPECT_EQ(file.Get("s", "key"), "a # b ; c");
  EXPECT_EQ(file.Sections().at("s").size(), 1U);
}

TEST(IniFile, KeepsEverythingBehindTheFirstEqualsSign) {
  const IniFile file = Parse("[s]\na=b=c\nempty=\nbytes=\xff\xfe\n");
  EXPECT_EQ(file.Get("s", "a"), "b=c");
  EXPECT_EQ(file.Get("s", "empty"), "");
  EXPECT_EQ(file.Get("s", "bytes"), "\xff\xfe");
}

TEST(IniFile, LetsTheLastOfEqualKeysWinAlsoWhenTheSectionComesTwice) {
  const IniFile file = Parse("[s]\na=1\na=2\nb=1\n[t]\n[s]\nb=3\n");
  EXPECT_EQ(file.Get("s", "a"), "2");
  EXPECT_EQ(file.Get("s", "b"), "3");
}

TEST(IniFile, ReadsALastLineWithoutAnEnd) {
  EXPECT_EQ(Parse("[s]\na=1").Get("s", "a"), "1");
}

TEST(IniFile, NamesTheFileAndTheLineThatIsMalformed) {
  EXPECT_EQ(RefusalOf("[s]\n\nnonsense\n"), "test.ini:3: neither section, key nor comment");
  EXPECT_EQ(RefusalOf("a=1\n"), "test.ini:1: a key before the first section");
  EXPECT_EQ(RefusalOf("[s\n"), "test.ini:1: a section without \"]\"");
  EXPECT_EQ(RefusalOf("[s] x\n"), "test.ini:1: a section without \"]\"");
  EXPECT_EQ(RefusalOf("[ ]\n"), "test.ini:1: a section without a name");
  EXPECT_EQ(RefusalOf("["), "test.ini:1: a section without \"]\"");
  EXPECT_EQ(RefusalOf("[s]\n = 1\n"), "test.ini:2: a value without a key");
  EXPECT_EQ(RefusalOf(std::string("[s]\na=\0b\n", 9)), "test.ini:2: a zero byte");
}

TEST(IniFile, LoadsAFile) {
  const support::TempDir dir;
  EXPECT_EQ(IniFile::Load(dir.Write("a.ini", "[s]\na=1\n")).Get("s", "a"), "1");
  EXPECT_TRUE(IniFile::Load(dir.Write("empty.ini", "")).Sections().empty());
}

TEST(IniFile, NamesTheFileThatCannotBeRead) {
  const support::TempDir dir;
  for (const std::string& path : {dir.File("none.ini"), dir.Path()}) {
    try {
      IniFile::Load(path);
      FAIL() << path;
    } catch (const Exception& error) {
      EXPECT_NE(std::string(error.what()).find(path), std::string::npos) << error.what();
    }
  }
}

TEST(IniFile, RefusesAFileOfMoreThanAMebibyte) {
  const support::TempDir dir;
  const std::string comment = "#" + std::string(1024 * 1024 - 2, 'x') + "\n";
  EXPECT_NO_THROW(IniFile::Load(dir.Write("full.ini", comment)));
  EXPECT_THROW(IniFile::Load(dir.Write("more.ini", comment + "\n")), Exception);
  EXPECT_THROW(IniFile::Load("/dev/zero"), Exception);
}

TEST(IniFile, ChangesValues) {
  IniFile file;
  file.Set("s", "a", "1");
  file.Set("s", "a", "2");
  EXPECT_EQ(file.Get("s", "a"), "2");
}

}  // namespace
