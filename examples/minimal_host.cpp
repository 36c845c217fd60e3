// The smallest complete host of zrx2dsticker: installs the stickers of a JSON
// list file into a directory and prints each one's outcome.
//   minimal_host LIST.json DIR
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>
#include <string>

#include "zrx2dsticker/ZRResourceDownloadManager.h"

// Called on the library's two worker threads, and inside the start for
// stickers already on disk: it records and signals, and never calls the
// manager.
class Listener : public ZRX2DStickerDownloadListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string resId) override { done(resId + ": ok"); }
  void onDownloadFailed(std::string resId, int code) override {
    done(resId + ": failed with " + std::to_string(code));
  }
  // One final call per sticker, except for a sticker whose file name repeats
  // an earlier one's: the library drops it silently (zrx-fetch counts those).
  void waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [&] { return outcomes_ >= count; });
  }

 private:
  void done(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex_);
    std::cout << line << std::endl;
    ++outcomes_;
    changed_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t outcomes_ = 0;
};

int main(int argc, char** argv) {
  if (argc != 3) {
    std::cerr << "usage: minimal_host LIST.json DIR\n";
    return 2;
  }
  std::ifstream file(argv[1], std::ios::binary);
  std::ostringstream json;
  json << file.rdbuf();
  std::filesystem::create_directories(argv[2]);

  Listener listener;  // outlives the manager
  ZRResourceDownloadManager manager;
  manager.ZRX_set2DStickerDownloadPath(argv[2]);
  int error = 0;
  ZRX2DStickerResList* list =  // a loan: the manager owns it
      manager.ZRX_parse2DStickerResource(json.str(), error, &listener);
  if (list == nullptr) {
    std::cerr << "not a valid list (RapidJSON error " << error << ")\n";
    return 2;
  }
  manager.ZRX_start2DStickerDownloadAllSticker();
  listener.waitFor(list->items.size());
  manager.ZRX_stop2DStickerDownloadSticker();
  return 0;
}
