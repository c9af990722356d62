#include "utilc/randbytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <vector>

namespace {

TEST(RandBytes, FillsEveryByteAndNothingBehind) {
  std::array<unsigned char, 10> seen{};
  std::array<unsigned char, 12> buffer{};
  for (int i = 0; i < 64; ++i) {
    buffer.fill(0);
    randbytes(buffer.data(), 10);
    EXPECT_EQ(buffer[10], 0);
    EXPECT_EQ(buffer[11], 0);
    for (size_t j = 0; j < 10; ++j) seen[j] = static_cast<unsigned char>(seen[j] | buffer[j]);
  }
  // A byte that stays zero 64 times was not filled.
  EXPECT_EQ(std::count(seen.begin(), seen.end(), 0), 0);
}

TEST(RandBytes, LeavesABufferOfNoLengthAlone) {
  unsigned char byte = 0x5a;
  randbytes(&byte, 0);
  EXPECT_EQ(byte, 0x5a);
  randbytes(nullptr, 0);
}

TEST(RandBytes, FillsMoreThanOneKernelCallGives) {
  // The kernel may cut calls above 256 bytes short.
  std::vector<unsigned char> large(1024 * 1024);
  randbytes(large.data(), large.size());
  for (size_t i = 0; i + 4096 <= large.size(); i += 4096) {
    const auto page = large.begin() + static_cast<std::ptrdiff_t>(i);
    EXPECT_FALSE(std::all_of(page, page + 4096, [](unsigned char b) { return b == 0; })) << i;
  }
}

TEST(RandBytes, NeverRepeats) {
  std::array<unsigned char, 16> first{}, second{};
  randbytes(first.data(), first.size());
  randbytes(second.data(), second.size());
  EXPECT_NE(first, second);
}

}  // namespace
