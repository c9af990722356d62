#!/bin/bash
# Installs the build into a folder of its own and builds a C and a C++ program against it as a user
# would, then asks a running daemon with both.
#   consumers.sh SOURCE_DIR BUILD_DIR VIGILAD
set -euo pipefail
source_dir=$1 build_dir=$2 vigilad=$3
work=$(mktemp -d)
daemon=
cleanup() { [ -z "$daemon" ] || { kill "$daemon"; wait "$daemon" || true; } 2>/dev/null; rm -rf "$work"; }
trap cleanup EXIT
fail() { echo "package: $1" >&2; exit 1; }

cmake --install "$build_dir" --prefix "$work/usr" >"$work/install.log" || { cat "$work/install.log"; fail 'install'; }
libdir=$(dirname "$(find "$work/usr" -name libvigila-client.so)")
export PKG_CONFIG_PATH=$libdir/pkgconfig LD_LIBRARY_PATH=$libdir
grep -rlE "$source_dir|$build_dir" "$libdir/pkgconfig" "$libdir/cmake" "$work/usr/include" && fail 'an installed file names the source tree'

# Installed headers: what callers need, each alone, in the language it is for.
while read -r header; do
  echo "#include \"$header\"" >"$work/one.cpp"
  g++ -std=c++17 -fsyntax-only -I"$work/usr/include" "$work/one.cpp" || fail "$header does not stand alone"
  grep -q '#include "tevra\|#include "krand' "$work/usr/include/$header" && fail "$header pulls in the platform"
done < <(cd "$work/usr/include" && find vigila -name '*.h')
for header in vigila.h vigila_xml_c.h; do
  echo "#include <vigila/client/$header>" >"$work/one.c"
  gcc -std=c89 -pedantic -Wall -Wextra -Werror -fsyntax-only -I"$work/usr/include" "$work/one.c" || fail "$header is not C89"
done

# shellcheck disable=SC2046 # pkg-config answers with words
gcc -std=c89 -pedantic -Wall "$source_dir/examples/c_client/c_client.c" $(pkg-config --cflags --libs vigila) -o "$work/c_client" || fail 'the C program with pkg-config'
cp "$source_dir/tests/package/consumer/"* "$work/"
cmake -S "$work" -B "$work/build" -DCMAKE_PREFIX_PATH="$work/usr" >"$work/cmake.log" 2>&1 &&
  cmake --build "$work/build" >>"$work/cmake.log" 2>&1 || { cat "$work/cmake.log"; fail 'the C++ program with find_package'; }

# Both ask a daemon whose store is empty: nobody may reach /system, and no logon succeeds.
mkdir "$work/run" "$work/store"
printf '[MsgBus]\nruntime_dir=%s\n[Settings]\ndirectory=%s\n' "$work/run" "$work/store" >"$work/platform.ini"
export TEVRA_PLATFORM_CONFIG=$work/platform.ini
"$vigilad" --config "$work/platform.ini" & daemon=$!
answer=
for _ in $(seq 400); do
  answer=$(echo wrong | "$work/c_client" nobody-there /system 2>/dev/null || true)
  [ "$answer" = 'nobody-there may reach /system' ] && break
  kill -0 "$daemon" 2>/dev/null || break
  sleep 0.05
done
[ "$answer" = 'nobody-there may reach /system' ] || fail "the C program answered: $answer"
answer=$("$work/build/consumer" /inject.cgi /system || true)
[ "$answer" = $'/inject.cgi protected refused\n/system open granted' ] || fail "the C++ program answered: $answer"
echo 'both programs built and answered'
