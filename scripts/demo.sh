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
#     --platform         the road of a rented session instead: attaches the agent to a small backend
#                        (examples/backend.py), lets the launcher play the session that this
#                        prepares until it ends it (12 s), and prints every message; once over ws://,
#                        once over wss://. Status 0 only if nothing on the road was missing
#     --play             orvex-play instead of the launcher: a window on this desktop shows the test
#                        picture, or with --capture x11 this screen. Without a desktop the window is
#                        on an X server of its own, and demo-out/window.png is a picture of it.
#                        Status 0 only if the window has shown the stream
#     --build-dir DIR    take the programs of this build folder as they are, leave the results there
set -euo pipefail
cd "$(dirname "$0")/.."

fail_usage() {
  echo "demo.sh: $1 (see --help)" >&2
  exit 2
}

seconds='' capture=auto codec=h264 keep=false platform=false play=false build_dir=''
while [ $# -gt 0 ]; do
  case "$1" in
    --keep) keep=true ;;
    --platform) platform=true ;;
    --play) play=true ;;
    --build-dir)
      [ -x "${2:-}/src/app/orvex-agent" ] || fail_usage "--build-dir needs a folder with a build"
      build_dir=$(realpath "$2")
      shift
      ;;
    -h | --help) sed -n '2,22s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --seconds | --capture | --codec)
      [ $# -ge 2 ] || fail_usage "$1 needs a value"
      printf -v "${1#--}" %s "$2"
      shift
      ;;
    *) fail_usage "unknown argument '$1'" ;;
  esac
  shift
done
! $play || ! $platform || fail_usage "--play and --platform exclude each other"
$platform && : "${seconds:=12}"
: "${seconds:=10}"
[[ $seconds =~ ^[0-9]+(\.[0-9]+)?$ && $seconds =~ [1-9] ]] || fail_usage "--seconds must be a positive number"
[[ $capture =~ ^(auto|x11|synthetic)$ ]] || fail_usage "unknown capture mode '$capture'"
[[ $codec =~ ^(h264|hevc)$ ]] || fail_usage "unknown codec '$codec'"
desktop=true
[ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ] || desktop=false
# A window that showed the screen that it is on would show itself.
if $play && [ "$capture" = auto ]; then
  capture=synthetic
fi
if [ "$capture" = auto ] && ! $desktop; then
  capture=synthetic
fi

out=$PWD/demo-out
if [ -n "$build_dir" ]; then
  out=$build_dir/demo-out
else
  needs=--build programs=(orvex-agent orvex-launcher)
  ! $platform || needs=--platform
  ! $play || needs=--play programs=(orvex-agent orvex-play)
  scripts/setup.sh "$needs"
  scripts/build.sh release "${programs[@]}"
  build_dir=build/release
fi
mkdir -p "$out"

agent='' launcher='' backend='' xserver=''
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
  stop "$backend"
  stop "$xserver"
  rm -rf "$out"/{state,backend.key,backend.pem}
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# Six ports in a row that nobody uses, below the range that the kernel gives out by itself and that
# of the tests.
port_is_used() { cat /proc/net/{tcp,tcp6,udp,udp6} 2>/dev/null | grep -q ":$(printf %04X "$1") "; }
find_port_base() {
  local base offset
  for _ in {1..100}; do
    base=$((10000 + RANDOM % 990 * 10))
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

show_log() {
  echo "demo.sh: failed; the end of the agent's log (whole: ${out#"$PWD"/}/agent.log):" >&2
  tail -n 20 "$out/agent.log" >&2 || true
}

# wait_for_line FILE TEXT PID: prints the rest of the line behind the text once it is there.
wait_for_line() {
  for _ in {1..200}; do
    sed -n "s/.*$2//p" "$1" | grep . && return
    kill -0 "$3" 2>/dev/null || break
    sleep 0.1
  done
  echo "demo.sh: no \"$2\" in ${1#"$PWD"/}" >&2
  return 1
}

# The road of one rented session over ws or wss. The backend writes down every message.
rented_session() {
  local scheme=$1 messages=$out/platform-$1.txt tls=() trust=() url token road due='' status=0
  local figures=$out/summary.json agent_token=token-of-this-PC
  rm -f "$messages" "$figures" "$out/agent.log"
  if [ "$scheme" = wss ]; then
    openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 1 -subj /CN=demo \
      -addext subjectAltName=IP:127.0.0.1 -keyout "$out/backend.key" -out "$out/backend.pem" \
      2>/dev/null || { echo "demo.sh: openssl makes no certificate" >&2; return 1; }
    tls=(--tls "$out/backend.pem" "$out/backend.key") trust=("SSL_CERT_FILE=$out/backend.pem")
  fi
  echo "== $scheme://"
  touch "$messages"
  /usr/bin/python3 examples/backend.py --agent-token "$agent_token" --seconds "$seconds" \
    "${tls[@]}" >"$messages" 2>&1 </dev/null &
  backend=$!
  tail -n +1 -s 0.2 -f --pid="$backend" "$messages" &
  local shown=$!
  url=$(wait_for_line "$messages" 'listening: ' "$backend")
  # With a state folder of its own: it is not to note down this key among the user's.
  env "${trust[@]}" OX_LOG_FILE="$out/agent.log" OX_TUI=plain XDG_STATE_HOME="$out/state" \
    "$build_dir/src/app/orvex-agent" --saas-url "$url" --token "$agent_token" \
    --port-base "$port_base" --capture "$capture" --no-input >"$out/agent.out" 2>&1 </dev/null &
  agent=$!
  token=$(wait_for_line "$messages" 'launcher: .* --token ' "$backend") || { show_log; return 1; }
  # It is to see the agent end the session before it ends it itself.
  ORVEX_TOKEN=$token "$build_dir/launcher/orvex-launcher" --port-base "$port_base" \
    --codec "$codec" --width 1280 --height 720 --fps 30 --bitrate 5000 --quiet \
    --seconds "$((${seconds%.*} + 20))" --json-file "$figures" </dev/null &
  launcher=$!

  wait -n "$backend" "$agent" || status=$?
  kill -0 "$agent" 2>/dev/null || status=1
  stop "$backend"
  wait "$shown" || true
  [ "$status" -eq 0 ] || echo "demo.sh: the session did not end as it should" >&2
  backend=''
  local launcher_status=0
  wait "$launcher" || launcher_status=$?
  launcher=''
  if [ "$launcher_status" -ne 7 ]; then
    echo "demo.sh: the launcher ended with status $launcher_status, not 7 (ended by the agent)" >&2
    status=1
  fi
  stop "$agent"
  wait "$agent" || { echo "demo.sh: the agent ended with status $?" >&2; status=1; }
  agent=''
  rm -rf "$out"/{state,backend.key,backend.pem}

  # Every message in its place; those that come by the clock only if they were due.
  local any='((heartbeat|ping|pong|session_stats) )*'
  [ "${seconds%.*}" -lt 11 ] || due="session_stats $any"
  road=$(sed -n 's/.* -> .*"type": *"\([a-z_]*\)".*/\1/p' "$messages" | tr '\n' ' ')
  if ! [[ $road =~ ^register\ prepare_session\ ${any}session_ready\ $any${due}terminate_session\ ${any}session_ended\ $any$ ]]; then
    echo "demo.sh: messages are missing or in disorder: $road" >&2
    status=1
  fi
  local frames
  frames=$(sed -n 's/.*"frames_decoded":\([0-9]*\).*/\1/p' "$figures")
  if [ "${frames:-0}" -eq 0 ]; then
    echo "demo.sh: the launcher decoded no picture" >&2
    status=1
  fi
  [ "$status" -eq 0 ] || { show_log; return "$status"; }
  $keep || rm -f "$out"/{agent.log,agent.out,summary.json}
  echo "The launcher decoded $frames pictures; the messages are in ${out#"$PWD"/}/platform-$scheme.txt"
}

if $platform; then
  rented_session ws
  rented_session wss
  exit
fi

rm -f "$out"/{stream.mkv,frame.png,agent.log,agent.out,summary.json}
token=$(od -An -N16 -tx1 /dev/urandom | tr -d ' \n')
token_hash=$(printf %s "$token" | sha256sum | cut -c1-64)

# The window: an agent with the test picture, and orvex-play for some seconds. Without sound, which
# the agent would record again.
play_in_window() {
  local shown status=0 options=(--no-audio --stats --codec "$codec")
  rm -f "$out"/{window.png,play.out,display}
  : >"$out/agent.out"  # read before the agent has opened it
  OX_LOG_FILE=$out/agent.log OX_TUI=plain "$build_dir/src/app/orvex-agent" \
    --token-sha256 "$token_hash" --port-base "$port_base" --capture "$capture" --no-input \
    >"$out/agent.out" 2>&1 </dev/null &
  agent=$!
  wait_for_line "$out/agent.out" 'Standalone mode' "$agent" >/dev/null || return 1
  if ! $desktop; then
    Xvfb -displayfd 3 -screen 0 1280x720x24 -nolisten tcp 3>"$out/display" >/dev/null 2>&1 &
    xserver=$!
    for _ in {1..100}; do
      [ -s "$out/display" ] && break
      sleep 0.1
    done
    DISPLAY=:$(cat "$out/display")
    export DISPLAY
    echo "No desktop: the window is on an X server of its own ($DISPLAY)"
  fi
  ORVEX_TOKEN=$token "$build_dir/play/orvex-play" --size 1280x720 "${options[@]}" \
    "127.0.0.1:$port_base" >"$out/play.out" </dev/null &
  launcher=$!
  # The time that was asked for, or until somebody closes the window.
  timeout "$seconds" tail --pid "$launcher" -f /dev/null || true
  if ! $desktop; then
    import -window root -strip "$out/window.png" || status=1
  fi
  kill "$launcher" 2>/dev/null || true
  wait "$launcher" || status=$?
  launcher=''
  stop "$agent"
  wait "$agent" || status=1
  agent=''
  cat "$out/play.out"
  shown=$(sed -n 's/^played .* s: \([0-9]*\) pictures.*/\1/p' "$out/play.out")
  if [ "${shown:-0}" -eq 0 ]; then
    echo "demo.sh: orvex-play has shown no picture" >&2
    status=1
  fi
  # A message on black has fewer colours.
  if ! $desktop && [ "$(identify -format %k "$out/window.png")" -lt 500 ]; then
    echo "demo.sh: there is no picture in the window, see ${out#"$PWD"/}/window.png" >&2
    status=1
  fi
  [ "$status" -eq 0 ] || return "$status"
  $keep || rm -f "$out"/{agent.log,agent.out,play.out}
  rm -f "$out/display"
  $desktop || echo "Saved ${out#"$PWD"/}/window.png"
}

if $play; then
  play_in_window || { show_log; exit 1; }
  exit
fi

agent_sound=() launcher_sound=()
if command -v parec >/dev/null && timeout 5 pactl info >/dev/null 2>&1; then
  agent_sound=(--audio --audio-parity) launcher_sound=(--audio)
else
  echo "Sound is off: no PulseAudio server (or no parec) on this machine"
fi

OX_LOG_FILE=$out/agent.log OX_TUI=plain "$build_dir/src/app/orvex-agent" \
  --token-sha256 "$token_hash" --port-base "$port_base" --capture "$capture" --no-input \
  "${agent_sound[@]}" \
  >"$out/agent.out" 2>&1 </dev/null &
agent=$!

picture_options=()
[ "$capture" = synthetic ] && picture_options=(--check-stamps)
ORVEX_TOKEN=$token "$build_dir/launcher/orvex-launcher" --port-base "$port_base" \
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

[ "$status" -eq 0 ] || { show_log; exit "$status"; }
picture="the test picture"
grep -q 'X11Capture: .* via ' "$out/agent.log" && picture="this desktop"
$keep || rm -f "$out"/{agent.log,agent.out,summary.json}
echo "Streamed $picture; saved ${out#"$PWD"/}/stream.mkv and ${out#"$PWD"/}/frame.png"
