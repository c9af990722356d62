#!/bin/bash
# The manual pages tell of every verb and every option that the programs have, and of no other verb.
#   manual.sh SOURCE_DIR VIGILACTL VIGILAD
set -euo pipefail
cd "$1"
vigilactl=$2 vigilad=$3

offered() { "$vigilactl" complete "$@" | tail -n +2 | cut -f 1; }
verbs() {
  local noun
  for noun in $(offered ''); do
    if [ -n "$(offered help "$noun" '')" ]; then offered help "$noun" '' | sed "s/^/$noun /"; else echo "$noun"; fi
  done
}
# A verb stands in the line behind .TP; what it takes is in capitals or in brackets.
described() {
  sed -n '/^\.SH VERBS/,/^\.SH OUTPUT/p' docs/man/vigilactl.1 | sed 's/\\-/-/g' |
    awk 'behind { print } { behind = /^\.TP/ }' | sed -nE 's/^\.BI? "?([a-z-]+( [a-z]+)?).*/\1/p'
}
mentions() { # page option
  sed 's/\\-/-/g' "docs/man/$1" | grep -E -- "(^|[^a-z-])$2([^a-z-]|\$)" >/dev/null ||
    { echo "$1 is silent about $2"; exit 1; }
}

[ "$(verbs | wc -l)" -gt 20 ] || { echo 'the program offers too few verbs'; exit 1; }
diff -u <(verbs | sort) <(described | sort) || { echo 'vigilactl(1) differs from the program'; exit 1; }
while read -ra verb; do
  for option in $(offered "${verb[@]}" --); do mentions vigilactl.1 "$option"; done
done < <(verbs)
for option in $("$vigilad" --help | grep -oE -- '--[a-z-]+' | sort -u); do mentions vigilad.8 "$option"; done
echo "$(verbs | wc -l) verbs, described alike"
