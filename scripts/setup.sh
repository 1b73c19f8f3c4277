#!/usr/bin/env bash
# Installs the packages that this project needs, on Debian and Ubuntu, Fedora and Arch. Does nothing
# when they are all there. On any other system it names them, and fails only where a library or a
# tool is not to be found.
#
#   scripts/setup.sh            everything to build and to test
#   scripts/setup.sh --build    only what building and running the demo takes
#   scripts/setup.sh --platform in addition to that what scripts/demo.sh --platform takes
#   scripts/setup.sh --play     the same for scripts/demo.sh --play
#   scripts/setup.sh --bench    in addition the programs that the pipeline comparison runs against
#   scripts/setup.sh --fuzz     what building and running the fuzz targets takes
#   scripts/setup.sh --package  what building and checking this system's package takes
#   scripts/setup.sh --pictures what scripts/screenshots.sh takes
set -euo pipefail

debian_packages() {
  program_packages=(
    # tools
    ca-certificates ccache cmake g++ git ninja-build pkg-config
    # libraries of the program
    libavcodec-dev libavformat-dev libavutil-dev libdbus-1-dev libopus-dev libpipewire-0.3-dev
    libpulse-dev libsodium-dev libssl-dev libswscale-dev libwayland-dev libx11-dev libx11-xcb-dev
    libxau-dev libxdamage-dev libxext-dev libxfixes-dev libyuv-dev nlohmann-json3-dev
    # and of orvex-play
    fonts-dejavu-core libpango1.0-dev libsamplerate0-dev libsdl2-dev
  )
  # The test and benchmark frameworks: the release build has both.
  framework_packages=(libbenchmark-dev libgmock-dev libgtest-dev libvterm-dev libxrandr-dev)
  test_packages=(
    shellcheck
    dbus-daemon imagemagick openssl pipewire pulseaudio pulseaudio-utils python3 python3-dbus python3-gi
    python3-websockets wireplumber xauth xdotool xvfb
  )
  # Other versions format and judge differently (scripts/test.sh). Not every Debian has these.
  pinned_packages=(clang-format-14 clang-tidy-14)
  bench_packages=(
    ffmpeg gnuplot-nox gstreamer1.0-plugins-bad gstreamer1.0-plugins-base gstreamer1.0-plugins-good
    gstreamer1.0-libav gstreamer1.0-plugins-ugly gstreamer1.0-tools gstreamer1.0-x libisal-dev libsrtp2-dev xvfb
  )
  fuzz_packages=(clang libclang-rt-dev)
  picture_packages=(fonts-dejavu-core imagemagick tmux xterm xvfb)
  platform_packages=(openssl python3 python3-websockets)
  play_packages=(imagemagick xvfb)
  package_packages=(debootstrap dpkg-dev file librsvg2-bin lintian)
}

# The libraries by what their packages provide: FFmpeg is Fedora's own (ffmpeg-free) or, once that
# has been swapped for it, RPM Fusion's.
fedora_packages() {
  program_packages=(
    ca-certificates ccache cmake gcc-c++ git ninja-build pkgconf-pkg-config
    'pkgconfig(libavcodec)' 'pkgconfig(libavformat)' 'pkgconfig(libavutil)' 'pkgconfig(libswscale)'
    dbus-devel json-devel libX11-devel libXau-devel libXdamage-devel libXext-devel libXfixes-devel
    libsodium-devel libxcb-devel libyuv-devel openssl-devel opus-devel pipewire-devel
    pulseaudio-libs-devel wayland-devel
    # and of orvex-play
    SDL2-devel dejavu-sans-fonts libsamplerate-devel pango-devel
  )
  framework_packages=(
    gmock-devel google-benchmark-devel gtest-devel libXrandr-devel libXrender-devel libvterm-devel
  )
  # Without PulseAudio's own server, which excludes the one that Fedora's desktops have.
  test_packages=(
    ImageMagick ShellCheck dbus-daemon openssl pipewire pulseaudio-utils python3 python3-dbus python3-gobject
    python3-websockets wireplumber xdotool xorg-x11-server-Xvfb xorg-x11-xauth
  )
  pinned_packages=()
  bench_packages=(
    /usr/bin/ffmpeg gnuplot gstreamer1 gstreamer1-plugins-bad-free gstreamer1-plugins-base
    gstreamer1-plugins-good gstreamer1-plugins-ugly isa-l-devel libsrtp-devel
  )
  fuzz_packages=(clang compiler-rt)
  platform_packages=(openssl python3 python3-websockets)
  picture_packages=(ImageMagick dejavu-sans-mono-fonts tmux xorg-x11-server-Xvfb xterm)
  play_packages=(ImageMagick xorg-x11-server-Xvfb)
  package_packages=(file librsvg2-tools rpm-build)
  # Fedora leaves libx264 and libx265 out of its FFmpeg.
  rpm_fusion=false
  if rpm -q --quiet rpmfusion-free-release; then
    rpm_fusion=true
    rpm -q --quiet --whatprovides ffmpeg-libs || program_packages+=(libavcodec-freeworld)
  fi
}

arch_packages() {
  program_packages=(
    ca-certificates ccache cmake gcc git ninja pkgconf
    dbus ffmpeg libpipewire libpulse libsodium libx11 libxau libxcb libxdamage libxext libxfixes
    libyuv nlohmann-json openssl opus wayland
    # and of orvex-play
    libsamplerate pango sdl2 ttf-dejavu
  )
  framework_packages=(benchmark gtest libvterm libxrandr libxrender)
  # Without PulseAudio's own server, which excludes PipeWire's.
  test_packages=(
    imagemagick openssl pipewire python python-dbus python-gobject python-websockets shellcheck wireplumber
    xdotool xorg-server-xvfb xorg-xauth
  )
  pinned_packages=()
  bench_packages=(
    gnuplot gst-plugins-bad gst-plugins-base gst-plugins-good gst-plugins-ugly gstreamer isa-l libsrtp
  )
  fuzz_packages=(clang compiler-rt)
  platform_packages=(openssl python python-websockets)
  picture_packages=(imagemagick tmux ttf-dejavu xorg-server-xvfb xterm)
  play_packages=(imagemagick xorg-server-xvfb)
  package_packages=(base-devel librsvg)
}

# Has this system PROGRAM?
has() { command -v "$1" >/dev/null; }

if has dpkg-query && has apt-get; then
  system=debian
elif has dnf && has rpm; then
  system=fedora
elif has pacman; then
  system=arch
else
  system=other
fi
case "$system" in
  other) debian_packages ;;  # names that most people can translate
  *) "${system}_packages" ;;
esac

build_packages=("${program_packages[@]}" "${framework_packages[@]}")
wanted=("${build_packages[@]}" "${test_packages[@]}")
optional=("${pinned_packages[@]}")
tests=true
for argument in "$@"; do
  case "$argument" in
    --build) wanted=("${build_packages[@]}") optional=() ;;
    --platform) wanted=("${build_packages[@]}" "${platform_packages[@]}") optional=() ;;
    --play) wanted=("${build_packages[@]}" "${play_packages[@]}") optional=() ;;
    --bench) wanted+=("${bench_packages[@]}") ;;
    --fuzz) wanted=("${build_packages[@]}" "${fuzz_packages[@]}") optional=() ;;
    --package) wanted=("${program_packages[@]}" "${package_packages[@]}") optional=() tests=false ;;
    --pictures) wanted=("${build_packages[@]}" "${picture_packages[@]}") optional=() ;;
    -h | --help) sed -n '2,13s/^# \{0,1\}//p' "$0"; exit 0 ;;
    *) echo "setup.sh: unknown argument '$argument' (see --help)" >&2; exit 2 ;;
  esac
done

if [ "$system" = fedora ] && ! $rpm_fusion; then
  echo "setup.sh: Fedora's FFmpeg has no libx264 and libx265; without a graphics card that encodes," \
    "enable RPM Fusion (rpmfusion-free-release) and run this again" >&2
fi

# not_found: what the build would not find here, one a line. The modules are those that
# cmake/OxDependencies.cmake asks pkg-config for.
not_found() {
  local tool module modules
  for tool in c++ cmake ninja pkg-config; do
    has "$tool" || echo "$tool"
  done
  has pkg-config || return 0
  modules=$(grep -oE '[a-z0-9.-]+>=[0-9.]+' "$(dirname "$0")/../cmake/OxDependencies.cmake")
  $tests || modules=$(grep -v '^vterm>' <<<"$modules")
  for module in $modules 'openssl>=3.0' 'nlohmann_json>=3.11'; do
    pkg-config --exists "${module%%>=*} >= ${module##*>=}" || echo "$module"
  done
  ! has c++ || c++ -E -x c++ - -o /dev/null <<<'#include <libyuv.h>' 2>/dev/null || echo libyuv
}

if [ "$system" = other ]; then
  echo "setup.sh: cannot install anything on this system; the project needs, by the names of Debian:" \
    "${wanted[*]}" >&2
  mapfile -t missing < <(not_found)
  if [ ${#missing[@]} -gt 0 ]; then
    echo "setup.sh: not found, or too old: ${missing[*]}" >&2
    exit 1
  fi
  echo "setup.sh: what the build needs is there" >&2
  exit 0
fi

# not_installed PACKAGE...: those of them that are missing, one a line.
not_installed() {
  local package
  [ $# -gt 0 ] || return 0
  case "$system" in
    debian)
      for package in "$@"; do
        grep -qxF -- "$package" <<<"$installed" || echo "$package"
      done
      ;;
    fedora)
      for package in "$@"; do
        rpm -q --quiet --whatprovides "$package" || echo "$package"
      done
      ;;
    arch) pacman -T -- "$@" || true ;;
  esac
}
# Those of them that this system's repositories have.
offered() {
  local package
  for package in "$@"; do
    ! apt-cache show "$package" >/dev/null 2>&1 || echo "$package"
  done
}

if [ "$system" = debian ]; then
  installed=$(dpkg-query -W -f='${db:Status-Status} ${Package}\n' 2>/dev/null | sed -n 's/^installed //p')
fi
mapfile -t missing < <(not_installed "${wanted[@]}")
mapfile -t extra < <(not_installed "${optional[@]}")
if [ ${#missing[@]} -eq 0 ] && [ -z "$(offered "${extra[@]}")" ]; then
  exit 0
fi

as_root=()
if [ "$(id -u)" -ne 0 ]; then
  if ! has sudo; then
    [ ${#missing[@]} -gt 0 ] || exit 0
    echo "setup.sh: must be root (or have sudo) to install: ${missing[*]}" >&2
    exit 1
  fi
  as_root=(sudo)
fi

case "$system" in
  debian)
    apt=("${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq -o DPkg::Lock::Timeout=300)
    [ ${#missing[@]} -eq 0 ] || "${apt[@]}" update
    mapfile -t -O ${#missing[@]} missing < <(offered "${extra[@]}")
    install=("${apt[@]}" install -y --no-install-recommends)
    ;;
  fedora) install=("${as_root[@]}" dnf install -y --setopt=install_weak_deps=False) ;;
  # Not -y: a fresh list of packages without an upgrade of the system would mix two states of it.
  arch) install=("${as_root[@]}" pacman -S --needed --noconfirm) ;;
esac
echo "setup.sh: installing ${missing[*]}"
"${install[@]}" "${missing[@]}" </dev/null
