#!/usr/bin/env bash
# Cross-builds zrx2dsticker for 64-bit Windows with mingw-w64: the
# dependencies (tools/windows/deps.sh, cached), then the DLL, its tests and
# the example hosts in build-win64/, installed into build-win64/install.
# Run from anywhere as root on Debian 12; `bash tests/run-windows.sh` then
# runs the tests under Wine.
#   BUILD_DIR=build-win64 BUILD_TYPE=RelWithDebInfo bash tools/windows/build.sh
set -euo pipefail
cd "$(dirname "$0")/../.."
root="$(pwd)"
prefix="$(bash tools/windows/deps.sh | tail -n 1)"
build="${BUILD_DIR:-build-win64}"
jobs="$(nproc)"
[ "$jobs" -gt 2 ] && jobs=2
# A build tree made against another prefix holds that prefix's paths in its
# cache (pkg-config's among them): it starts afresh.
stamp="$build/.win64-deps-prefix"
if [ -f "$build/CMakeCache.txt" ] &&
   [ "$(cat "$stamp" 2>/dev/null)" != "$prefix" ]; then
  rm -rf "$build/CMakeCache.txt" "$build/CMakeFiles"
fi
mkdir -p "$build"
echo "$prefix" >"$stamp"
cmake -S . -B "$build" \
  -DCMAKE_TOOLCHAIN_FILE="$root/tools/windows/mingw-w64-x86_64.cmake" \
  -DZRX_WIN64_PREFIX="$prefix" \
  -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
  -DZRX_BUILD_TESTS=ON -DZRX_BUILD_EXAMPLES=ON -DZRX_WERROR=ON >/dev/null
cmake --build "$build" -j"$jobs"
rm -rf "$build/install"
cmake --install "$build" --prefix "$build/install" >/dev/null
echo "windows build: $build/install"
ls "$build/install/bin"
