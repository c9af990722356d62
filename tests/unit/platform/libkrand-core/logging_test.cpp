#include <gtest/gtest.h>

#include <cstdarg>

#include "krand/core/krand_core.h"
#include "support/capturing_log.h"

namespace {

using support::CapturingLog;
using support::LogLine;
using tevra::core::Logger;

TEST(KrandLogging, WritesUnderTheIdentityOfItsContext) {
  void* context = nullptr;
  ASSERT_EQ(krand_core_logging_init("VIGILA_KRAND", &context), KRAND_CORE_OK);
  ASSERT_NE(context, nullptr);
  CapturingLog log;
  krand_core_logging_log(context, KRAND_CORE_LOG_ERROR, "%s is %d", "answer", 42);
  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{Logger::kError, "VIGILA_KRAND", "answer is 42"}}));
  EXPECT_EQ(krand_core_logging_deinit(context), KRAND_CORE_OK);
}

TEST(KrandLogging, WritesWithoutAContextUnderTheLibrarysOwnName) {
  CapturingLog log;
  krand_core_logging_log(nullptr, KRAND_CORE_LOG_NOTICE, "plain");
  EXPECT_EQ(log.Lines(), (std::vector<LogLine>{{Logger::kNotice, "krand", "plain"}}));
}

TEST(KrandLogging, TakesSyslogsNumbersAndTheNearestOfOthers) {
  CapturingLog log;
  for (int priority = -1; priority <= 9; ++priority) {
    krand_core_logging_log(nullptr, static_cast<krand_core_log_priority>(priority), "p%d",
                           priority);
  }
  std::vector<int> levels;
  for (const LogLine& line : log.Lines()) levels.push_back(line.level);
  EXPECT_EQ(levels, (std::vector<int>{3, 3, 3, 3, 3, 4, 5, 6, 7, 7, 7}));
}

TEST(KrandLogging, DoesNothingWithoutAFormat) {
  CapturingLog log;
  const char* volatile none = nullptr;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
  krand_core_logging_log(nullptr, KRAND_CORE_LOG_ERROR, none);
#pragma GCC diagnostic pop
  EXPECT_TRUE(log.Lines().empty());
}

TEST(KrandLogging, GivesAContextBackAsOftenAsItWasTaken) {
  void* first = nullptr;
  void* second = nullptr;
  ASSERT_EQ(krand_core_logging_init("twice", &first), KRAND_CORE_OK);
  ASSERT_EQ(krand_core_logging_init("twice", &second), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_logging_deinit(first), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_logging_deinit(second), KRAND_CORE_OK);
  EXPECT_EQ(krand_core_logging_deinit(first), KRAND_CORE_INVALID_ARGUMENT);
}

TEST(KrandLogging, WritesALateLineThroughAContextGivenBack) {
  void* context = nullptr;
  ASSERT_EQ(krand_core_logging_init("late", &context), KRAND_CORE_OK);
  ASSERT_EQ(krand_core_logging_deinit(context), KRAND_CORE_OK);
  CapturingLog log;
  krand_core_logging_log(context, KRAND_CORE_LOG_ERROR, "still here");
  EXPECT_EQ(log.TextsOf("late"), std::vector<std::string>{"still here"});
}

TEST(KrandLogging, RefusesArgumentsItCannotUse) {
  void* context = nullptr;
  EXPECT_EQ(krand_core_logging_init(nullptr, &context), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_logging_init("", &context), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_logging_init("x", nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_logging_deinit(nullptr), KRAND_CORE_INVALID_ARGUMENT);
  EXPECT_EQ(krand_core_logging_deinit(&context), KRAND_CORE_INVALID_ARGUMENT);
}

}  // namespace
