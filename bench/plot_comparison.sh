#!/usr/bin/env bash
# Draws the figures that `bench/compare_pipelines.sh --results FILE` kept: a bar per sender and
# setting, the median of the rounds, with their spread. Takes `scripts/setup.sh --bench`.
#
#   bench/plot_comparison.sh RESULTS PICTURE.svg
set -euo pipefail

case "${1:-}" in
  -h | --help) sed -n '2,5s/^# \{0,1\}//p' "$0"; exit 0 ;;
esac
[ $# -eq 2 ] || { echo "plot_comparison.sh: needs RESULTS and PICTURE.svg (see --help)" >&2; exit 2; }
results=$(realpath "$1")
picture=$(realpath "$2")
cd "$(dirname "$0")/.."

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
for figure in cpu_ms p50_ms rss_mb burst_kb; do
  # 1280x720 @ 60 moving: on two lines under the bars.
  awk -v table=$figure -f bench/comparison.awk "$results" |
    sed -E 's/^"[0-9]+x([0-9]+) @ ([0-9]+) (.*)"/"\1p, \2 fps\\n\3"/' >"$scratch/$figure"
done

gnuplot <<END
set terminal svg size 960,1180 font "sans-serif,13" background "white"
set output "$picture"
set style data histograms
set style histogram errorbars gap 1.5 lw 1
set style fill solid 0.9 noborder
set errorbars 0.5 lc rgb "#444444"
set grid ytics lc rgb "#dddddd"
set border 3 lc rgb "#888888"
set xtics nomirror scale 0
set ytics nomirror scale 0.5
set yrange [0:*]
array colours[5] = ["#0072b2", "#e69f00", "#f3cf85", "#009e73", "#8fd1b8"]
array figures[4] = ["cpu_ms", "p50_ms", "rss_mb", "burst_kb"]
array titles[4] = ["CPU time per frame, ms", "Latency, painted to decoded, p50, ms", \\
  "Peak memory, MB", "Largest burst within a millisecond, kB"]
set multiplot layout 4,1 margins 0.06,0.98,0.05,0.94 spacing 0,0.075
do for [n=1:4] {
  set title titles[n] offset 0,-0.6
  if (n == 1) {
    set key at screen 0.5,0.985 center top horizontal samplen 1
  } else {
    unset key
  }
  plot for [k=1:5] "$scratch/".figures[n] using 3*k-1:3*k:3*k+1:xtic(1) \\
    title columnheader(3*k-1) lc rgb colours[k]
}
unset multiplot
END
