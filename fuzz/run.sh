#!/usr/bin/env bash
# Builds the libFuzzer targets with clang (ASan+UBSan) and runs each for a
# bounded time on a copy of its seed corpus, then prints libFuzzer's final
# stats line of each. Exits non-zero when a target finds a fault; the input
# that shows it is left in $BUILD_DIR/artifacts/.
#   bash fuzz/run.sh            # 30 s per target
#   bash fuzz/run.sh 600        # 10 minutes per target
#   BUILD_DIR=build-fuzz JOBS=2 bash fuzz/run.sh 30
set -euo pipefail
cd "$(dirname "$0")/.."
seconds="${1:-30}"
build="${BUILD_DIR:-build-fuzz}"
jobs="${JOBS:-$(nproc)}"

# clang and its runtime (libFuzzer, the sanitizers), on top of what the
# library itself needs.
bash tools/install-deps.sh --extra clang libclang-rt-14-dev

CC=clang CXX=clang++ cmake -S . -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DZRX_BUILD_FUZZ=ON -DZRX_BUILD_TESTS=OFF -DZRX_BUILD_EXAMPLES=OFF \
  -DZRX_WERROR=ON -DZRX_SANITIZE="address;undefined" >/dev/null
cmake --build "$build" -j"$jobs" --target ListParserFuzzer ZipReaderFuzzer

# ZipReaderFuzzer extracts into $TMPDIR on every run: a memory file system
# spares the disk and is several times faster.
if [ -z "${TMPDIR:-}" ] && [ -d /dev/shm ] && [ -w /dev/shm ]; then
  export TMPDIR=/dev/shm
fi

mkdir -p "$build/artifacts"
status=0
run() {
  local target="$1" seeds="$2"
  shift 2
  local corpus="$build/corpus/$target" log="$build/$target.log"
  rm -rf "$corpus"
  mkdir -p "$corpus"
  cp "$seeds"/* "$corpus"/
  echo "== $target: ${seconds} s"
  if ! "$build/fuzz/$target" "$corpus" -max_total_time="$seconds" \
      -timeout=10 -rss_limit_mb=2048 -print_final_stats=1 \
      -artifact_prefix="$build/artifacts/$target-" "$@" >"$log" 2>&1; then
    status=1
    echo "$target FAILED; log: $log"
    grep -E 'invariant broken|ERROR:|runtime error|Test unit written' "$log" ||
      tail -n 30 "$log"
  fi
  # The last status line (executions, coverage, corpus) and the totals.
  grep -E '^#[0-9]+' "$log" | tail -n 1
  grep -E '^stat::(number_of_executed_units|average_exec_per_sec|new_units_added|peak_rss_mb)' "$log" || true
  echo "corpus: $(find "$corpus" -type f | wc -l) inputs"
}
run ListParserFuzzer fuzz/corpus/list -dict=fuzz/json.dict
run ZipReaderFuzzer fuzz/corpus/zip
exit "$status"
