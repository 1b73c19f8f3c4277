#!/usr/bin/env bash
# Glass to glass: from a picture on one X display to the player's window on another, for the agent
# with orvex-play and for what one would otherwise use, FFmpeg with ffplay and GStreamer on both
# sides (RTP, in clear). In turn, round by round, under one painter of a game-like scene, whose time
# strip is read back from the window 400 times a second. docs/performance.md tells how it is
# measured. Needs an otherwise idle machine and `scripts/setup.sh --bench`.
#
#   bench/compare_players.sh [--size WxH] [--fps N] [--bitrate KBPS] [--rounds N] [--warm-up S]
#                            [--window S] [--play-only]
#
# Defaults: 1280x720 at 60 fps, 15000 kbit/s, 3 rounds of 4 s warm-up and 10 s window each.
set -euo pipefail
cd "$(dirname "$0")/.."

size=1280x720 fps=60 scene=moving bitrate=15000 rounds=3 warm_up=4 window=10
players=(play ffplay gstreamer)
while [ $# -gt 0 ]; do
  case "$1" in
    -h | --help) sed -n '2,12s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --play-only) players=(play) ;;
    --size | --fps | --bitrate | --rounds | --warm-up | --window)
      [ $# -ge 2 ] || { echo "compare_players.sh: $1 needs a value" >&2; exit 2; }
      name=${1#--}
      printf -v "${name//-/_}" %s "$2"
      shift
      ;;
    *) echo "compare_players.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done
for tool in Xvfb ffmpeg ffplay gst-launch-1.0; do
  command -v "$tool" >/dev/null || {
    echo "compare_players.sh: no $tool; run scripts/setup.sh --bench" >&2
    exit 1
  }
done
scripts/build.sh release orvex-agent orvex-play x_painter window_probe >/dev/null
bin=$PWD/build/release
. bench/pipelines.sh

port=$((20000 + RANDOM % 1200 * 10))
sender='' player=''
end_both() {
  kill "$sender" "$player" 2>/dev/null || true
  wait "$sender" "$player" 2>/dev/null || true
}
run_play() {
  OX_LOG_FILE=$scratch/agent.log OX_TUI=plain "$bin/src/app/orvex-agent" --capture x11 \
    --display "$source" --no-input --port-base "$port" \
    --token-sha256 "$(printf compare | sha256sum | cut -c1-64)" >/dev/null 2>&1 </dev/null &
  sender=$!
  DISPLAY=$target ORVEX_TOKEN=compare "$bin/play/orvex-play" "127.0.0.1:$port" --size "$size" \
    --fps "$fps" --bitrate "$bitrate" --no-audio >"$scratch/player" 2>&1 &
  player=$!
}
run_ffplay() {
  display=$source
  # With nobuffer ffplay drops what it looks at to know the stream, the first keyframe with it, and
  # shows nothing before the next one, which comes during the warm-up, as well.
  ffmpeg_to -force_key_frames "$(seq -s, "$warm_up")" -sdp_file "$scratch/stream.sdp" \
    -f rtp "rtp://127.0.0.1:$port?pkt_size=1200"
  rm -f "$scratch/stream.sdp"
  "${ffmpeg_command[@]}" >/dev/null 2>&1 &
  sender=$!
  for _ in {1..50}; do [ -s "$scratch/stream.sdp" ] && break; sleep 0.1; done
  kill "$sender"
  wait "$sender" 2>/dev/null || true
  # The X server has no graphics card, and SDL's own drawing is faster than an emulated one.
  DISPLAY=$target SDL_RENDER_DRIVER=software SDL_AUDIODRIVER=dummy ffplay -loglevel error \
    -nostats -fflags nobuffer -flags low_delay -framedrop -noborder -left 0 -top 0 \
    -protocol_whitelist file,udp,rtp -an -i "$scratch/stream.sdp" >"$scratch/player" 2>&1 \
    </dev/null &
  player=$!
  sleep 1
  "${ffmpeg_command[@]}" >/dev/null 2>&1 &
  sender=$!
}
run_gstreamer() {
  # shellcheck disable=SC2054
  DISPLAY=$target gst-launch-1.0 -q udpsrc port="$port" \
    caps=application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96 \
    ! rtph264depay ! avdec_h264 ! videoconvert ! ximagesink sync=false \
    >"$scratch/player" 2>&1 </dev/null &
  player=$!
  sleep 1
  display=$source
  gstreamer_to 1200
  "${gstreamer_command[@]}" >/dev/null 2>&1 &
  sender=$!
}

start_screen
source=$display
start_x_server
target=$display
echo "$size at $fps fps, $bitrate kbit/s; $(nproc) cores; $rounds rounds of $window s"
for round in $(seq "$rounds"); do
  for name in "${players[@]}"; do
    "run_$name"
    result=$("$bin/bench/window_probe" "$target" "$player" "$warm_up" "$window") || true
    echo "$size $fps $round $name $result" | tee -a "$scratch/results"
    end_both
    head -n 3 "$scratch/player" >&2
    sleep 0.5
  done
done
awk '{
  for (i = 5; i <= NF; i++) { split($i, pair, "="); sum[$4, pair[1]] += pair[2] }
  rounds[$4]++
}
END {
  for (name in rounds)
    printf "%-10s p50 %6.1f ms  p99 %6.1f ms  %5.1f fps  CPU %5.2f ms a picture\n", name,
      sum[name, "p50"] / rounds[name], sum[name, "p99"] / rounds[name],
      sum[name, "fps"] / rounds[name], sum[name, "cpu"] / rounds[name]
}' "$scratch/results"
