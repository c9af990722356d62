#include "krand/core/settings_checksum.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace krand::core {
namespace {

TEST(SettingsChecksum, TellsKeyTypeAndValueApart) {
  std::set<std::string> checksums;
  for (const auto& sum :
       {SettingsChecksum::OfRecord("ab", 1, "c"), SettingsChecksum::OfRecord("a", 1, "bc"),
        SettingsChecksum::OfRecord("ab", 2, "c"), SettingsChecksum::OfRecord("", 1, "abc"),
        SettingsChecksum::OfRecord("c", 1, "ab"), SettingsChecksum::OfRecord("ab", 1, "")}) {
    checksums.insert(sum.Bytes());
  }
  EXPECT_EQ(checksums.size(), 6u);
}

TEST(SettingsChecksum, IsAnotherOneForEachOneOrTwoDamagedBits) {
  const std::string value = "{\"Groups\":8,\"Password\":\"c2VjcmV0\"}";
  std::set<std::string> checksums = {SettingsChecksum::OfRecord("user.anna", 2, value).Bytes()};
  size_t variants = 1;
  for (size_t first = 0; first < 8 * value.size(); ++first) {
    for (size_t second = 0; second <= first; ++second, ++variants) {
      std::string damaged = value;
      damaged[first / 8] = static_cast<char>(damaged[first / 8] ^ (1 << (first % 8)));
      if (second != first) {
        damaged[second / 8] = static_cast<char>(damaged[second / 8] ^ (1 << (second % 8)));
      }
      checksums.insert(SettingsChecksum::OfRecord("user.anna", 2, damaged).Bytes());
    }
  }
  EXPECT_EQ(checksums.size(), variants);
}

// It stands in every store: a program that computes another one would find them all damaged.
TEST(SettingsChecksum, IsTheSameInEveryVersionOfTheProgram) {
  EXPECT_EQ(SettingsChecksum::OfBytes("").Text(), "11072670137173121240 6918025063187695999");
}

TEST(SettingsChecksum, OfASetIsTheSameInEveryOrder) {
  const auto a = SettingsChecksum::OfRecord("a", 1, "x");
  const auto b = SettingsChecksum::OfRecord("b", 1, "x");
  SettingsChecksum first, second;
  (first += a) += b;
  (second += b) += a;
  EXPECT_EQ(first, second);
  EXPECT_NE(first, SettingsChecksum());
  (first -= a) -= b;
  EXPECT_EQ(first, SettingsChecksum());
}

TEST(SettingsChecksum, ComesBackFromItsBytesAndFromNoOthers) {
  const auto sum = SettingsChecksum::OfBytes("x");
  EXPECT_EQ(SettingsChecksum::FromBytes(sum.Bytes()), sum);
  EXPECT_FALSE(SettingsChecksum::FromBytes(sum.Bytes().substr(1)));
  EXPECT_FALSE(SettingsChecksum::FromBytes(sum.Bytes() + "x"));
}

}  // namespace
}  // namespace krand::core
