#!/usr/bin/env bash
# Takes pictures of the console screen in its states, sizes and languages: in xterm, and in tmux
# inside xterm, on an X server of its own. Needs what "scripts/setup.sh --pictures" installs.
#
#   scripts/screenshots.sh [--out FOLDER] [--only PATTERN]
#     --out FOLDER     where the PNG files go (default screenshots)
#     --only PATTERN   only pictures whose name matches, as in "streaming-80x24-en-*"
#
# A picture is named STATE-SIZE-LANGUAGE-KIND.png, with KIND one of true (24-bit colours), ansi
# (basic colours), tmux, light (dark on white) and linux (the kernel console's few characters).
set -euo pipefail
cd "$(dirname "$0")/.."

out=screenshots only='*'
while [ $# -gt 0 ]; do
  case "$1" in
    --out) out=${2:?--out needs a folder} ;;
    --only) only=${2:?--only needs a pattern} ;;
    -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "screenshots.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
  esac
  shift 2
done

scripts/setup.sh --pictures
scripts/build.sh release screen_gallery
gallery=$PWD/build/release/bench/screen_gallery
mkdir -p "$out"

scratch=$(mktemp -d)
server='' terminal=''
# Ends what is shown; tmux and the terminal around it then end by themselves.
stop_gallery() {
  [ ! -s "$scratch/gallery" ] || kill "$(cat "$scratch/gallery")" 2>/dev/null || true
  rm -f "$scratch/gallery"
}
cleanup() {
  stop_gallery
  [ -z "$terminal" ] || kill "$terminal" 2>/dev/null || true
  [ -z "$server" ] || kill "$server" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT

Xvfb -displayfd 3 -screen 0 2600x1500x24 -nolisten tcp 3>"$scratch/display" >/dev/null 2>&1 &
server=$!
for _ in {1..100}; do
  [ -s "$scratch/display" ] && break
  sleep 0.1
done
DISPLAY=:$(cat "$scratch/display")
export DISPLAY

# picture STATE COLUMNSxROWS LANGUAGE KIND
picture() {
  local name=$1-$2-$3-$4 colours=(-bg '#12151b' -fg '#d6dbe3') inner term=xterm-256color depth=truecolor
  # shellcheck disable=SC2053
  [[ $name == $only ]] || return 0
  case "$4" in
    ansi) depth='' ;;
    light) colours=(-bg white -fg '#1c2026') ;;
    linux) depth='' term=linux ;;
  esac
  [ "$4" = tmux ] && term=tmux-256color
  cat >"$scratch/show" <<EOF
echo \$\$ >$scratch/gallery
exec env TERM=$term COLORTERM=$depth OX_LANG=$3 $gallery $1 60
EOF
  inner="sh $scratch/show"
  if [ "$4" = tmux ]; then
    printf '%s\n' 'set -g status off' 'set -ga terminal-overrides ",*:Tc"' >"$scratch/tmux.conf"
    inner="tmux -S $scratch/tmux -f $scratch/tmux.conf new-session 'sh $scratch/show'"
  fi
  rm -f "$scratch/window"
  LC_ALL=C.UTF-8 xterm -u8 -fa 'DejaVu Sans Mono' -fs 12 -b 8 -bw 0 +sb -geometry "$2+0+0" \
    "${colours[@]}" -e sh -c "echo \$WINDOWID >$scratch/window; exec $inner" 2>/dev/null &
  terminal=$!
  for _ in {1..100}; do
    [ -s "$scratch/window" ] && break
    sleep 0.1
  done
  sleep 1.5  # until it is drawn; nothing tells
  import -window "$(cat "$scratch/window")" -strip "$out/$name.png"
  stop_gallery
  wait "$terminal" 2>/dev/null || true
  terminal=''
}

for state in idle connected reconnecting streaming holding alert alerts; do
  for size in 80x24 120x40 40x12; do
    for language in en ru; do
      picture "$state" "$size" "$language" true
      picture "$state" "$size" "$language" tmux
    done
  done
done
for state in streaming poor alerts; do
  for kind in ansi light linux; do
    picture "$state" 80x24 en "$kind"
  done
done
for language in en ru; do
  picture preparing 80x24 "$language" true
  picture connecting 80x24 "$language" true
  picture busy-alerts 80x24 "$language" true
  picture poor 80x24 "$language" true
  picture streaming 132x30 "$language" true
  picture streaming 60x16 "$language" true
  picture streaming 30x8 "$language" true
done
picture streaming 200x55 en true
