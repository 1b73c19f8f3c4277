#!/usr/bin/env bash
# Portal capture on the real desktop that this runs in (GNOME, Plasma ...): approval, a second session
# without a dialog, a part of the portal that dies, and "Stop sharing". Takes a minute.
#
#   scripts/check_desktop.sh [BUILD]     BUILD: folder of the release build (build/release)
#
# Somebody has to confirm the window and, at the end, to stop the share; where commands can do that,
# APPROVE and STOP hold them. Status 0: passed, 1: failed, 77: there is no such desktop here.
set -euo pipefail

build=${1:-$(dirname "$0")/../build/release}
agent=$build/src/app/orvex-agent
launcher=$build/launcher/orvex-launcher
scratch=$(mktemp -d)
log=$scratch/agent.log
agent_pid=

cleanup() {
  [ -z "$agent_pid" ] || kill "$agent_pid" 2>/dev/null || true
  rm -rf "$scratch"
}
trap cleanup EXIT

skip() { echo "check_desktop: SKIPPED, $1"; exit 77; }
fail() { echo "check_desktop: FAILED, $1"; tail -n 25 "$log"; exit 1; }
ask_bus() { dbus-send --session --print-reply=literal --reply-timeout=5000 "$@" 2>/dev/null; }
times() { grep -c -- "$1" "$log" || true; }

# await TEXT TIMES SECONDS: until the log has the text that many times
await() {
  local step
  for ((step = 0; step < $3 * 10; ++step)); do
    [ "$(times "$1")" -lt "$2" ] || return 0
    sleep 0.1
  done
  fail "no \"$1\" in the log"
}

play() { "$launcher" --host 127.0.0.1 --token "$token" --seconds "$1" --quiet >"$scratch/launcher" 2>&1; }

[ -n "${WAYLAND_DISPLAY:-}" ] || skip "this is no Wayland session"
ask_bus --dest=org.freedesktop.portal.Desktop /org/freedesktop/portal/desktop \
  org.freedesktop.DBus.Properties.Get string:org.freedesktop.portal.ScreenCast string:version \
  >"$scratch/version" || skip "the desktop has no portal with ScreenCast"
if [ ! -x "$agent" ] || [ ! -x "$launcher" ]; then skip "nothing is built in $build"; fi

token=$(od -An -N8 -tx1 /dev/urandom | tr -d ' \n')
hash=$(printf %s "$token" | sha256sum | cut -c1-64)
: >"$log"
XDG_CONFIG_HOME=$scratch/config OX_LOG_FILE=$log OX_TUI=plain "$agent" --no-input --capture auto \
  --token-sha256 "$hash" >"$scratch/screen" &
agent_pid=$!
await "TcpControlServer: listening on port" 1 10

echo "1. Confirm the window that asks to share the screen."
play 5 &
[ -z "${APPROVE:-}" ] || bash -c "$APPROVE" >"$scratch/approve" 2>&1
wait $! || fail "the launcher got no stream"
await "PortalCapture: streaming" 1 1

echo "2. A second session asks nobody."
play 4 || fail "the launcher got no stream"
if [ "$(times "using saved restore token")/$(times "first run on this")" != 1/1 ]; then
  fail "the saved answer was not used"
fi
await "PortalCapture: streaming" 2 1

echo "3. The desktop's part of the portal dies; the picture comes back."
name=$(ask_bus --dest=org.freedesktop.DBus / org.freedesktop.DBus.ListNames |
  grep -o 'org\.freedesktop\.impl\.portal\.desktop\.\(gnome\|kde\|wlr\|hyprland\)' | head -n 1) ||
  fail "no part of the portal for this desktop is known"
pid=$(ask_bus --dest=org.freedesktop.DBus / org.freedesktop.DBus.GetConnectionUnixProcessID \
  "string:$name" | grep -o '[0-9]*$')
play 20 &
player=$!
await "PortalCapture: streaming" 3 15
kill -KILL "$pid"
await "input is withheld" 1 5
await "pictures come again" 1 15

echo "4. Stop the share, on the desktop's panel."
[ -z "${STOP:-}" ] || bash -c "$STOP" >"$scratch/stop" 2>&1
await "Standalone session ended: capture_failed" 1 30
[ ! -e "$scratch/config/orvex/portal_restore_token" ] || fail "the saved answer is still there"
wait "$player" || true
echo "check_desktop: PASSED on ${XDG_CURRENT_DESKTOP:-an unnamed desktop}"
