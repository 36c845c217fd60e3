// Stop and start storms: hundreds of random sequences of the host's
// operations (start all, start one, stop, parse, destroy) against a slow
// loopback server, with plain and archive stickers in flight. Meant to run
// under ThreadSanitizer too. A watchdog aborts the process when an operation
// does not return; the listeners check that no call comes after a stop,
// parse or destruction has returned, and that a start gets at most one
// final call per sticker.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "support/RecordingListener.h"
#include "support/TestServer.h"
#include "support/TestSupport.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

using zrxtest::LogCapture;
using zrxtest::RecordingListener;
using zrxtest::TempDir;
using zrxtest::TestServer;
using Clock = std::chrono::steady_clock;

namespace {

// Far more than any operation needs, even under a sanitizer on a loaded
// machine: a stop waits for one pass of the transfer loop and one copy step
// of an extraction.
constexpr std::chrono::seconds kOperationDeadline(60);
// Sequences stop being started once this much time has gone.
constexpr std::chrono::seconds kStormBudget(40);
constexpr int kMaxSequences = 300;
// A fresh download directory every so many sequences, so that starts meet
// both an empty disk and installed stickers.
constexpr int kSequencesPerDirectory = 25;

unsigned testSeed() {
  const char* fixed = std::getenv("ZRX_TEST_SEED");
  const unsigned seed =
      fixed != nullptr ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10))
                       : std::random_device{}();
  std::printf("seed %u (rerun with ZRX_TEST_SEED=%u)\n", seed, seed);
  return seed;
}

std::string randomBytes(std::size_t size, std::mt19937& rng) {
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(rng() & 0xFF);
  return bytes;
}

// The file at `path` holds exactly `content`; a failure names the file and
// the sizes instead of printing the bytes.
::testing::AssertionResult holds(const std::string& path,
                                 const std::string& content) {
  const std::string actual = zrxtest::readFile(path);
  if (actual == content) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << path << " holds " << actual.size() << " bytes, not the "
         << content.size() << " expected";
}

// What all listeners of the storm share.
struct StormRecord {
  // Set from the return of a stop, a parse or a destruction until the next
  // start: no listener call may come meanwhile.
  std::atomic<bool> quiet{true};
  // The run that a final call belongs to. It moves on when a stop has
  // joined the workers (its "stop downloader success!" line, also inside a
  // start of all stickers) and after each parse; a start of one sticker
  // gives that sticker a listener of its own instead.
  std::atomic<int> run{0};
  // Where the storm stands, for the messages.
  std::atomic<int> sequence{0};
  std::atomic<int> step{0};
  std::atomic<long> progressCalls{0};
  std::atomic<long> finalCalls{0};

  void violation(const std::string& what) {
    std::lock_guard<std::mutex> lock(mutex);
    if (violations.size() < 20) {
      violations.push_back("sequence " + std::to_string(sequence) + " step " +
                           std::to_string(step) + ": " + what);
    }
    ++violationCount;
  }

  std::mutex mutex;
  // Guarded by mutex.
  std::map<std::tuple<int, const void*, std::string>, int> finals;
  std::map<int, long> outcomes;  // final calls by code, 0 for success
  std::vector<std::string> violations;
  long violationCount = 0;
};

class StormListener : public ZRX2DStickerDownloadListener {
 public:
  explicit StormListener(StormRecord& record) : record_(record) {}

  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    // Reads the item: under a sanitizer a released item shows here.
    if (record_.quiet) record_.violation("progress of " + item->resId);
    ++record_.progressCalls;
  }
  void onDownloadSuccess(std::string resId) override {
    final(resId, "success", 0);
  }
  void onDownloadFailed(std::string resId, int errorCode) override {
    final(resId, "failure " + std::to_string(errorCode), errorCode);
  }

 private:
  void final(const std::string& resId, const std::string& what, int code) {
    if (record_.quiet) record_.violation(what + " of " + resId + " when quiet");
    ++record_.finalCalls;
    int count;
    {
      std::lock_guard<std::mutex> lock(record_.mutex);
      count = ++record_.finals[{record_.run.load(), this, resId}];
      ++record_.outcomes[code];
    }
    if (count > 1) {
      record_.violation("final call " + std::to_string(count) + " (" + what +
                        ") of " + resId + " in one start");
    }
  }

  StormRecord& record_;
};

// Aborts the process when an armed operation outlives its deadline: a
// deadlock must not hang the suite, and the message names the operation.
class Watchdog {
 public:
  Watchdog(const StormRecord& record, unsigned seed)
      : record_(record), seed_(seed), thread_([this] { loop(); }) {}
  ~Watchdog() {
    done_ = true;
    thread_.join();
  }
  void arm(const char* what) {
    what_ = what;
    armedAt_ = Clock::now();
    deadline_ = (armedAt_ + kOperationDeadline).time_since_epoch().count();
  }
  void disarm() {
    deadline_ = 0;
    const double took =
        std::chrono::duration<double>(Clock::now() - armedAt_).count();
    if (took > longest.second) longest = {what_.load(), took};
  }
  // The slowest operation so far and its seconds; read on the arming
  // thread.
  std::pair<std::string, double> longest{"", 0.0};

 private:
  void loop() {
    while (!done_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const auto deadline = deadline_.load();
      if (deadline != 0 && Clock::now().time_since_epoch().count() > deadline) {
        std::fprintf(stderr,
                     "storm: %s did not return within %lld s (seed %u, "
                     "sequence %d, step %d)\n",
                     what_.load(),
                     static_cast<long long>(kOperationDeadline.count()), seed_,
                     record_.sequence.load(), record_.step.load());
        std::fflush(stderr);
        std::abort();
      }
    }
  }

  const StormRecord& record_;
  const unsigned seed_;
  std::atomic<bool> done_{false};
  std::atomic<Clock::rep> deadline_{0};
  std::atomic<const char*> what_{""};
  Clock::time_point armedAt_;  // arming thread only
  std::thread thread_;
};

struct CatalogueSticker {
  std::string resId;
  std::string json;
};

TEST(StormTest, RandomStopsAndStartsNeverHangNorBreakTheListenerRules) {
  const unsigned seed = testSeed();
  std::mt19937 rng(seed);

  // Plain and archive stickers, fast and slow; the server sends a tenth of
  // `bps` every 100 ms. One archive is an error page: it fails to unpack.
  TempDir served;
  std::map<std::string, std::string> plainContent;
  for (const char* name : {"p1.bin", "p2.bin", "p3.bin"}) {
    plainContent[name] = randomBytes(30000 + rng() % 60000, rng);
    zrxtest::writeFile(served / name, plainContent[name]);
  }
  const std::string image = randomBytes(80000, rng);
  const std::string sparse(3 << 20, '\0');
  zrxtest::makeDirs(served / "src/img");
  zrxtest::writeFile(served / "src/img/i.png", image);
  zrxtest::writeFile(served / "src/big.bin", sparse);
  ASSERT_EQ(zrxtest::run("cd " + zrxtest::shellQuote(served / "src") +
                         " && zip -qr ../a.zip img big.bin"),
            0);
  TestServer server(served.path());
  const auto plain = [&](const std::string& resId, const std::string& route) {
    return CatalogueSticker{resId, R"({"resId":")" + resId + R"(","url":")" +
                                       server.url(route) + R"(","name":")" +
                                       resId + R"(.bin"})"};
  };
  const auto archive = [&](const std::string& resId, const std::string& route,
                           int type) {
    return CatalogueSticker{
        resId, R"({"resId":")" + resId + R"(","url":")" + server.url(route) +
                   R"(","name":")" + resId + R"(","ext":".zip","unzip_type":)" +
                   std::to_string(type) + "}"};
  };
  const std::vector<CatalogueSticker> catalogue = {
      plain("p1", "/slow/p1.bin?bps=100000"),
      plain("p2", "/files/p2.bin"),
      plain("p3", "/slow/p3.bin?bps=40000"),
      archive("a0", "/files/a.zip", 0),
      archive("a1", "/slow/a.zip?bps=200000", 1),
      archive("a3", "/slow/a.zip?bps=300000", 3),
      archive("bad", "/status/404", 1)};
  const auto listText = [&](bool all) {
    std::vector<CatalogueSticker> chosen = catalogue;
    std::shuffle(chosen.begin(), chosen.end(), rng);
    if (!all) chosen.resize(1 + rng() % chosen.size());
    std::string json = "[";
    for (std::size_t i = 0; i < chosen.size(); ++i) {
      json += (i ? "," : "") + chosen[i].json;
    }
    return json + "]";
  };

  StormRecord record;
  StormListener parseListener(record);
  std::deque<std::unique_ptr<StormListener>> singleListeners;
  Watchdog watchdog(record, seed);
  LogCapture::instance().setHook([&record](const std::string& message) {
    if (message.find("] stop downloader success!") != std::string::npos) {
      ++record.run;
    }
  });

  std::unique_ptr<TempDir> downloads;
  std::unique_ptr<ZRResourceDownloadManager> manager;
  bool hasList = false;   // the manager holds a list
  bool attached = false;  // a start of all stickers attached it
  const auto settle = [&] {
    record.quiet = true;
    attached = false;
    ++record.run;
  };
  const auto parse = [&](bool valid) {
    int error = 0;
    const std::string text = valid ? listText(rng() % 4 != 0) : "[{\"url\":";
    watchdog.arm("parse");
    hasList = manager->ZRX_parse2DStickerResource(text, error,
                                                  &parseListener) != nullptr;
    watchdog.disarm();
    settle();
  };
  const auto create = [&] {
    watchdog.arm("construction");
    manager = std::make_unique<ZRResourceDownloadManager>();
    manager->ZRX_set2DStickerDownloadPath(downloads->path());
    watchdog.disarm();
    parse(true);
  };
  const auto destroy = [&] {
    watchdog.arm("destruction");
    manager.reset();
    watchdog.disarm();
    settle();
  };

  std::map<std::string, long> operations;
  const auto begin = Clock::now();
  int sequences = 0;
  for (; sequences < kMaxSequences && Clock::now() - begin < kStormBudget;
       ++sequences) {
    record.sequence = sequences;
    if (sequences % kSequencesPerDirectory == 0) {
      downloads = std::make_unique<TempDir>();
    }
    create();
    const int steps = 2 + static_cast<int>(rng() % 6);
    for (int step = 0; step < steps; ++step) {
      record.step = step;
      // A moment within a transfer or an extraction, or right on the heels
      // of the last operation.
      const unsigned pause = rng() % 4 == 0 ? rng() % 200 : rng() % 10;
      std::this_thread::sleep_for(std::chrono::milliseconds(pause));
      const unsigned pick = rng() % 100;
      if (pick < 28) {
        ++operations["start all"];
        if (hasList) {
          record.quiet = false;
          attached = true;
        }
        watchdog.arm("start of all stickers");
        manager->ZRX_start2DStickerDownloadAllSticker();
        watchdog.disarm();
      } else if (pick < 55) {
        ++operations["start one"];
        const bool unknown = rng() % 10 == 0;
        const std::string resId =
            unknown ? "nobody" : catalogue[rng() % catalogue.size()].resId;
        singleListeners.push_back(std::make_unique<StormListener>(record));
        StormListener* to =
            rng() % 10 == 0 ? nullptr : singleListeners.back().get();
        const int limits[] = {0, 0, 0, 1, 3};
        if (attached) record.quiet = false;
        watchdog.arm("start of one sticker");
        manager->ZRX_start2DStickerDownloadSticker(resId, to,
                                                   limits[rng() % 5]);
        watchdog.disarm();
      } else if (pick < 78) {
        ++operations["stop"];
        watchdog.arm("stop");
        manager->ZRX_stop2DStickerDownloadSticker();
        watchdog.disarm();
        settle();
      } else if (pick < 90) {
        ++operations["parse"];
        parse(rng() % 8 != 0);
      } else {
        ++operations["destroy"];
        destroy();
        create();
      }
    }
    ++operations["destroy"];
    destroy();
    LogCapture::instance().clear();
  }
  const double stormSeconds =
      std::chrono::duration<double>(Clock::now() - begin).count();

  // After all that, a start without interference installs every sticker
  // whole: no stop left a cut file that the check would take for one.
  RecordingListener last;
  ZRResourceDownloadManager clean;
  clean.ZRX_set2DStickerDownloadPath(downloads->path());
  int error = 0;
  std::string json = "[";
  for (std::size_t i = 0; i < catalogue.size(); ++i) {
    json += (i ? "," : "") + catalogue[i].json;
  }
  ZRX2DStickerResList* list =
      clean.ZRX_parse2DStickerResource(json + "]", error, &last);
  ASSERT_NE(list, nullptr);
  clean.ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(last.waitForFinals(catalogue.size(), std::chrono::seconds(120)));
  clean.ZRX_stop2DStickerDownloadSticker();
  for (const ZRX2DStickerResItem* item : list->items) {
    const auto finals = last.finalsFor(item->resId);
    ASSERT_EQ(finals.size(), 1u) << item->resId;
    const std::string dir = downloads->path() + "/" + item->dirName;
    if (item->resId == "bad") {
      EXPECT_EQ(finals[0].code, -10004);
    } else if (item->unzipType == 2) {
      EXPECT_EQ(finals[0].kind, RecordingListener::Kind::kSuccess);
      EXPECT_TRUE(
          holds(dir + "/" + item->fileName, plainContent[item->fileName]))
          << item->resId;
    } else {
      EXPECT_EQ(finals[0].kind, RecordingListener::Kind::kSuccess);
      const std::string into =
          item->unzipType == 3 ? downloads->path() + "/" + item->resId : dir;
      EXPECT_TRUE(holds(into + "/img/i.png", image)) << item->resId;
      EXPECT_EQ(zrxtest::sizeOf(into + "/big.bin"),
                static_cast<long long>(sparse.size()))
          << item->resId;
    }
  }
  LogCapture::instance().setHook(nullptr);

  std::lock_guard<std::mutex> lock(record.mutex);
  std::string outcomes;
  for (const auto& entry : record.outcomes) {
    outcomes += " " + std::to_string(entry.first) + ": " +
                std::to_string(entry.second) + ",";
  }
  long total = 0;
  std::string counts;
  for (const auto& entry : operations) {
    total += entry.second;
    counts += " " + entry.first + " " + std::to_string(entry.second) + ",";
  }
  std::printf(
      "storm: %d sequences, %ld operations (%s) in %.1f s; listener calls: "
      "%ld progress, %ld final (by code:%s); slowest operation: %s, %.2f s; "
      "violations: %ld\n",
      sequences, total, counts.c_str(), stormSeconds,
      record.progressCalls.load(), record.finalCalls.load(), outcomes.c_str(),
      watchdog.longest.first.c_str(), watchdog.longest.second,
      record.violationCount);
  EXPECT_EQ(record.violationCount, 0);
  for (const std::string& violation : record.violations) {
    ADD_FAILURE() << violation << " (seed " << seed << ")";
  }
}

}  // namespace
