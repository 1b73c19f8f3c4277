#!/usr/bin/env bash
# Feeds the parsers of everything that comes from outside with made-up bytes (libFuzzer), each for the
# given time. What it finds to be new paths stays in build/fuzz/corpus and is taken up next time.
#
#   scripts/fuzz.sh [SECONDS] [TARGET...]      default: 60 seconds, every target
set -euo pipefail
cd "$(dirname "$0")/.."

seconds=60
case "${1:-}" in
  -h | --help) sed -n '2,5s/^# \{0,1\}//p' "$0"; exit 0 ;;
  [0-9]*) seconds=$1; shift ;;
esac

targets=("$@")
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(cd fuzz && basename -s .cpp ./*.cpp)

scripts/setup.sh --fuzz
scripts/build.sh fuzz "${targets[@]/#/fuzz_}"

# one TARGET: its last lines are shown only when it found something.
one() {
  local target=$1 grown=build/fuzz/corpus/$1 log=build/fuzz/$1.log
  mkdir -p "$grown"
  if UBSAN_OPTIONS=print_stacktrace=1 build/fuzz/fuzz/fuzz_"$target" -max_total_time="$SECONDS_EACH" \
    -max_len=4096 -timeout=20 -rss_limit_mb=2048 -print_final_stats=1 \
    -artifact_prefix="build/fuzz/$target-" "$grown" "fuzz/corpus/$target" >"$log" 2>&1; then
    printf '%-18s %s runs, nothing found\n' "$target" \
      "$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")"
  else
    tail -40 "$log"
    echo "$target: FOUND SOMETHING, the input lies in build/fuzz/$target-*"
    return 1
  fi
}
export -f one
export SECONDS_EACH=$seconds
# A UDP port of its own per process keeps targets apart, so they may run side by side.
printf '%s\n' "${targets[@]}" | xargs -P "$(nproc)" -I{} bash -c 'one "$1"' _ {}
