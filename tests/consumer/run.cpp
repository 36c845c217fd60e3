// A host as an application writes one, built against the installed
// package: installs a small list from BASE_URL into DIR, prints each
// sticker's outcome in list order, then starts again and prints how many
// stickers that start found installed. Names outside ASCII show what the
// system's code page makes of them.
// Usage: consumer_run BASE_URL DIR (DIR in UTF-8)
#include <zrx2dsticker/ZRResourceDownloadManager.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#ifdef _WIN32
#include <windows.h>
#endif

namespace {

// Records each sticker's final call; called on the library's workers and,
// for stickers found installed, inside the start on the main thread.
class Outcomes : public ZRX2DStickerDownloadListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string resId) override { record(resId, "ok"); }
  void onDownloadFailed(std::string resId, int code) override {
    record(resId, "failed " + std::to_string(code));
  }
  // Waits up to a minute for `count` outcomes.
  bool wait(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::minutes(1),
                             [&] { return outcomes_.size() >= count; });
  }
  std::string of(const std::string& resId) {
    std::lock_guard<std::mutex> lock(mutex_);
    return outcomes_[resId];
  }
  std::size_t onThread(std::thread::id thread) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::size_t n = 0;
    for (const auto& entry : threads_) n += entry.second == thread ? 1 : 0;
    return n;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    outcomes_.clear();
    threads_.clear();
  }

 private:
  void record(const std::string& resId, const std::string& outcome) {
    std::lock_guard<std::mutex> lock(mutex_);
    outcomes_[resId] = outcome;
    threads_[resId] = std::this_thread::get_id();
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::string> outcomes_;          // guarded by mutex_
  std::map<std::string, std::thread::id> threads_;       // guarded by mutex_
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: consumer_run BASE_URL DIR\n");
    return 2;
  }
  const std::string base = argv[1];
#ifdef _WIN32
  std::printf("code page %u\n", ::GetACP());
#endif
  // "é.png", "日.png", a type 3 archive, and a device name that the library
  // refuses everywhere.
  const char* const kResIds[] = {"acute", "sun", "pack", "device"};
  const std::string list =
      R"([{"resId":"acute","url":")" + base + R"(/a.png","name":"\u00e9.png"},)"
      R"({"resId":"sun","url":")" + base + R"(/a.png","name":"\u65e5.png"},)"
      R"({"resId":"pack","url":")" + base +
      R"(/pack.zip","name":"pack","ext":".zip","unzip_type":3},)"
      R"({"resId":"device","url":")" + base +
      R"(/a.png","name":"con","ext":".png"}])";
  Outcomes outcomes;  // outlives the manager
  ZRResourceDownloadManager manager;
  manager.ZRX_set2DStickerDownloadPath(argv[2]);
  int error = 0;
  ZRX2DStickerResList* stickers =
      manager.ZRX_parse2DStickerResource(list, error, &outcomes);
  if (stickers == nullptr) {
    std::printf("parse failed: %d\n", error);
    return 1;
  }
  manager.ZRX_start2DStickerDownloadAllSticker();
  if (!outcomes.wait(stickers->items.size())) {
    std::printf("no outcome for every sticker\n");
    return 1;
  }
  manager.ZRX_stop2DStickerDownloadSticker();
  for (const char* resId : kResIds) {
    std::printf("%s %s\n", resId, outcomes.of(resId).c_str());
  }
  outcomes.clear();
  manager.ZRX_start2DStickerDownloadAllSticker();
  const std::size_t installed = outcomes.onThread(std::this_thread::get_id());
  outcomes.wait(stickers->items.size());
  manager.ZRX_stop2DStickerDownloadSticker();
  std::printf("installed at the second start: %s\n",
              std::to_string(installed).c_str());
  return 0;
}
