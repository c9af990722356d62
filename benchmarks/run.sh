#!/bin/bash
# Runs every benchmark and prints docs/performance.md's table: each operation beside its floor or
# peer of the same run, the ratio, and whether it is within its budget. Exits 1 if one is not.
#   benchmarks/run.sh [BUILD_DIR]      default: build/release, configured and built if need be with
#                                      what "tools/install_packages.sh build test full" installs
#   BENCHMARK_REPETITIONS=N            default 15, interleaved; the table holds the best of them
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
if [ $# -eq 0 ]; then
  cmake --preset release >&2
  cmake --build --preset release --target benchmarks >&2
fi
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
for program in "$build"/benchmarks/*-benchmark; do
  name=$(basename "$program" -benchmark)
  echo "benchmark: $name" >&2
  TEVRA_LOG_LEVEL=error "$program" --benchmark_out="$results/$name.json" \
    --benchmark_out_format=json --benchmark_repetitions="${BENCHMARK_REPETITIONS:-15}" \
    --benchmark_min_time=0.05 --benchmark_enable_random_interleaving=true \
    >"$results/$name.log" 2>&1 ||
    { cat "$results/$name.log" >&2; exit 2; }
done
python3 benchmarks/table.py "$results"
