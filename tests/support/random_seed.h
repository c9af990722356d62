#ifndef SUPPORT_RANDOM_SEED_H_
#define SUPPORT_RANDOM_SEED_H_

#include <cstdlib>
#include <iostream>
#include <random>

namespace support {

// A generator whose seed is printed, and taken from $VIGILA_TEST_SEED to repeat a run.
inline std::mt19937 SeededGenerator() {
  const char* given = std::getenv("VIGILA_TEST_SEED");
  const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 0))
                                         : std::random_device()();
  std::cout << "VIGILA_TEST_SEED=" << seed << '\n';
  return std::mt19937(seed);
}

}  // namespace support

#endif  // SUPPORT_RANDOM_SEED_H_
