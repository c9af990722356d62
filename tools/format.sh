#!/bin/bash
# Formats every source file of the project in place.
cd "$(dirname "$0")/.." || exit 1
git ls-files -co --exclude-standard -- '*.cpp' '*.h' '*.c' | xargs -r clang-format -i
