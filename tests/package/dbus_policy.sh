#!/bin/bash
# The broker's policy file must grant each role exactly what the daemon's own table grants it.
#   dbus_policy.sh SOURCE_DIR
set -euo pipefail
source_dir=$1
policy=$source_dir/packaging/dbus/tevra.SecurityProvider.conf

# "role operation", as the daemon checks it.
served() {
  tr '\n' ' ' <"$source_dir/platform/libtevra/tevra/interfaces/security_provider_server.cpp" |
    grep -oE 'Serve<&ISecurityProvider::[A-Za-z]+>\( *"[A-Za-z]+", *Audience::k[A-Za-z]+' |
    sed -E 's/.*"([A-Za-z]+)", *Audience::kService.*/service \1/; s/.*"([A-Za-z]+)", *Audience::kAdmin.*/admin \1/'
  echo 'service getAccessRule'
  echo 'admin setAccessRule'
}
# The same, as the policy file grants it to its groups.
granted() {
  tr '\n' ' ' <"$policy" | grep -oE '<policy group="[a-z-]+">.*' | sed 's/<policy/\n<policy/g' |
    while read -r line; do
      role=
      case $line in
        '<policy group="vigila-clients"'*) role='service' ;;
        '<policy group="vigila-admins"'*) role='admin' ;;
      esac
      [ -z "$role" ] || grep -oE 'send_member="[A-Za-z]+"' <<<"$line" | sed -E "s/.*\"(.*)\"/$role \1/"
    done
}

[ "$(served | wc -l)" -gt 20 ] || { echo "the daemon's table was not found"; exit 1; }
diff -u <(served | sort) <(granted | sort) || { echo "${policy##*/} differs from the daemon's table"; exit 1; }
[ "$(grep -c 'send_interface="tevra.interfaces.IAdministration1"/>' "$policy")" = 2 ] ||
  { echo 'the administration is not granted to the two roles'; exit 1; }
grep -q '<deny send_destination="tevra.SecurityProvider"/>' "$policy" || { echo 'not denied by default'; exit 1; }
echo "$(served | wc -l) operations, as the daemon grants them"
