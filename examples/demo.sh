#!/usr/bin/env bash
# A walk through the life of a plug-in process, for a new user.
#
#   examples/demo.sh BUILD_DIR [--keep]   (./run demo [--keep] calls it with build/debug)
#
# Everything happens under a private sysroot (a fresh temporary directory
# that ORBEL_SYSROOT points at): its own Redis server on its own socket, its
# own simulated platform variables, its own /tmp/Redfish. Nothing outside it
# is touched, and it is removed at the end. The script ends by itself; it
# exits non-zero when a step does not happen in time.
#
# With --keep the sysroot, the Redis server and the running plug-in are left
# behind for exploring; the script prints how to look around and how to stop
# them (a stop script inside the sysroot).
set -euo pipefail

BUILD="${1:?usage: demo.sh BUILD_DIR [--keep]}"
BUILD="$(cd "$BUILD" && pwd)"
HERE="$(cd "$(dirname "$0")" && pwd)"
KEEP=0
case "${2:-}" in
  --keep) KEEP=1 ;;
  "") ;;
  *) echo "usage: demo.sh BUILD_DIR [--keep]" >&2; exit 2 ;;
esac
PLUGIN="$BUILD/examples/RF_Root/RF_Root"
CHASSIS="$BUILD/examples/RF_Chassis/RF_Chassis"
SIM="$BUILD/platform/sim/orbel-sim"
TREE="$BUILD/tools/treereader/orbel-tree"
FRONT="$BUILD/tools/frontend/orbel-frontend"
for f in "$PLUGIN" "$CHASSIS" "$SIM" "$TREE"; do
  [ -x "$f" ] || { echo "demo: $f is not built" >&2; exit 1; }
done
command -v redis-server >/dev/null || { echo "demo: redis-server not found" >&2; exit 1; }
command -v redis-cli >/dev/null || { echo "demo: redis-cli not found" >&2; exit 1; }

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }
note() { printf '   %s\n' "$*"; }
show() { sed 's/^/   | /'; }
fail() { echo "demo: FAILED: $*" >&2; exit 1; }

# wait_for SECONDS COMMAND...: polls every 0.2 s until COMMAND succeeds.
wait_for() {
  local deadline=$(( $(date +%s) + $1 )); shift
  until "$@"; do
    [ "$(date +%s)" -lt "$deadline" ] || return 1
    sleep 0.2
  done
}

SYSROOT="$(mktemp -d /tmp/orbel-demo-XXXXXX)"
export ORBEL_SYSROOT="$SYSROOT"
# On the controller its start scripts give every plug-in the platform flags.
export PLATFLAGS=0x0
SCRIPTS="$(cd "$(dirname "${BASH_SOURCE[0]}")/../tests/support/scripts" && pwd)"
REDIS_PID=""
PLUGIN_PID=""
CHASSIS_PID=""
LISTEN_PID=""
FRONT_PID=""
TASK_LISTEN_PID=""
SSE_PID=""
PUSH_PID=""
cleanup() {
  local rc=$?
  if [ "$KEEP" -eq 1 ] && [ "$rc" -eq 0 ]; then
    exit 0  # left running on purpose; stop.sh in the sysroot ends it all
  fi
  [ -n "$PLUGIN_PID" ] && kill -KILL "$PLUGIN_PID" 2>/dev/null || true
  [ -n "$CHASSIS_PID" ] && kill -TERM "$CHASSIS_PID" 2>/dev/null || true
  [ -n "$FRONT_PID" ] && kill -TERM "$FRONT_PID" 2>/dev/null || true
  [ -n "$TASK_LISTEN_PID" ] && kill -TERM "$TASK_LISTEN_PID" 2>/dev/null || true
  [ -n "$SSE_PID" ] && kill -TERM "$SSE_PID" 2>/dev/null || true
  [ -n "$PUSH_PID" ] && kill -TERM "$PUSH_PID" 2>/dev/null || true
  [ -n "$REDIS_PID" ] && kill -TERM "$REDIS_PID" 2>/dev/null || true
  [ -n "$REDIS_PID" ] && wait "$REDIS_PID" 2>/dev/null || true
  rm -rf "$SYSROOT"
  if [ "$rc" -eq 0 ]; then
    printf '\nDemo finished; the private sysroot is removed.\n'
  fi
  exit "$rc"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

SOCK="$SYSROOT/tmp/redis.sock"
RD="$SYSROOT/tmp/Redfish"
OUT="$SYSROOT/RF_Root.out"
rcli() { redis-cli -s "$SOCK" "$@"; }
# plugged_in: waits for the system a presence event adds to the two of the
# sample and prints its URI. Member ids are never given twice, so the id
# depends on how many members the tour made and removed before.
plugged_in() {
  wait_for 10 sh -c "[ \"\$(redis-cli -s '$SOCK' LLEN '&&/redfish/v1/Systems/Members')\" = 3 ]" ||
    return 1
  local uri
  uri="$(rcli LINDEX '&&/redfish/v1/Systems/Members' -1)"
  uri="${uri#&&ObjectRef }"
  wait_for 10 sh -c "[ \"\$(redis-cli -s '$SOCK' EXISTS '$uri')\" = 1 ]" || return 1
  echo "$uri"
}
tree() { "$TREE" "$@"; }

step "1. A private sysroot"
note "ORBEL_SYSROOT=$SYSROOT"
note "Every fixed path of the library lives under it: /tmp/redis.sock becomes"
note "$SOCK, /tmp/Redfish/ becomes $RD/."

step "2. A private Redis server on the sysroot's socket (no TCP port, no persistence)"
mkdir -p "$SYSROOT/tmp"
redis-server --port 0 --unixsocket "$SOCK" --unixsocketperm 700 --save "" \
  --appendonly no --dir "$SYSROOT" --daemonize no >"$SYSROOT/redis.log" 2>&1 &
REDIS_PID=$!
wait_for 10 sh -c "redis-cli -s '$SOCK' ping 2>/dev/null | grep -q PONG" ||
  fail "redis-server did not answer"
note "redis-server (pid $REDIS_PID) answers PING on $SOCK"

step "3. Start the sample plug-in RF_Root; the front end is not ready yet"
TEMPLATES="$SYSROOT/var/PellPlugin/UserInputTemplate"
mkdir -p "$TEMPLATES"
cp "$HERE"/RF_Root/templates/*.dat "$TEMPLATES/"
note "Its user-input templates (what a client may write, generated from the standard's"
note "schemas) are installed in $TEMPLATES/."
"$SIM" vex set nginx_redfish_ready false >/dev/null
note "orbel-sim vex set nginx_redfish_ready false"
note "\$ RF_Root -d 1     (debug output on, so its waiting shows; output in $OUT)"
"$PLUGIN" -d 1 >"$OUT" 2>&1 &
PLUGIN_PID=$!
wait_for 15 grep -q "Waiting Corvel Orbel ready!" "$OUT" || fail "RF_Root does not wait"
note "RF_Root has created its schemas and built its resources, and now checks the"
note "VEX variable nginx_redfish_ready once a second:"
grep -E "initialed|Waiting Corvel" "$OUT" | head -n 4 | show
note "Its resources are in the store already; a system's Status still says Starting:"
note "\$ orbel-tree --compact '&&/redfish/v1/Systems/1/Status'"
tree --compact "&&/redfish/v1/Systems/1/Status" | show
tree --compact "&&/redfish/v1/Systems/1/Status" | grep -q '"State":"Starting"' ||
  fail "system 1 is not Starting before the front end is ready"

step "4. While it starts, RF_Root is listed in the store set &&AccessBlockList"
note "\$ redis-cli SMEMBERS '&&AccessBlockList'"
rcli SMEMBERS "&&AccessBlockList" | show
rcli SISMEMBER "&&AccessBlockList" RF_Root | grep -q 1 || fail "RF_Root is not listed"
[ ! -e "$RD/RF_Root.run" ] || fail "ready file exists too early"
note "and there is no ready file $RD/RF_Root.run yet."

step "5. The front end reports itself ready"
note "\$ orbel-sim vex set nginx_redfish_ready true"
"$SIM" vex set nginx_redfish_ready true >/dev/null
wait_for 15 test -e "$RD/RF_Root.run" || fail "no ready file"
note "Within a second RF_Root runs its post-ready stages, installs its signal"
note "handlers and writes its ready file:"
printf '   %s contains: %s\n' "$RD/RF_Root.run" "$(cat "$RD/RF_Root.run")"
wait_for 5 sh -c "[ \"\$(redis-cli -s '$SOCK' SISMEMBER '&&AccessBlockList' RF_Root)\" = 0 ]" ||
  fail "RF_Root is still in &&AccessBlockList"
note "&&AccessBlockList no longer holds it (SCARD = $(rcli SCARD '&&AccessBlockList'))."

step "6. The resources as the front end serves them"
note "orbel-tree assembles a resource's JSON from the store by following its link"
note "fields, as the front end does. The service root, written by ServiceRootSchema;"
note "SystemsSchema linked its collection into it:"
note "\$ orbel-tree /redfish/v1/"
tree /redfish/v1/ | show
note "The Systems collection; the library keeps Members and its count:"
note "\$ orbel-tree --compact /redfish/v1/Systems"
tree --compact /redfish/v1/Systems | show
note "One member (ComputerSystemSchema): scalars, nested objects, arrays and links."
note "Its Status.State went from Starting to Enabled in the post-ready stage:"
note "\$ orbel-tree /redfish/v1/Systems/1"
tree /redfish/v1/Systems/1 | show
tree --compact "&&/redfish/v1/Systems/1/Status" | grep -q '"State":"Enabled"' ||
  fail "system 1 is not Enabled after the front end is ready"
note "Every key in the store: resources under their URI, nested objects, arrays and"
note "request queue lists under && paths (the first 8 of $(rcli DBSIZE) keys):"
note "\$ orbel-tree --keys '*'"
tree --keys '*' | head -n 8 | show
note "..."

step "7. Requests, as the front end sends them"
note "The front end writes a request hash of && meta keys (and, for a body, a request-data"
note "hash), publishes its key on the schema's channel and waits on its return channel;"
note "the plug-in answers in the same hash. Here redis-cli plays the front end"
note "(docs/wire-protocol.md, section 8, gives the whole exchange)."
RET="Corvel:Return:demo"
redis-cli -s "$SOCK" SUBSCRIBE "$RET" >"$SYSROOT/return.out" 2>&1 &
LISTEN_PID=$!
wait_for 5 grep -q subscribe "$SYSROOT/return.out" || fail "cannot listen on $RET"
REQ_N=0
# request CHANNEL METHOD URI [BODY_FIELD VALUE]...: sends one request, waits for
# its key on the return channel, shows the answered hash and releases the lock.
request() {
  local channel="$1" method="$2" uri="$3"; shift 3
  REQ_N=$((REQ_N + 1))
  local key="Corvel:Req:$REQ_N" data="&&Corvel:Req:$REQ_N/RequestData"
  if [ "$#" -gt 0 ]; then
    rcli HSET "$data" "$@" >/dev/null
    rcli HSET "$key" "&&RequestData" "$data" >/dev/null
  fi
  rcli HSET "$key" "&&RequestMethod" "$method" "&&TargetURI" "$uri" "&&ReturnChannel" "$RET" \
    "&&RemoteIP" "127.0.0.1" "&&Username" "admin" "&&AuthHeader" "BasicAuth" \
    "&&UserPrivNumber" "0x18" "&&OperationPrivileges" "Login" >/dev/null
  note "\$ $method $uri $*   (HSET $key ...; PUBLISH $channel $key)"
  rcli PUBLISH "$channel" "$key" >/dev/null
  wait_for 10 grep -qx "$key" "$SYSROOT/return.out" || fail "no answer to $key"
  note "answered on $RET; the hash now holds:"
  rcli HGETALL "$key" | paste - - | grep -E '^&&(ReturnStatus|Location|ResponseData|ResourceLock|ExtendedInfo)' | show
  local lock
  lock="$(rcli HGET "$key" "&&ResourceLock")"
  [ -z "$lock" ] || rcli DEL "$lock" >/dev/null
}
status_of() { rcli HGET "Corvel:Req:$REQ_N" "&&ReturnStatus"; }

request RF_Root:ComputerSystem:POSTACTIONQ POSTACTION \
  /redfish/v1/Systems/1/Actions/ComputerSystem.Reset ResetType '"ForceOff"'
[ "$(status_of)" = OK_RES ] || fail "reset not answered OK_RES"
note "The action's response data:"
tree --compact "$(rcli HGET "Corvel:Req:$REQ_N" "&&ResponseData")" | show
request RF_Root:ComputerSystem:GETQ GET /redfish/v1/Systems/1
note "The read refreshed PowerState from the backend: $(rcli HGET /redfish/v1/Systems/1 PowerState)"
request RF_Root:ComputerSystem:PATCHQ PATCH /redfish/v1/Systems/1 AssetTag '"R7-U12"'
note "AssetTag is now $(rcli HGET /redfish/v1/Systems/1 AssetTag)"
request RF_Root:ComputerSystem:PATCHQ PATCH /redfish/v1/Systems/1 PowerState '"Off"'
[ "$(status_of)" = FAILURE ] || fail "a read-only property was not refused"
note "The schema's template (ComputerSystem.dat) says PowerState is read-only: the"
note "body never reached the handler, and the message the front end shows is:"
tree --compact "$(rcli HGET "Corvel:Req:$REQ_N" "&&ExtendedInfo")" | show
request RF_Root:ComputerSystemCollection:POSTCREATEQ POSTCREATE /redfish/v1/Systems AssetTag '"Lab VM"'
[ "$(rcli HGET "Corvel:Req:$REQ_N" "&&Location")" = /redfish/v1/Systems/3 ] || fail "no new member"
tree --compact /redfish/v1/Systems | show
request RF_Root:ComputerSystem:DELETEQ DELETE /redfish/v1/Systems/3
[ "$(status_of)" = OK_EMPTY ] || fail "delete not answered OK_EMPTY"
note "Each request and its answer left one line in RF_Root.accesslog:"
tail -n 4 "$RD/RF_Root.accesslog" | show

step "7b. The same through the development front end: curl and redfishtool over HTTP"
[ -x "$FRONT" ] || fail "$FRONT is not built"
command -v curl >/dev/null || fail "curl not found"
command -v redfishtool >/dev/null || fail "redfishtool not found"
printf 'admin:admin-pw:Administrator\n' >"$SYSROOT/users"
"$FRONT" --users "$SYSROOT/users" --registries "$HERE/../tools/frontend/registries" --quiet \
  >"$SYSROOT/frontend.out" 2>&1 &
FRONT_PID=$!
wait_for 10 grep -q "listening on http" "$SYSROOT/frontend.out" || fail "orbel-frontend did not start"
URL="$(sed -n 's/^orbel-frontend: listening on \(http[^ ]*\) .*/\1/p' "$SYSROOT/frontend.out")"
URL="${URL%/}"
note "orbel-frontend (the development front end, 127.0.0.1 only) turns HTTP requests"
note "into the request hashes above and the answers into HTTP: $URL"
# Prints the named members of the JSON document on standard input (an error
# answer: its first message), one per line.
members() {
  python3 -c '
import json, sys
names = sys.argv[1:]
text = sys.stdin.read()
if not text.strip():
    sys.exit(0)
doc = json.loads(text)
if "error" in doc:
    m = doc["error"]["@Message.ExtendedInfo"][0]
    print("%s: %s" % (m["MessageId"], m.get("Message", "")))
for n in names:
    if n in doc:
        print("%s: %s" % (n, json.dumps(doc[n])))' "$@"
}
# web METHOD PATH BODY [MEMBER]...: one curl request as admin; shows the status
# line and the named members of the answer; WEB_STATUS keeps the code.
web() {
  local method="$1" path="$2" body="$3"; shift 3
  note "\$ curl -u admin:admin-pw -X $method $URL$path ${body:+-d '$body'}"
  local args=(-s -i -u admin:admin-pw -X "$method")
  [ -z "$body" ] || args+=(-H 'Content-Type: application/json' -d "$body")
  curl "${args[@]}" "$URL$path" >"$SYSROOT/web.out" || fail "curl failed"
  WEB_STATUS="$(head -n 1 "$SYSROOT/web.out" | cut -d' ' -f2)"
  head -n 1 "$SYSROOT/web.out" | tr -d '\r' | show
  sed -n '/^\r$/,$p' "$SYSROOT/web.out" | tail -n +2 | members "$@" | show
}
# rft ARG... -- MEMBER...: redfishtool as admin; shows the named members.
rft() {
  local args=()
  while [ "$#" -gt 0 ] && [ "$1" != -- ]; do args+=("$1"); shift; done
  [ "$#" -eq 0 ] || shift
  note "\$ redfishtool -r ${URL#http://} -u admin -p admin-pw ${args[*]}"
  redfishtool -r "${URL#http://}" -S Never -u admin -p admin-pw "${args[@]}" >"$SYSROOT/rft.out" 2>&1 ||
    { cat "$SYSROOT/rft.out" >&2; fail "redfishtool ${args[*]} failed"; }
  members "$@" <"$SYSROOT/rft.out" | show
}
rft raw GET /redfish/v1/Systems/2 -- Id SerialNumber AssetTag PowerState
web PATCH /redfish/v1/Systems/2 '{"AssetTag":"Rack 4"}' AssetTag
[ "$WEB_STATUS" = 200 ] || fail "the PATCH was not accepted"
note "A read-only property is refused by the template, with a Base message:"
web PATCH /redfish/v1/Systems/2 '{"PowerState":"Off"}'
[ "$WEB_STATUS" = 400 ] || fail "a read-only property was not refused"
web POST /redfish/v1/Systems '{"AssetTag":"Web VM"}' '@odata.id' AssetTag
[ "$WEB_STATUS" = 201 ] || fail "the POST did not create a member"
NEW="$(sed -n 's/^Location: \([^\r]*\)\r*$/\1/p' "$SYSROOT/web.out")"
web DELETE "$NEW" ''
[ "$WEB_STATUS" = 204 ] || fail "the DELETE was not answered 204"
note "redfishtool finds the reset action in the system and posts to it:"
rft Systems -I 2 reset ForceOff
rft raw GET /redfish/v1/Systems/2 -- PowerState
grep -q '"PowerState": *"Off"' "$SYSROOT/rft.out" || fail "the reset did not land"

# Tasks: a long action answered with a task monitor.
step "7c. A long action runs as a task"
note "ComputerSystem runs its actions as tasks when they ask for one, so the front end"
note "prepares a Task resource before it forwards an action (docs/wire-protocol.md, 9)."
note "A listener on TASK_STATE_CHANGE shows what the task announces:"
redis-cli -s "$SOCK" SUBSCRIBE TASK_STATE_CHANGE >"$SYSROOT/tasks.out" 2>&1 &
TASK_LISTEN_PID=$!
wait_for 5 grep -q subscribe "$SYSROOT/tasks.out" || fail "cannot listen on TASK_STATE_CHANGE"
ACT="$URL/redfish/v1/Systems/1/Actions/Oem"
note "\$ curl -i -u admin:admin-pw -X POST -d '{}' $ACT/Orbel.SimulatedFirmwareUpdate"
curl -s -i -u admin:admin-pw -X POST -H 'Content-Type: application/json' -d '{}' \
  "$ACT/Orbel.SimulatedFirmwareUpdate" >"$SYSROOT/task-post.out" || fail "curl failed"
head -n 1 "$SYSROOT/task-post.out" | tr -d '\r' | show
grep -q "^HTTP/1.1 202" "$SYSROOT/task-post.out" || fail "the action was not answered 202"
MONITOR="$(sed -n 's/^Location: \([^\r]*\)\r*$/\1/p' "$SYSROOT/task-post.out")"
TASK="${MONITOR%/Monitor}"
note "Location: $MONITOR   (the task monitor; the work goes on on the task's thread)"
note "The Task itself is $TASK (listed in /redfish/v1/TaskService/Tasks)."
sleep 0.6
note "\$ curl -i -u admin:admin-pw $URL$MONITOR     (while it runs: 202)"
curl -s -i -u admin:admin-pw "$URL$MONITOR" >"$SYSROOT/task-get.out"
head -n 1 "$SYSROOT/task-get.out" | tr -d '\r' | show
note "\$ curl -i -u admin:admin-pw $URL$TASK     (the Task: always 200, with its state)"
curl -s -i -u admin:admin-pw "$URL$TASK" >"$SYSROOT/task-get.out"
head -n 1 "$SYSROOT/task-get.out" | tr -d '\r' | show
tail -n 1 "$SYSROOT/task-get.out" | grep -o '"PercentComplete":[0-9]*\|"TaskState":"[A-Za-z]*"' | show
wait_for 15 sh -c "curl -s -u admin:admin-pw '$URL$TASK' | grep -q '\"TaskState\":\"Completed\"'" ||
  fail "the task did not complete"
note "\$ curl -i -u admin:admin-pw $URL$MONITOR     (ended: the action's own answer)"
curl -s -i -u admin:admin-pw "$URL$MONITOR" >"$SYSROOT/task-get.out"
head -n 1 "$SYSROOT/task-get.out" | tr -d '\r' | show
tail -n 1 "$SYSROOT/task-get.out" | show
grep -q '"FirmwareVersion":"1.1.0"' "$SYSROOT/task-get.out" || fail "the monitor did not answer the result"
note "The system shows its new firmware version (the task changed it through the backend path):"
curl -s -u admin:admin-pw "$URL/redfish/v1/Systems/1" | grep -o '"BiosVersion":"[^"]*"' | show
note "The announcements on TASK_STATE_CHANGE (request key, percent, state, status,"
note "and the change key the front end removes once it has taken the change):"
grep -E "^Corvel:Req" "$SYSROOT/tasks.out" | show
note "\$ curl -u admin:admin-pw $URL$TASK     (the Task with its messages)"
curl -s -u admin:admin-pw "$URL$TASK" | python3 -c '
import json, sys
doc = json.load(sys.stdin)
print("TaskState %s, TaskStatus %s, PercentComplete %s" % (doc["TaskState"], doc["TaskStatus"], doc["PercentComplete"]))
for m in doc["Messages"]:
    print("%s: %s" % (m["MessageId"], m.get("Message", "")))' | show
note "\$ curl -u admin:admin-pw $URL/redfish/v1/TaskService/Tasks"
curl -s -u admin:admin-pw "$URL/redfish/v1/TaskService/Tasks" | show
note "\$ curl -i -u admin:admin-pw -X DELETE $URL$TASK     (a finished task can be removed)"
curl -s -i -u admin:admin-pw -X DELETE "$URL$TASK" | head -n 1 | tr -d '\r' | show
note "A task whose work fails ends in Exception; its monitor answers the failure itself:"
curl -s -i -u admin:admin-pw -X POST -H 'Content-Type: application/json' -d '{}' \
  "$ACT/Orbel.FailingSelfTest" >"$SYSROOT/task-post.out"
MONITOR="$(sed -n 's/^Location: \([^\r]*\)\r*$/\1/p' "$SYSROOT/task-post.out")"
wait_for 15 sh -c "curl -s -u admin:admin-pw '${URL}${MONITOR%/Monitor}' | grep -q '\"TaskState\":\"Exception\"'" ||
  fail "the failing task did not end in Exception"
curl -s -i -u admin:admin-pw "$URL$MONITOR" >"$SYSROOT/task-get.out"
head -n 1 "$SYSROOT/task-get.out" | tr -d '\r' | show
grep -o '"code":"[A-Za-z0-9.]*"' "$SYSROOT/task-get.out" | show
grep -q "^HTTP/1.1 409" "$SYSROOT/task-get.out" || fail "the failing task's monitor did not answer 409"
kill -TERM "$TASK_LISTEN_PID" "$FRONT_PID" 2>/dev/null || true
wait "$FRONT_PID" 2>/dev/null || true
FRONT_PID=""
"$SIM" vex set nginx_redfish_ready true >/dev/null  # the front end cleared it on exit

step "7d. A second plug-in in the same store: RF_Chassis"
note "RF_Chassis is a process of its own. It adds /redfish/v1/Chassis under the service"
note "root that RF_Root owns: a MultiBackend node of the root in RF_Chassis writes the"
note "link, and only that link is RF_Chassis's (docs/plugin-guide.md, \"A plug-in that"
note "adds to another's resource\"). Its name is new to VEX, so it is registered with"
note "the simulated platform first, and its templates (generated from the Chassis"
note "schema, narrowed by templates/chassis.keep) are installed:"
note "\$ orbel-sim vex app add RF_Chassis"
"$SIM" vex app add RF_Chassis | show
cp "$HERE"/RF_Chassis/templates/*.dat "$TEMPLATES/"
CHASSIS_OUT="$SYSROOT/RF_Chassis.out"
"$CHASSIS" >"$CHASSIS_OUT" 2>&1 &
CHASSIS_PID=$!
wait_for 15 test -e "$RD/RF_Chassis.run" || fail "RF_Chassis is not ready"
grep -q "Success to call vex_init( RF_Chassis" "$CHASSIS_OUT" || fail "RF_Chassis is unknown to VEX"
"$FRONT" --users "$SYSROOT/users" --quiet >"$SYSROOT/frontend.out" 2>&1 &
FRONT_PID=$!
wait_for 10 grep -q "listening on http" "$SYSROOT/frontend.out" || fail "orbel-frontend did not start"
URL="$(sed -n 's/^orbel-frontend: listening on \(http[^ ]*\) .*/\1/p' "$SYSROOT/frontend.out")"
URL="${URL%/}"
note "(orbel-frontend again, found its registries beside itself: $URL)"
web GET /redfish/v1/ '' Chassis Systems
web GET /redfish/v1/Chassis/1 '' Id IndicatorLED AssetTag
web PATCH /redfish/v1/Chassis/1 '{"IndicatorLED":"Lit"}' IndicatorLED
[ "$WEB_STATUS" = 200 ] || fail "the chassis PATCH was not accepted"
note "The keep list allows only Lit and Off: the deprecated Unknown (left out of the"
note "generated template) and null are refused before the handler runs:"
web PATCH /redfish/v1/Chassis/1 '{"IndicatorLED":"Unknown"}'
[ "$WEB_STATUS" = 400 ] || fail "a deprecated value was not refused"
# restart NAME PID_VAR BINARY OUTPUT: SIGTERM, wait for the exit, start again
# and wait until its start-up is done (one more "Initial done!" line).
restart() {
  local name="$1" var="$2" bin="$3" out="$4" pid done
  pid="${!var}"
  kill -TERM "$pid"
  wait "$pid" || fail "$name did not exit cleanly"
  done="$(grep -c 'Initial done!' "$out" || true)"
  "$bin" >>"$out" 2>&1 &
  printf -v "$var" '%s' "$!"
  wait_for 15 sh -c "[ \"\$(grep -c 'Initial done!' '$out')\" -gt $done ]" ||
    fail "$name did not start again"
}
served() {
  local u
  for u in /redfish/v1/ /redfish/v1/Systems/1 /redfish/v1/Chassis /redfish/v1/Chassis/1; do
    [ "$(curl -s -o /dev/null -w '%{http_code}' -u admin:admin-pw "$URL$u")" = 200 ] ||
      fail "$u is not served"
  done
}
note "Each restarts on its own and keeps the other's parts: RF_Root replaces only its"
note "own channels in the root's lists, RF_Chassis only its own field of the root."
restart RF_Root PLUGIN_PID "$PLUGIN" "$OUT"
note "RF_Root restarted; the root still links Chassis, and its GET channel list is:"
rcli LRANGE '&&/redfish/v1/GETQ' 0 -1 | show
served
restart RF_Chassis CHASSIS_PID "$CHASSIS" "$CHASSIS_OUT"
note "RF_Chassis restarted; every resource of both is served:"
served
web GET /redfish/v1/ '' Chassis Systems
kill -TERM "$FRONT_PID" 2>/dev/null || true
wait "$FRONT_PID" 2>/dev/null || true
FRONT_PID=""
"$SIM" vex set nginx_redfish_ready true >/dev/null

step "8. Diagnostics through the debug-info variable"
note "\$ orbel-sim vex set RF_Root_dbg_Info ru     (resource usage; '?' lists the requests)"
"$SIM" vex set RF_Root_dbg_Info ru >/dev/null
wait_for 10 test -e "$RD/RF_Root.dbginfo" || fail "no answer to the debug-info request"
note "The process loop (every 3 s) answered in RF_Root.dbginfo:"
show <"$RD/RF_Root.dbginfo"

step "9. Logs"
note "Files in $RD:"
ls -1 "$RD" | show
note "RF_Root.loginit.gz keeps the start-up phase (set aside once start-up was over);"
note "RF_Root.log is the running log, RF_Root.logerr gets its warnings and errors,"
note "RF_Root.accesslog one line per request and response, RF_Root.threads the"
note "threads (rewritten by the process loop). Last lines of the start-up log:"
gzip -dc "$RD/RF_Root.loginit.gz" | tail -n 3 | show
note "and of the running log:"
tail -n 2 "$RD/RF_Root.log" | show

step "10. The platform changes: a system is plugged in, then pulled out"
note "Nobody sends a request here: the platform announces the change with a VEX event,"
note "and ComputerSystemSchema's backend handlers change the tree (DoBackend_Create,"
note "DoBackend_Delete). Pulling a system out raises a Redfish alert event, which the"
note "library stores and queues with the controller's event service script. That"
note "service is not running here, so its two scripts are loaded as it would load them:"
for s in enqueueEvent enqueueMetricReport; do
  sha="$(rcli SCRIPT LOAD "$(cat "$SCRIPTS/$s.lua")")"
  rcli HSET redisSHAScripts "$s" "$sha" >/dev/null
done
rcli HSET redisEventService EventSubscriptions 1 MetricReportSubscriptions 1 QueueLimit 0 >/dev/null
note "\$ redis-cli HGETALL redisSHAScripts"
rcli HGETALL redisSHAScripts | paste - - | show
note "\$ orbel-sim event raise SampleSystemPresence present"
"$SIM" event raise SampleSystemPresence present
PLUGGED="$(plugged_in)" || fail "no system plugged in"
tree --compact /redfish/v1/Systems | show
note "\$ orbel-sim event raise SampleSystemPresence absent"
"$SIM" event raise SampleSystemPresence absent
wait_for 10 sh -c "[ \"\$(redis-cli -s '$SOCK' LLEN redisEventQueue)\" = 1 ]" ||
  fail "no event queued"
[ "$(rcli EXISTS "$PLUGGED")" = 0 ] || fail "system $PLUGGED is still there"
tree --compact /redfish/v1/Systems | show
EVENT="$(rcli LINDEX redisEventQueue 0)"
note "The alert, queued in redisEventQueue as $EVENT. The event service builds its"
note "body from these keys (docs/events.md) and removes them; the OEM block carries the"
note "machine's identity from its vital product data:"
REC="$EVENT/Events/0"
for key in "$EVENT" "$REC" "$REC/Oem/Veltra"; do
  note "\$ redis-cli HGETALL '$key'"
  rcli HGETALL "$key" | paste - - | show
done
[ "$(rcli HGET "$REC/Oem/Veltra" SystemSerialNumber)" = '"SIM0000001"' ] || fail "no alert block"

step "10b. The alert reaches a client: a Server-Sent Events stream and a push"
note "orbel-frontend stands in for the event service as it does for HTTP. It starts"
note "again, loads the same two scripts, and takes the alert that waited in the queue:"
"$FRONT" --users "$SYSROOT/users" --registries "$HERE/../tools/frontend/registries" --quiet \
  >"$SYSROOT/frontend.out" 2>&1 &
FRONT_PID=$!
wait_for 10 grep -q "listening on http" "$SYSROOT/frontend.out" || fail "orbel-frontend did not start"
URL="$(sed -n 's/^orbel-frontend: listening on \(http[^ ]*\) .*/\1/p' "$SYSROOT/frontend.out")"
URL="${URL%/}"
wait_for 10 sh -c "[ \"\$(redis-cli -s '$SOCK' EXISTS '$EVENT')\" = 0 ]" ||
  fail "the queued alert was not taken"
note "redisEventQueue holds $(rcli LLEN redisEventQueue) entries; the keys of $EVENT are gone."
note "A tiny local listener takes pushed events (python3, 127.0.0.1, a free port):"
python3 -u -c '
import http.server, sys
class H(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        body = self.rfile.read(int(self.headers.get("Content-Length", 0)))
        with open(sys.argv[1], "ab") as f:
            f.write(body + b"\n")
        self.send_response(204)
        self.end_headers()
    def log_message(self, *args):
        pass
server = http.server.HTTPServer(("127.0.0.1", 0), H)
print(server.server_address[1])
server.serve_forever()
' "$SYSROOT/pushed.json" >"$SYSROOT/listener.out" 2>&1 &
PUSH_PID=$!
wait_for 10 grep -q '^[0-9]' "$SYSROOT/listener.out" || fail "the listener did not start"
PUSH_PORT="$(head -n 1 "$SYSROOT/listener.out")"
SUBS="$URL/redfish/v1/EventService/Subscriptions"
note "\$ curl -u admin:admin-pw -H 'Content-Type: application/json' \\"
note "    -d '{\"Destination\":\"http://127.0.0.1:$PUSH_PORT/events\",\"Protocol\":\"Redfish\",\"Context\":\"demo\"}' \\"
note "    $SUBS"
curl -s -i -u admin:admin-pw -H 'Content-Type: application/json' \
  -d "{\"Destination\":\"http://127.0.0.1:$PUSH_PORT/events\",\"Protocol\":\"Redfish\",\"Context\":\"demo\"}" \
  "$SUBS" | grep -E '^HTTP|^Location' | tr -d '\r' | show
note "\$ curl -N -u admin:admin-pw \"$URL/redfish/v1/EventService/SSE?\\\$filter=RegistryPrefix eq 'ResourceEvent'\" &"
curl -s -N -u admin:admin-pw \
  "$URL/redfish/v1/EventService/SSE?\$filter=RegistryPrefix%20eq%20%27ResourceEvent%27" \
  >"$SYSROOT/sse.out" 2>&1 &
SSE_PID=$!
wait_for 10 sh -c "curl -s -u admin:admin-pw '$SUBS' | grep -q '\"Members@odata.count\":2'" ||
  fail "the stream did not open"
note "Plug a system in and pull it out again:"
"$SIM" event raise SampleSystemPresence present
plugged_in >/dev/null || fail "no system plugged in"
"$SIM" event raise SampleSystemPresence absent
wait_for 10 grep -q '^data: ' "$SYSROOT/sse.out" || fail "no event on the stream"
wait_for 15 test -s "$SYSROOT/pushed.json" || fail "no event pushed"
note "What curl -N printed: the id line, and the Event document on the data line:"
grep -m 1 '^id: ' "$SYSROOT/sse.out" | show
grep -m 1 '^data: ' "$SYSROOT/sse.out" | sed 's/^data: //' | python3 -m json.tool | show
note "What the listener received (the subscription's Context comes with it):"
head -n 1 "$SYSROOT/pushed.json" | python3 -c '
import json, sys
d = json.load(sys.stdin)
r = d["Events"][0]
print("Context:", d.get("Context"), " MessageId:", r["MessageId"], " Origin:", r["OriginOfCondition"]["@odata.id"])
' | show
grep -q '"MessageId":"ResourceEvent.1.0.ResourceRemoved"' "$SYSROOT/pushed.json" ||
  fail "the pushed event is not the alert"
kill -TERM "$SSE_PID" "$PUSH_PID" "$FRONT_PID" 2>/dev/null || true
wait "$FRONT_PID" 2>/dev/null || true
SSE_PID=""
PUSH_PID=""
FRONT_PID=""
"$SIM" vex set nginx_redfish_ready true >/dev/null  # the front end cleared it on exit

if [ "$KEEP" -eq 1 ]; then
  [ -n "$LISTEN_PID" ] && kill -TERM "$LISTEN_PID" 2>/dev/null || true
  cat >"$SYSROOT/stop.sh" <<STOP
#!/bin/sh
# Ends what 'run demo --keep' left running and removes its sysroot.
kill -TERM $PLUGIN_PID $CHASSIS_PID 2>/dev/null
sleep 1
kill -TERM $REDIS_PID 2>/dev/null
sleep 0.5
rm -rf "$SYSROOT"
echo "stopped RF_Root ($PLUGIN_PID), RF_Chassis ($CHASSIS_PID) and redis-server ($REDIS_PID); $SYSROOT removed"
STOP
  chmod +x "$SYSROOT/stop.sh"
  step "Left running for you"
  note "RF_Root (pid $PLUGIN_PID) and redis-server (pid $REDIS_PID) keep running under"
  note "$SYSROOT. In a shell of your own:"
  note ""
  note "  export ORBEL_SYSROOT=$SYSROOT"
  note "  $TREE /redfish/v1/Systems/1          # a resource as the front end serves it"
  note "  $TREE --meta /redfish/v1/Systems     # with the && fields (channels, ...)"
  note "  $TREE --keys '*'                      # every key"
  note "  redis-cli -s $SOCK MONITOR   # watch the traffic live"
  note "  $SIM vex set RF_Root_dbg_Info ru     # ask for diagnostics (answer in $RD/RF_Root.dbginfo)"
  note "  tail -f $RD/RF_Root.log"
  note "  kill -USR1 $PLUGIN_PID                # rewrite the log from the message cache"
  note ""
  note "To stop both and remove the sysroot: $SYSROOT/stop.sh"
  exit 0
fi

step "11. SIGTERM: the orderly exit"
note "\$ kill -TERM $PLUGIN_PID"
kill -TERM "$PLUGIN_PID"
wait_for 15 sh -c "! kill -0 $PLUGIN_PID 2>/dev/null" || fail "RF_Root did not exit"
set +e
wait "$PLUGIN_PID"
rc=$?
set -e
PLUGIN_PID=""
[ "$rc" -eq 0 ] || fail "RF_Root exited with $rc"
note "RF_Root exited with status 0. Its last lines:"
tail -n 5 "$OUT" | show

step "12. The store after the exit"
note "What the plug-in wrote stays in the store after it ended: the keys are"
note "$(rcli DBSIZE) now, among them:"
rcli --scan --pattern '/redfish/v1/*' | sort | head -n 6 | show
note "The front end may keep serving the last state while the plug-in is down; the"
note "next start clears each node's keys as it builds the node anew, so nothing stale"
note "survives a restart. Only the start-up entry went: &&AccessBlockList holds"
note "$(rcli SCARD '&&AccessBlockList') names, and the ready file $RD/RF_Root.run is still there"
note "until the next start removes it."
