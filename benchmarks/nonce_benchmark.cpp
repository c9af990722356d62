// The nonce cache with one nonce and when it is full, beside a look-up in a map of as many nonces
// with one clock read.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "tevra/osa/time.h"
#include "vigila/server/nonce_cache.h"

namespace {

std::string Nonce(int64_t number) {
  char text[33];
  snprintf(text, sizeof(text), "%032llx",
           static_cast<unsigned long long>(number) * 0x9E3779B97F4A7C15ull);
  return text;
}

// `count` nonces in no order that a cache could learn.
std::vector<std::string> Nonces(int64_t count) {
  std::vector<std::string> nonces;
  for (int64_t i = 0; i < count; ++i) nonces.push_back(Nonce(i));
  std::shuffle(nonces.begin(), nonces.end(), std::mt19937(1));
  return nonces;
}

void Check(benchmark::State& state) {
  tevra::osa::SystemTimeSource clock;
  vigila::server::NonceCache cache(&clock);
  const std::vector<std::string> nonces = Nonces(state.range(0));
  for (const std::string& nonce : nonces) cache.Has(nonce);
  std::size_t next = 0;
  for (auto _ : state) {
    const bool rejected = cache.CheckNonceAndCount(nonces[next], "");
    if (rejected) state.SkipWithError("rejected");
    if (++next == nonces.size()) next = 0;
  }
}
BENCHMARK(Check)->Arg(1)->Arg(1024);

// Every new nonce pushes the oldest out.
void AddToAFullCache(benchmark::State& state) {
  tevra::osa::SystemTimeSource clock;
  vigila::server::NonceCache cache(&clock);
  int64_t number = 0;
  while (number < 1025) cache.Has(Nonce(++number));
  for (auto _ : state) benchmark::DoNotOptimize(cache.Has(Nonce(++number)));
}
BENCHMARK(AddToAFullCache);

void FloorMapLookup(benchmark::State& state) {
  const std::vector<std::string> asked = Nonces(state.range(0));
  std::map<std::string, int> nonces;
  for (const std::string& nonce : asked) nonces[nonce] = 1;
  std::size_t next = 0;
  std::mutex mutex;
  for (auto _ : state) {
    const std::lock_guard<std::mutex> lock(mutex);
    benchmark::DoNotOptimize(std::chrono::system_clock::now());
    benchmark::DoNotOptimize(nonces.find(asked[next]));
    if (++next == asked.size()) next = 0;
  }
}
BENCHMARK(FloorMapLookup)->Arg(1)->Arg(1024);

}  // namespace

BENCHMARK_MAIN();
