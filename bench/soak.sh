#!/usr/bin/env bash
# The agent over many sessions: descriptors, threads, child processes and memory must not grow.
# First whole sessions one after the other, then one session whose launcher is lost and comes back
# again and again, then one long rented session (a minute or more) beside a backend that breaks its
# connection every few seconds.
#
#   bench/soak.sh [--sessions N] [--reconnects N] [--minutes N] [agent option ...]
#
# Defaults: 100 sessions, 100 reconnects, 1 minute. The picture is synthetic; --audio and --capture
# x11 are worth a run where there is a sound server or a desktop. Status 1 when something grew.
set -euo pipefail
cd "$(dirname "$0")/.."

sessions=100 reconnects=100 minutes=1
while [ $# -gt 0 ]; do
  case "$1" in
    -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --sessions) sessions=$2; shift 2 ;;
    --reconnects) reconnects=$2; shift 2 ;;
    --minutes) minutes=$2; shift 2 ;;
    *) break ;;
  esac
done

scripts/build.sh release orvex-agent orvex-launcher >/dev/null
folder=$(mktemp -d)
ORVEX_TOKEN=soak-$RANDOM$RANDOM
export ORVEX_TOKEN
token_sha256=$(printf %s "$ORVEX_TOKEN" | sha256sum | cut -c1-64)
started=()
cleanup() {
  [ ${#started[@]} -eq 0 ] || kill "${started[@]}" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$folder"
}
trap cleanup EXIT

# start_agent OPTION...: its process id is then in $agent, its port base in $base.
start_agent() {
  base=$((30000 + RANDOM % 20000))
  OX_TUI=plain OX_LOG_FILE=$folder/agent.log build/release/src/app/orvex-agent \
    --capture synthetic --port-base "$base" --reconnect-grace 30 "$@" >>"$folder/screen" &
  agent=$!
  started+=("$agent")
  sleep 1
}

# launch SECONDS [OPTION...]: one launcher; waits for the port while the agent comes back to it.
launch() {
  local seconds=$1 try
  shift
  for try in 1 2 3 4 5 6 7 8 9 10; do
    build/release/launcher/orvex-launcher --port-base "$base" --local-port $((base + 100)) \
      --width 640 --height 360 --bitrate 2000 --seconds "$seconds" --quiet "$@" \
      >"$folder/launcher" 2>&1 && return 0
    sleep 0.2
  done
  echo "soak.sh: launcher failed at try $try: $(cat "$folder/launcher")" >&2
  return 1
}

# Descriptors, threads, children, resident kB and heap kB of the agent.
measure() {
  local heap
  heap=$(awk '/\[heap\]/ { h = 1; next } h && /^Private_Dirty/ { sum += $2; h = 0 } END { print sum + 0 }' \
    "/proc/$agent/smaps")
  echo "$(find "/proc/$agent/fd" -mindepth 1 | wc -l) $(find "/proc/$agent/task" -mindepth 1 -maxdepth 1 | wc -l)" \
    "$(pgrep -cP "$agent" || true) $(awk '/^VmRSS/ { print $2 }' "/proc/$agent/status") $heap"
}

# lowest OPTION...: five more launchers, and of the measurements after each the one with the least
# memory, because the allocator keeps some of it at times.
lowest() {
  for _ in 1 2 3 4 5; do
    launch 0.3 "$@"
    sleep 0.3
    measure
  done | sort -n -k4 | head -1
}

# highest: of twenty measurements, one a second, the most of each: the backend comes and goes.
highest() {
  for _ in {1..20}; do
    measure
    sleep 1
  done | awk '{ for (i = 1; i <= NF; i++) if ($i > most[i]) most[i] = $i }
    END { for (i = 1; i <= NF; i++) printf "%d ", most[i] }'
}

failed=0
row() { printf '%-24s %6s %8s %9s %9s %8s\n' "$@"; }
# compare NAME BEFORE AFTER: what counts may not grow, memory by no more than 2 MB.
compare() {
  local -a from to
  read -ra from <<<"$2"
  read -ra to <<<"$3"
  row "$1 before" "${from[@]}"
  row "$1 after" "${to[@]}"
  local i
  for i in 0 1 2; do
    [ "${to[i]}" -le "${from[i]}" ] || failed=1
  done
  [ $((to[3] - from[3])) -le 2048 ] || failed=1
}

start_agent --token-sha256 "$token_sha256" "$@"
row "" fds threads children "RSS kB" "heap kB"
before=$(lowest)
for _ in $(seq "$sessions"); do launch 0.3; done
compare "$sessions sessions" "$before" "$(lowest)"

before=$(lowest --no-end)
for _ in $(seq "$reconnects"); do launch 0.3 --no-end; done
compare "$reconnects reconnects" "$before" "$(lowest --no-end)"

kill "$agent"

/usr/bin/python3 bench/flapping_backend.py "$token_sha256" >"$folder/backend" &
backend=$!
started+=("$backend")
for _ in {1..50}; do
  [ -s "$folder/backend" ] && break
  sleep 0.1
done
start_agent --saas-url "ws://127.0.0.1:$(head -1 "$folder/backend")" --token soak "$@"
launch $((minutes * 60)) &
long=$!
sleep 5
before=$(highest)
sleep $((minutes * 60 - 50))
after=$(highest)
wait "$long"
compare "$minutes min session" "$before" "$after"
kill "$backend"
wait "$backend" || true
echo "beside a backend of $(tail -1 "$folder/backend")"

grep -cE '\[(ERROR)\]' "$folder/agent.log" | sed 's/^/error lines in the log: /' || true
if [ "$failed" -ne 0 ]; then
  echo "soak.sh: something grew" >&2
  exit 1
fi
echo "nothing grew"
