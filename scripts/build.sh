#!/usr/bin/env bash
# Configures one preset of CMakePresets.json and builds it (default: all of it). With OX_WERROR=1 in
# the environment the build folder treats warnings as errors from then on.
#
#   scripts/build.sh PRESET [TARGET...]
set -euo pipefail
cd "$(dirname "$0")/.."
preset=${1:?usage: scripts/build.sh PRESET [TARGET...]}
shift

cache=build/$preset/CMakeCache.txt
settings=()
if [ -n "${OX_WERROR:-}" ] && ! grep -qs '^CMAKE_COMPILE_WARNING_AS_ERROR:.*=ON$' "$cache"; then
  settings=(-DCMAKE_COMPILE_WARNING_AS_ERROR=ON)
fi
if command -v ccache >/dev/null; then
  # Another clone of the same sources, in another folder, then finds its objects in the cache.
  export CCACHE_BASEDIR=$PWD CCACHE_NOHASHDIR=1
fi
if [ ! -f "build/$preset/build.ninja" ]; then
  command -v ccache >/dev/null && settings+=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  cmake --preset "$preset" "${settings[@]}" >/dev/null
elif [ ${#settings[@]} -gt 0 ]; then
  cmake "${settings[@]}" "build/$preset" >/dev/null
fi
targets=()
[ $# -gt 0 ] && targets=(--target "$@")
cmake --build "build/$preset" --parallel "$(nproc)" "${targets[@]}"
