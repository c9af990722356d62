#!/bin/bash
# Builds and tests everything, on a fresh Debian 12 machine as well.
#   ./test.sh           installs what is missing; style, process and package tests, every test under
#                       the sanitizers
#   ./test.sh --quick   the inner loop: dev build, unit and conformance tests
# The soak test runs in a short form; ten minutes of it, after ./test.sh:
#   VIGILA_SOAK_SECONDS=600 ctest --test-dir build/dev -L soak --verbose
set -euo pipefail
cd "$(dirname "$0")"

quick=0
case "${1:-}" in
  --quick) quick=1 ;;
  '') ;;
  *) sed -n '2,7s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac

jobs=$(nproc)
# The same sources in another folder compile from the cache as well.
export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros
export CTEST_OUTPUT_ON_FAILURE=1
step() { printf '\n== %s (%ds)\n' "$1" "$SECONDS"; }
build() { # preset [target…]
  local preset=$1; shift
  cmake --preset "$preset" >"build/configure-$preset.log" 2>&1 || { cat "build/configure-$preset.log"; return 1; }
  cmake --build --preset "$preset" -j "$jobs" ${1:+--target "$@"} | grep -vE '^\[[0-9]+/[0-9]+\] (Building|Linking|Generating|Running)' || [ "${PIPESTATUS[0]}" = 0 ]
}
run_tests() { # preset ctest-arguments…
  local preset=$1; shift
  ctest --test-dir "build/$preset" -j "$jobs" --no-tests=error "$@"
}

mkdir -p build
step 'packages'
if [ "$quick" = 1 ]; then tools/install_packages.sh build test; else tools/install_packages.sh build test full; fi

step 'dev: build'
if [ "$quick" = 1 ]; then
  build dev
  step 'dev: unit and conformance tests'
  run_tests dev -L 'unit|conformance|corpus'
  exit 0
fi
build dev programs

step 'style'
tools/check_style.sh
step 'dev: processes, packages, live clients, what no sanitizer follows'
run_tests dev -L 'process|package|live|plain'

step 'address and undefined-behaviour sanitizers: build'
build asan
step 'address and undefined-behaviour sanitizers: tests'
run_tests asan -LE 'package|live'

step 'thread sanitizer: build'
build tsan threads
step 'thread sanitizer: tests'
run_tests tsan -L threads

printf '\nEverything passed in %d s.\n' "$SECONDS"
