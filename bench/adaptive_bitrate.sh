#!/usr/bin/env bash
# The bitrate that orvex-play chooses, on a real agent's stream of a moving scene through a path that
# bench/path_shaper.cpp shapes: 20, then 3, then 12 Mbit/s, a queue of 200 ms, 2 % of random loss, and
# no jitter, then 30 ms that keeps the packets' order, then 30 ms that does not. Prints each change,
# each pause of the picture above 250 ms, and the rate 10 s after each step.
#
#   bench/adaptive_bitrate.sh [--size WxH] [--fps N] [PROBE-OPTION...]
#
# With options of bitrate_probe (name=value, bench/bitrate_probe.cpp) runs once, with these alone.
set -euo pipefail
cd "$(dirname "$0")/.."

size=1280x720 fps=60
options=()
while [ $# -gt 0 ]; do
  case "$1" in
    -h | --help) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --size | --fps)
      [ $# -ge 2 ] || { echo "adaptive_bitrate.sh: $1 needs a value" >&2; exit 2; }
      printf -v "${1#--}" %s "$2"
      shift
      ;;
    *=*) options+=("$1") ;;
    *) echo "adaptive_bitrate.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done
command -v Xvfb >/dev/null || { echo "adaptive_bitrate.sh: no Xvfb" >&2; exit 1; }
scripts/build.sh release orvex-agent bitrate_probe x_painter >/dev/null
bin=$PWD/build/release

scratch=$(mktemp -d)
started=()
cleanup() {
  [ ${#started[@]} -eq 0 ] || kill "${started[@]}" 2>/dev/null || true
  wait 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

mkfifo "$scratch/display"
Xvfb -displayfd 3 -screen 0 "${size}x24" -noreset -nolisten tcp 3<>"$scratch/display" >/dev/null 2>&1 &
started+=($!)
read -r -t 20 number <"$scratch/display"
"$bin/bench/x_painter" ":$number" "$fps" 100 >"$scratch/painter" &
started+=($!)
for _ in {1..200}; do
  grep -qs painting "$scratch/painter" && break
  sleep 0.1
done

port=$((20000 + RANDOM % 1200 * 10))
export ORVEX_TOKEN=shaped
OX_LOG_FILE=$scratch/agent.log OX_TUI=plain "$bin/src/app/orvex-agent" --capture x11 \
  --display ":$number" --no-input --port-base "$port" \
  --token-sha256 "$(printf %s "$ORVEX_TOKEN" | sha256sum | cut -c1-64)" >/dev/null 2>&1 &
started+=($!)
run() {
  echo "== $*"
  "$bin/bench/bitrate_probe" "$port" "$size" "$fps" "$@"
}
steps=steps=0:20000,20:3000,40:12000
if [ ${#options[@]} -gt 0 ]; then
  run 60 "${options[@]}"
else
  run 60 "$steps" loss=2
  run 60 "$steps" loss=2 jitter=30
  run 60 "$steps" loss=2 jitter=30 reorder=1 hold=45
fi
