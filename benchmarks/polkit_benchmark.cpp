// The question that a program would otherwise put to polkit: may this process do that? One thread,
// over a broker of the benchmark's own. Measures nothing when polkit is not installed.
#include <benchmark/benchmark.h>

#include <memory>

#include "benchmarks/support/polkit_daemon.h"

namespace {

std::unique_ptr<benchmarks::PolkitDaemon> polkit;

void CheckAuthorization(benchmark::State& state) {
  for (auto _ : state) {
    if (!polkit->CheckAuthorization()) state.SkipWithError("no answer");
  }
}

}  // namespace

int main(int argc, char** argv) {
  polkit = benchmarks::PolkitDaemon::Start();
  if (polkit) {
    benchmark::RegisterBenchmark("CheckAuthorization", CheckAuthorization)->UseRealTime();
  }
  benchmark::Initialize(&argc, argv);
  benchmark::RunSpecifiedBenchmarks();
  polkit.reset();
}
