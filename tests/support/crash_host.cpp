// The host that CrashConsistencyTest kills: it installs the stickers of a
// catalogue into a directory, as an application does at its start.
// Usage: crash_host DOWNLOAD_DIR CATALOGUE_FILE (a DOWNLOAD_DIR of "-" keeps
// the default, the directory of the executable)
// On stdout one line per event, each flushed on its own so that a kill
// never leaves half a line: "OK <resId>" (installed already or now),
// "FAILED <resId> <code>", "UNZIPPING" (an extraction begins). Exit status:
// 0 when every sticker succeeded, 1 otherwise.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>

#include "zrx2dsticker/ZRResourceDownloadManager.h"
#include "zrx2dsticker/ZRXLog.h"

namespace {

std::mutex gEmitMutex;

void emit(const std::string& line) {
  const std::string text = line + "\n";
  std::lock_guard<std::mutex> lock(gEmitMutex);
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);
}

class HostListener : public ZRX2DStickerDownloadListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string resId) override { end("OK " + resId); }
  void onDownloadFailed(std::string resId, int errorCode) override {
    failed = true;
    end("FAILED " + resId + " " + std::to_string(errorCode));
  }
  void end(const std::string& line) {
    emit(line);
    std::lock_guard<std::mutex> lock(mutex);
    ++outcomes;
    changed.notify_all();
  }
  std::mutex mutex;
  std::condition_variable changed;
  std::size_t outcomes = 0;
  bool failed = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) return 1;
  std::ifstream in(argv[2], std::ios::binary);
  std::ostringstream catalogue;
  catalogue << in.rdbuf();
  ZRXRegisterLogBaseManager([](int, const char*, const char* message,
                               const char*) {
    if (std::strstr(message, "] start unzipping!")) emit("UNZIPPING");
  });
  HostListener listener;
  ZRResourceDownloadManager manager;
  if (std::strcmp(argv[1], "-") != 0) {
    manager.ZRX_set2DStickerDownloadPath(argv[1]);
  }
  int error = 0;
  ZRX2DStickerResList* list =
      manager.ZRX_parse2DStickerResource(catalogue.str(), error, &listener);
  if (list == nullptr) return 1;
  manager.ZRX_start2DStickerDownloadAllSticker();
  std::unique_lock<std::mutex> lock(listener.mutex);
  const bool all = listener.changed.wait_for(lock, std::chrono::minutes(2), [&] {
    return listener.outcomes >= list->items.size();
  });
  lock.unlock();
  manager.ZRX_stop2DStickerDownloadSticker();
  return all && !listener.failed ? 0 : 1;
}
