#!/usr/bin/env bash
# The parts of compare_pipelines.sh and compare_players.sh: X servers, the painter, the ready-made
# senders. Sourced with $size, $fps, $scene, $bitrate and $bin set; what is started and the folder
# $scratch end with the script.
# shellcheck disable=SC2034,SC2154

scratch=$(mktemp -d)
started=()
stop_started() {
  [ ${#started[@]} -eq 0 ] || kill "${started[@]}" 2>/dev/null || true
  wait 2>/dev/null || true
  started=()
}
cleanup() {
  [ "$BASHPID" = $$ ] || return 0 # a copy that was killed before it became a program
  stop_started
  rm -rf "$scratch"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM HUP

# Starts an X server of $size; its name is in $display.
start_x_server() {
  local number
  rm -f "$scratch/display"
  mkfifo "$scratch/display"
  Xvfb -displayfd 3 -screen 0 "${size}x24" -noreset -nolisten tcp 3<>"$scratch/display" \
    >/dev/null 2>&1 &
  started+=($!)
  read -r -t 20 number <"$scratch/display"
  display=:$number
}

# Starts an X server of $size with the painter of $scene.
start_screen() {
  local painted_fps=$fps strips=400
  [ "$scene" = moving ] || painted_fps=0
  if ${phases:-false}; then
    painted_fps=${content_fps:-$fps} strips=0
  fi
  start_x_server
  "$bin/bench/x_painter" "$display" "$painted_fps" "$strips" >"$scratch/painter" &
  started+=($!)
  for _ in {1..200}; do
    grep -qs painting "$scratch/painter" && return
    sleep 0.1
  done
  echo "no painter" >&2
  exit 1
}

buffer_ms=125 # an eighth of a second of data, as the agent's encoder has it
keyframe_s=30
# ffmpeg_to OUTPUT-OPTION...
ffmpeg_to() {
  ffmpeg_command=(ffmpeg -nostdin -loglevel error -fflags nobuffer -f x11grab -draw_mouse 0
    -framerate "$fps" -video_size "$size" -i "$display" -c:v libx264 -preset ultrafast
    -tune zerolatency -thread_type slice -sws_flags fast_bilinear -pix_fmt yuv420p
    -b:v "${bitrate}k" -maxrate "${bitrate}k" -bufsize $((bitrate * buffer_ms)) -bf 0
    -g $((keyframe_s * fps)) -flush_packets 1 "$@")
}
# gstreamer_to MTU ELEMENT...
gstreamer_to() {
  # shellcheck disable=SC2054
  gstreamer_command=(gst-launch-1.0 -q ximagesrc display-name="$display" use-damage=false
    show-pointer=false ! "video/x-raw,framerate=$fps/1" ! videoconvert ! video/x-raw,format=I420
    ! x264enc tune=zerolatency speed-preset=ultrafast pass=cbr bitrate="$bitrate"
    vbv-buf-capacity="$buffer_ms" bframes=0 key-int-max=$((keyframe_s * fps))
    ! rtph264pay mtu="$1" config-interval=-1 aggregate-mode=zero-latency "${@:2}"
    ! udpsink host=127.0.0.1 port="$port" sync=false async=false)
}
