#!/usr/bin/env bash
# Configures one preset of CMakePresets.json and builds it (default: all of it).
#
#   scripts/build.sh PRESET [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:?usage: scripts/build.sh PRESET [TARGET...]}
shift

launcher=()
if command -v ccache >/dev/null; then
  launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  # Another clone of the same sources, in another folder, then finds its objects in the cache.
  export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
fi
if [ ! -f "build/$preset/build.ninja" ]; then
  cmake --preset "$preset" "${launcher[@]}" >/dev/null
fi
targets=()
[ $# -gt 0 ] && targets=(--target "$@")
cmake --build "build/$preset" --parallel "$(nproc)" "${targets[@]}"
