#include "tevra/core/json_utils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <sstream>
#include <string>

#include "json/reader.h"
#include "tevra/osa/exception.h"

namespace {

using tevra::core::JsonUtils;
using tevra::osa::Exception;

json::UnknownElement Read(const std::string& text) {
  std::istringstream stream(text);
  json::UnknownElement element;
  json::Reader::Read(element, stream);
  return element;
}

TEST(JsonUtils, ReadsWholeNumbersHoweverTheyAreWritten) {
  for (const char* text : {"8", "8.0", "8e0", "80e-1", "0.8E+1", "8.000"}) {
    EXPECT_EQ(JsonUtils::AsInt(Read(text)), 8) << text;
    EXPECT_EQ(JsonUtils::AsUnsigned(Read(text)), 8U) << text;
  }
}

TEST(JsonUtils, TakesMinusZeroForZero) {
  for (const char* text : {"-0", "-0.0", "-0e5"}) {
    EXPECT_EQ(JsonUtils::AsInt(Read(text)), 0) << text;
    EXPECT_EQ(JsonUtils::AsUnsigned(Read(text)), 0U) << text;
  }
}

TEST(JsonUtils, ReadsToBothEndsOfTheRangeAndNoFurther) {
  EXPECT_EQ(JsonUtils::AsInt(Read("2147483647")), 2147483647);
  EXPECT_EQ(JsonUtils::AsInt(Read("-2147483648")), std::numeric_limits<int32_t>::min());
  EXPECT_EQ(JsonUtils::AsUnsigned(Read("4294967295")), 4294967295U);
  for (const char* text :
       {"2147483648", "-2147483649", "1e300", "-1e300", "18446744073709551616"}) {
    EXPECT_THROW(JsonUtils::AsInt(Read(text)), Exception) << text;
  }
  for (const char* text : {"4294967296", "-1", "-1e-300", "1e300", "4294967295.5"}) {
    EXPECT_THROW(JsonUtils::AsUnsigned(Read(text)), Exception) << text;
  }
}

TEST(JsonUtils, RefusesFractions) {
  for (const char* text : {"0.5", "-0.5", "8.000001", "1e-5", "5e-324"}) {
    EXPECT_THROW(JsonUtils::AsInt(Read(text)), Exception) << text;
    EXPECT_THROW(JsonUtils::AsUnsigned(Read(text)), Exception) << text;
  }
}

TEST(JsonUtils, RefusesNumbersThatAreNotFinite) {
  for (const double value : {std::nan(""), std::numeric_limits<double>::infinity(),
                             -std::numeric_limits<double>::infinity()}) {
    EXPECT_THROW(JsonUtils::AsInt(value), Exception);
    EXPECT_THROW(JsonUtils::AsUnsigned(value), Exception);
  }
}

TEST(JsonUtils, RefusesOtherTypesForANumber) {
  for (const char* text : {"\"8\"", "true", "null", "[8]", "{}"}) {
    EXPECT_THROW(JsonUtils::AsInt(Read(text)), Exception) << text;
    EXPECT_THROW(JsonUtils::AsUnsigned(Read(text)), Exception) << text;
  }
}

TEST(JsonUtils, ReadsTextsOnly) {
  EXPECT_EQ(JsonUtils::AsString(Read("\"\"")), "");
  EXPECT_EQ(JsonUtils::AsString(Read("\"a\\u0000b\"")), std::string("a\0b", 3));
  for (const char* text : {"8", "true", "null", "[\"a\"]", "{\"a\":\"b\"}"}) {
    EXPECT_THROW(JsonUtils::AsString(Read(text)), Exception) << text;
  }
}

}  // namespace
