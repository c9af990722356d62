// The nonce cache with one nonce and when it is full, beside a look-up in a map of as many nonces
// with one clock read.
#include <benchmark/benchmark.h>

#include <chrono>
#include <map>
#include <mutex>
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

void Check(benchmark::State& state) {
  tevra::osa::SystemTimeSource clock;
  vigila::server::NonceCache cache(&clock);
  for (int64_t i = 0; i < state.range(0); ++i) cache.Has(Nonce(i));
  const std::string nonce = Nonce(state.range(0) / 2);
  for (auto _ : state) {
    const bool rejected = cache.CheckNonceAndCount(nonce, "");
    if (rejected) state.SkipWithError("rejected");
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
  std::map<std::string, int> nonces;
  for (int64_t i = 0; i < state.range(0); ++i) nonces[Nonce(i)] = 1;
  const std::string nonce = Nonce(state.range(0) / 2);
  std::mutex mutex;
  for (auto _ : state) {
    const std::lock_guard<std::mutex> lock(mutex);
    benchmark::DoNotOptimize(std::chrono::system_clock::now());
    benchmark::DoNotOptimize(nonces.find(nonce));
  }
}
BENCHMARK(FloorMapLookup)->Arg(1)->Arg(1024);

}  // namespace

BENCHMARK_MAIN();
