#!/usr/bin/env bash
# DMTF's Service Validator and Protocol Validator against a plug-in behind the
# development front end, with session authentication.
#
#   tools/validate/validate.sh BUILD_DIR OUTDIR [SCHEMA_DIR]   (./run validate)
#
# Starts the sample plug-in (or the one ORBEL_PLUGIN, ORBEL_TEMPLATES and
# ORBEL_SCHEMAS name, see serve.sh) behind orbel-frontend (tools/frontend/serve.sh),
# runs DMTF's validate.sh (from $ORBEL_DMTF_TOOLS, default
# ../shared/dmtf-tools beside the tree) and ends non-zero on any failure.
# DMTF's tools read CSDL from the directory beside them; they run from a
# directory of links so that the plug-ins' OEM schemas (SCHEMA_DIR, default
# the sample's) join DMTF's own without touching the shared copy.
set -uo pipefail

BUILD="${1:?usage: validate.sh BUILD_DIR OUTDIR [SCHEMA_DIR]}"
OUT="${2:?usage: validate.sh BUILD_DIR OUTDIR [SCHEMA_DIR]}"
ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
SCHEMAS="${3:-${ORBEL_SCHEMAS-$ROOT/examples/RF_Root/schemas}}"
TOOLS="${ORBEL_DMTF_TOOLS:-$ROOT/../shared/dmtf-tools}"
DMTF_CSDL="${ORBEL_DMTF_CSDL:-$TOOLS/../dmtf/csdl}"
[ -x "$TOOLS/validate.sh" ] || { echo "validate: no DMTF tools at $TOOLS (set ORBEL_DMTF_TOOLS)" >&2; exit 2; }
[ -d "$DMTF_CSDL" ] || { echo "validate: no DMTF CSDL at $DMTF_CSDL (set ORBEL_DMTF_CSDL)" >&2; exit 2; }
mkdir -p "$OUT"
OUT="$(cd "$OUT" && pwd)"

WORK="$(mktemp -d /tmp/orbel-validate-XXXXXX)"
SERVE_PID=""
cleanup() {
  [ -n "$SERVE_PID" ] && kill -TERM "$SERVE_PID" 2>/dev/null && wait "$SERVE_PID" 2>/dev/null
  rm -rf "$WORK"
}
trap cleanup EXIT

mkdir -p "$WORK/dmtf-tools" "$WORK/dmtf/csdl"
for f in "$TOOLS"/*; do ln -s "$f" "$WORK/dmtf-tools/"; done
for f in "$DMTF_CSDL"/*.xml "$SCHEMAS"/*.xml; do [ -e "$f" ] && ln -sf "$f" "$WORK/dmtf/csdl/"; done

bash "$ROOT/tools/frontend/serve.sh" "$BUILD" >"$WORK/serve.out" 2>&1 &
SERVE_PID=$!
URL=""
for _ in $(seq 600); do
  URL="$(sed -n 's/^  and over HTTPS .* at \(https:[^ ]*\)redfish\/v1\/$/\1/p' "$WORK/serve.out")"
  [ -n "$URL" ] && break
  kill -0 "$SERVE_PID" 2>/dev/null || break
  sleep 0.1
done
CERT="$(sed -n 's/^  certificate: //p' "$WORK/serve.out")"
[ -n "$URL" ] && [ -f "$CERT" ] ||
  { cat "$WORK/serve.out" >&2; echo "validate: the sample did not start" >&2; exit 1; }

# Over HTTPS, as on a controller; the tools trust the front end's
# self-signed certificate through the CA bundle variable of Python requests.
REQUESTS_CA_BUNDLE="$CERT" bash "$WORK/dmtf-tools/validate.sh" "${URL%/}" admin admin-pw "$OUT" \
  --authtype Session
rc=$?
# Any failure counts, also one the tools' exit status leaves out, with one
# exception: the Protocol Validator subscribes a remote address
# (SERV_EVENT_POST_RESP) and expects 201, while the front end refuses every
# destination off this machine (docs/frontend.md, Events). That refusal is
# the front end's rule, not a fault; any other failure of that assertion
# still counts.
tsv="$(ls -t "$OUT"/protocol/*.tsv 2>/dev/null | head -1)"
if [ -n "$tsv" ]; then
  other="$(awk -F'\t' '$5 == "FAIL" && !($1 == "SERV_EVENT_POST_RESP" && $3 == "400" && $6 ~ /property Destination/)' "$tsv" | wc -l)"
  [ "$other" -eq 0 ] && rc=0 || rc=1
  [ "$other" -eq 0 ] && grep -q -P '^SERV_EVENT_POST_RESP\t.*\tFAIL\t' "$tsv" &&
    echo "validate: SERV_EVENT_POST_RESP refused as a non-local destination, by design"
fi
fails="$(grep -h -E 'Fail: [1-9]' "$OUT"/service/console.txt 2>/dev/null)"
[ -n "$fails" ] && rc=1
grep -q 'Pass: ' "$OUT"/service/console.txt 2>/dev/null || rc=1  # it did not run through
[ "$rc" -eq 0 ] && echo "validate: no failures (reports in $OUT)" || echo "validate: failures (reports in $OUT)" >&2
exit "$rc"
