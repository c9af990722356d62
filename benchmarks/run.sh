#!/bin/bash
# Runs every benchmark, prints the table of docs/performance.md and draws docs/performance.svg: each
# operation beside its floor or peer, measured in turn in one loop. Exits with 1 if a budget is
# missed, with 2 if something could not be measured.
#   benchmarks/run.sh [BUILD_DIR]   default: build/release, configured and built if need be with
#                                   what "tools/install_packages.sh build test full benchmark" installs
#   BENCHMARK_PAIRS=N               default 201; pairs in most rows
#   BENCHMARK_TRIALS=N              default 100000; revocations that are tried
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build/release}
if [ $# -eq 0 ]; then
  cmake --preset release >&2
  cmake --build --preset release --target benchmarks >&2
fi
# The distribution's, which has its modules, whatever else is called python3 here.
python=/usr/bin/python3
"$python" -c 'import matplotlib' || { echo 'run.sh: python3-matplotlib is not installed' >&2; exit 2; }
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
programs=("$build"/benchmarks/*-benchmark)
for program in "${programs[@]}"; do
  name=$(basename "$program" -benchmark)
  [ -f "benchmarks/${name//-/_}_benchmark.cpp" ] || continue  # what an earlier build has left
  echo "benchmark: $name" >&2
  TEVRA_LOG_LEVEL=error "$program" --benchmark_out="$results/$name.json" --benchmark_out_format=json \
    >"$results/$name.log" 2>&1 || { cat "$results/$name.log" >&2; exit 2; }
done
for source in benchmarks/*_benchmark.cpp; do
  name=$(basename "$source" _benchmark.cpp)
  [ -s "$results/${name//_/-}.json" ] || { echo "run.sh: $name was not measured" >&2; exit 2; }
done
status=0
"$python" benchmarks/table.py "$results" || status=$?
[ "$status" -gt 1 ] || "$python" benchmarks/figure.py "$results" docs/performance.svg
exit "$status"
