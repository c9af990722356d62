#!/bin/bash
# Every configuration key that the code reads is in the sample, the manual page and the reference,
# with the same default in all three, and none of them tells of a key that nothing reads.
#   configuration_keys.sh SOURCE_DIR
set -euo pipefail
cd "$1"

read_by_code() {
  find platform applications -name '*.cpp' -exec cat {} + | tr '\n' ' ' |
    grep -oE '(GetString|GetInt|GetBool|GetSize)\( *([A-Za-z:]+, *|"[A-Za-z/]+", *)?"[a-z_]+"' |
    sed -E 's/.*"([a-z_]+)"$/\1/'
  # Read through a table of names.
  grep -ohE '"(service|admin)_groups"' platform/libtevra/tevra/msgbus/caller_roles.cpp | tr -d '"'
}
sample() { sed -nE 's/^#([a-z_]+) = ?(.*)$/\1=\2/p' packaging/config/platform.sample.ini; }
# shellcheck disable=SC2016 # the backticks are the document's
reference() {
  sed -nE 's/^\| `([a-z_]+)` \| (`([^`]*)`|empty) \|.*/\1=\3/p' docs/reference/configuration.md
}
manual() {
  sed -nE 's/^\.BR ([a-z_]+) " \(default: (.*)\)"$/\1=\2/p' docs/man/platform.ini.5 | sed 's/=empty$/=/'
}

[ "$(read_by_code | sort -u | wc -l)" -gt 15 ] || { echo 'the code reads too few keys'; exit 1; }
diff -u <(read_by_code | sort -u) <(sample | cut -d= -f1 | sort -u) || { echo 'the sample differs from the code'; exit 1; }
diff -u <(sample | sort) <(reference | sort) || { echo 'the reference differs from the sample'; exit 1; }
diff -u <(sample | sort) <(manual | sort) || { echo 'the manual page differs from the sample'; exit 1; }
echo "$(sample | wc -l) keys, documented alike"
