#!/usr/bin/env bash
# Two plug-ins built outside the tree against the installed package, in one
# store behind the installed front end: RF_Root and RF_Chassis (the installed
# samples), RF_Chassis's templates generated with the installed
# orbel-template from DMTF's schema files and narrowed by its keep list.
# Every resource of both is served before and after each one restarts.
#
#   TwoPlugins.sh PREFIX SAMPLES_BUILD SCHEMA_DIR WORK_DIR
set -euo pipefail
PREFIX="$1" SAMPLES="$2" SCHEMAS="$3" WORK="$4"
SYSROOT="$WORK/two-plugins"
rm -rf "$SYSROOT"
mkdir -p "$SYSROOT/tmp/Redfish" "$SYSROOT/var/PellPlugin/UserInputTemplate"
export ORBEL_SYSROOT="$SYSROOT" PLATFLAGS=0x0
unset LD_LIBRARY_PATH ORBEL_FRONTEND_REGISTRIES
SOCK="$SYSROOT/tmp/redis.sock"
TEMPLATES="$SYSROOT/var/PellPlugin/UserInputTemplate"
SHARE="$PREFIX/share/PellCommon_Orbel/examples"
PIDS=()
fail() { echo "TwoPlugins: FAILED: $*" >&2; tail -n 20 "$SYSROOT"/*.out >&2; exit 1; }
trap 'kill -TERM "${PIDS[@]}" 2>/dev/null; wait' EXIT
wait_for() {  # wait_for SECONDS COMMAND...
  local deadline=$(( $(date +%s) + $1 )); shift
  until "$@"; do [ "$(date +%s)" -lt "$deadline" ] || return 1; sleep 0.1; done
}

redis-server --port 0 --unixsocket "$SOCK" --save '' --appendonly no --dir "$SYSROOT" \
  >"$SYSROOT/redis.out" 2>&1 &
PIDS+=($!)
wait_for 20 test -S "$SOCK" || fail "redis-server did not start"

cp "$SHARE"/RF_Root/templates/*.dat "$TEMPLATES/"
"$PREFIX/bin/orbel-template" -d "$SCHEMAS" -k "$SHARE/RF_Chassis/templates/chassis.keep" \
  -o "$TEMPLATES/Chassis.dat" "$SCHEMAS/Chassis.v1_28_0.json" || fail "Chassis template"
"$PREFIX/bin/orbel-template" -o "$TEMPLATES/ChassisCollection.dat" \
  "$SCHEMAS/ChassisCollection.json" || fail "ChassisCollection template"
"$PREFIX/bin/orbel-sim" vex app add RF_Chassis >/dev/null || fail "orbel-sim vex app add"

declare -A PID
start() {  # start NAME: runs the plug-in, waits for one more "Initial done!"
  local name="$1" before
  before="$(grep -c 'Initial done!' "$SYSROOT/$name.out" 2>/dev/null || true)"
  "$SAMPLES/$name/$name" >>"$SYSROOT/$name.out" 2>&1 &
  PID[$name]=$!
  PIDS+=($!)
  wait_for 30 sh -c "[ \"\$(grep -c 'Initial done!' '$SYSROOT/$name.out')\" -gt ${before:-0} ]" ||
    fail "$name did not start"
}
restart() {  # restart NAME: SIGTERM, exit status 0, started again
  kill -TERM "${PID[$1]}"
  wait "${PID[$1]}" || fail "$1 exited with $?"
  start "$1"
}

printf 'admin:admin-pw:Administrator\n' >"$SYSROOT/users"
# No option but the users file: the registries are found beside the program.
"$PREFIX/bin/orbel-frontend" --users "$SYSROOT/users" >"$SYSROOT/frontend.out" 2>&1 &
PIDS+=($!)
wait_for 20 grep -q "listening on http" "$SYSROOT/frontend.out" || fail "orbel-frontend did not start"
URL="$(sed -n 's/^orbel-frontend: listening on \(http[^ ]*\)\/ .*/\1/p' "$SYSROOT/frontend.out")"
start RF_Root
start RF_Chassis
grep -q "Success to call vex_init( RF_Chassis" "$SYSROOT/RF_Chassis.out" || fail "RF_Chassis unknown to VEX"

code() {  # code METHOD PATH [BODY]
  local args=(-s -o "$SYSROOT/body.json" -w '%{http_code}' -u admin:admin-pw -X "$1")
  [ -z "${3:-}" ] || args+=(-H 'Content-Type: application/json' -d "$3")
  curl "${args[@]}" "$URL$2"
}
served() {  # every resource of both plug-ins answers 200 with its own @odata.id
  local u
  for u in /redfish/v1/ /redfish/v1/Systems /redfish/v1/Systems/1 /redfish/v1/Systems/2 \
           /redfish/v1/Chassis /redfish/v1/Chassis/1; do
    [ "$(code GET "$u")" = 200 ] || fail "$1: GET $u answered $(cat "$SYSROOT/body.json")"
    grep -q "\"@odata.id\":\"$u\"" "$SYSROOT/body.json" || fail "$1: $u: $(cat "$SYSROOT/body.json")"
  done
  code GET /redfish/v1/ >/dev/null
  grep -q '"Chassis":{"@odata.id":"/redfish/v1/Chassis"}' "$SYSROOT/body.json" &&
    grep -q '"Systems":{"@odata.id":"/redfish/v1/Systems"}' "$SYSROOT/body.json" ||
    fail "$1: the root lost a link: $(cat "$SYSROOT/body.json")"
  for u in /redfish/v1/Chassis/1 /redfish/v1/Systems/1; do
    [ "$(code PATCH $u '{"AssetTag":"'"$1"'"}')" = 200 ] || fail "$1: PATCH $u"
  done
}

served "both started"
# The narrowed template: deprecated and left-out values, other properties.
[ "$(code PATCH /redfish/v1/Chassis/1 '{"IndicatorLED":"Unknown"}')" = 400 ] || fail "Unknown accepted"
[ "$(code PATCH /redfish/v1/Chassis/1 '{"IndicatorLED":null}')" = 400 ] || fail "null accepted"
[ "$(code PATCH /redfish/v1/Chassis/1 '{"LocationIndicatorActive":true}')" = 400 ] ||
  fail "a property left out of the keep list was accepted"
[ "$(code PATCH /redfish/v1/Chassis/1 '{"IndicatorLED":"Lit"}')" = 200 ] || fail "Lit refused"

restart RF_Root
served "RF_Root restarted"
restart RF_Chassis
served "RF_Chassis restarted"
echo "TwoPlugins: all checks passed"
