#!/bin/bash
# The HTTP front in the tour: read by tools/tour.sh, whose functions and variables it uses.
# shellcheck disable=SC2154

# Starts vigila-gateway beside the daemon and keeps its address in $gateway_url.
start_gateway() {
  local said=$home/gateway.out try
  : >"$said"
  "$build/applications/vigila-gateway/vigila-gateway" --config "$config" >"$said" 2>>"$home/gateway.log" &
  gateway=$!
  for ((try = 0; try < 400; try++)); do
    gateway_url=$(sed -n 's/^Serving //p' "$said")
    if [ -n "$gateway_url" ]; then return 0; fi
    kill -0 "$gateway" 2>/dev/null || break
    sleep 0.05
  done
  differs 'vigila-gateway starts' 'an address' "$(tail -n 3 "$home/gateway.log")"
}

# What a request is answered with; nothing when there is no gateway.
gateway_answers() { # claim status path curl-options…
  [ -n "$gateway_url" ] || return 0
  local claim=$1 expected=$2 path=$3 got; shift 3
  got=$(curl -s -o /dev/null -w '%{http_code}' "$@" "$gateway_url$path") || true
  printf '%-52s %s\n' "$path $claim" "$got"
  same "$path $claim" "$expected" "$got"
}

tour_gateway() {
  if [ ! -x "$build/applications/vigila-gateway/vigila-gateway" ] || ! command -v curl >/dev/null; then
    echo 'No vigila-gateway or no curl here: the HTTP front is left out.'
    return 0
  fi
  step 'The same accounts over HTTP, through vigila-gateway'
  start_gateway
  printf '$ curl -i %s/jpeg/1\n' "$gateway_url"
  answer=$(curl -si "$gateway_url/jpeg/1" | tr -d '\r')
  grep -E '^(HTTP|WWW-Authenticate)' <<<"$answer"
  contains 'a stranger' 'WWW-Authenticate: Digest realm="Varno", nonce="' "$answer"
  gateway_answers 'for everybody' 200 /system
  gateway_answers 'for the administrator' 200 /jpeg/1 --digest -u "admin:$admin_password"
  gateway_answers 'for the administrator' 200 /inject.cgi --digest -u "admin:$admin_password"
  gateway_answers 'for the viewer' 403 /inject.cgi --digest -u "visitor:$viewer_password"
  gateway_answers 'with a wrong password' 401 /jpeg/1 --digest -u admin:wrong
}

# How to talk to the gateway that stays up.
gateway_talk() {
  [ -n "$gateway_url" ] || return 0
  cat <<TALK
  curl --digest -u admin:$admin_password $gateway_url/jpeg/1 -o picture.jpg
  In a browser: $gateway_url/
TALK
}
