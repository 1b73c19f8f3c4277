#!/usr/bin/env bash
# Runs every check of the project: sets the machine up, builds with warnings as errors, runs the
# whole suite in Release, then under AddressSanitizer + UndefinedBehaviorSanitizer and under
# ThreadSanitizer, and checks format and static analysis. What is already set up, built or analysed
# is not done again. The last line counts all runs; the exit status is 0 only if nothing failed.
#
#   scripts/test.sh            everything
#   scripts/test.sh --quick    the format check and the Release suite only
set -uo pipefail
cd "$(dirname "$0")/.." || exit

quick=false
for argument in "$@"; do
  case "$argument" in
    --quick) quick=true ;;
    -h | --help) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "test.sh: unknown argument '$argument' (see --help)" >&2; exit 2 ;;
  esac
done

passed=0 failed=0 skipped=0 tests_run=0
jobs=$(nproc)

say() { printf '\n== %s\n' "$*"; }

# Runs one check that is no test case of its own (a build, a linter); it counts as one.
check() {
  local name=$1
  shift
  say "$name"
  if "$@" </dev/null; then
    passed=$((passed + 1))
  else
    failed=$((failed + 1))
    echo "FAILED: $name"
    return 1
  fi
}

# ThreadSanitizer's memory layout does not bear much address space randomisation.
fixed_addresses=()
if setarch "$(uname -m)" -R true 2>/dev/null; then
  fixed_addresses=(setarch "$(uname -m)" -R)
fi

# suite PRESET [CTEST-ARGUMENT...]: builds the preset and counts its test cases one by one.
suite() {
  local preset=$1 report total ok not_run
  shift
  check "$preset: build" "${fixed_addresses[@]}" scripts/build.sh "$preset" || return
  say "$preset: tests"
  report=$PWD/build/$preset/junit.xml
  rm -f "$report"
  "${fixed_addresses[@]}" ctest --test-dir "build/$preset" --parallel "$jobs" --no-tests=error \
    --output-on-failure --output-junit "$report" "$@" </dev/null
  local ctest_status=$?
  total=$(grep -c '^\s<testcase ' "$report" 2>/dev/null)
  ok=$(grep -c '^\s<testcase .* status="run">' "$report" 2>/dev/null)
  not_run=$(grep -cE '^\s+<skipped message="SKIP_|^\s<testcase .* status="disabled">' "$report" 2>/dev/null)
  total=${total:-0} ok=${ok:-0} not_run=${not_run:-0}
  passed=$((passed + ok)) skipped=$((skipped + not_run)) tests_run=$((tests_run + ok))
  failed=$((failed + total - ok - not_run))
  # ctest also fails for reasons that are no test case (nothing found, a broken test file).
  if [ "$ctest_status" -ne 0 ] && [ "$total" -eq $((ok + not_run)) ]; then
    failed=$((failed + 1))
    echo "FAILED: $preset: ctest ended with status $ctest_status"
  fi
}

# pinned TOOL: prints how the version of a clang tool is called here that .clang-format and .clang-tidy
# are written for; others find other things. Fails where it is missing.
clang_version=14
pinned() {
  local command
  for command in "$1-$clang_version" "$1"; do
    "$command" --version 2>/dev/null | grep -q "version $clang_version\." && { echo "$command"; return; }
  done
  return 1
}

# check_pinned NAME TOOL FUNCTION: a check that counts as skipped where its tool is missing.
check_pinned() {
  local tool
  if tool=$(pinned "$2"); then
    check "$1" "$3" "$tool"
  else
    say "$1"
    skipped=$((skipped + 1))
    echo "SKIPPED: $1: no $2 $clang_version on this machine"
  fi
}

sources() { git ls-files --cached --others --exclude-standard -- "$@"; }

check_format() {
  sources '*.cpp' '*.h' | xargs -r "$1" --dry-run --Werror
}

check_scripts() {
  sources '*.sh' .ci/run packaging/start-agent 'packaging/arch/*' 'packaging/debian/post*' 'packaging/completions/*.bash' |
    xargs -r shellcheck --severity=warning
}

# One source file; a stamp keeps the result until the file, a header or the configuration changes.
tidy_one() {
  local file=$1 stamp
  stamp=$TIDY_STAMPS/$(sha256sum <<<"$TIDY_KEY $(sha256sum "$file")" | cut -c1-32)
  [ -e "$stamp" ] && return 0
  "$TIDY" --quiet -p build/release "$file" 2>/dev/null && touch "$stamp"
}
export -f tidy_one

check_tidy() {
  export TIDY=$1 TIDY_STAMPS=$PWD/build/tidy TIDY_KEY
  mkdir -p "$TIDY_STAMPS"
  TIDY_KEY=$({ cat .clang-tidy && sources 'src/*.h' 'launcher/*.h' 'play/*.h' | xargs cat; } | sha256sum)
  sources 'src/*.cpp' 'launcher/*.cpp' 'play/*.cpp' | xargs -r -n 1 -P "$jobs" bash -c 'tidy_one "$1"' _
}

export OX_WERROR=1  # scripts/build.sh, scripts/fuzz.sh

check "set-up" scripts/setup.sh
check_pinned "format" clang-format check_format
check "scripts" check_scripts
suite release
if ! $quick; then
  export ASAN_OPTIONS=detect_stack_use_after_return=1:strict_string_checks=1
  export UBSAN_OPTIONS=print_stacktrace=1
  export TSAN_OPTIONS=second_deadlock_stack=1
  suite asan
  suite tsan
  check_pinned "static analysis" clang-tidy check_tidy
  check "fuzz targets" scripts/fuzz.sh 10
fi

if [ "$tests_run" -eq 0 ]; then
  echo "FAILED: no test ran"
  failed=$((failed + 1))
fi
echo
echo "$passed passed, $failed failed, $skipped skipped"
[ "$failed" -eq 0 ]
