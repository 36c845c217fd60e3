#!/usr/bin/env bash
# Builds the micro benchmarks and runs each one once with a minimal time, so
# that they can't rot (CI):
#   bash bench/micro/smoke.sh
# Uses the build directory of the test run (BUILD_DIR, default build/) with
# ZRX_BUILD_BENCH=ON added, so only the benchmarks compile there. The
# numbers of such a run mean nothing; bench/compare/run.sh measures.
set -euo pipefail
cd "$(dirname "$0")/../.."
bash tools/install-deps.sh --extra libbenchmark-dev
build="${BUILD_DIR:-build}"
cmake -S . -B "$build" -DZRX_BUILD_BENCH=ON >/dev/null
cmake --build "$build" -j"$(nproc)" --target zrx-bench-micro
"$build/bench/zrx-bench-micro" --benchmark_min_time=0.01
