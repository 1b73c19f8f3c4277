#!/usr/bin/env bash
# Installs the Debian packages that this project needs. Does nothing when they are all there.
#
#   scripts/setup.sh            everything to build and to test
#   scripts/setup.sh --build    only what building and running the demo takes
#   scripts/setup.sh --bench    in addition the programs that the pipeline comparison runs against
#   scripts/setup.sh --fuzz     what building and running the fuzz targets takes
#   scripts/setup.sh --package  what building and checking the Debian package takes
#   scripts/setup.sh --pictures what scripts/screenshots.sh takes
set -euo pipefail

build_packages=(
  # tools
  ca-certificates ccache cmake g++ git ninja-build pkg-config
  # libraries of the program
  libavcodec-dev libavformat-dev libavutil-dev libdbus-1-dev libopus-dev libpipewire-0.3-dev
  libpulse-dev libsodium-dev libssl-dev libswscale-dev libx11-dev libxau-dev libxext-dev
  libxrandr-dev libyuv-dev nlohmann-json3-dev
  # test and benchmark frameworks: the release build has both
  libbenchmark-dev libgmock-dev libgtest-dev libvterm-dev
)
test_packages=(
  clang-format clang-tidy shellcheck
  dbus-daemon openssl pipewire pulseaudio pulseaudio-utils python3 python3-dbus python3-gi
  python3-websockets wireplumber xauth xvfb
)
bench_packages=(
  ffmpeg gnuplot-nox gstreamer1.0-plugins-bad gstreamer1.0-plugins-base gstreamer1.0-plugins-good
  gstreamer1.0-plugins-ugly gstreamer1.0-tools gstreamer1.0-x libisal-dev libsrtp2-dev xvfb
)

fuzz_packages=(clang libclang-rt-dev)
picture_packages=(fonts-dejavu-core imagemagick tmux xterm xvfb)
package_packages=(debootstrap dpkg-dev file)

wanted=("${build_packages[@]}" "${test_packages[@]}")
for argument in "$@"; do
  case "$argument" in
    --build) wanted=("${build_packages[@]}") ;;
    --bench) wanted+=("${bench_packages[@]}") ;;
    --fuzz) wanted=("${build_packages[@]}" "${fuzz_packages[@]}") ;;
    --package) wanted=("${build_packages[@]}" "${package_packages[@]}") ;;
    --pictures) wanted=("${build_packages[@]}" "${picture_packages[@]}") ;;
    -h | --help) sed -n '2,9s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "setup.sh: unknown argument '$argument' (see --help)" >&2; exit 2 ;;
  esac
done

if ! command -v dpkg-query >/dev/null; then
  echo "setup.sh: this is not a Debian system; install the equivalents of: ${wanted[*]}" >&2
  exit 1
fi

installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' 2>/dev/null | sed -n 's/^installed //p')
missing=()
for package in "${wanted[@]}"; do
  grep -qxF -- "$package" <<<"$installed" || missing+=("$package")
done
[ ${#missing[@]} -eq 0 ] && exit 0

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! command -v sudo >/dev/null; then
    echo "setup.sh: must be root (or have sudo) to install: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

echo "setup.sh: installing ${missing[*]}"
apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
"${apt[@]}" update
"${apt[@]}" install -y --no-install-recommends "${missing[@]}" </dev/null
