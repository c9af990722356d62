#!/bin/bash
# Installs the package on a device of its own: an overlay of this machine's files in name spaces, with
# systemd as the first process. Kills both services ten times, reinstalls, removes and purges.
#   units.sh BUILD_DIR
# Exits with 77, and says why, where this machine cannot boot such a device.
set -euo pipefail
build_dir=$1
skip() { echo "package-units: skipped, $1"; exit 77; }
fail() { echo "package-units: $1" >&2; exit 1; }

# --- a mount name space: what is mounted in it goes with its last process -----------------------------

if [ -z "${VIGILA_UNITS_WORK:-}" ]; then
  [ "$(id -u)" = 0 ] || skip 'only root can boot a device'
  [ -x /lib/systemd/systemd ] || skip 'systemd is not installed'
  [ -z "$(dpkg-query -W -f '${db:Status-Abbrev}' vigila 2>/dev/null)" ] || skip 'this machine has the package itself'
  unshare --mount --pid --fork --kill-child --cgroup --net --uts --ipc true 2>/dev/null || skip 'name spaces are not allowed'
  VIGILA_UNITS_WORK=$(mktemp -d)
  export VIGILA_UNITS_WORK
  trap 'rmdir "$VIGILA_UNITS_WORK"' EXIT
  status=0
  # Earlier than the deadline that the caller sets, so that the device is taken down in order.
  timeout --kill-after=20 150 unshare --mount --propagation private "$0" "$build_dir" || status=$?
  [ "$status" != 124 ] || fail 'not done after 150 s'
  exit "$status"
fi

work=$VIGILA_UNITS_WORK root=$VIGILA_UNITS_WORK/root upper=$VIGILA_UNITS_WORK/upper
group=$work/groups/${work##*/}
device='' init=''
inside() { nsenter --target "$init" --mount --uts --ipc --net --pid --cgroup --root --wd env -i LC_ALL=C PATH=/usr/sbin:/usr/bin:/sbin:/bin "$@"; }
eventually() { local try; for ((try = 0; try < 400; try++)); do if "$@"; then return 0; fi; sleep 0.05; done; return 1; }
group_is_gone() { [ ! -d "$group" ] || find "$group" -depth -type d -exec rmdir {} + 2>/dev/null; }
# shellcheck disable=SC2317  # called by the trap
take_down() {
  local status=$?
  trap '' TERM INT
  if [ "$status" != 0 ] && [ "$status" != 77 ] && [ -n "$init" ]; then
    inside journalctl --quiet --no-pager --lines=60 >&2 || true
  fi
  if [ -n "$device" ]; then
    # The first process of a process name space takes all others along.
    kill -KILL "$device" 2>/dev/null || true
    wait "$device" 2>/dev/null || true
  fi
  eventually group_is_gone || { echo "package-units: $group stays" >&2; status=1; }
  exit "$status"
}
trap take_down EXIT
trap 'exit 143' TERM INT

mount -t tmpfs -o mode=0755 tmpfs "$work" 2>/dev/null || skip 'mounting is not allowed'
mkdir "$root" "$upper" "$work/overlay" "$work/groups" "$work/packages"
mount -t overlay -o "lowerdir=/,upperdir=$upper,workdir=$work/overlay" overlay "$root" || skip 'the files of this machine cannot be overlaid'
[ -x "$root/lib/systemd/systemd" ] && [ -f "$root/var/lib/dpkg/status" ] || skip 'the files of this machine are spread over several mounts'
mount -t cgroup2 cgroup2 "$work/groups" && mkdir "$group" || skip 'the unified control groups are not to be had'

# --- the device boots -----------------------------------------------------------------------------

(cd "$build_dir" && cpack -G DEB -B "$work/packages") >"$work/cpack.log" 2>&1 || { cat "$work/cpack.log"; fail 'cpack'; }
mkdir "$root/packages"
cp "$work"/packages/vigila_*.deb "$root/packages/vigila.deb"
# None of this machine's own services, no policy that keeps packages from starting theirs, and no
# index of the manual, which takes longer than all the rest.
rm -rf "$root"/etc/systemd/system/*.wants "$root/etc/fstab" "$root/usr/sbin/policy-rc.d" "$root/var/lib/man-db/auto-update"

boot() {
  cd "$root"
  mount -t proc proc proc
  # The kernel's settings are this machine's as well.
  mount --bind proc/sys proc/sys
  mount -o remount,bind,ro proc/sys
  mount -t sysfs -o ro sysfs sys
  mount -t cgroup2 cgroup2 sys/fs/cgroup
  mount -t tmpfs -o mode=0755 tmpfs dev
  mknod -m 666 dev/null c 1 3
  mknod -m 666 dev/zero c 1 5
  mknod -m 666 dev/full c 1 7
  mknod -m 666 dev/random c 1 8
  mknod -m 666 dev/urandom c 1 9
  mknod -m 666 dev/tty c 5 0
  mkdir dev/pts dev/shm
  ln -s pts/ptmx dev/ptmx
  ln -s /proc/self/fd dev/fd
  mount -t devpts -o newinstance,ptmxmode=0666,mode=620 devpts dev/pts
  mount -t tmpfs -o mode=1777 tmpfs dev/shm
  mount -t tmpfs -o mode=0755 tmpfs run
  mount -t tmpfs -o mode=1777 tmpfs tmp
  pivot_root . mnt
  exec chroot . sh -c 'umount -l /mnt && exec env -i container=vigila-units setpriv \
    --bounding-set=-sys_time,-sys_module,-sys_rawio,-audit_control,-audit_read \
    /lib/systemd/systemd --unit=basic.target' </dev/null >/dev/null 2>&1
}
export root
export -f boot
(echo "$BASHPID" >"$group/cgroup.procs" && exec setpriv --pdeathsig KILL unshare --mount --pid --fork --kill-child --cgroup --net --uts --ipc bash -euc boot) &
device=$!
has_started() { init=$(cat "/proc/$device/task/$device/children" 2>/dev/null) && init=${init% } && [ -n "$init" ] && inside test -S /run/systemd/private 2>/dev/null; }
eventually has_started || fail 'systemd does not start'
inside systemctl is-system-running --wait || true

# --- what an administrator does with the package --------------------------------------------------

left_behind() { # files that are not this machine's
  (cd "$upper" && find . -path ./packages -prune -o -print) | while read -r path; do
    [ -e "/$path" ] || [ -L "/$path" ] || [ -c "$upper/$path" ] || echo "${path#.}"
  done | grep -vE '^/var/(log|cache/man|lib/systemd/(timers|timesync|random-seed)|tmp)(/|$)' | sort || true
}
main_process() { inside systemctl show --property MainPID --value "$1"; }
is_up_anew() { # unit former-process
  [ "$(inside systemctl is-active "$1")" = active ] && [ "$(main_process "$1")" != "$2" ]
}
gateway_answers() { inside curl --silent --fail --output /dev/null http://127.0.0.1:8090/healthz; }
admin_is_there() { inside vigilactl user list | grep -q '^admin '; }
runs() { { inside sh -c 'cat /proc/[0-9]*/comm' 2>/dev/null || true; } | grep '^vigila'; }
step() { echo "== $1 (${SECONDS}s)"; }
units=(vigilad.service vigila-gateway.service)
left_behind >"$work/before"

step 'install'
inside dpkg --install /packages/vigila.deb >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail 'the package does not install'; }
[ "$(inside systemctl is-active vigilad.service)" = active ] || fail 'the daemon is not started'
[ "$(inside systemctl is-enabled vigila-gateway.service || true)" = disabled ] || fail 'the gateway is enabled unasked'
for unit in "${units[@]}"; do
  [ "$(inside systemctl show --property RestartUSec --value "$unit")" = 1s ] || fail "$unit has another pause before its restart"
done
complaints=$(inside systemd-analyze verify "${units[@]/#//usr/lib/systemd/system/}" 2>&1) || fail "$complaints"
[ -z "$complaints" ] || fail "$complaints"
inside sh -c 'echo Secret-of-1-admin | vigilactl user add admin -g admins --password-stdin' || fail 'no account could be added'
inside systemctl enable --quiet --now vigila-gateway.service
eventually gateway_answers || fail 'the gateway does not answer'

step 'ten kills, each as soon as the unit is up again'
for kill in $(seq 10); do
  for unit in "${units[@]}"; do
    killed[${#unit}]=$(main_process "$unit")
    inside kill -KILL "${killed[${#unit}]}"
  done
  for unit in "${units[@]}"; do
    eventually is_up_anew "$unit" "${killed[${#unit}]}" || fail "$unit stays away after kill $kill"
  done
done
eventually gateway_answers || fail 'the gateway does not answer after the kills'
eventually admin_is_there || fail 'the account is gone after the kills'

step 'reinstall'
daemon=$(main_process vigilad.service) gateway=$(main_process vigila-gateway.service)
inside dpkg --install /packages/vigila.deb >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail 'the package does not install again'; }
is_up_anew vigilad.service "$daemon" || fail 'the daemon still runs the old program'
is_up_anew vigila-gateway.service "$gateway" || fail 'the gateway still runs the old program'
eventually gateway_answers || fail 'the gateway does not answer after the reinstallation'

step 'remove, install again'
inside dpkg --remove vigila >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail 'the package is not removed'; }
! runs || fail 'a process outlives the removal'
inside dpkg --install /packages/vigila.deb >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail 'the package does not install after a removal'; }
eventually gateway_answers || fail 'the enabled gateway is not started again'
admin_is_there || fail 'a removal forgets the accounts'

step 'purge'
inside dpkg --purge vigila >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; fail 'the package is not purged'; }
! runs || fail 'a process outlives the purge'
inside test ! -e /run/vigila || fail '/run/vigila stays'
[ -z "$(inside systemctl list-units --all --no-legend 'vigila*')" ] || { inside systemctl list-units --all 'vigila*'; fail 'a unit stays'; }
left_behind >"$work/after"
diff "$work/before" "$work/after" || fail 'files stay'
step 'nothing is left'
