#!/usr/bin/env bash
# Installs the Debian packages that this project needs. Does nothing when they are all there.
#
#   scripts/setup.sh            everything to build and to test
#   scripts/setup.sh --build    only what building and running the demo takes
#   scripts/setup.sh --platform in addition to that what scripts/demo.sh --platform takes
#   scripts/setup.sh --bench    in addition the programs that the pipeline comparison runs against
#   scripts/setup.sh --fuzz     what building and running the fuzz targets takes
#   scripts/setup.sh --package  what building and checking the Debian package takes
#   scripts/setup.sh --pictures what scripts/screenshots.sh takes
set -euo pipefail

program_packages=(
  # tools
  ca-certificates ccache cmake g++ git ninja-build pkg-config
  # libraries of the program
  libavcodec-dev libavformat-dev libavutil-dev libdbus-1-dev libopus-dev libpipewire-0.3-dev
  libpulse-dev libsodium-dev libssl-dev libswscale-dev libwayland-dev libx11-dev libx11-xcb-dev
  libxau-dev libxdamage-dev libxext-dev libxfixes-dev libyuv-dev nlohmann-json3-dev
)
# With the test and benchmark frameworks: the release build has both.
build_packages=(
  "${program_packages[@]}"
  libbenchmark-dev libgmock-dev libgtest-dev libvterm-dev libxrandr-dev
)
test_packages=(
  shellcheck
  dbus-daemon openssl pipewire pulseaudio pulseaudio-utils python3 python3-dbus python3-gi
  python3-websockets wireplumber xauth xvfb
)
# Other versions format and judge differently (scripts/test.sh). Not every Debian has these.
pinned_packages=(clang-format-14 clang-tidy-14)
platform_packages=(openssl python3 python3-websockets)
bench_packages=(
  ffmpeg gnuplot-nox gstreamer1.0-plugins-bad gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-ugly gstreamer1.0-tools gstreamer1.0-x libisal-dev libsrtp2-dev xvfb
)

fuzz_packages=(clang libclang-rt-dev)
picture_packages=(fonts-dejavu-core imagemagick tmux xterm xvfb)
package_packages=(debootstrap dpkg-dev file)

wanted=("${build_packages[@]}" "${test_packages[@]}")
optional=("${pinned_packages[@]}")
for argument in "$@"; do
  case "$argument" in
    --build) wanted=("${build_packages[@]}") optional=() ;;
    --platform) wanted=("${build_packages[@]}" "${platform_packages[@]}") optional=() ;;
    --bench) wanted+=("${bench_packages[@]}") ;;
    --fuzz) wanted=("${build_packages[@]}" "${fuzz_packages[@]}") optional=() ;;
    --package) wanted=("${program_packages[@]}" "${package_packages[@]}") optional=() ;;
    --pictures) wanted=("${build_packages[@]}" "${picture_packages[@]}") optional=() ;;
    -h | --help) sed -n '2,10s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "setup.sh: unknown argument '$argument' (see --help)" >&2; exit 2 ;;
  esac
done

if ! command -v dpkg-query >/dev/null; then
  echo "setup.sh: this is not a Debian system; install the equivalents of: ${wanted[*]}" >&2
  exit 1
fi

installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' 2>/dev/null | sed -n 's/^installed //p')
not_installed() {
  local package
  for package in "$@"; do
    grep -qxF -- "$package" <<<"$installed" || echo "$package"
  done
}
offered() {
  local package
  for package in "$@"; do
    ! apt-cache show "$package" >/dev/null 2>&1 || echo "$package"
  done
}
mapfile -t missing < <(not_installed "${wanted[@]}")
mapfile -t extra < <(not_installed "${optional[@]}")
if [ ${#missing[@]} -eq 0 ] && [ -z "$(offered "${extra[@]}")" ]; then
  exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    [ ${#missing[@]} -gt 0 ] || exit 0
    echo "setup.sh: must be root (or have sudo) to install: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
[ ${#missing[@]} -eq 0 ] || "${apt[@]}" update
mapfile -t -O ${#missing[@]} missing < <(offered "${extra[@]}")
echo "setup.sh: installing ${missing[*]}"
"${apt[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null
