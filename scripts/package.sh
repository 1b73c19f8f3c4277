#!/usr/bin/env bash
# Builds the Debian packages of the agent and of orvex-play; with --check installs them in a clean
# Debian root, uses the agent there as a merchant would (self-test, a streamed session, start-agent),
# starts orvex-play without a display, and removes both again.
#
#   scripts/package.sh            build/programs/orvex-{agent,play}_<version>_<architecture>.deb
#   scripts/package.sh --check    needs root and debootstrap (scripts/setup.sh --package)
#   scripts/package.sh --rpm      build/programs/orvex-{agent,play}-<version>-1.<architecture>.rpm; needs
#                                 rpmbuild (Fedora's scripts/setup.sh --package, Debian's package rpm)
set -euo pipefail
cd "$(dirname "$0")/.."

check=false format=DEB
case "${1:-}" in
  '') ;;
  --check) check=true ;;
  --rpm) format=RPM ;;
  -h | --help) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 0 ;;
  *) echo "package.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
esac

scripts/setup.sh --package
scripts/build.sh programs
cmake -DOX_PACKAGE=$format build/programs >/dev/null
cmake --build build/programs
rm -f build/programs/orvex-*.deb build/programs/orvex-*.rpm
# The folders in a package get their modes from the umask.
(umask 022 && cd build/programs && cpack >cpack.log) || { cat build/programs/cpack.log >&2; exit 1; }
packages=(build/programs/orvex-*."${format,,}")
echo "package.sh: built ${packages[*]}"
$check || exit 0

fail() {
  echo "package.sh: $1" >&2
  exit 1
}
lintian --fail-on error --allow-root "${packages[@]}" || fail "lintian finds errors"
! dpkg-deb -f build/programs/orvex-agent_*.deb Depends | grep -E 'sdl|pango|samplerate' ||
  fail "the agent's package needs orvex-play's libraries"

root=$(mktemp -d)
agent=
cleanup() {
  [ -z "$agent" ] || kill "$agent" 2>/dev/null || true
  wait 2>/dev/null || true
  umount "$root/proc" 2>/dev/null || true
  rm -rf --one-file-system "$root"
}
trap cleanup EXIT

# The libraries' names are those of this machine's release.
suite=$(. /etc/os-release && echo "${VERSION_CODENAME:?this system has no release name}")
echo "package.sh: making a clean root of $suite"
debootstrap --variant=minbase "$suite" "$root" >"$root.log" 2>&1 ||
  { tail -5 "$root.log" >&2; exit 1; }
rm -f "$root.log"
mount -t proc proc "$root/proc"
# A command line, not a function: in the background its process id is the program's.
inside=(chroot "$root" env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root)
everything() { (cd "$root" && find . -xdev \( -path ./proc -o -path ./var -o -path ./tmp \) -prune -o -print | sort); }

# The packages' dependencies first, so that what is compared is the packages alone.
mkdir "$root/tmp/packages"
cp "${packages[@]}" "$root/tmp/packages"
packages=("${packages[@]/#*\//\/tmp\/packages\/}")
names=("${packages[@]##*/}")
names=("${names[@]%%_*}")
"${inside[@]}" apt-get -qq update
"${inside[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends \
  "${packages[@]}" >"$root/tmp/apt.log" 2>&1 || { tail -20 "$root/tmp/apt.log" >&2; exit 1; }
"${inside[@]}" dpkg --purge "${names[@]}" >/dev/null
everything >"$root/tmp/before"
"${inside[@]}" dpkg -i "${packages[@]}" >/dev/null

echo "package.sh: self-test"
"${inside[@]}" orvex-agent --selftest | tail -1

echo "package.sh: a streamed session"
token=check-$RANDOM$RANDOM
"${inside[@]}" env OX_TUI=plain OX_LOG_FILE=/tmp/agent.log orvex-agent --capture synthetic --port-base 46110 \
  --token-sha256 "$(printf %s "$token" | sha256sum | cut -c1-64)" &
agent=$!
sleep 1
"${inside[@]}" env ORVEX_TOKEN="$token" orvex-launcher --port-base 46110 --local-port 46210 --width 1280 \
  --height 720 --seconds 3 --quiet --json >"$root/tmp/summary.json"
kill "$agent"
wait "$agent"
agent=
grep -o '"frames_decoded":[0-9]*' "$root/tmp/summary.json" || cat "$root/tmp/summary.json"

echo "package.sh: start-agent without settings"
status=0
"${inside[@]}" start-agent --check || status=$?
[ "$status" -eq 2 ] || fail "start-agent ended with status $status"

echo "package.sh: start-agent with settings"
mkdir -p "$root/tmp/config/orvex"
echo 'TOKEN_SHA256=00 PORT_BASE=46110' >"$root/tmp/config/orvex/start-agent.conf"
status=0
"${inside[@]}" XDG_CONFIG_HOME=/tmp/config OX_LANG=en start-agent --check 2>"$root/tmp/checked" || status=$?
cat "$root/tmp/checked"
# An encoder, but neither desktop nor sound.
{ [ "$status" -eq 1 ] && grep -q 'encodes (' "$root/tmp/checked"; } ||
  fail "start-agent ended with status $status"

if [[ " ${names[*]} " == *" orvex-play "* ]]; then
  echo "package.sh: orvex-play, where there is no display"
  "${inside[@]}" orvex-play --version
  "${inside[@]}" orvex-play --help | grep -q '^Usage: orvex-play ' || fail "orvex-play shows no help"
  status=0
  # libwayland would say a line of its own where there is no such folder.
  "${inside[@]}" env XDG_RUNTIME_DIR=/tmp ORVEX_TOKEN=any timeout 20 orvex-play 127.0.0.1 2>"$root/tmp/play" || status=$?
  cat "$root/tmp/play"
  { [ "$status" -eq 8 ] && [ "$(wc -l <"$root/tmp/play")" -eq 1 ]; } ||
    fail "orvex-play without a display ended with status $status"
fi

"${inside[@]}" dpkg --purge "${names[@]}" >/dev/null
everything >"$root/tmp/after"
diff "$root/tmp/before" "$root/tmp/after" || fail "the packages left the files above behind"
echo "package.sh: installed, used and removed without a trace"
