// One log call, filtered by the level and passing to a no-op callback, on
// one and on two threads (two threads contend for the log's mutex). A
// passing call also writes the message and its line end to the debug
// channel, stderr, which goes to /dev/null here; the two bare writes are
// measured beside it.
#include <benchmark/benchmark.h>

#include <memory>

#include "QuietStderr.h"
#include "zrx2dsticker/ZRXLog.h"

namespace {

void noOpCallback(int, const char*, const char*, const char*) {}

// The first thread sets up before the timed loop and tears down after it;
// the other thread waits at the loop's start and end barriers. The
// threshold goes back to the default 1 before the registration ends, so
// later benchmarks see the log as at load.
class LogSetUp {
 public:
  explicit LogSetUp(const benchmark::State& state)
      : first_(state.thread_index() == 0) {
    if (!first_) return;
    quiet_.reset(new QuietStderr());
    ZRXRegisterLogBaseManager(&noOpCallback);
    ZRXSetLogLevel(5);
  }
  ~LogSetUp() {
    if (!first_) return;
    ZRXSetLogLevel(1);
    ZRXReleaseLogBaseManager();
  }

 private:
  bool first_;
  std::unique_ptr<QuietStderr> quiet_;
};

// Level 3 is below the threshold 5: the lock, one comparison, no
// formatting.
void BM_LogFiltered(benchmark::State& state) {
  const LogSetUp setUp(state);
  for (auto _ : state) {
    ZRXLogCallback(3, "[ZRX]", "[%s:%d] (resId:%s) response code=%ld",
                   "ZRX2DStickerResourceDownloader::_curlPerform", 123,
                   "100001", 200L);
  }
}
BENCHMARK(BM_LogFiltered)->Threads(1)->Threads(2)->UseRealTime();

// Level 6 passes: formatted, written to the debug channel, handed to the
// callback.
void BM_LogPassing(benchmark::State& state) {
  const LogSetUp setUp(state);
  for (auto _ : state) {
    ZRXLogCallback(6, "[ZRX]", "[%s:%d] (resId:%s) response code=%ld",
                   "ZRX2DStickerResourceDownloader::_curlPerform", 123,
                   "100001", 200L);
  }
}
BENCHMARK(BM_LogPassing)->Threads(1)->Threads(2)->UseRealTime();

// The floor of a passing call: its two writes to the debug channel (the
// message, then the line end), which the log makes as two system calls.
void BM_DebugChannelWrites(benchmark::State& state) {
  const QuietStderr quiet;
  const char message[] =
      "[ZRX2DStickerResourceDownloader::_curlPerform:123] (resId:100001) "
      "response code=200";
  for (auto _ : state) {
    benchmark::DoNotOptimize(write(STDERR_FILENO, message, sizeof message - 1));
    benchmark::DoNotOptimize(write(STDERR_FILENO, "\n", 1));
  }
}
BENCHMARK(BM_DebugChannelWrites)->UseRealTime();

}  // namespace
