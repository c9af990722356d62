#include "vigila/contract/result_tokens.h"

#include <gtest/gtest.h>

namespace vigila::contract {
namespace {

TEST(IsSessionToken, TakesEightUpperCaseHexDigitsOnly) {
  EXPECT_TRUE(IsSessionToken("00000001"));
  EXPECT_TRUE(IsSessionToken("2468ACEF"));
  for (const char* answer : {"", "NO_TOKEN", "_EXPIRED", "DISABLED", "NODIGEST", "1234567",
                             "123456789", "2468acef", "1234567G", "1234567 "}) {
    EXPECT_FALSE(IsSessionToken(answer)) << answer;
  }
}

TEST(IsSessionToken, TakesNoneOfTheTextsInItsPlace) {
  for (const char* answer : {kNoToken, kExpiredToken, kDisabledToken, kNoDigestToken}) {
    EXPECT_FALSE(IsSessionToken(answer)) << answer;
  }
}

}  // namespace
}  // namespace vigila::contract
