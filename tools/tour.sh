#!/bin/bash
# The tour: starts vigilad from a build folder with an empty store and shows its main job with
# vigilactl. Every step is compared with what it claims; one that differs ends the tour with status 1.
#   tools/tour.sh BUILD-FOLDER [--once]
set -euo pipefail

build=$(cd "$1" && pwd)
once=0
[ "${2:-}" = --once ] && once=1
root=$(cd "$(dirname "$0")/.." && pwd)

vigilad=$build/applications/vigilad/vigilad
vigilactl=$build/applications/vigilactl/vigilactl
marker=.vigila-device  # a directory without it is not ours to empty
admin_password='tour-Admin-1'
viewer_password='tour-Viewer-1'
daemon=
gateway=
gateway_url=
stop_gateway() { [ -z "$gateway" ] || kill -TERM "$gateway" 2>/dev/null || true; gateway=; }

# --- the device's directory -----------------------------------------------------------------------

if [ "$once" = 1 ]; then
  home=$(mktemp -d)
else
  home=${VIGILA_HOME:-$root/.device}
  mkdir -p "$home"
  home=$(cd "$home" && pwd)
  if [ -n "$(ls -A "$home")" ] && [ ! -e "$home/$marker" ]; then
    echo "tour: $home is not empty and not a device's directory: left alone" >&2
    exit 1
  fi
fi
# Held by the daemon as well, so that a second tour does not empty the store under a running one.
exec 9>"$home/.lock"
if ! flock -n 9; then
  echo "tour: a daemon still runs in $home: stop it first" >&2
  exit 1
fi
# A socket's path has room for about 100 bytes.
run=$home/run
run_is_elsewhere=0
if [ ${#run} -gt 70 ]; then
  run=$(mktemp -d)
  run_is_elsewhere=1
fi
config=$home/platform.ini

stop_daemon() {
  [ -n "$daemon" ] || return 0
  kill -TERM "$daemon" 2>/dev/null || true
  local status=0
  wait "$daemon" 2>/dev/null || status=$?
  daemon=
  return "$status"
}
# shellcheck disable=SC2317  # called by the trap
clean_up() {
  local status=$?
  stop_gateway
  stop_daemon || true
  [ "$run_is_elsewhere" = 0 ] || rm -rf "$run"
  [ "$once" = 0 ] || rm -rf "$home"
  exit "$status"
}
trap clean_up EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

# --- what the steps are made of -------------------------------------------------------------------

step() { printf '\n== %s\n' "$1"; }
shown() { printf '$ vigilactl %s\n' "$*"; }
ctl() { "$vigilactl" --config "$config" "$@"; }

differs() {
  printf 'tour: %s\n  expected: %s\n  but got:  %s\n' "$1" "$2" "$3" >&2
  echo '  the end of the daemon'"'"'s log:' >&2
  tail -n 10 "$home/vigilad.log" | sed 's/^/  /' >&2
  exit 1
}
same() { [ "$2" = "$3" ] || differs "$1" "$2" "$3"; }
contains() { case $3 in *"$2"*) ;; *) differs "$1" "…$2…" "$3" ;; esac }

# Runs a verb, shows it with its answer, and keeps both in $answer and $status.
run() {
  shown "$@"
  status=0
  answer=$(ctl "$@" 2>&1) || status=$?
  printf '%s\n' "$answer"
}
# The same with a secret on standard input.
run_with_secret() {
  local secret=$1; shift
  shown "$@"
  status=0
  answer=$(printf '%s\n' "$secret" | ctl "$@" 2>&1) || status=$?
  printf '%s\n' "$answer"
}

# Up means that it answers; each try ends by itself, and a daemon that has gone is not waited for.
start_daemon() {
  "$vigilad" --config "$config" >>"$home/vigilad.log" 2>&1 &
  daemon=$!
  local try
  for ((try = 0; try < 400; try++)); do
    if ctl status >/dev/null 2>&1; then return 0; fi
    kill -0 "$daemon" 2>/dev/null || break
    sleep 0.05
  done
  daemon_gone=$(kill -0 "$daemon" 2>/dev/null && echo 'no answer' || echo 'it ended')
  differs 'vigilad starts' 'an answer to vigilactl status' "$daemon_gone"
}

# One more answer of the C program, which is given a line of input for it.
c_answers() { # claim line expected
  [ -x "$c_example" ] || return 0
  answer=
  printf '%s\n' "$2" >&"${c_program[1]}"
  read -r -t 20 answer <&"${c_program[0]}" || true
  printf 'c_client: %s\n' "$answer"
  same "$1" "$3" "$answer"
}

granted() { # token path
  local status=0
  ctl authorize "$1" "$2" >/dev/null 2>&1 || status=$?
  case $status in 0) echo granted ;; 1) echo refused ;; *) echo "status $status" ;; esac
}
access_table() { # what the administrator, the viewer and nobody are expected to get, per path
  local path expected got all=()
  printf '%-16s %-14s %-10s %s\n' PATH ADMINISTRATOR VIEWER NOBODY
  while read -r path expected; do
    read -ra all <<<"$(granted "$admin" "$path") $(granted "$viewer" "$path") $(granted NO_TOKEN "$path")"
    printf '%-16s %-14s %-10s %s\n' "$path" "${all[@]}"
    got="${all[*]}"
    same "access to $path" "$expected" "$got"
  done
}

# --- the tour -------------------------------------------------------------------------------------

rm -rf "$home/settings" "$home/vigilad.log"
mkdir -p "$home/settings" "$run"
chmod 700 "$home/settings"
touch "$home/$marker"
cat >"$config" <<INI
[Settings]
directory = $home/settings

[MsgBus]
runtime_dir = $run
INI

step 'A device with an empty store is open to be set up'
start_daemon
run status
contains 'status' 'none yet: the device is open to be set up' "$answer"
run user list --json
contains 'the accounts of an empty store' '{"Users":[{"Name":"nobody","Group":16,"GroupName":"nobody",' "$answer"

step 'The first administrator and a viewer'
run_with_secret "$admin_password" user add admin --group admins --password-stdin
same 'adding the administrator' 0 "$status"
run_with_secret "$viewer_password" user add visitor --group viewers --password-stdin
same 'adding the viewer' 0 "$status"
run user list
same 'the accounts' "$(printf 'NAME     GROUP    STATE  EXPIRES  LAST LOGON  SESSIONS\nadmin    admins   ok     never    unknown     0\nnobody   nobody   ok     -        -           -\nvisitor  viewers  ok     never    unknown     0')" "$answer"
accounts=$answer
run status
contains 'status' 'Administrator  exists' "$answer"

step 'Both log in; a wrong password does not'
run_with_secret "$admin_password" login admin --password-stdin
same 'the administrator logs in' 0 "$status"
admin=$answer
run_with_secret "$viewer_password" login visitor --password-stdin
same 'the viewer logs in' 0 "$status"
viewer=$answer
run_with_secret 'not the password' login admin --password-stdin
same 'a wrong password' 1 "$status"
run whoami "$admin"
same 'whose token' admin "$answer"

step 'Who may reach what'
access_table <<'EXPECTED'
/inject.cgi granted refused refused
/jpeg/1 granted granted refused
/system granted granted granted
/rtsp/stream1 granted granted refused
EXPECTED

step 'An access rule is changed: still pictures for operators and above'
run rule set '/jpeg*' @operators
same 'changing the rule' 0 "$status"
access_table <<'EXPECTED'
/inject.cgi granted refused refused
/jpeg/1 granted refused refused
/system granted granted granted
/rtsp/stream1 granted granted refused
EXPECTED
run rule list
rules=$answer

step 'A passphrase is kept for another service'
run_with_secret 'the recorder'"'"'s passphrase' passphrase add recorder --password-stdin
same 'storing the passphrase' 0 "$status"
passphrase=$answer
run passphrase list
passphrases=$answer
contains 'the passphrases' "$passphrase  recorder" "$answer"

# The C example of the client library; it goes on asking while the daemon is killed.
c_example=$build/examples/c_client/c_client
if [ -x "$c_example" ]; then
  step 'The same from a C program'
  printf '$ c_client visitor /rtsp/stream1\n'
  coproc c_program { TEVRA_PLATFORM_CONFIG=$config exec "$c_example" visitor /rtsp/stream1 2>>"$home/c_client.log" 9>&-; }
  c_answers 'the C program' "$viewer_password" 'visitor may reach /rtsp/stream1'
fi

# The HTTP front takes its place here; it goes on while the daemon is killed.
# shellcheck source=tools/tour_gateway.sh
. "$root/tools/tour_gateway.sh"
tour_gateway

step 'The daemon is killed with SIGKILL and started again'
{
  kill -KILL "$daemon"
  wait "$daemon" || true
} 2>/dev/null
daemon=
run status
same 'a killed daemon' 3 "$status"
gateway_answers 'without its service' 503 /
c_answers 'the C program without its service' '' 'visitor may not reach /rtsp/stream1'
start_daemon
gateway_answers 'with its service back' 200 /
c_answers 'the C program with its service back' '' 'visitor may reach /rtsp/stream1'
run user list
same 'every account is there' "$(awk '{ print $1, $2 }' <<<"$accounts")" "$(awk '{ print $1, $2 }' <<<"$answer")"
run rule list
same 'every rule is there' "$rules" "$answer"
run passphrase list
same 'every passphrase is there' "$passphrases" "$answer"
run passphrase show "$passphrase"
same 'the passphrase' 'the recorder'"'"'s passphrase' "$answer"
run whoami "$admin"
same 'the administrator'"'"'s session is gone' 1 "$status"
run whoami "$viewer"
same 'the viewer'"'"'s session is gone' 1 "$status"
same 'the old token opens nothing' refused "$(granted "$admin" /inject.cgi)"
run_with_secret "$admin_password" login admin --password-stdin
same 'the administrator logs in again' 0 "$status"

if [ "$once" = 1 ]; then
  status=0
  stop_daemon || status=$?
  same 'an orderly stop' 0 "$status"
  printf '\nThe tour is over; every step was as claimed.\n'
  exit 0
fi

printf '\n== The device stays up (process %s) until Ctrl-C. Talk to it:\n\n' "$daemon"
cat <<TALK
  export TEVRA_PLATFORM_CONFIG=$config
  PATH=\$PATH:$build/applications/vigilactl
  vigilactl user list
  export VIGILA_TOKEN=\$(vigilactl login admin)      # password: $admin_password
  vigilactl authorize /inject.cgi
  vigilactl --help

$(gateway_talk)
  Accounts: admin ($admin_password), visitor ($viewer_password).
  Log: $home/vigilad.log
TALK
status=0
wait "$daemon" || status=$?
daemon=
echo "vigilad ended with status $status; its log is $home/vigilad.log" >&2
exit "$status"
