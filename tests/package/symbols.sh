#!/bin/bash
# Compares what the library exports with the list beside this file, and the SONAME with its own.
#   symbols.sh LIBRARY LIST [--update]
set -euo pipefail
exported=$(nm -D --defined-only --format=posix "$1" | awk '$2 != "A" { print $1 }' | sed 's/@.*//' | c++filt | LC_ALL=C sort -u)
if [ "${3:-}" = --update ]; then printf '%s\n' "$exported" >"$2"; exit 0; fi
diff -u "$2" <(printf '%s\n' "$exported") || { echo "exported symbols differ from ${2##*/}"; exit 1; }
readelf -d "$1" | grep -q 'SONAME.*\[libvigila\.so\.1\]' || { echo 'the SONAME is not libvigila.so.1'; exit 1; }
echo "$(wc -l <"$2") symbols, as listed"
