#!/usr/bin/env bash
# Serve the sample plug-ins over HTTP on this machine until Ctrl-C.
#
#   tools/frontend/serve.sh BUILD_DIR [PORT]   (./run serve [PORT] calls it with build/debug)
#
# HTTPS_PORT (environment) chooses the HTTPS port (default: a free one).
#
# Under a private sysroot (a fresh temporary directory that ORBEL_SYSROOT
# points at): its own Redis server, the sample plug-ins RF_Root and
# RF_Chassis side by side in one store, and the front end orbel-frontend on
# 127.0.0.1 (PORT, or a free one). It prints the URL and the development
# users, then waits; a plug-in that ends (kill -TERM its pid, printed) is
# started again, so each can be restarted on its own; Ctrl-C stops
# everything and removes the sysroot.
set -euo pipefail

BUILD="${1:?usage: serve.sh BUILD_DIR [PORT]}"
BUILD="$(cd "$BUILD" && pwd)"
PORT="${2:-0}"
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
# Another plug-in (an author's own) runs instead of the samples with
# ORBEL_PLUGIN (its program), ORBEL_TEMPLATES (its template directory) and
# ORBEL_SCHEMAS (the CSDL of its OEM namespaces, may be empty).
if [ -n "${ORBEL_PLUGIN:-}" ]; then
  PLUGIN_PROGS=("$ORBEL_PLUGIN")
  PLUGIN_TEMPLATES=("${ORBEL_TEMPLATES:?ORBEL_TEMPLATES must name the template directory}")
else
  PLUGIN_PROGS=("$BUILD/examples/RF_Root/RF_Root" "$BUILD/examples/RF_Chassis/RF_Chassis")
  PLUGIN_TEMPLATES=("$HERE/../../examples/RF_Root/templates" "$HERE/../../examples/RF_Chassis/templates")
fi
SCHEMAS="${ORBEL_SCHEMAS-$HERE/../../examples/RF_Root/schemas}"
FRONT="$BUILD/tools/frontend/orbel-frontend"
SIM="$BUILD/platform/sim/orbel-sim"
for f in "${PLUGIN_PROGS[@]}" "$FRONT" "$SIM"; do
  [ -x "$f" ] || { echo "serve: $f is not built" >&2; exit 1; }
done

SYSROOT="$(mktemp -d /tmp/orbel-serve-XXXXXX)"
export ORBEL_SYSROOT="$SYSROOT"
mkdir -p "$SYSROOT/tmp/Redfish"
PIDS=()
cleanup() {
  local p
  touch "$SYSROOT/stopping"
  for p in "${PIDS[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
  for p in "$SYSROOT"/*.pid; do [ -f "$p" ] && kill -TERM "$(cat "$p")" 2>/dev/null || true; done
  for p in "${PIDS[@]}"; do wait "$p" 2>/dev/null || true; done
  rm -rf "$SYSROOT"
}
trap cleanup EXIT
trap 'exit 0' INT TERM

redis-server --port 0 --unixsocket "$SYSROOT/tmp/redis.sock" --save '' --appendonly no \
  --dir "$SYSROOT" >"$SYSROOT/redis.log" 2>&1 &
PIDS+=($!)
for _ in $(seq 300); do [ -S "$SYSROOT/tmp/redis.sock" ] && break; sleep 0.1; done
[ -S "$SYSROOT/tmp/redis.sock" ] || { echo "serve: redis-server did not start" >&2; exit 1; }

# Development users only: the front end listens on 127.0.0.1 alone.
cat >"$SYSROOT/users" <<'USERS'
admin:admin-pw:Administrator
operator:operator-pw:Operator
readonly:readonly-pw:ReadOnly
USERS

# The samples' user-input templates, where their schemas load them, and
# RF_Chassis's name known to the simulated VEX.
mkdir -p "$SYSROOT/var/PellPlugin/UserInputTemplate"
for d in "${PLUGIN_TEMPLATES[@]}"; do
  cp "$d"/*.dat "$SYSROOT/var/PellPlugin/UserInputTemplate/"
done
"$SIM" vex app add RF_Chassis >/dev/null
# Each plug-in runs under a loop that starts it again when it ends, until
# Ctrl-C: `kill -TERM $(cat $SYSROOT/<name>.pid)` restarts one on its own.
supervise() {
  local prog="$1" name
  name="$(basename "$prog")"
  while [ ! -e "$SYSROOT/stopping" ]; do
    PLATFLAGS="${PLATFLAGS:-0x0}" "$prog" >>"$SYSROOT/$name.out" 2>&1 &
    echo $! >"$SYSROOT/$name.pid"
    wait $! || true
    sleep 1  # a plug-in that cannot start is not restarted in a tight loop
  done
}
for p in "${PLUGIN_PROGS[@]}"; do
  supervise "$p" &
  PIDS+=($!)
done
"$FRONT" --users "$SYSROOT/users" --registries "$HERE/registries" --port "$PORT" \
  --https-port "${HTTPS_PORT:-0}" --cert-out "$SYSROOT/frontend-cert.pem" --schemas "$SCHEMAS" \
  >"$SYSROOT/frontend.out" 2>&1 &
FRONT_PID=$!
PIDS+=($FRONT_PID)
URL=""
for _ in $(seq 300); do
  URL="$(sed -n 's/^orbel-frontend: listening on \(http:[^ ]*\) (store .*/\1/p' "$SYSROOT/frontend.out")"
  [ -n "$URL" ] && break
  sleep 0.1
done
[ -n "$URL" ] || { cat "$SYSROOT/frontend.out" >&2; echo "serve: the front end did not start" >&2; exit 1; }
# Each plug-in's ready file (<app>.run) says it serves; an author's plug-in
# may name its application otherwise than its program.
for p in "${PLUGIN_PROGS[@]}"; do
  ready="$SYSROOT/tmp/Redfish/$(basename "$p").run"
  [ -z "${ORBEL_PLUGIN:-}" ] || ready=""
  for _ in $(seq 300); do
    if [ -n "$ready" ]; then [ -f "$ready" ] && break
    else compgen -G "$SYSROOT/tmp/Redfish/*.run" >/dev/null && break; fi
    sleep 0.1
  done
done

HOSTPORT="${URL#http://}"
HOSTPORT="${HOSTPORT%/}"
SURL="$(sed -n 's/^orbel-frontend: listening on \(https:[^ ]*\) .*/\1/p' "$SYSROOT/frontend.out")"
cat <<EOT
Serving the sample plug-ins RF_Root and RF_Chassis at ${URL}redfish/v1/
  and over HTTPS (self-signed certificate made at start) at ${SURL}redfish/v1/
  certificate: $SYSROOT/frontend-cert.pem
  users: admin:admin-pw (Administrator), operator:operator-pw (Operator),
         readonly:readonly-pw (ReadOnly)
  try:   curl -u admin:admin-pw ${URL}redfish/v1/Systems/1
         curl -u admin:admin-pw -X PATCH -H 'Content-Type: application/json' \\
              -d '{"IndicatorLED":"Lit"}' ${URL}redfish/v1/Chassis/1
         redfishtool -r $HOSTPORT -S Never -u admin -p admin-pw Systems -I 1
         redfishtool -r $HOSTPORT -S Never -A Session -u admin -p admin-pw Systems -I 1
  restart one plug-in: kill -TERM \$(cat $SYSROOT/RF_Root.pid)   (or RF_Chassis.pid)
  logs:  $SYSROOT/tmp/Redfish/, $SYSROOT/*.out
Ctrl-C stops it all.
EOT
wait "$FRONT_PID"
