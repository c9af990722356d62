#!/bin/bash
# The broker's policy file must grant each role exactly what the daemon's own table grants it.
#   dbus_policy.sh SOURCE_DIR VIGILAD
set -euo pipefail
vigilad=$2
policy=$1/packaging/dbus/tevra.SecurityProvider.conf

# "role operation", as the daemon checks it; the administration is granted as a whole, for the daemon
# asks for the person behind each call.
served() { "$vigilad" --list-operations | awk '$2 !~ /IAdministration/ { print $1, $3 }'; }
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
for interface in Introspectable Peer Properties; do
  [ "$(grep -c "send_interface=\"org.freedesktop.DBus.$interface\"/>" "$policy")" = 4 ] ||
    { echo "$interface is not granted to the two roles at both names"; exit 1; }
done
grep -q '<deny send_destination="tevra.SecurityProvider"/>' "$policy" || { echo 'not denied by default'; exit 1; }
echo "$(served | wc -l) operations, as the daemon grants them"
