// Stop and start storms: random sequences of the host's operations (start
// all, start one, stop, parse, destroy) against a slow loopback server, with
// plain and archive stickers in flight; run under ThreadSanitizer too. A
// watchdog aborts when an operation does not return; the listeners check
// that no call comes after a stop, parse or destruction has returned and
// that a start gets at most one final call per sticker.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <tuple>

#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

using Clock = std::chrono::steady_clock;

std::atomic<const char*> gOperation{""};

// What all listeners of the storm share.
struct StormRecord {
  // From the return of a stop, parse or destruction until the next start:
  // no listener call may come meanwhile.
  std::atomic<bool> quiet{true};
  // The run a final call belongs to: it moves on when a stop has joined the
  // workers (also inside a start of all stickers) and at each parse.
  std::atomic<int> run{0};
  std::atomic<int> sequence{0}, step{0};
  std::atomic<long> progressCalls{0}, finalCalls{0};
  std::mutex mutex;
  std::map<std::tuple<int, const void*, std::string>, int> finals;
  std::vector<std::string> violations;

  void violation(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    violations.push_back("sequence " + std::to_string(sequence) + " step " +
                         std::to_string(step) + ": " + what);
  }
};

class StormListener : public ZRX2DStickerDownloadListener {
 public:
  explicit StormListener(StormRecord& record) : record_(record) {}
  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    // Reads the item: under a sanitizer a released item shows here.
    if (record_.quiet) record_.violation("progress of " + item->resId);
    ++record_.progressCalls;
  }
  void onDownloadSuccess(std::string resId) override { final(resId, 0); }
  void onDownloadFailed(std::string resId, int code) override {
    final(resId, code);
  }

 private:
  void final(const std::string& resId, int code) {
    const std::string what = std::to_string(code) + " of " + resId;
    if (record_.quiet) record_.violation(what + " when quiet");
    ++record_.finalCalls;
    std::unique_lock<std::mutex> lock(record_.mutex);
    if (++record_.finals[{record_.run.load(), this, resId}] > 1) {
      lock.unlock();
      record_.violation("second final call " + what + " in one start");
    }
  }
  StormRecord& record_;
};

TEST(StormTest, RandomStopsAndStartsNeverHangNorBreakTheListenerRules) {
  const unsigned seed = testSeed();
  std::mt19937 rng(seed);

  // Plain and archive stickers, fast and slow; one archive is an error page
  // that fails to unpack.
  TempDir served;
  std::map<std::string, std::string> plain;
  for (const char* resId : {"p1", "p2", "p3"}) {
    plain[resId] = randomBytes(30000 + rng() % 60000, rng());
    writeFile(served / (std::string(resId) + ".bin"), plain[resId]);
  }
  const std::string image = randomBytes(80000, rng());
  makeDirs(served / "src/img");
  writeFile(served / "src/img/i.png", image);
  writeFile(served / "src/big.bin", std::string(3 << 20, '\0'));
  ASSERT_EQ(run("cd " + shellQuote(served / "src") +
                " && zip -qr ../a.zip img big.bin"),
            0);
  TestServer server(served.path());
  const std::vector<std::string> catalogue = {
      sticker("p1", server.url("/slow/p1.bin?bps=100000"), "p1.bin"),
      sticker("p2", server.url("/files/p2.bin"), "p2.bin"),
      sticker("p3", server.url("/slow/p3.bin?bps=40000"), "p3.bin"),
      sticker("a0", server.url("/files/a.zip"), "a0", ".zip", 0),
      sticker("a1", server.url("/slow/a.zip?bps=200000"), "a1", ".zip", 1),
      sticker("a3", server.url("/slow/a.zip?bps=300000"), "a3", ".zip", 3),
      sticker("bad", server.url("/status/404"), "bad", ".zip", 1)};
  const auto listText = [&](std::vector<std::string> chosen) {
    std::string json = "[";
    for (const std::string& s : chosen)
      json += (json.size() > 1 ? "," : "") + s;
    return json + "]";
  };

  StormRecord record;
  StormListener parseListener(record);
  std::deque<std::unique_ptr<StormListener>> singleListeners;
  LogCapture::instance().setHook([&record](const std::string& message) {
    if (message.find("] stop downloader success!") != std::string::npos) {
      ++record.run;
    }
  });
  // An operation that has not returned within a minute aborts the process
  // with its name: a deadlock must not hang the suite.
  signal(SIGALRM, [](int) {
    const char* what = gOperation;
    (void)!::write(2, what, std::strlen(what));
    std::abort();
  });
  const auto guarded = [&](const char* what, const std::function<void()>& op) {
    gOperation = what;
    ::alarm(60);
    op();
    ::alarm(0);
  };

  std::unique_ptr<TempDir> downloads;
  std::unique_ptr<ZRResourceDownloadManager> manager;
  bool hasList = false, attached = false;
  const auto settle = [&] {
    record.quiet = true;
    attached = false;
    ++record.run;
  };
  const auto parse = [&](bool valid) {
    std::vector<std::string> chosen = catalogue;
    std::shuffle(chosen.begin(), chosen.end(), rng);
    if (rng() % 4 == 0) chosen.resize(1 + rng() % chosen.size());
    const std::string text = valid ? listText(chosen) : "[{\"url\":";
    guarded("storm: parse hangs\n", [&] {
      int error = 0;
      hasList = manager->ZRX_parse2DStickerResource(text, error,
                                                    &parseListener) != nullptr;
    });
    settle();
  };
  const auto create = [&] {
    manager = std::make_unique<ZRResourceDownloadManager>();
    manager->ZRX_set2DStickerDownloadPath(downloads->path());
    parse(true);
  };
  const auto destroy = [&] {
    guarded("storm: destruction hangs\n", [&] { manager.reset(); });
    settle();
  };

  const auto begin = Clock::now();
  int sequences = 0;
  for (; sequences < 150 && Clock::now() - begin < std::chrono::seconds(9);
       ++sequences) {
    record.sequence = sequences;
    // A fresh directory now and then: starts meet an empty disk and
    // installed stickers.
    if (sequences % 15 == 0) downloads = std::make_unique<TempDir>();
    create();
    const int steps = 2 + static_cast<int>(rng() % 6);
    for (int step = 0; step < steps; ++step) {
      record.step = step;
      // A moment within a transfer or an extraction, or right after the
      // last operation.
      std::this_thread::sleep_for(
          std::chrono::milliseconds(rng() % 4 == 0 ? rng() % 200 : rng() % 10));
      const unsigned pick = rng() % 100;
      if (pick < 28) {
        if (hasList) {
          record.quiet = false;
          attached = true;
        }
        guarded("storm: start all hangs\n",
                [&] { manager->ZRX_start2DStickerDownloadAllSticker(); });
      } else if (pick < 55) {
        static const char* const kIds[] = {"p1", "p2", "p3", "a0",
                                           "a1", "a3", "bad"};
        const std::string resId = rng() % 10 ? kIds[rng() % 7] : "nobody";
        singleListeners.push_back(std::make_unique<StormListener>(record));
        StormListener* to = rng() % 10 ? singleListeners.back().get() : nullptr;
        const int limits[] = {0, 0, 0, 1, 3};
        const int limit = limits[rng() % 5];
        if (attached) record.quiet = false;
        guarded("storm: start one hangs\n", [&] {
          manager->ZRX_start2DStickerDownloadSticker(resId, to, limit);
        });
      } else if (pick < 78) {
        guarded("storm: stop hangs\n",
                [&] { manager->ZRX_stop2DStickerDownloadSticker(); });
        settle();
      } else if (pick < 90) {
        parse(rng() % 8 != 0);
      } else {
        destroy();
        create();
      }
    }
    destroy();
    LogCapture::instance().clear();
  }
  signal(SIGALRM, SIG_DFL);

  // A start without interference installs every sticker whole: no stop
  // left a cut file that the check at start would take for installed.
  RecordingListener last;
  ZRResourceDownloadManager clean;
  clean.ZRX_set2DStickerDownloadPath(downloads->path());
  int error = 0;
  ZRX2DStickerResList* list =
      clean.ZRX_parse2DStickerResource(listText(catalogue), error, &last);
  ASSERT_NE(list, nullptr);
  clean.ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(last.waitForFinals(catalogue.size(), std::chrono::seconds(120)));
  clean.ZRX_stop2DStickerDownloadSticker();
  LogCapture::instance().setHook(nullptr);
  for (const ZRX2DStickerResItem* item : list->items) {
    const auto finals = last.finalsFor(item->resId);
    ASSERT_EQ(finals.size(), 1u) << item->resId;
    EXPECT_EQ(finals[0].code, item->resId == "bad" ? -10004 : 0);
    const std::string dir = downloads->path() + "/" + item->dirName;
    if (item->unzipType == 2) {
      EXPECT_TRUE(holds(dir + "/" + item->fileName, plain[item->resId]));
    } else if (item->resId != "bad") {
      const std::string into =
          item->unzipType == 3 ? downloads->path() + "/" + item->resId : dir;
      EXPECT_TRUE(holds(into + "/img/i.png", image)) << item->resId;
      EXPECT_EQ(sizeOf(into + "/big.bin"), 3 << 20) << item->resId;
    }
  }

  std::printf(
      "storm: %d sequences in %.1f s; listener calls: %ld progress, "
      "%ld final; violations: %zu\n",
      sequences, std::chrono::duration<double>(Clock::now() - begin).count(),
      record.progressCalls.load(), record.finalCalls.load(),
      record.violations.size());
  for (std::size_t i = 0; i < record.violations.size() && i < 20; ++i) {
    ADD_FAILURE() << record.violations[i] << " (seed " << seed << ")";
  }
}

}  // namespace
}  // namespace zrxtest
