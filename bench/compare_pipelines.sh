#!/usr/bin/env bash
# The agent beside the pipelines that one would otherwise build from ready-made tools: FFmpeg and
# GStreamer, each capturing the same X screen, encoding with x264 at the same bitrate, buffer and
# keyframe distance, and sending over loopback, in clear (RTP) and sealed (SRTP); and x264 alone,
# which none of them can undercut. All run in turn, round by round, under one painter of a game-like
# scene. docs/performance.md tells how it is measured. Needs an otherwise idle machine and
# `scripts/setup.sh --bench`.
#
#   bench/compare_pipelines.sh [--size WxH] [--fps N] [--still] [--matrix] [--bitrate KBPS]
#                              [--rounds N] [--warm-up S] [--window S] [--agent-only]
#                              [--phases [--content-fps N] [--beside AGENT]] [--results FILE]
#
# --still shows a scene that does not move, but for the strip that the latency is read from.
# --matrix runs 1280x720 and 1920x1080, 30 and 60 fps, moving and still, one after the other.
# --agent-only leaves the ready-made tools out: the agent's CPU per streamed frame, x264's share of
# it, and the time from a capture to its last datagram.
# --phases looks at the latency from a picture to its decoding where the screen has a clock of its
# own: the painter paints the time once into each of --content-fps pictures a second (the stream's
# rate by default), and each of the rounds is a session that begins at a time by chance. --beside
# takes another build of the agent in turns with this one.
# --results keeps the figures of every round, for bench/plot_comparison.sh.
#
# Defaults: 1920x1080 at 60 fps, 15000 kbit/s, 3 rounds of 3 s warm-up and 10 s window each.
set -euo pipefail
cd "$(dirname "$0")/.."

size=1920x1080 fps=60 scene=moving matrix=false results=
bitrate=15000 rounds=3 warm_up=3 window=10
phases=false content_fps='' beside=''
peers=(ffmpeg ffmpeg-srtp gstreamer gstreamer-srtp)
while [ $# -gt 0 ]; do
  case "$1" in
    -h | --help) sed -n '2,25s/^# \{0,1\}//p' "$0"; exit 0 ;;
    --agent-only) peers=() ;;
    --still) scene=still ;;
    --matrix) matrix=true ;;
    --phases) phases=true ;;
    --content-fps | --beside | --size | --fps | --bitrate | --rounds | --warm-up | --window | --results)
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

. bench/pipelines.sh
results=${results:-$scratch/results}
: >"$results"

port=$((20000 + RANDOM % 1200 * 10))
SRTP_KEY=$(od -An -N30 -tx1 /dev/urandom | tr -d ' \n')
export SRTP_KEY
probe() { "$bin/bench/pipeline_probe" "$1" "$port" "$size" "$fps" "$bitrate" "$warm_up" "$window" "${@:2}"; }

agent=$bin/src/app/orvex-agent
run_agent() {
  ORVEX_TOKEN=compare OX_LOG_FILE=$scratch/agent.log OX_TUI=plain probe agent \
    "$agent" --capture x11 --display "$display" --no-input --port-base "$port" \
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
run_gstreamer() {
  gstreamer_to 1200
  probe rtp "${gstreamer_command[@]}"
}
run_gstreamer-srtp() {
  gstreamer_to 1180 ! srtpenc key="$SRTP_KEY" rtp-cipher=aes-128-icm rtp-auth=hmac-sha1-80
  probe srtp "${gstreamer_command[@]}"
}
run_beside() { agent=$beside run_agent; }
run_x264() { "$bin/bench/x264_alone" "$display" "$fps" "$bitrate" "$warm_up" "$window"; }

# One row per run: size, fps, scene, round, pipeline, then name=value pairs.
compare() {
  local round pipeline result
  local -a others=("${peers[@]}" x264)
  if $phases; then
    scene="content-${content_fps:-$fps}" others=("${peers[@]}")
    [ -z "$beside" ] || others=(beside "${peers[@]}")
  fi
  start_screen
  for round in $(seq "$rounds"); do
    for pipeline in agent "${others[@]}"; do
      ! $phases || sleep "0.0$((RANDOM % 90 + 10))"
      result=$("run_$pipeline")
      echo "$size $fps $scene $round $pipeline $result" | tee -a "$results"
    done
  done
  stop_started
}

echo "$bitrate kbit/s; $(nproc) cores; $rounds rounds of $window s"
if $matrix; then
  for size in 1280x720 1920x1080; do
    for fps in 30 60; do
      for scene in moving still; do
        compare
      done
    done
  done
else
  compare
fi
if $phases; then
  awk -f bench/phases.awk "$results"
else
  awk -f bench/comparison.awk "$results"
fi
