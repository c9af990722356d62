#include "tevra/core/logger.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdarg>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "support/capturing_log.h"
#include "support/platform_fixture.h"

namespace {

using support::CapturingLog;
using support::LogLine;
using tevra::core::Logger;
using tevra::core::PlatformConfig;

TEST(Logger, IsOneObjectPerName) {
  EXPECT_EQ(Logger::GetLogger("UserMap"), Logger::GetLogger("UserMap"));
  EXPECT_NE(Logger::GetLogger("UserMap"), Logger::GetLogger("usermap"));
  EXPECT_EQ(Logger::GetLogger("UserMap")->Name(), "UserMap");
}

TEST(Logger, KnowsTheNamesThatWereAskedFor) {
  const auto knows = [](const std::string& name) {
    const std::vector<std::string> names = Logger::Names();
    return std::count(names.begin(), names.end(), name) == 1;
  };
  EXPECT_FALSE(knows("a name of its own"));
  Logger::GetLogger("a name of its own");
  Logger::GetLogger("a name of its own");
  EXPECT_TRUE(knows("a name of its own"));
}

TEST(Logger, LogsAtEachOfItsLevels) {
  const CapturingLog log;
  Logger* const logger = Logger::GetLogger("UserMap");
  logger->Debug("%d", 7);
  logger->Information("%d", 6);
  logger->Notice("%d", 5);
  logger->Warning("%d", 4);
  logger->Error("%d", 3);
  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{Logger::kDebug, "UserMap", "7"},
                                               {Logger::kInformation, "UserMap", "6"},
                                               {Logger::kNotice, "UserMap", "5"},
                                               {Logger::kWarning, "UserMap", "4"},
                                               {Logger::kError, "UserMap", "3"}}));
}

TEST(Logger, DropsWhatIsBelowTheLevel) {
  const CapturingLog log;
  Logger* const logger = Logger::GetLogger("UserMap");
  Logger::SetLevel(Logger::kNotice);
  EXPECT_FALSE(Logger::IsEnabled(Logger::kInformation));
  EXPECT_TRUE(Logger::IsEnabled(Logger::kNotice));
  logger->Debug("d");
  logger->Information("i");
  logger->Notice("n");
  Logger::SetLevel(Logger::kError);
  logger->Warning("w");
  logger->Error("e");
  EXPECT_EQ(log.TextsOf("UserMap"), (std::vector<std::string>{"n", "e"}));
}

void LogWithList(Logger::Level level, const char* format, ...)
    __attribute__((format(printf, 2, 3)));
void LogWithList(Logger::Level level, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  Logger::GetLogger("V")->LogV(level, format, arguments);
  va_end(arguments);
}

TEST(Logger, TakesArgumentsThatAreAlreadyCollected) {
  const CapturingLog log;
  LogWithList(Logger::kNotice, "%s %d", "a", 1);
  Logger::SetLevel(Logger::kNotice);
  LogWithList(Logger::kDebug, "%s %d", "b", 2);
  EXPECT_EQ(log.TextsOf("V"), (std::vector<std::string>{"a 1"}));
}

TEST(Logger, FormatsNothingBelowTheLevel) {
  const CapturingLog log;
  Logger::SetLevel(Logger::kNotice);
  int written = -1;
  Logger::GetLogger("V")->Debug("abc%n", &written);
  EXPECT_EQ(written, -1);
}

TEST(Logger, KeepsAMebibyteOfTextWhole) {
  const CapturingLog log;
  for (const size_t size : {size_t{511}, size_t{512}, size_t{513}, size_t{1024 * 1024}}) {
    const std::string text(size, 'x');
    Logger::GetLogger("Long")->Notice("%s", text.c_str());
    EXPECT_EQ(log.TextsOf("Long").back(), text) << size;
  }
}

TEST(Logger, CutsATextWithoutMeasure) {
  const CapturingLog log;
  const std::string limit(4 * 1024 * 1024, 'x');
  Logger::GetLogger("Long")->Notice("%s", limit.c_str());
  Logger::GetLogger("Long")->Notice("%sy", limit.c_str());
  EXPECT_EQ(log.TextsOf("Long")[0], limit);
  EXPECT_EQ(log.TextsOf("Long")[1], limit + " (cut)");
}

TEST(Logger, LogsTheFormatWhenTheArgumentsCannotBeFormatted) {
  const CapturingLog log;
  Logger::GetLogger("V")->Notice("bad %ls", L"\xd800");
  EXPECT_EQ(log.TextsOf("V"), (std::vector<std::string>{"bad %ls"}));
}

TEST(Logger, GivesTheSinkBackAndTakesTheDefaultForNone) {
  const CapturingLog outer;
  {
    const CapturingLog inner;
    Logger::GetLogger("V")->Notice("inner");
  }
  Logger::GetLogger("V")->Notice("outer");
  EXPECT_EQ(outer.TextsOf("V"), (std::vector<std::string>{"outer"}));

  Logger::Sink* const mine = Logger::SetSink(nullptr);
  ::testing::internal::CaptureStderr();
  unsetenv("JOURNAL_STREAM");
  Logger::GetLogger("V")->Notice("%s", "a\nb");
  EXPECT_EQ(::testing::internal::GetCapturedStderr(), "notice V: a\\x0ab\n");
  EXPECT_EQ(Logger::SetSink(mine), nullptr);
}

TEST(Logger, SurvivesASinkThatThrows) {
  class Throwing final : public Logger::Sink {
    void Write(Logger::Level, const std::string&, const std::string&) override {
      throw std::bad_alloc();
    }
  } throwing;
  Logger::Sink* const previous = Logger::SetSink(&throwing);
  EXPECT_NO_THROW(Logger::GetLogger("V")->Error("x"));
  Logger::SetSink(previous);
}

TEST(Logger, CallsTheSinkFromOneThreadAtATime) {
  class Counting final : public Logger::Sink {
   public:
    void Write(Logger::Level, const std::string&, const std::string&) override { ++lines; }
    int lines = 0;
  } counting;
  Logger::Sink* const previous = Logger::SetSink(&counting);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([i] {
      for (int j = 0; j < 1000; ++j) {
        Logger::GetLogger("T" + std::to_string(j % 7))->Error("%d %d", i, j);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  Logger::SetSink(previous);
  EXPECT_EQ(counting.lines, 4000);
}

// What the configuration says, with the level in force put back afterwards.
class ConfiguredLevel : public ::testing::Test {
 protected:
  ConfiguredLevel() { Logger::UseConfiguredLevel(); }
  ~ConfiguredLevel() override {
    unsetenv("TEVRA_LOG_LEVEL");
    Logger::UseConfiguredLevel();
  }

  Logger::Level Of(const std::string& text) {
    fixture_.Set("Logging", "level", text);
    return Logger::GetLevel();
  }
  // The sink alone: a CapturingLog would set the level.
  struct Lines final : Logger::Sink {
    Lines() : previous(Logger::SetSink(this)) {}
    ~Lines() override { Logger::SetSink(previous); }
    void Write(Logger::Level, const std::string& logger, const std::string& text) override {
      texts.push_back(logger + ": " + text);
    }
    Logger::Sink* previous;
    std::vector<std::string> texts;
  };

  support::PlatformFixture fixture_;
  Lines lines_;
};

TEST_F(ConfiguredLevel, IsNoticeByDefault) {
  EXPECT_EQ(Logger::GetLevel(), Logger::kNotice);
}

TEST_F(ConfiguredLevel, IsANameOrANumber) {
  EXPECT_EQ(Of("error"), Logger::kError);
  EXPECT_EQ(Of("4"), Logger::kWarning);
  EXPECT_EQ(Of("information"), Logger::kInformation);
  EXPECT_EQ(Of("7"), Logger::kDebug);
  EXPECT_EQ(Of("notice"), Logger::kNotice);
  EXPECT_TRUE(lines_.texts.empty());
}

TEST_F(ConfiguredLevel, IsNoticeAndOneLineWhenItIsNoLevel) {
  for (const char* text : {"", "2", "8", "Debug", "all"}) {
    lines_.texts.clear();
    EXPECT_EQ(Of(text), Logger::kNotice);
    Logger::GetLogger("V")->Debug("x");
    const std::string complaint = "Logger: no usable log level, so it is notice: \"";
    EXPECT_EQ(lines_.texts, std::vector<std::string>{complaint + text + "\" is none"});
  }
}

TEST_F(ConfiguredLevel, GivesWayToTheEnvironment) {
  setenv("TEVRA_LOG_LEVEL", "debug", 1);
  EXPECT_EQ(Of("error"), Logger::kDebug);
  setenv("TEVRA_LOG_LEVEL", "", 1);
  EXPECT_EQ(Of("error"), Logger::kError);
  setenv("TEVRA_LOG_LEVEL", "nonsense", 1);
  EXPECT_EQ(Of("error"), Logger::kNotice);
}

TEST_F(ConfiguredLevel, GivesWayToSetLevel) {
  Logger::SetLevel(Logger::kWarning);
  EXPECT_EQ(Of("debug"), Logger::kWarning);
  Logger::UseConfiguredLevel();
  EXPECT_EQ(Logger::GetLevel(), Logger::kDebug);
}

TEST(LoggerWithABrokenConfiguration, LogsAtNoticeAndSaysSoOnce) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        setenv(PlatformConfig::kEnvironmentVariable, "/nonexistent/platform.ini", 1);
        unsetenv("TEVRA_LOG_LEVEL");
        Logger::GetLogger("V")->Debug("not shown");
        Logger::GetLogger("V")->Notice("shown");
        exit(Logger::GetLevel() == Logger::kNotice ? 0 : 1);
      },
      ::testing::ExitedWithCode(0),
      "^warning Logger: .*/nonexistent/platform.ini: No such file or directory\nnotice V: "
      "shown\n$");
}

}  // namespace
