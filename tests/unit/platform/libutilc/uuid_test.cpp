#include "utilc/uuid.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <string>

namespace {

constexpr char kText[] = "01234567-89ab-cdef-0123-456789abcdef";
constexpr _uuid_t kUuid = {{0x01, 0x23, 0x45, 0x67, 0x89, 0xab, 0xcd, 0xef, 0x01, 0x23, 0x45, 0x67,
                            0x89, 0xab, 0xcd, 0xef}};

std::string Print(const _uuid_t& uuid) {
  char text[37];
  uuid_sprint(&uuid, text);
  return text;
}

TEST(Uuid, CreatesVersionFourWithTheStandardVariant) {
  for (int i = 0; i < 100; ++i) {
    _uuid_t uuid = {};
    uuid_create(&uuid);
    EXPECT_EQ(uuid.bytes[6] >> 4, 4);
    EXPECT_EQ(uuid.bytes[8] >> 6, 2);
  }
}

TEST(Uuid, NeverCreatesTheSameTwice) {
  std::set<_uuid_t> seen;
  for (int i = 0; i < 1000; ++i) {
    _uuid_t uuid = {};
    uuid_create(&uuid);
    EXPECT_TRUE(seen.insert(uuid).second);
  }
}

TEST(Uuid, ReadsPlainAndBracedTextOfEitherCase) {
  const std::string accepted[] = {kText, "{" + std::string(kText) + "}",
                                  "01234567-89AB-CDEF-0123-456789ABCDEF",
                                  "{01234567-89Ab-cDeF-0123-456789aBcDeF}"};
  for (const std::string& text : accepted) {
    _uuid_t uuid = {};
    EXPECT_EQ(uuid_scan(text.c_str(), &uuid), 0) << text;
    EXPECT_EQ(uuid, kUuid) << text;
  }
}

TEST(Uuid, RefusesEverythingElseAndLeavesTheResultUntouched) {
  const std::string plain = kText;
  const std::string refused[] = {"",
                                 "{",
                                 "{}",
                                 plain.substr(0, 35),
                                 plain + "0",
                                 plain + " ",
                                 " " + plain,
                                 plain + "}",
                                 "{" + plain,
                                 "{" + plain + "}}",
                                 "{{" + plain + "}}",
                                 "{" + plain + "} ",
                                 "0123456789abcdef0123456789abcdef",
                                 "01234567-89ab-cdef-0123-456789abcdeg",
                                 "01234567-89ab-cdef-0123 456789abcdef",
                                 "0123456-789ab-cdef-0123-456789abcdef",
                                 "01234567-89ab-cdef-0123-+56789abcdef",
                                 "01234567-89ab-cdef-0123-456789abcd\xc3\xa9"};
  for (const std::string& text : refused) {
    _uuid_t uuid = {{9, 9, 9}};
    const _uuid_t before = uuid;
    EXPECT_EQ(uuid_scan(text.c_str(), &uuid), -1) << text;
    EXPECT_EQ(uuid, before) << text;
  }
}

TEST(Uuid, RefusesNoText) {
  _uuid_t uuid = kUuid;
  EXPECT_EQ(uuid_scan(nullptr, &uuid), -1);
  EXPECT_EQ(uuid, kUuid);
}

TEST(Uuid, NeverReadsBehindTheEndOfTheText) {
  // Every proper prefix, in a buffer of its own size for the address sanitizer.
  const std::string braced = "{" + std::string(kText) + "}";
  for (size_t length = 0; length < braced.size(); ++length) {
    const std::unique_ptr<char[]> exact(new char[length + 1]);
    braced.copy(exact.get(), length);
    exact[length] = '\0';
    _uuid_t uuid = {};
    EXPECT_EQ(uuid_scan(exact.get(), &uuid), -1) << length;
  }
}

TEST(Uuid, PrintsLowerCaseWithoutBraces) {
  EXPECT_EQ(Print(kUuid), kText);
}

TEST(Uuid, ReadsWhatItPrints) {
  _uuid_t uuid = {}, again = {};
  uuid_create(&uuid);
  ASSERT_EQ(uuid_scan(Print(uuid).c_str(), &again), 0);
  EXPECT_EQ(uuid, again);
}

TEST(Uuid, PrintsThroughAFormatLikeSnprintf) {
  const char* const format =
      "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx"
      "%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx";
  char text[33];
  EXPECT_EQ(uuid_sprintf(&kUuid, format, text, sizeof(text)), 32);
  EXPECT_STREQ(text, "0123456789abcdef0123456789abcdef");

  char small[5] = "....";
  EXPECT_EQ(uuid_sprintf(&kUuid, format, small, sizeof(small)), 32);
  EXPECT_STREQ(small, "0123");
}

TEST(Uuid, ComparesBytesAsUnsigned) {
  const _uuid_t low = {{0x7f}}, high = {{0x80}};
  EXPECT_LT(uuid_compare(&low, &high), 0);
  EXPECT_GT(uuid_compare(&high, &low), 0);
  EXPECT_EQ(uuid_compare(&low, &low), 0);
  _uuid_t last = low;
  last.bytes[15] = 1;
  EXPECT_LT(low, last);
  EXPECT_FALSE(last < low);
}

}  // namespace
