#ifndef BENCHMARKS_SUPPORT_PAIRS_H_
#define BENCHMARKS_SUPPORT_PAIRS_H_

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "benchmarks/support/placement.h"

// How an operation is measured beside what it rests on. The two alternate inside one loop, so that
// whatever else the machine does meets both; the figure is the median of the pairs' ratios, with
// its quartiles. A row says in its name what is measured, in its label what it is compared with,
// and in its counters what table.py prints. In a name, what stands behind a '|' is the size.
namespace benchmarks {

using Clock = std::chrono::steady_clock;

inline double Nanoseconds(Clock::duration duration) {
  return std::chrono::duration<double, std::nano>(duration).count();
}

// Runs something so many times and returns the nanoseconds that one of them took. What has to be
// prepared for a batch is done before its clock starts.
using Batch = std::function<double(int count)>;

// A batch of `operation`, with the clock read twice in all.
template <typename Operation>
Batch Timed(Operation operation) {
  return [operation = std::move(operation)](int count) mutable {
    const auto start = Clock::now();
    for (int i = 0; i < count; ++i) operation();
    return Nanoseconds(Clock::now() - start) / count;
  };
}

// A value below which the given part of all lies.
inline double Quantile(std::vector<double> values, double part) {
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(part * static_cast<double>(values.size() - 1) + 0.5)];
}
inline double Median(const std::vector<double>& values) {
  return Quantile(values, 0.5);
}

struct Row {
  std::string name = {};
  std::string floor = {};             // what it is compared with
  std::optional<double> budget = {};  // of the ratio
  std::optional<double> growth_budget =
      {};  // of the ratio, to that of the smallest size of this name
  double size = 0;
  Placement placement = Placement::kOneCore;
  std::vector<pid_t> servers = {};  // processes that take part
  int count = 0;                    // in a batch; 0: as many as take a fraction of a millisecond
  int pairs = 0;                    // 0: BENCHMARK_PAIRS, else 201
};

inline int DefaultPairs() {
  const char* text = getenv("BENCHMARK_PAIRS");
  return text != nullptr ? std::max(3, atoi(text)) : 201;
}

// As many as take between a quarter and half of a millisecond.
inline int BatchSize(const Batch& batch) {
  int count = 1;
  while (count < 1 << 20 && batch(count) * count < 250e3) count *= 2;
  return count;
}

inline void Measure(benchmark::State& state, const Row& row, const Batch& operation,
                    const Batch& floor) {
  const Placed placed(row.placement, row.servers);
  const int operations = row.count > 0 ? row.count : BatchSize(operation);
  const int floors = row.count > 0 ? row.count : BatchSize(floor);
  std::vector<double> costs, floor_costs, ratios;
  for (auto _ : state) {
    // Which of the two goes first alternates as well.
    const bool operation_first = costs.size() % 2 == 0;
    if (operation_first) costs.push_back(operation(operations));
    floor_costs.push_back(floor(floors));
    if (!operation_first) costs.push_back(operation(operations));
    ratios.push_back(costs.back() / floor_costs.back());
    state.SetIterationTime(costs.back() / 1e9);
  }
  if (ratios.empty()) return;
  state.SetLabel(row.floor);
  state.counters["cost_ns"] = Median(costs);
  state.counters["floor_ns"] = Median(floor_costs);
  state.counters["ratio"] = Median(ratios);
  state.counters["lower"] = Quantile(ratios, 0.25);
  state.counters["upper"] = Quantile(ratios, 0.75);
  state.counters["size"] = row.size;
  if (row.budget) state.counters["budget"] = *row.budget;
  if (row.growth_budget) state.counters["growth_budget"] = *row.growth_budget;
}

// Makes the two batches when the row's turn comes; what they need lives as long as they do. They
// throw std::runtime_error when something does not do what is measured.
using Maker = std::function<std::pair<Batch, Batch>()>;

inline void RegisterPair(const Row& row, const Maker& make) {
  benchmark::RegisterBenchmark(row.name.c_str(),
                               [row, make](benchmark::State& state) {
                                 try {
                                   const auto [operation, floor] = make();
                                   Measure(state, row, operation, floor);
                                 } catch (const std::exception& e) {
                                   state.SkipWithError(e.what());
                                 }
                               })
      ->Iterations(row.pairs > 0 ? row.pairs : DefaultPairs())
      ->UseManualTime();
}

// A figure that is no ratio, measured by `measure` once.
inline void RegisterFigure(const std::string& name, const std::string& unit,
                           std::optional<double> budget, const std::function<double()>& measure) {
  benchmark::RegisterBenchmark(name.c_str(),
                               [unit, budget, measure](benchmark::State& state) {
                                 try {
                                   for (auto _ : state) {
                                     state.counters["value"] = measure();
                                     state.SetIterationTime(1e-9);
                                   }
                                   state.SetLabel(unit);
                                   if (budget) state.counters["budget"] = *budget;
                                 } catch (const std::exception& e) {
                                   state.SkipWithError(e.what());
                                 }
                               })
      ->Iterations(1)
      ->UseManualTime();
}

// Measures what was registered.
inline int RunAll(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

}  // namespace benchmarks

#endif  // BENCHMARKS_SUPPORT_PAIRS_H_
