#!/usr/bin/env bash
# The main job on this machine: builds agent and reference launcher, streams for some seconds over
# loopback and prints what arrived. The picture is this desktop when there is one, else a test
# picture whose frames are numbered and checked; the sound is what this machine plays, where a
# PulseAudio server runs. Leaves demo-out/stream.mkv and demo-out/frame.png; ends with status 0 only
# if pictures were decoded.
#
#   scripts/demo.sh [options]
#     --seconds N        how long to stream (default 10)
#     --capture MODE     auto, x11 or synthetic (default auto)
#     --codec NAME       h264 or hevc (default h264)
#     --keep             also keep the logs and the figures (agent.log, summary.json) in demo-out
set -euo pipefail
cd "$(dirname "$0")/.."

fail_usage() {
  echo "demo.sh: $1 (see --help)" >&2
  exit 2
}

seconds=10 capture=auto codec=h264 keep=false
while [ $# -gt 0 ]; do
  case "$1" in
    --keep) keep=true ;;
    -h | --help) sed -n '2,13s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --seconds | --capture | --codec)
      [ $# -ge 2 ] || fail_usage "$1 needs a value"
      printf -v "${1#--}" %s "$2"
      shift
      ;;
    *) fail_usage "unknown argument '$1'" ;;
  esac
  shift
done
[[ $seconds =~ ^[0-9]+(\.[0-9]+)?$ && $seconds =~ [1-9] ]] || fail_usage "--seconds must be a positive number"
[[ $capture =~ ^(auto|x11|synthetic)$ ]] || fail_usage "unknown capture mode '$capture'"
[[ $codec =~ ^(h264|hevc)$ ]] || fail_usage "unknown codec '$codec'"
if [ "$capture" = auto ] && [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  capture=synthetic
fi

scripts/setup.sh --build
scripts/build.sh release orvex-agent orvex-launcher

out=$PWD/demo-out
mkdir -p "$out"
rm -f "$out"/{stream.mkv,frame.png,agent.log,agent.out,summary.json}

agent='' launcher=''
stop() {  # PID: ends one of our processes, by force if it does not go by itself
  [ -n "$1" ] || return 0
  kill "$1" 2>/dev/null || return 0
  for _ in {1..30}; do
    kill -0 "$1" 2>/dev/null || return 0
    sleep 0.1
  done
  kill -KILL "$1" 2>/dev/null || true
}
cleanup() {
  stop "$launcher"
  stop "$agent"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# Six ports in a row that nobody uses, below the range that the kernel gives out by itself.
port_is_used() { cat /proc/net/{tcp,tcp6,udp,udp6} 2>/dev/null | grep -q ":$(printf %04X "$1") "; }
find_port_base() {
  local base offset
  for _ in {1..100}; do
    base=$((20000 + RANDOM % 1200 * 10))
    for offset in 0 1 2 3 4 5; do
      port_is_used $((base + offset)) && continue 2
    done
    echo "$base"
    return
  done
  echo "demo.sh: no free ports" >&2
  return 1
}
port_base=$(find_port_base)

token=$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')
token_hash=$(printf %s "$token" | sha256sum | cut -c1-64)

agent_sound=() launcher_sound=()
if command -v parec >/dev/null && timeout 5 pactl info >/dev/null 2>&1; then
  agent_sound=(--audio --audio-parity) launcher_sound=(--audio)
else
  echo "Sound is off: no PulseAudio server (or no parec) on this machine"
fi

OX_LOG_FILE=$out/agent.log OX_TUI=plain build/release/src/app/orvex-agent \
  --token-sha256 "$token_hash" --port-base "$port_base" --capture "$capture" --no-input \
  "${agent_sound[@]}" \
  >"$out/agent.out" 2>&1 </dev/null &
agent=$!

picture_options=()
[ "$capture" = synthetic ] && picture_options=(--check-stamps)
ORVEX_TOKEN=$token build/release/launcher/orvex-launcher --port-base "$port_base" \
  --codec "$codec" --seconds "$seconds" --json-file "$out/summary.json" \
  --save-stream "$out/stream.mkv" --save-frame "$out/frame.png" "${picture_options[@]}" \
  "${launcher_sound[@]}" </dev/null &
launcher=$!

status=0
wait "$launcher" || status=$?
launcher=''
if [ "$status" -eq 0 ] && ! { [ -s "$out/stream.mkv" ] && [ -s "$out/frame.png" ]; }; then
  echo "demo.sh: stream or frame was not saved" >&2
  status=1
fi

stop "$agent"
agent_status=0
wait "$agent" || agent_status=$?
agent=''
if [ "$agent_status" -ne 0 ]; then
  echo "demo.sh: the agent ended with status $agent_status" >&2
  status=1
fi

if [ "$status" -ne 0 ]; then
  echo "demo.sh: failed; the end of the agent's log (whole: ${out#"$PWD"/}/agent.log):" >&2
  tail -n 20 "$out/agent.log" >&2 || true
  exit "$status"
fi
picture="the test picture"
grep -q 'X11Capture: .* via ' "$out/agent.log" && picture="this desktop"
$keep || rm -f "$out"/{agent.log,agent.out,summary.json}
echo "Streamed $picture; saved demo-out/stream.mkv and demo-out/frame.png"
