#!/bin/bash
# Compares the classes and C functions that a library exports with its list beside this file, and its
# SONAME with the promised one.
#   symbols.sh LIBRARY LIST [--update]
set -euo pipefail
exported=$(nm -D --defined-only --format=posix "$1" | awk '$2 != "A" { print $1 }' | sed 's/@.*//' | c++filt |
  sed -E 's/^(typeinfo name|typeinfo|vtable) for //; s/^((vigila|tevra)(::[a-z]+)+::[A-Za-z0-9]+)(::.*)?$/\1/' |
  LC_ALL=C sort -u)
if [ "${3:-}" = --update ]; then printf '%s\n' "$exported" >"$2"; exit 0; fi
diff -u "$2" <(printf '%s\n' "$exported") || { echo "the exports differ from ${2##*/}"; exit 1; }
soname=$(basename "$1" | sed 's/\.so.*/.so.1/')
readelf -d "$1" | grep -qF "SONAME" && readelf -d "$1" | grep -qF "[$soname]" || { echo "the SONAME is not $soname"; exit 1; }
echo "$(wc -l <"$2") classes and functions, as listed"
