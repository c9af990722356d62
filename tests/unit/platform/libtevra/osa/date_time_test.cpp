#include <gtest/gtest.h>
#include <time.h>

#include <cstdint>
#include <limits>
#include <string>

#include "tevra/osa/exception.h"
#include "tevra/osa/time.h"

namespace {

using tevra::osa::DateTime;
using tevra::osa::Exception;
using tevra::osa::TimeStruct;

TimeStruct Read(const std::string& text) {
  return DateTime(text).ToTimeStruct();
}
std::string Show(int64_t seconds) {
  return DateTime(TimeStruct(seconds, 0)).ToString(0);
}

TEST(DateTime, ReadsUtcWithAndWithoutZ) {
  EXPECT_EQ(Read("1970-01-01T00:00:00Z"), TimeStruct(0, 0));
  EXPECT_EQ(Read("2026-11-21T02:01:00Z"), TimeStruct(1795226460, 0));
  EXPECT_EQ(Read("2026-11-21T02:01:00"), TimeStruct(1795226460, 0));
  EXPECT_EQ(Read("1969-12-31T23:59:59Z"), TimeStruct(-1, 0));
}

TEST(DateTime, TakesTheOffsetAway) {
  for (const char* text :
       {"2026-11-21T04:01:00+02:00", "2026-11-21T04:01:00+0200", "2026-11-21T04:01:00+02",
        "2026-11-20T20:31:00-05:30", "2026-11-20T20:31:00-0530", "2026-11-21T02:01:00-00:00"}) {
    EXPECT_EQ(Read(text), TimeStruct(1795226460, 0)) << text;
  }
  EXPECT_EQ(Read("1970-01-01T23:59:00+23:59"), TimeStruct(0, 0));
}

TEST(DateTime, ReadsAnyNumberOfFractionDigitsAndCutsBehindMicroseconds) {
  EXPECT_EQ(Read("1970-01-01T00:00:00.5Z"), TimeStruct(0, 500000));
  EXPECT_EQ(Read("1970-01-01T00:00:00,5Z"), TimeStruct(0, 500000));
  EXPECT_EQ(Read("1970-01-01T00:00:00.000001Z"), TimeStruct(0, 1));
  EXPECT_EQ(Read("1970-01-01T00:00:00.123456999999Z"), TimeStruct(0, 123456));
  EXPECT_EQ(Read("1970-01-01T00:00:00." + std::string(100000, '9')), TimeStruct(0, 999999));
  EXPECT_EQ(Read("1970-01-01T00:00:00.25+00:00"), TimeStruct(0, 250000));
}

TEST(DateTime, KnowsLeapYears) {
  EXPECT_EQ(Read("2024-02-29T00:00:00Z").seconds, 1709164800);
  EXPECT_EQ(Read("2000-02-29T00:00:00Z").seconds, 951782400);
  for (const char* text : {"2023-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2100-02-29T00:00:00Z",
                           "2024-02-30T00:00:00Z"}) {
    EXPECT_THROW(Read(text), Exception) << text;
  }
}

TEST(DateTime, KnowsTheLengthOfEveryMonth) {
  const int days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  for (int month = 1; month <= 12; ++month) {
    char last[32], next[32];
    snprintf(last, sizeof(last), "2023-%02d-%02dT00:00:00Z", month, days[month - 1]);
    snprintf(next, sizeof(next), "2023-%02d-%02dT00:00:00Z", month, days[month - 1] + 1);
    EXPECT_NO_THROW(Read(last)) << last;
    EXPECT_THROW(Read(next), Exception) << next;
  }
}

TEST(DateTime, TakesTwentyFourHoursForTheEndOfTheDay) {
  EXPECT_EQ(Read("1970-01-01T24:00:00Z"), TimeStruct(86400, 0));
  EXPECT_EQ(Read("1970-01-01T24:00:00.000Z"), TimeStruct(86400, 0));
  EXPECT_THROW(Read("1970-01-01T24:00:01Z"), Exception);
  EXPECT_THROW(Read("1970-01-01T24:01:00Z"), Exception);
  EXPECT_THROW(Read("1970-01-01T24:00:00.0000000001Z"), Exception);
}

TEST(DateTime, RefusesEverythingElse) {
  const std::string refused[] = {"",
                                 "T",
                                 "2026-11-21",
                                 "02:01:00",
                                 "2026-11-21T02:01",
                                 "2026-11-21T02:01Z",
                                 "2026-11-21 02:01:00Z",
                                 "2026-11-21t02:01:00z",
                                 " 2026-11-21T02:01:00Z",
                                 "2026-11-21T02:01:00Z ",
                                 "2026-11-21T02:01:00ZZ",
                                 "2026-11-21T02:01:00.Z",
                                 "2026-11-21T02:01:00.",
                                 "2026-11-21T02:01:00.-5",
                                 "2026-11-21T02:01:00+",
                                 "2026-11-21T02:01:00+2",
                                 "2026-11-21T02:01:00+02:",
                                 "2026-11-21T02:01:00+02:0",
                                 "2026-11-21T02:01:00+02:60",
                                 "2026-11-21T02:01:00+24:00",
                                 "2026-11-21T02:01:00+02:00Z",
                                 "2026-11-21T02:01:60Z",
                                 "2026-11-21T02:60:00Z",
                                 "2026-11-21T25:00:00Z",
                                 "2026-00-21T02:01:00Z",
                                 "2026-13-21T02:01:00Z",
                                 "2026-11-00T02:01:00Z",
                                 "2026-11-31T02:01:00Z",
                                 "26-11-21T02:01:00Z",
                                 "02026-11-21T02:01:00Z",
                                 "-2026-11-21T02:01:00Z",
                                 "2026-1-21T02:01:00Z",
                                 "20261121T020100Z",
                                 "2026-11-21T02:01:00 Z",
                                 "2026-11-21T+2:01:00Z",
                                 "2026-W47-6T02:01:00Z",
                                 "Sat, 21 Nov 2026 02:01:00 GMT",
                                 "1795226460",
                                 "2026-11-21T02:01:0\xd9\xa0Z",
                                 std::string("2026-11-21T02:01:00Z\0", 21),
                                 std::string("2026-11-21T02:01:00\0", 20)};
  for (const std::string& text : refused) EXPECT_THROW(Read(text), Exception) << text;
}

TEST(DateTime, RefusesEveryProperPrefixThatLacksATime) {
  const std::string text = "2026-11-21T02:01:00";
  for (size_t length = 0; length < text.size(); ++length) {
    EXPECT_THROW(Read(text.substr(0, length)), Exception) << length;
  }
}

TEST(DateTime, ReachesFromYearZeroToTheLastWithFourDigits) {
  EXPECT_EQ(Read("0000-01-01T00:00:00Z").seconds, -62167219200);
  EXPECT_EQ(Read("9999-12-31T23:59:59.999999Z"), TimeStruct(253402300799, 999999));
}

TEST(DateTime, AgreesWithTheSystemsCalendar) {
  for (int64_t seconds = -70000000000; seconds < 260000000000; seconds += 86400LL * 97 + 12345) {
    const time_t when = static_cast<time_t>(seconds);
    struct tm parts;
    ASSERT_NE(gmtime_r(&when, &parts), nullptr);
    if (parts.tm_year + 1900 < 0 || parts.tm_year + 1900 > 9999) continue;
    char text[64];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02dZ", parts.tm_year + 1900,
             parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    ASSERT_EQ(Show(seconds), text);
    ASSERT_EQ(Read(text).seconds, seconds);
  }
}

TEST(DateTime, WritesUtcAndCutsTheFraction) {
  EXPECT_EQ(DateTime(TimeStruct(1795226460, 999999)).ToString(0), "2026-11-21T02:01:00Z");
  EXPECT_EQ(Show(-1), "1969-12-31T23:59:59Z");
}

TEST(DateTime, RefusesOtherFormats) {
  EXPECT_THROW(DateTime(TimeStruct()).ToString(1), Exception);
  EXPECT_THROW(DateTime(TimeStruct()).ToString(-1), Exception);
}

TEST(DateTime, WritesExtremeTimesWithASign) {
  EXPECT_EQ(Show(253402300800), "+10000-01-01T00:00:00Z");
  EXPECT_EQ(Show(-62167219201), "-0001-12-31T23:59:59Z");
  EXPECT_EQ(Show(std::numeric_limits<int64_t>::max()), "+292277026596-12-04T15:30:07Z");
  EXPECT_EQ(Show(std::numeric_limits<int64_t>::min()), "-292277022657-01-27T08:29:52Z");
}

}  // namespace
