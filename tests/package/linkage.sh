#!/bin/bash
# Looks at how programs and libraries are linked: all of them with every symbol bound at the start
# and the table of symbols read-only from then on, the client library without what only the server
# needs, and no library with an export for what it took from the standard library's templates.
#   linkage.sh CLIENT_LIBRARY FILE…
set -euo pipefail
client=$1
fail() { echo "package: $1" >&2; exit 1; }
for file in "$@"; do
  dynamic=$(readelf --wide --dynamic "$file") segments=$(readelf --wide --segments "$file")
  grep -q GNU_RELRO <<<"$segments" || fail "$file: the table of symbols stays writable"
  grep -qE '(FLAGS\).*BIND_NOW|FLAGS_1\).*NOW)' <<<"$dynamic" || fail "$file: symbols are bound late"
  [[ $file != *.so* ]] || ! nm --dynamic --defined-only "$file" | grep -E ' _ZN?K?St' ||
    fail "$file: exports what it took from the standard library"
done
loaded=$(ldd "$client")
grep -q 'libtevra' <<<"$loaded" || fail "ldd does not tell what $client loads"
grep -E 'libcrypto|libssl|libpcre|libboost|libsqlite3' <<<"$loaded" && fail "$client loads what only the server needs"
echo "$# files, all bound at the start"
