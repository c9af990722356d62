#!/bin/bash
# Brings the device up on this machine and shows its main job, on a fresh Debian 12 as well.
#   ./run.sh          installs what is missing, builds, starts vigilad with an empty store, gives
#                     the tour with vigilactl, and stays up until Ctrl-C
#   ./run.sh --once   the same in a fresh directory of its own, and ends after the tour
# The device lives in .device/ beside this file, or in $VIGILA_HOME.
set -euo pipefail
cd "$(dirname "$0")"

case "${1:-}" in
  --once|'') ;;
  *) sed -n '2,7s/^# \{0,1\}//p' "$0"; exit 2 ;;
esac

tools/install_packages.sh build

mkdir -p build
log=build/run.log
targets=(vigilad vigilactl vigila-gateway vigila_example_c_client)
if [ ! -f build/run/build.ninja ]; then
  echo 'Building (the first time takes a few minutes) …'
  cmake --preset run >"$log" 2>&1 || { cat "$log"; exit 1; }
fi
cmake --build --preset run -j "$(nproc)" --target "${targets[@]}" >"$log" 2>&1 || { tail -n 60 "$log"; exit 1; }

exec tools/tour.sh build/run ${1:+"$1"}
