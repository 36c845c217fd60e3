#!/usr/bin/env bash
# Builds zrx2dsticker with its tests and runs them all.
#   bash tests/run.sh                      # plain build in build/
#   ZRX_SANITIZE="address;undefined" BUILD_DIR=build-asan bash tests/run.sh
#   TESTS_REGEX=Pipeline bash tests/run.sh # a subset by test name
#   TESTS_LABEL='PipelineTest|ManagerTest' bash tests/run.sh  # by executable
set -euo pipefail
cd "$(dirname "$0")/.."
bash tools/install-deps.sh
build="${BUILD_DIR:-build}"
cmake -S . -B "$build" -DCMAKE_BUILD_TYPE="${BUILD_TYPE:-RelWithDebInfo}" \
  -DZRX_BUILD_TESTS=ON -DZRX_WERROR=ON -DZRX_SANITIZE="${ZRX_SANITIZE:-}" \
  >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" --output-on-failure -j"$(nproc)" \
  ${TESTS_REGEX:+-R "$TESTS_REGEX"} ${TESTS_LABEL:+-L "$TESTS_LABEL"}
