#!/bin/bash
# Makes the Debian packages of the build and looks at them as dpkg would.
#   debian.sh BUILD_DIR
set -euo pipefail
build_dir=$1
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "package: $1" >&2; exit 1; }

(cd "$build_dir" && cpack -G DEB -B "$work") >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail 'cpack'; }
runtime=$(echo "$work"/vigila_*.deb) development=$(echo "$work"/libvigila-dev_*.deb)
python=$(echo "$work"/python3-vigila_*_all.deb)
dpkg-deb --extract "$runtime" "$work/root"
dpkg-deb --extract "$development" "$work/root-dev"
dpkg-deb --extract "$python" "$work/root-python"
dpkg-deb --control "$runtime" "$work/control"
dpkg-deb --control "$python" "$work/control-python"

for file in usr/sbin/vigilad usr/bin/vigilactl usr/sbin/vigila-gateway etc/tevra/platform.ini \
  usr/lib/sysusers.d/vigila.conf usr/share/dbus-1/system.d/tevra.SecurityProvider.conf \
  usr/share/dbus-1/interfaces/tevra.interfaces.ISecurityProvider.xml \
  usr/share/dbus-1/interfaces/tevra.interfaces.IAdministration1.xml \
  usr/share/dbus-1/interfaces/krand.interfaces.PermissionTarget.xml \
  usr/share/man/man8/vigilad.8 usr/share/bash-completion/completions/vigilactl \
  usr/share/zsh/vendor-completions/_vigilactl usr/share/fish/vendor_completions.d/vigilactl.fish; do
  [ -f "$work/root/$file" ] || fail "$file is missing"
done
grep -qx 'ExecStart=/usr/sbin/vigilad' "$work/root/usr/lib/systemd/system/vigilad.service" || fail 'the unit starts another program'
[ ! -e "$work/root/usr/etc" ] && [ ! -e "$work/root/usr/include" ] || fail 'files of another package or place'
[ -f "$work/root-dev/usr/include/vigila/client/vigila.h" ] || fail 'the header is missing'
modules=$work/root-python/usr/lib/python3/dist-packages
[ -f "$modules/vigila/py.typed" ] || fail 'the Python module is not typed'
[ "$(find "$work/root-python" -type f | grep -cv '/vigila/[a-z_]*\.py$')" = 1 ] || fail 'python3-vigila holds more than the module'
find "$work/root" "$work/root-dev" -name '*.py' | grep . && fail 'Python in another package'
grep -rlF "$build_dir" "$work/root" "$work/root-dev" "$work/root-python" && fail 'an installed file names the build'

grep -qx /etc/tevra/platform.ini "$work/control/conffiles" || fail 'an upgrade would overwrite the configuration'
grep -q '^Depends:.*libsystemd0' "$work/control/control" || fail 'no dependency on the libraries it is linked with'
dpkg-deb --field "$development" Depends | grep -q '^vigila (= ' || fail 'headers may differ from the library'
dpkg-deb --field "$python" Depends | grep -q 'vigila (>= ' || fail 'the module may come without the library'
for script in control/postinst control/prerm control/postrm control-python/postinst control-python/prerm; do
  sh -n "$work/$script" || fail "$script"
done

LD_LIBRARY_PATH=$(dirname "$(find "$work/root" -name 'libvigila.so.*' | head -n 1)")
export LD_LIBRARY_PATH
"$work/root/usr/sbin/vigilad" --version

# The module finds the installed library; nothing is served, so nothing is answered.
printf '[MsgBus]\nruntime_dir=%s\n' "$work" >"$work/platform.ini"
TEVRA_PLATFORM_CONFIG=$work/platform.ini PYTHONPATH=$modules /usr/bin/python3 -B - <<'END' || fail 'the Python module'
import vigila

with vigila.Client() as client:
    assert not client.authorize("NO_TOKEN", "/system")
    try:
        client.authenticate("admin", "secret")
    except vigila.Unavailable:
        raise SystemExit(0)
raise SystemExit(1)
END
