# shellcheck shell=sh
# The device and its rule work at once, without a restart. In a container none of these may.
modprobe -q uinput 2>/dev/null || :
if command -v udevadm >/dev/null; then
    udevadm control --reload 2>/dev/null || :
    udevadm trigger --subsystem-match=misc --sysname-match=uinput 2>/dev/null || :
fi
exit 0
