// A host process for CrashConsistencyTest: it installs the stickers of a
// catalogue into a directory, like an application would at its start, and
// exits once every sticker has its outcome. The test kills it at random
// moments and looks at what the disk holds.
//
// Usage: crash_host DOWNLOAD_DIR CATALOGUE_FILE
//
// It writes one line per event on stdout, each with a single write(2), so a
// kill never leaves half a line behind:
//   INSTALLED <resId>      the check at start found it complete (reported on
//                          the thread that called the start)
//   DONE <resId>           fetched, and unpacked for an archive, by a worker
//   FAILED <resId> <code>  the attempt failed
//   UNZIPPING              the unzip worker begins an archive
//   END                    every sticker has its outcome; the run is stopped
// Exit status: 0 when no sticker failed, 1 when one did, 2 on bad usage or a
// catalogue that does not parse, 3 when the outcomes did not all come within
// the deadline.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

#include "zrx2dsticker/ZRResourceDownloadManager.h"
#include "zrx2dsticker/ZRXLog.h"

namespace {

// Far beyond any install of the test's catalogues; a host that takes longer
// is reported as hung rather than left behind.
constexpr std::chrono::seconds kDeadline(120);

void emit(const std::string& line) {
  const std::string text = line + "\n";
  // Lines are short, so one write puts the whole line in the pipe.
  (void)::write(STDOUT_FILENO, text.data(), text.size());
}

// The unzip worker's first line for an archive tells the test that an
// extraction is under way: its kills aimed at extractions start from here.
void logCallback(int /*level*/, const char* /*tag*/, const char* message,
                 const char* /*key*/) {
  if (std::strstr(message, "] start unzipping!") != nullptr) {
    emit("UNZIPPING");
  }
}

class HostListener : public ZRX2DStickerDownloadListener {
 public:
  explicit HostListener(std::thread::id hostThread) : hostThread_(hostThread) {}

  void onDownloadProgress(ZRX2DStickerResItem* /*item*/) override {}
  void onDownloadSuccess(std::string resId) override {
    // Only the check at start reports on the host's thread.
    const bool installed = std::this_thread::get_id() == hostThread_;
    emit((installed ? "INSTALLED " : "DONE ") + resId);
    finish(false);
  }
  void onDownloadFailed(std::string resId, int errorCode) override {
    emit("FAILED " + resId + " " + std::to_string(errorCode));
    finish(true);
  }

  // Waits until `count` outcomes have come; false at the deadline.
  bool waitFor(std::size_t count) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, kDeadline,
                             [&] { return outcomes_ >= count; });
  }
  bool anyFailed() {
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

  const std::thread::id hostThread_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  std::size_t outcomes_ = 0;
  bool failed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: crash_host DOWNLOAD_DIR CATALOGUE_FILE\n");
    return 2;
  }
  std::ifstream in(argv[2], std::ios::binary);
  std::ostringstream catalogue;
  catalogue << in.rdbuf();

  ZRXRegisterLogBaseManager(&logCallback);
  HostListener listener(std::this_thread::get_id());
  int exitCode = 0;
  {
    ZRResourceDownloadManager manager;
    manager.ZRX_set2DStickerDownloadPath(argv[1]);
    int error = 0;
    ZRX2DStickerResList* list =
        manager.ZRX_parse2DStickerResource(catalogue.str(), error, &listener);
    if (list == nullptr || list->items.empty()) {
      std::fprintf(stderr, "crash_host: no stickers in %s (error %d)\n",
                   argv[2], error);
      return 2;
    }
    manager.ZRX_start2DStickerDownloadAllSticker();
    if (!listener.waitFor(list->items.size())) {
      exitCode = 3;
    } else {
      manager.ZRX_stop2DStickerDownloadSticker();
      emit("END");
      exitCode = listener.anyFailed() ? 1 : 0;
    }
  }
  return exitCode;
}
