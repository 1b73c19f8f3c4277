#!/usr/bin/env bash
# Draws how long pictures took from the screen to their decoding in the sessions that
# `bench/compare_pipelines.sh --phases --beside AGENT --results FILE` ran: the agent, and the build
# beside it. Takes `scripts/setup.sh --bench`.
#
#   bench/plot_phases.sh RESULTS PICTURE.svg
set -euo pipefail

case "${1:-}" in
  -h | --help) sed -n '2,6s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
[ $# -eq 2 ] || { echo "plot_phases.sh: needs RESULTS and PICTURE.svg (see --help)" >&2; exit 2; }
results=$(realpath "$1")
picture=$(realpath "$2")
cd "$(dirname "$0")/.."

shares=$(mktemp)
trap 'rm -f "$shares"' EXIT
awk -v table=1 -f bench/phases.awk "$results" >"$shares"

gnuplot <<END
set terminal svg size 960,360 font "sans-serif,13" background "white"
set output "$picture"
set style fill solid 0.75 noborder
set boxwidth 1
set grid ytics lc rgb "#dddddd"
set border 3 lc rgb "#888888"
set xtics nomirror 4
set ytics nomirror
set xrange [0:40]
set xlabel "painted to decoded, ms"
set ylabel "pictures, %"
set key top right
plot "$shares" using 1:3 with boxes lc rgb "#e69f00" title "deadlines by the clock alone", \\
  "$shares" using 1:2 with boxes lc rgb "#0072b2" title "deadlines that follow the screen"
END
