#!/usr/bin/env bash
# Makes the Debian packages libzrx2dsticker<N> and libzrx2dsticker-dev in
# build-pkg/packages/ from a release build installed under /usr.
#   bash tools/package.sh              # BUILD_DIR=build-pkg by default
# Needs dpkg-dev (dpkg-shlibdeps works out the runtime dependencies) and
# file, both installed here when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh --extra dpkg-dev file
build="${BUILD_DIR:-build-pkg}"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_INSTALL_PREFIX=/usr -DZRX_BUILD_TESTS=OFF -DZRX_BUILD_EXAMPLES=OFF \
  -DZRX_WERROR=ON >/dev/null
cmake --build "$build" -j"$(nproc)"
rm -rf "$build/packages"
(cd "$build" && cpack -G DEB >/dev/null)
for deb in "$build"/packages/*.deb; do
  echo "$deb"
done
