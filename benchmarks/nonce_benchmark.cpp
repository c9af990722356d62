// The nonce cache with one nonce and when it is full, beside a look-up of as many nonces in the
// same hash table.
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/hash_table.h"
#include "benchmarks/support/pairs.h"
#include "tevra/osa/time.h"
#include "vigila/server/nonce_cache.h"

namespace {

using benchmarks::Batch;
using benchmarks::LookUps;
using benchmarks::Round;
using benchmarks::Timed;

std::string Nonce(uint64_t number) {
  char text[33];
  snprintf(text, sizeof(text), "%032llx",
           static_cast<unsigned long long>(number) * 0x9E3779B97F4A7C15ull);
  return text;
}

std::vector<std::string> Nonces(size_t count) {
  std::vector<std::string> nonces;
  for (size_t i = 0; i < count; ++i) nonces.push_back(Nonce(i));
  return nonces;
}

// A cache and the clock that it borrows.
struct Cache {
  tevra::osa::SystemTimeSource clock;
  vigila::server::NonceCache nonces{&clock};
};

std::shared_ptr<Cache> CacheOf(const std::vector<std::string>& nonces) {
  auto cache = std::make_shared<Cache>();
  for (const std::string& nonce : nonces) cache->nonces.Has(nonce);
  return cache;
}

std::pair<Batch, Batch> Check(size_t count) {
  const std::vector<std::string> nonces = Nonces(count);
  return {Timed([cache = CacheOf(nonces), round = Round(nonces)]() mutable {
            if (cache->nonces.CheckNonceAndCount(round.Next(), "")) {
              throw std::runtime_error("rejected");
            }
          }),
          LookUps(nonces)};
}

// Every new nonce pushes the oldest out.
std::pair<Batch, Batch> AddToAFullCache() {
  const std::vector<std::string> nonces = Nonces(1025);
  return {Timed([cache = CacheOf(nonces), number = uint64_t{1025}]() mutable {
            if (cache->nonces.Has(Nonce(++number))) throw std::runtime_error("known");
          }),
          LookUps(nonces)};
}

}  // namespace

int main(int argc, char** argv) {
  for (const size_t count : {1, 32, 1024}) {
    benchmarks::RegisterPair({.name = "nonce check|" + std::to_string(count),
                              .floor = "a look-up in the same hash table",
                              .growth_budget = 1.5,
                              .size = static_cast<double>(count)},
                             [count] { return Check(count); });
  }
  benchmarks::RegisterPair(
      {.name = "new nonce, full cache", .floor = "a look-up in the same hash table"},
      AddToAFullCache);
  return benchmarks::RunAll(argc, argv);
}
