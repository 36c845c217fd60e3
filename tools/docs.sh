#!/usr/bin/env bash
# Builds the API reference from the public headers' own comments (and the
# README as its front page) into build/docs/html; any Doxygen warning fails
# it. BUILD_DIR picks another build tree.
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh --extra doxygen
build="${BUILD_DIR:-build}"
cmake -S . -B "$build" >/dev/null
cmake --build "$build" --target docs
echo "API reference: $build/docs/html/index.html"
