#!/usr/bin/env bash
# Serve the sample plug-in over HTTP on this machine until Ctrl-C.
#
#   tools/frontend/serve.sh BUILD_DIR [PORT]   (./run serve [PORT] calls it with build/debug)
#
# HTTPS_PORT (environment) chooses the HTTPS port (default: a free one).
#
# Under a private sysroot (a fresh temporary directory that ORBEL_SYSROOT
# points at): its own Redis server, the sample plug-in RF_Root and the front
# end orbel-frontend on 127.0.0.1 (PORT, or a free one). It prints the URL
# and the development users, then waits; Ctrl-C stops everything and removes
# the sysroot.
set -euo pipefail

BUILD="${1:?usage: serve.sh BUILD_DIR [PORT]}"
BUILD="$(cd "$BUILD" && pwd)"
PORT="${2:-0}"
HERE="$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)"
# Another plug-in (an author's own) runs instead of the sample with
# ORBEL_PLUGIN (its program), ORBEL_TEMPLATES (its template directory) and
# ORBEL_SCHEMAS (the CSDL of its OEM namespaces, may be empty).
PLUGIN="${ORBEL_PLUGIN:-$BUILD/examples/RF_Root/RF_Root}"
TEMPLATES="${ORBEL_TEMPLATES:-$HERE/../../examples/RF_Root/templates}"
SCHEMAS="${ORBEL_SCHEMAS-$HERE/../../examples/RF_Root/schemas}"
FRONT="$BUILD/tools/frontend/orbel-frontend"
for f in "$PLUGIN" "$FRONT"; do
  [ -x "$f" ] || { echo "serve: $f is not built" >&2; exit 1; }
done

SYSROOT="$(mktemp -d /tmp/orbel-serve-XXXXXX)"
export ORBEL_SYSROOT="$SYSROOT"
mkdir -p "$SYSROOT/tmp/Redfish"
PIDS=()
cleanup() {
  local p
  for p in "${PIDS[@]}"; do kill -TERM "$p" 2>/dev/null || true; done
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

# The sample's user-input templates, where its schemas load them.
mkdir -p "$SYSROOT/var/PellPlugin/UserInputTemplate"
cp "$TEMPLATES"/*.dat "$SYSROOT/var/PellPlugin/UserInputTemplate/"
PLATFLAGS="${PLATFLAGS:-0x0}" "$PLUGIN" >"$SYSROOT/RF_Root.out" 2>&1 &
PIDS+=($!)
"$FRONT" --users "$SYSROOT/users" --registries "$HERE/registries" --port "$PORT" \
  --https-port "${HTTPS_PORT:-0}" --cert-out "$SYSROOT/frontend-cert.pem" --schemas "$SCHEMAS" \
  >"$SYSROOT/frontend.out" 2>&1 &
PIDS+=($!)
URL=""
for _ in $(seq 300); do
  URL="$(sed -n 's/^orbel-frontend: listening on \(http:[^ ]*\) (store .*/\1/p' "$SYSROOT/frontend.out")"
  [ -n "$URL" ] && break
  sleep 0.1
done
[ -n "$URL" ] || { cat "$SYSROOT/frontend.out" >&2; echo "serve: the front end did not start" >&2; exit 1; }
# The plug-in's ready file (<app>.run) says it serves.
for _ in $(seq 300); do compgen -G "$SYSROOT/tmp/Redfish/*.run" >/dev/null && break; sleep 0.1; done

HOSTPORT="${URL#http://}"
HOSTPORT="${HOSTPORT%/}"
SURL="$(sed -n 's/^orbel-frontend: listening on \(https:[^ ]*\) .*/\1/p' "$SYSROOT/frontend.out")"
cat <<EOT
Serving the sample plug-in at ${URL}redfish/v1/
  and over HTTPS (self-signed certificate made at start) at ${SURL}redfish/v1/
  certificate: $SYSROOT/frontend-cert.pem
  users: admin:admin-pw (Administrator), operator:operator-pw (Operator),
         readonly:readonly-pw (ReadOnly)
  try:   curl -u admin:admin-pw ${URL}redfish/v1/Systems/1
         redfishtool -r $HOSTPORT -S Never -u admin -p admin-pw Systems -I 1
         redfishtool -r $HOSTPORT -S Never -A Session -u admin -p admin-pw Systems -I 1
  logs:  $SYSROOT/tmp/Redfish/, $SYSROOT/frontend.out
Ctrl-C stops it all.
EOT
wait "${PIDS[2]}"
