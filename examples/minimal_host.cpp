// The smallest complete host of zrx2dsticker: installs the stickers of a JSON
// list file into an existing directory and prints each one's outcome.
//   minimal_host LIST.json DIR
#include <condition_variable>
#include <fstream>
#include <iostream>
#include <mutex>
#include <sstream>

#include "zrx2dsticker/ZRResourceDownloadManager.h"

// Called on the two workers, and inside the start for stickers already on
// disk: it records and signals, and never calls the manager.
struct Listener : ZRX2DStickerDownloadListener {
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string resId) override { done(resId + ": ok"); }
  void onDownloadFailed(std::string resId, int code) override {
    done(resId + ": failed with " + std::to_string(code));
  }
  void done(const std::string& line) {
    std::lock_guard<std::mutex> lock(mutex);
    std::cout << line << std::endl;
    ++outcomes;
    changed.notify_all();
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t outcomes = 0;
};

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  std::ifstream file(argv[1], std::ios::binary);
  std::ostringstream json;
  json << file.rdbuf();
  Listener listener;  // outlives the manager
  ZRResourceDownloadManager manager;
  manager.ZRX_set2DStickerDownloadPath(argv[2]);
  int error = 0;  // RapidJSON's ParseErrorCode when the list is not JSON
  ZRX2DStickerResList* list =  // a loan: the manager owns it
      manager.ZRX_parse2DStickerResource(json.str(), error, &listener);
  if (list == nullptr) return 2;
  manager.ZRX_start2DStickerDownloadAllSticker();
  // One final call per sticker, but none for a sticker whose file name
  // repeats an earlier one's: zrx-fetch shows how to count those.
  std::unique_lock<std::mutex> lock(listener.mutex);
  listener.changed.wait(
      lock, [&] { return listener.outcomes >= list->items.size(); });
  lock.unlock();
  manager.ZRX_stop2DStickerDownloadSticker();
}
