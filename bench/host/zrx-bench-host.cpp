// A benchmark host on the public API alone.
//
//   zrx-bench-host [--log] LIST.json DIR
//     Parses the list, sets DIR as the download path, starts all stickers,
//     waits for every sticker's final call, stops. Prints the wall time and
//     the outcomes; exits 1 if a sticker failed.
//   zrx-bench-host --stop-transfer RUNS LIST.json DIR
//     RUNS times: starts the list's one sticker, waits for its first
//     progress call, waits a random 0-200 ms more, and times the stop.
//   zrx-bench-host --stop-extract RUNS WATCH LIST.json DIR
//     RUNS times: deletes WATCH (a file the sticker's archive extracts),
//     starts, waits until WATCH has bytes, waits a random 0-20 ms more, and
//     times the stop. A stop that comes after the sticker's final call does
//     not count and is run again.
//     Both stop modes print p50, p95, p99 and max in ms as JSON.
//
// The library's log is switched off unless --log is given. libcurl's
// verbose trace still goes to stderr (the library asks for it on every
// transfer), so a measured run sends stderr to /dev/null or to a file.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "zrx2dsticker/ZRResourceDownloadManager.h"

namespace {

using Clock = std::chrono::steady_clock;

double millisecondsSince(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start)
      .count();
}

// Called on the workers and, for installed stickers, inside the start; it
// counts and signals and never calls the manager.
class Listener : public ZRX2DStickerDownloadListener {
 public:
  // Signals only the first progress of a run, and only when asked to: a
  // wake-up of the waiting thread on every call would be the host's cost,
  // not the library's.
  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    if (!watchProgress || item->downloadedBytes <= 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    if (progressed_) return;
    progressed_ = true;
    changed_.notify_all();
  }
  void onDownloadSuccess(std::string) override { final(false); }
  void onDownloadFailed(std::string resId, int code) override {
    if (printFailures) std::printf("failed: %s %d\n", resId.c_str(), code);
    final(true);
  }

  // Set before the first start; read on the workers.
  bool printFailures = true;
  bool watchProgress = false;

  void reset() {
    std::lock_guard<std::mutex> lock(mutex_);
    progressed_ = false;
    finals_ = failures_ = 0;
  }
  // False when the deadline passed first.
  bool waitForFinals(std::size_t count, std::chrono::seconds deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] { return finals_ >= count; });
  }
  bool waitForProgress(std::chrono::seconds deadline) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, deadline, [&] {
      return progressed_ || finals_ > 0;
    }) && progressed_;
  }
  std::size_t finals() {
    std::lock_guard<std::mutex> lock(mutex_);
    return finals_;
  }
  std::size_t failures() {
    std::lock_guard<std::mutex> lock(mutex_);
    return failures_;
  }

 private:
  void final(bool failed) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++finals_;
    if (failed) ++failures_;
    changed_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  bool progressed_ = false;
  std::size_t finals_ = 0;
  std::size_t failures_ = 0;
};

bool readFile(const char* path, std::string& text) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return false;
  text.assign(std::istreambuf_iterator<char>(file),
              std::istreambuf_iterator<char>());
  return true;
}

bool hasBytes(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && info.st_size > 0;
}

int usage() {
  std::fprintf(stderr,
               "usage: zrx-bench-host [--log] LIST.json DIR\n"
               "       zrx-bench-host --stop-transfer RUNS LIST.json DIR\n"
               "       zrx-bench-host --stop-extract RUNS WATCH LIST.json "
               "DIR\n");
  return 2;
}

double percentile(const std::vector<double>& sorted, double p) {
  // Nearest rank.
  std::size_t rank = static_cast<std::size_t>(p * sorted.size() + 0.999999);
  rank = std::min(std::max<std::size_t>(rank, 1), sorted.size());
  return sorted[rank - 1];
}

int installAll(ZRResourceDownloadManager& manager, Listener& listener,
               std::size_t items, Clock::time_point start) {
  manager.ZRX_start2DStickerDownloadAllSticker();
  if (!listener.waitForFinals(items, std::chrono::seconds(600))) {
    std::fprintf(stderr, "timed out waiting for the stickers\n");
    return 3;
  }
  manager.ZRX_stop2DStickerDownloadSticker();
  const double wall = millisecondsSince(start);
  std::printf("wall_ms=%.3f stickers=%zu failed=%zu\n", wall, items,
              listener.failures());
  return listener.failures() == 0 ? 0 : 1;
}

// One sample per run: the time the stop call takes.
int stopLatency(ZRResourceDownloadManager& manager, Listener& listener,
                int runs, const std::string& watch) {
  const bool extract = !watch.empty();
  const unsigned seed = std::random_device{}();
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> extraWait(0, extract ? 20 : 200);
  std::vector<double> samples;
  int repeats = 0;
  while (static_cast<int>(samples.size()) < runs) {
    if (repeats > runs) {
      std::fprintf(stderr, "too many runs ended before the stop\n");
      return 3;
    }
    listener.reset();
    if (extract) ::unlink(watch.c_str());
    manager.ZRX_start2DStickerDownloadAllSticker();
    bool underWay = false;
    if (extract) {
      const Clock::time_point deadline =
          Clock::now() + std::chrono::seconds(60);
      while (!(underWay = hasBytes(watch)) && listener.finals() == 0 &&
             Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    } else {
      underWay = listener.waitForProgress(std::chrono::seconds(60));
    }
    if (!underWay) {
      std::fprintf(stderr, "the %s never got under way\n",
                   extract ? "extraction" : "transfer");
      return 3;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(extraWait(random)));
    const std::size_t finalsBefore = listener.finals();
    const Clock::time_point start = Clock::now();
    manager.ZRX_stop2DStickerDownloadSticker();
    const double took = millisecondsSince(start);
    // A transfer that was stopped hears nothing; an extraction that was
    // stopped fails with -10004 during the stop. A sticker that had its
    // final call before the stop was not interrupted.
    if (finalsBefore != 0) {
      ++repeats;
      continue;
    }
    samples.push_back(took);
  }
  std::vector<double> sorted = samples;
  std::sort(sorted.begin(), sorted.end());
  std::printf("{\"mode\":\"%s\",\"seed\":%u,\"runs\":%d,\"repeated\":%d,",
              extract ? "stop-extract" : "stop-transfer", seed, runs, repeats);
  std::printf(
      "\"p50_ms\":%.3f,\"p95_ms\":%.3f,\"p99_ms\":%.3f,\"max_ms\":%.3f,",
      percentile(sorted, 0.50), percentile(sorted, 0.95),
      percentile(sorted, 0.99), sorted.back());
  std::printf("\"samples_ms\":[");
  for (std::size_t i = 0; i < samples.size(); ++i) {
    std::printf("%s%.3f", i == 0 ? "" : ",", samples[i]);
  }
  std::printf("]}\n");
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  bool log = false;
  int stopRuns = 0;
  std::string watch;
  bool stopExtract = false;
  if (!args.empty() && args[0] == "--log") {
    log = true;
    args.erase(args.begin());
  } else if (args.size() == 4 && args[0] == "--stop-transfer") {
    stopRuns = std::atoi(args[1].c_str());
    args.erase(args.begin(), args.begin() + 2);
  } else if (args.size() == 5 && args[0] == "--stop-extract") {
    stopRuns = std::atoi(args[1].c_str());
    watch = args[2];
    stopExtract = true;
    args.erase(args.begin(), args.begin() + 3);
  }
  if (args.size() != 2 || (stopExtract && watch.empty())) return usage();

  const Clock::time_point start = Clock::now();
  if (!log) ZRXDisableLog();
  std::string json;
  if (!readFile(args[0].c_str(), json)) {
    std::fprintf(stderr, "can't read %s\n", args[0].c_str());
    return 2;
  }
  Listener listener;  // outlives the manager
  ZRResourceDownloadManager manager;
  manager.ZRX_set2DStickerDownloadPath(args[1]);
  int error = 0;
  ZRX2DStickerResList* list =
      manager.ZRX_parse2DStickerResource(json, error, &listener);
  if (list == nullptr) {
    std::fprintf(stderr, "not a valid list (RapidJSON error %d)\n", error);
    return 2;
  }
  if (stopRuns > 0) {
    listener.printFailures = false;  // a stopped extraction fails by design
    listener.watchProgress = !stopExtract;
    return stopLatency(manager, listener, stopRuns, watch);
  }
  return installAll(manager, listener, list->items.size(), start);
}
