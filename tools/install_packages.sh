#!/bin/bash
# Installs what is missing of the packages that the named sections of tools/packages.txt list.
#   tools/install_packages.sh build|test|full…
# Touches nothing, and needs neither root nor a network, when everything is there.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# = 0 ]; then
  sed -n '2,4s/^# \{0,1\}//p' "$0"
  exit 2
fi
declare -A known=()
while read -r section; do known[$section]=1; done < <(sed -n 's/^\[\(.*\)\]$/\1/p' tools/packages.txt)

wanted=()
for section in "$@"; do
  if [ -z "${known[$section]:-}" ]; then
    echo "install_packages: no section [$section] in tools/packages.txt" >&2
    exit 2
  fi
  while read -r package; do wanted+=("$package"); done < <(
    awk -v section="[$section]" '/^\[/ { here = $0 == section; next } here && !/^#/ && NF { print $1 }' \
      tools/packages.txt)
done

installed=$(dpkg-query -W -f '${db:Status-Abbrev} ${Package}\n' 2>/dev/null | awk '$1 == "ii" { print $2 }' | sort -u)
missing=()
for package in "${wanted[@]}"; do
  grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
done
[ ${#missing[@]} = 0 ] && exit 0

as_root=()
if [ "$(id -u)" != 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "install_packages: root or sudo is needed to install: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi
echo "Installing: ${missing[*]}"
"${as_root[@]}" apt-get -qq update
"${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -y --no-install-recommends install "${missing[@]}" >/dev/null
