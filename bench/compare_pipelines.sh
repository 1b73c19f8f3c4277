#!/usr/bin/env bash
# The agent beside the pipelines that one would otherwise build from ready-made tools: FFmpeg and
# GStreamer, each capturing the same X screen, encoding with x264 at the same bitrate, buffer and
# keyframe distance, and sending over loopback, in clear (RTP) and sealed (SRTP); and x264 alone,
# which none of them can undercut. All run in turn, round by round, under one painter of a game-like
# scene. docs/performance.md tells how it is measured. Needs an otherwise idle machine and
# `scripts/setup.sh --bench`.
#
#   bench/compare_pipelines.sh [--size WxH] [--fps N] [--bitrate KBPS] [--rounds N]
#                              [--warm-up S] [--window S] [--still] [--agent-only]
#
# --still shows a scene that does not move, but for the strip that the latency is read from.
# --agent-only leaves the ready-made tools out: the agent's CPU per streamed frame, x264's share of
# it, and the time from a capture to its last datagram.
#
# Defaults: 1920x1080 at 60 fps, 15000 kbit/s, 3 rounds of 3 s warm-up and 10 s window each.
set -euo pipefail
cd "$(dirname "$0")/.."

size=1920x1080 fps=60 bitrate=15000 rounds=3 warm_up=3 window=10
peers=(ffmpeg ffmpeg-srtp gstreamer gstreamer-srtp) still=false
while [ $# -gt 0 ]; do
  case "$1" in
    -h | --help) sed -n '2,17s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --agent-only) peers=() ;;
    --still) still=true ;;
    --size | --fps | --bitrate | --rounds | --warm-up | --window)
      [ $# -ge 2 ] || { echo "compare_pipelines.sh: $1 needs a value" >&2; exit 2; }
      name=${1#--}
      printf -v "${name//-/_}" %s "$2"
      shift
      ;;
    *) echo "compare_pipelines.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift
done

tools=(Xvfb)
[ ${#peers[@]} -eq 0 ] || tools+=(ffmpeg gst-launch-1.0)
for tool in "${tools[@]}"; do
  command -v "$tool" >/dev/null || {
    echo "compare_pipelines.sh: no $tool; run scripts/setup.sh --bench" >&2
    exit 1
  }
done
# A build folder from before libsrtp was there does not know the probe yet.
[ ! -f build/release/CMakeCache.txt ] || cmake build/release >/dev/null
scripts/build.sh release orvex-agent pipeline_probe x_painter x264_alone >/dev/null
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
Xvfb -displayfd 3 -screen 0 "${size}x24" -noreset -nolisten tcp 3<>"$scratch/display" \
  >/dev/null 2>&1 &
started+=($!)
read -r -t 20 number <"$scratch/display"
display=:$number
painted_fps=$fps
! $still || painted_fps=0
"$bin/bench/x_painter" "$display" "$painted_fps" >"$scratch/painter" &
started+=($!)
for _ in {1..200}; do
  grep -qs painting "$scratch/painter" && break
  sleep 0.1
done
grep -q painting "$scratch/painter" || { echo "compare_pipelines.sh: no painter" >&2; exit 1; }

port=$((20000 + RANDOM % 1200 * 10))
buffer_ms=125 # an eighth of a second of data, as the agent's encoder has it
keyframe_distance=$((30 * fps))
SRTP_KEY=$(od -An -N30 -tx1 /dev/urandom | tr -d ' \n')
export SRTP_KEY
probe() { "$bin/bench/pipeline_probe" "$1" "$port" "$size" "$fps" "$bitrate" "$warm_up" "$window" "${@:2}"; }

run_agent() {
  ORVEX_TOKEN=compare OX_LOG_FILE=$scratch/agent.log OX_TUI=plain probe agent \
    "$bin/src/app/orvex-agent" --capture x11 --display "$display" --no-input --port-base "$port" \
    --token-sha256 "$(printf compare | sha256sum | cut -c1-64)"
}
srtp_key_base64() {
  local digits=$SRTP_KEY bytes=
  while [ -n "$digits" ]; do
    bytes+="\\x${digits:0:2}"
    digits=${digits:2}
  done
  printf '%b' "$bytes" | base64
}
# ffmpeg_to OUTPUT-OPTION...
ffmpeg_to() {
  ffmpeg_command=(ffmpeg -nostdin -loglevel error -fflags nobuffer -f x11grab -draw_mouse 0
    -framerate "$fps" -video_size "$size" -i "$display" -c:v libx264 -preset ultrafast
    -tune zerolatency -thread_type slice -sws_flags fast_bilinear -pix_fmt yuv420p
    -b:v "${bitrate}k" -maxrate "${bitrate}k" -bufsize $((bitrate * buffer_ms)) -bf 0
    -g "$keyframe_distance" -flush_packets 1 "$@")
}
run_ffmpeg() {
  ffmpeg_to -f rtp "rtp://127.0.0.1:$port?pkt_size=1200"
  probe rtp "${ffmpeg_command[@]}"
}
run_ffmpeg-srtp() {
  ffmpeg_to -srtp_out_suite AES_CM_128_HMAC_SHA1_80 \
    -srtp_out_params "$(srtp_key_base64)" \
    -f rtp "srtp://127.0.0.1:$port?pkt_size=1200"
  probe srtp "${ffmpeg_command[@]}"
}
# gstreamer_to MTU ELEMENT...
gstreamer_to() {
  # shellcheck disable=SC2054
  gstreamer_command=(gst-launch-1.0 -q ximagesrc display-name="$display" use-damage=false
    show-pointer=false ! "video/x-raw,framerate=$fps/1" ! videoconvert ! video/x-raw,format=I420
    ! x264enc tune=zerolatency speed-preset=ultrafast pass=cbr bitrate="$bitrate"
    vbv-buf-capacity="$buffer_ms" bframes=0 key-int-max="$keyframe_distance"
    ! rtph264pay mtu="$1" config-interval=-1 aggregate-mode=zero-latency "${@:2}"
    ! udpsink host=127.0.0.1 port="$port" sync=false async=false)
}
run_gstreamer() {
  gstreamer_to 1200
  probe rtp "${gstreamer_command[@]}"
}
run_gstreamer-srtp() {
  gstreamer_to 1180 ! srtpenc key="$SRTP_KEY" rtp-cipher=aes-128-icm rtp-auth=hmac-sha1-80
  probe srtp "${gstreamer_command[@]}"
}
run_x264() { "$bin/bench/x264_alone" "$display" "$fps" "$bitrate" "$warm_up" "$window"; }

echo "$size at $fps fps, $bitrate kbit/s; $(nproc) cores; $rounds rounds of $window s"
for round in $(seq "$rounds"); do
  for pipeline in agent "${peers[@]}" x264; do
    result=$("run_$pipeline")
    printf 'round %d  %-14s  %s\n' "$round" "$pipeline" "$result"
    echo "$pipeline $result" >>"$scratch/results"
  done
done

awk -v peers="${peers[*]}" '
  {
    for (i = 2; i <= NF; i++) {
      split($i, pair, "=")
      values[$1, pair[1], ++count[$1, pair[1]]] = pair[2]
    }
  }
  function median(who, what,    n, i, j, t, v) {
    n = count[who, what]
    if (n == 0) return 0
    for (i = 1; i <= n; i++) v[i] = values[who, what, i] + 0
    for (i = 2; i <= n; i++)
      for (j = i; j > 1 && v[j - 1] > v[j]; j--) { t = v[j]; v[j] = v[j - 1]; v[j - 1] = t }
    return n % 2 ? v[(n + 1) / 2] : (v[n / 2] + v[n / 2 + 1]) / 2
  }
  END {
    printf "\n%-14s %12s %10s %10s %10s %8s\n", "medians", "CPU ms/frame", "p50 ms", "p99 ms", "peak MB", "fps"
    n = split("agent " peers, who, " ")
    for (k = 1; k <= n; k++)
      printf "%-14s %12.2f %10.1f %10.1f %10.0f %8.1f\n", who[k], median(who[k], "cpu_ms"),
        median(who[k], "p50_ms"), median(who[k], "p99_ms"), median(who[k], "rss_mb"), median(who[k], "fps")
    printf "%-14s %12.2f\n\n", "x264 alone", median("x264", "cpu_ms")
    printf "capture to last datagram of the agent  p50 %.1f ms, p99 %.1f ms\n",
      median("agent", "wire_p50_ms"), median("agent", "wire_p99_ms")
    printf "share of x264 in the CPU of the agent  %.0f %%\n",
      100 * median("x264", "cpu_ms") / median("agent", "cpu_ms")
    n = split("x264 " peers, other, " ")
    printf "\nagent / ...       CPU, median and spread of the rounds    latency p50\n"
    for (k = 1; k <= n; k++) {
      low = 1e9; high = 0
      for (i = 1; i <= count["agent", "cpu_ms"]; i++) {
        ratio = values["agent", "cpu_ms", i] / values[other[k], "cpu_ms", i]
        if (ratio < low) low = ratio
        if (ratio > high) high = ratio
      }
      printf "  %-14s  %.2f (%.2f to %.2f)", other[k], median("agent", "cpu_ms") / median(other[k], "cpu_ms"), low, high
      if (k > 1) printf "                    %.2f", median("agent", "p50_ms") / median(other[k], "p50_ms")
      printf "\n"
    }
  }' "$scratch/results"
