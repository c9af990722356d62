#!/bin/bash
# clang-tidy with the short list in .clang-tidy over the sources of a build folder (default dev).
# A file whose own text and headers have not changed since it was last clean is not looked at again.
cd "$(dirname "$0")/.." || exit 1
build=${1:-build/dev}
[ -f "$build/compile_commands.json" ] || { echo "tidy: no $build/compile_commands.json; configure first"; exit 2; }
stamps=$build/tidy
mkdir -p "$stamps"
headers=$(git ls-files -co --exclude-standard -- '*.h' .clang-tidy | xargs cat | sha256sum | cut -c1-16)

check() {
  local file=$1 stamp
  stamp=$stamps/$(echo "$headers $(cat "$file")" | sha256sum | cut -c1-32)
  [ -e "$stamp" ] && return 0
  clang-tidy --quiet -p "$build" --warnings-as-errors='*' "$file" 2>/dev/null && touch "$stamp"
}
export -f check
export build stamps headers
git ls-files -- 'applications/*.cpp' 'platform/*.cpp' | xargs -r -P "$(nproc)" -I{} bash -c 'check {}' && echo "tidy: clean"
