// The host that CrashConsistencyTest kills: it installs the stickers of a
// catalogue into a directory, as an application does at its start.
// Usage: crash_host DOWNLOAD_DIR CATALOGUE_FILE
// On stdout, "PID <pid>" and then one line per event, each in a single
// write(2) so that a kill never leaves half a line: "INSTALLED <resId>"
// (found complete by the start, on its thread), "DONE <resId>" (fetched and
// unpacked by a worker), "FAILED <resId> <code>", "UNZIPPING" (the unzip
// worker begins an archive).
// Exit status: 0 when no sticker failed, 1 when one did, 2 on bad input,
// 3 when the outcomes did not come within two minutes.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "zrx2dsticker/ZRResourceDownloadManager.h"
#include "zrx2dsticker/ZRXLog.h"

namespace {

void emit(const std::string& line) {
  const std::string text = line + "\n";
  (void)::write(STDOUT_FILENO, text.data(), text.size());
}

void logCallback(int, const char*, const char* message, const char*) {
  if (std::strstr(message, "] start unzipping!") != nullptr) emit("UNZIPPING");
}

class HostListener : public ZRX2DStickerDownloadListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string resId) override {
    const bool atStart = std::this_thread::get_id() == hostThread_;
    emit((atStart ? "INSTALLED " : "DONE ") + resId);
    finish(false);
  }
  void onDownloadFailed(std::string resId, int errorCode) override {
    emit("FAILED " + resId + " " + std::to_string(errorCode));
    finish(true);
  }
  bool waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(120),
                             [&] { return outcomes_ >= count; });
  }
  bool failed() {
    std::lock_guard<std::mutex> lock(mutex_);
    return failed_;
  }

 private:
  void finish(bool failed) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++outcomes_;
    failed_ = failed_ || failed;
    changed_.notify_all();
  }
  const std::thread::id hostThread_ = std::this_thread::get_id();
  std::mutex mutex_;
  std::condition_variable changed_;
  std::size_t outcomes_ = 0;
  bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  emit("PID " + std::to_string(::getpid()));
  std::ifstream in(argv[2], std::ios::binary);
  std::ostringstream catalogue;
  catalogue << in.rdbuf();
  ZRXRegisterLogBaseManager(&logCallback);
  HostListener listener;
  ZRResourceDownloadManager manager;
  manager.ZRX_set2DStickerDownloadPath(argv[1]);
  int error = 0;
  ZRX2DStickerResList* list =
      manager.ZRX_parse2DStickerResource(catalogue.str(), error, &listener);
  if (list == nullptr || list->items.empty()) return 2;
  manager.ZRX_start2DStickerDownloadAllSticker();
  if (!listener.waitFor(list->items.size())) return 3;
  manager.ZRX_stop2DStickerDownloadSticker();
  return listener.failed() ? 1 : 0;
}
