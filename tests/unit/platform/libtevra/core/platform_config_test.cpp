#include "tevra/core/platform_config.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>

#include "support/platform_fixture.h"
#include "support/temp_dir.h"
#include "tevra/osa/exception.h"

namespace {

using tevra::core::ConfigKey;
using tevra::core::IniFile;
using tevra::core::PlatformConfig;
using tevra::osa::Exception;

constexpr long kMin = -10, kMax = 10;

const ConfigKey kA{"s", "a", ""};
const ConfigKey kInt{"s", "int", "3"};
const ConfigKey kBool{"s", "bool", "true"};
const ConfigKey kText{"s", "text", "fallback"};

class PlatformConfigValues : public ::testing::Test {
 protected:
  long Int(const std::string& text) {
    fixture_.Set("s", "int", text);
    return PlatformConfig::Get().GetInt(kInt, kMin, kMax);
  }
  bool Bool(const std::string& text) {
    fixture_.Set("s", "bool", text);
    return PlatformConfig::Get().GetBool(kBool);
  }

  support::PlatformFixture fixture_;
};

TEST_F(PlatformConfigValues, FallBackWhenThereIsNoSuchKey) {
  const PlatformConfig& config = PlatformConfig::Get();
  EXPECT_EQ(config.GetString(kText), "fallback");
  EXPECT_EQ(config.GetInt(kInt, kMin, kMax), 3);
  EXPECT_TRUE(config.GetBool(kBool));
}

TEST_F(PlatformConfigValues, AreTakenFromTheFile) {
  fixture_.Set("s", "text", "");
  EXPECT_EQ(PlatformConfig::Get().GetString(kText), "");
  EXPECT_EQ(Int("7"), 7);
  EXPECT_EQ(Int("-10"), kMin);
  EXPECT_EQ(Int("+10"), kMax);
}

TEST_F(PlatformConfigValues, RefuseWhatIsNoWholeNumberInRange) {
  for (const char* text : {"", "x", "1x", "1.0", "11", "-11", "0x1", "99999999999999999999"}) {
    EXPECT_THROW(Int(text), Exception) << text;
  }
}

TEST_F(PlatformConfigValues, SayWhichOneIsWrong) {
  try {
    Int("many");
    FAIL();
  } catch (const Exception& error) {
    EXPECT_STREQ(error.what(), "[s] int = many: not a whole number from -10 to 10");
  }
}

TEST_F(PlatformConfigValues, KnowEightWordsForTrueAndFalse) {
  for (const char* text : {"true", "yes", "on", "1"}) EXPECT_TRUE(Bool(text)) << text;
  for (const char* text : {"false", "no", "off", "0"}) EXPECT_FALSE(Bool(text)) << text;
  for (const char* text : {"", "True", "2", "ja"}) EXPECT_THROW(Bool(text), Exception) << text;
}

TEST_F(PlatformConfigValues, AreSeenThroughAReferenceTakenEarlier) {
  const PlatformConfig& config = PlatformConfig::Get();
  fixture_.Set("s", "text", "1");
  EXPECT_EQ(config.GetString(kText), "1");
}

TEST(PlatformConfig, KeepsWhatItHasWhenALoadFails) {
  support::PlatformFixture fixture;
  fixture.Set("s", "a", "kept");
  EXPECT_THROW(PlatformConfig::LoadFrom(fixture.Dir().File("none.ini")), Exception);
  EXPECT_THROW(PlatformConfig::LoadFrom(fixture.Dir().Write("bad.ini", "nonsense")), Exception);
  EXPECT_EQ(PlatformConfig::Get().GetString(kA), "kept");
  PlatformConfig::LoadFrom(fixture.Dir().Write("good.ini", "[s]\na=loaded\n"));
  EXPECT_EQ(PlatformConfig::Get().GetString(kA), "loaded");
}

// The first use happens once in a process: these run in one of their own each.
class PlatformConfigFirstUse : public ::testing::Test {
 protected:
  PlatformConfigFirstUse() { ::testing::FLAGS_gtest_death_test_style = "threadsafe"; }

  const support::TempDir dir_;
};

int ExitCodeOfFirstUse(const std::string& path) {
  setenv(PlatformConfig::kEnvironmentVariable, path.c_str(), 1);
  try {
    return PlatformConfig::Get().GetString(kA) == "named" ? 0 : 1;
  } catch (const Exception& error) {
    const bool named = std::string(error.what()).find(path) != std::string::npos;
    return named ? 2 : 3;
  }
}

TEST_F(PlatformConfigFirstUse, ReadsTheFileThatTheEnvironmentNames) {
  const std::string path = dir_.Write("named.ini", "[s]\na=named\n");
  EXPECT_EXIT(exit(ExitCodeOfFirstUse(path)), ::testing::ExitedWithCode(0), "");
}

TEST_F(PlatformConfigFirstUse, ThrowsWhenTheNamedFileIsNotThere) {
  EXPECT_EXIT(exit(ExitCodeOfFirstUse(dir_.File("none.ini"))), ::testing::ExitedWithCode(2), "");
}

TEST_F(PlatformConfigFirstUse, ThrowsWhenTheNamedFileIsMalformed) {
  const std::string path = dir_.Write("bad.ini", "nonsense\n");
  EXPECT_EXIT(exit(ExitCodeOfFirstUse(path)), ::testing::ExitedWithCode(2), "");
}

TEST_F(PlatformConfigFirstUse, TriesAgainAfterAFailure) {
  EXPECT_EXIT(
      {
        const std::string path = dir_.File("later.ini");
        if (ExitCodeOfFirstUse(path) != 2) exit(9);
        dir_.Write("later.ini", "[s]\na=named\n");
        exit(ExitCodeOfFirstUse(path));
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
