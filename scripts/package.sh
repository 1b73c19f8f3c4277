#!/usr/bin/env bash
# Builds the Debian package; with --check installs it in a clean Debian root, uses it there as a
# merchant would (self-test, a streamed session, start-agent) and removes it again.
#
#   scripts/package.sh            build/programs/orvex-agent_<version>_<architecture>.deb
#   scripts/package.sh --check    needs root and debootstrap (scripts/setup.sh --package)
#   scripts/package.sh --rpm      build/programs/orvex-agent-<version>-1.<architecture>.rpm; needs
#                                 rpmbuild (Fedora's scripts/setup.sh --package, Debian's package rpm)
set -euo pipefail
cd "$(dirname "$0")/.."

check=false format=DEB
case "${1:-}" in
  '') ;;
  --check) check=true ;;
  --rpm) format=RPM ;;
  -h | --help) sed -n '2,8s/^# \{0,1\}//p' "$0"; exit 0 ;;
  *) echo "package.sh: unknown argument '$1' (see --help)" >&2; exit 2 ;;
esac

scripts/setup.sh --package
scripts/build.sh programs
cmake -DOX_PACKAGE=$format build/programs >/dev/null
cmake --build build/programs
rm -f build/programs/orvex-agent_*.deb build/programs/orvex-agent-*.rpm
# The folders in the package get their modes from the umask.
(umask 022 && cd build/programs && cpack >cpack.log) || { cat build/programs/cpack.log >&2; exit 1; }
package=$(ls build/programs/orvex-agent[_-]*."${format,,}")
echo "package.sh: built $package"
$check || exit 0

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

# The package's dependencies first, so that what is compared is the package alone.
cp "$package" "$root/tmp/agent.deb"
"${inside[@]}" apt-get -qq update
"${inside[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y --no-install-recommends \
  "/tmp/agent.deb" >"$root/tmp/apt.log" 2>&1 || { tail -20 "$root/tmp/apt.log" >&2; exit 1; }
"${inside[@]}" dpkg --purge orvex-agent >/dev/null
everything >"$root/tmp/before"
"${inside[@]}" dpkg -i /tmp/agent.deb >/dev/null

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
[ "$status" -eq 2 ] || { echo "package.sh: start-agent ended with status $status" >&2; exit 1; }

echo "package.sh: start-agent with settings"
mkdir -p "$root/tmp/config/orvex"
echo 'TOKEN_SHA256=00 PORT_BASE=46110' >"$root/tmp/config/orvex/start-agent.conf"
status=0
"${inside[@]}" XDG_CONFIG_HOME=/tmp/config OX_LANG=en start-agent --check 2>"$root/tmp/checked" || status=$?
cat "$root/tmp/checked"
# An encoder, but neither desktop nor sound.
{ [ "$status" -eq 1 ] && grep -q 'encodes (' "$root/tmp/checked"; } ||
  { echo "package.sh: start-agent ended with status $status" >&2; exit 1; }

"${inside[@]}" dpkg --purge orvex-agent >/dev/null
everything >"$root/tmp/after"
diff "$root/tmp/before" "$root/tmp/after" ||
  { echo "package.sh: the package left the files above behind" >&2; exit 1; }
echo "package.sh: installed, used and removed without a trace"
