#!/bin/bash
# Every configuration key that the code reads is in the sample, the manual page and the reference,
# with the same default in all three, and none of them tells of a key that nothing reads.
#   configuration_keys.sh SOURCE_DIR VIGILAD
set -euo pipefail
cd "$1"
vigilad=$2

# "[Section] key=default", as the daemon knows them.
read_by_code() { "$vigilad" --list-keys | sed -E 's/ = ?/=/'; }
with_sections() { sed -nE '/^\[/h; /^#([a-z_*/]+) = ?(.*)$/{s//\1=\2/;G;s/(.*)\n(.*)/\2 \1/p}' packaging/config/platform.sample.ini; }
# The rules of older releases are described in a sentence.
sample() { with_sections | grep -v '/Rules/' | sed 's/^[^]]*] //'; }
# shellcheck disable=SC2016 # the backticks are the document's
reference() {
  sed -nE 's/^\| `([a-z_]+)` \| (`([^`]*)`|empty) \|.*/\1=\3/p' docs/reference/configuration.md
}
manual() {
  sed -nE 's/^\.BR ([a-z_]+) " \(default: (.*)\)"$/\1=\2/p' docs/man/platform.ini.5 | sed 's/=empty$/=/'
}

[ "$(read_by_code | wc -l)" -gt 15 ] || { echo 'the daemon lists too few keys'; exit 1; }
diff -u <(read_by_code | sort) <(with_sections | sort) || { echo 'the sample differs from the code'; exit 1; }
diff -u <(sample | sort) <(reference | sort) || { echo 'the reference differs from the sample'; exit 1; }
diff -u <(sample | sort) <(manual | sort) || { echo 'the manual page differs from the sample'; exit 1; }

# Whoever takes every "#" away has a configuration that is good.
every_key=$(mktemp)
trap 'rm -f "$every_key"' EXIT
sed -E 's/^#([a-z_*/]+ =)/\1/' packaging/config/platform.sample.ini >"$every_key"
"$vigilad" --config "$every_key" --check-config >/dev/null || { echo 'the daemon refuses the sample'; exit 1; }
echo "$(sample | wc -l) keys, documented alike"
