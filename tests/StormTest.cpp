// Stop and start storms: random sequences of the host's operations (start
// all, start one, stop, parse, destroy) against a slow loopback server, with
// plain and archive stickers in flight; run under ThreadSanitizer too. A
// watchdog aborts when an operation does not return; the listeners check
// that no call comes after a stop, parse or destruction has returned and
// that a start gets at most one final call per sticker.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <thread>
#include <tuple>

#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

class StormListener : public ZRX2DStickerDownloadListener {
 public:
  // From the return of a stop, parse or destruction until the next start
  // no call may come. A final call belongs to the run it comes in: that
  // moves on when a stop has joined the workers (also inside a start of
  // all stickers), and at each parse.
  static inline std::atomic<bool> quiet{true};
  static inline std::atomic<int> run{0};
  static inline std::atomic<long> progressCalls{0}, finalCalls{0};
  static inline std::mutex mutex;
  static inline std::map<std::tuple<int, const void*, std::string>, int> finals;
  static inline std::vector<std::string> violations;

  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    // Reads the item: under a sanitizer a released item shows here.
    if (quiet) violation("progress of " + item->resId + " when quiet");
    ++progressCalls;
  }
  void onDownloadSuccess(std::string resId) override { final(resId, 0); }
  void onDownloadFailed(std::string resId, int code) override {
    final(resId, code);
  }

 private:
  void final(const std::string& resId, int code) {
    const std::string what = std::to_string(code) + " of " + resId;
    if (quiet) violation(what + " when quiet");
    ++finalCalls;
    std::lock_guard<std::mutex> lock(mutex);
    if (++finals[{run.load(), this, resId}] > 1)
      violations.push_back("second final call " + what + " in one start");
  }
  static void violation(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    violations.push_back(what);
  }
};

using StormTest = StickerFixture;

TEST_F(StormTest, RandomStopsAndStartsNeverHangNorBreakTheListenerRules) {
  const unsigned seed = testSeed();
  std::mt19937 rng(seed);
  writeFile(served / "p.bin", randomBytes(60000, rng()));
  makeArchive("a.zip", {{"img/i.png", randomBytes(80000, rng())},
                        {"big.bin", std::string(3 << 20, '\0')}});
  const std::vector<std::string> ids = {"p1", "p2", "a0", "a1", "bad"};
  const std::vector<std::string> catalogue = {
      sticker("p1", server->url("/slow/p.bin?bps=100000"), "p1.bin"),
      sticker("p2", server->url("/files/p.bin"), "p2.bin"),
      sticker("a0", server->url("/files/a.zip"), "a0", ".zip", 0),
      sticker("a1", server->url("/slow/a.zip?bps=200000"), "a1", ".zip", 1),
      sticker("bad", server->url("/status/404"), "bad", ".zip", 1)};

  StormListener parseListener;
  std::deque<StormListener> singleListeners;
  LogCapture::instance().setHook([](const std::string& message) {
    if (message.find("] stop downloader success!") != std::string::npos)
      ++StormListener::run;
  });
  // An operation that has not returned within a minute aborts the process
  // with its name: a deadlock must not hang the suite.
  Watchdog watchdog([](const char* what) {
    std::fputs(what, stderr);
    std::fflush(stderr);
    std::abort();
  });
  bool hasList = false, attached = false;
  const auto guarded = [&](const char* what, const std::function<void()>& op,
                           bool settles = true) {
    watchdog.arm(what, std::chrono::seconds(60));
    op();
    watchdog.disarm();
    if (!settles) return;
    StormListener::quiet = true;
    attached = false;
    ++StormListener::run;
  };
  const auto parse = [&](bool valid) {
    std::vector<std::string> chosen = catalogue;
    std::shuffle(chosen.begin(), chosen.end(), rng);
    chosen.resize(1 + rng() % chosen.size());
    guarded("storm: parse hangs\n", [&] {
      int error = 0;
      hasList = manager->ZRX_parse2DStickerResource(
                    valid ? listOf(chosen) : "[{\"url\":", error,
                    &parseListener) != nullptr;
    });
  };
  const auto create = [&] {
    manager = std::make_unique<ZRResourceDownloadManager>();
    manager->ZRX_set2DStickerDownloadPath(downloads.path());
    parse(true);
  };

  // 9 s (at most 150 sequences) by default; ZRX_STORM_SECONDS=N runs for N
  // seconds without a cap on the sequences, for long runs by hand.
  const char* seconds = std::getenv("ZRX_STORM_SECONDS");
  const auto until = std::chrono::steady_clock::now() +
                     std::chrono::seconds(seconds ? std::atoi(seconds) : 9);
  int sequences = 0;
  for (; (seconds != nullptr || sequences < 150) &&
         std::chrono::steady_clock::now() < until;
       ++sequences) {
    // An empty disk now and then, so that starts meet transfers again.
    if (sequences % 10 == 0) run("rm -rf " + shellQuote(downloads.path()) + "/*");
    create();
    for (int step = 2 + static_cast<int>(rng() % 6); step > 0; --step) {
      // A moment within a transfer or an extraction, or right after the
      // last operation.
      std::this_thread::sleep_for(
          std::chrono::milliseconds(rng() % 4 == 0 ? rng() % 200 : rng() % 10));
      const unsigned pick = rng() % 100;
      if (pick < 28) {
        StormListener::quiet = !hasList;
        attached = hasList;
        guarded("storm: start all hangs\n",
                [&] { manager->ZRX_start2DStickerDownloadAllSticker(); }, false);
      } else if (pick < 55) {
        const std::string resId = rng() % 10 ? ids[rng() % ids.size()] : "nobody";
        StormListener* to = rng() % 10 ? &singleListeners.emplace_back() : nullptr;
        const int limit = std::vector<int>{0, 0, 1, 3}[rng() % 4];
        if (attached) StormListener::quiet = false;
        guarded("storm: start one hangs\n", [&] {
          manager->ZRX_start2DStickerDownloadSticker(resId, to, limit);
        }, false);
      } else if (pick < 78) {
        guarded("storm: stop hangs\n",
                [&] { manager->ZRX_stop2DStickerDownloadSticker(); });
      } else if (pick < 90) {
        parse(rng() % 8 != 0);
      } else {
        guarded("storm: destruction hangs\n", [&] { manager.reset(); });
        create();
      }
    }
    guarded("storm: destruction hangs\n", [&] { manager.reset(); });
    LogCapture::instance().clear();
  }
  std::printf("storm (seed %u): %d sequences; listener calls: %ld progress, "
              "%ld final; violations: %zu\n",
              seed, sequences, StormListener::progressCalls.load(),
              StormListener::finalCalls.load(),
              StormListener::violations.size());
  for (std::size_t i = 0; i < StormListener::violations.size() && i < 20; ++i)
    ADD_FAILURE() << StormListener::violations[i];
}

}  // namespace
}  // namespace zrxtest
