// The download pipeline: the download path, two queues of item indexes and
// the two worker threads that fetch and unpack stickers.
//
// Threads: created, driven and destroyed by the host's thread through the
// manager (one public call at a time). The download worker runs
// curlDownloadThread, the unzip worker stickerUnzipThread. Host-side
// operations change the queues, attachedList, multiHandle, the thread fields
// and item fields only while no worker runs (before the start, after the
// shutdown), so those need no lock; while the workers run, each queue is
// guarded by its mutex.
#ifndef ZRX2DSTICKER_DOWNLOAD_ZRX2DSTICKERRESOURCEDOWNLOADER_H_
#define ZRX2DSTICKER_DOWNLOAD_ZRX2DSTICKERRESOURCEDOWNLOADER_H_

#include <curl/curl.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "zrx2dsticker/ZRResourceDownloadManager.h"

class ZRX2DStickerResourceDownloader {
 public:
  ZRX2DStickerResourceDownloader();
  // Stops the workers (with the stop's two log lines), then releases the
  // queues and the path.
  virtual ~ZRX2DStickerResourceDownloader();
  ZRX2DStickerResourceDownloader(const ZRX2DStickerResourceDownloader&) =
      delete;
  ZRX2DStickerResourceDownloader& operator=(
      const ZRX2DStickerResourceDownloader&) = delete;

  // Root directory of all stickers, given in UTF-8 and kept in the system
  // code page. Call only while no worker runs.
  void setDownloadPath(std::string path);

  // Stops any run, attaches `list`, reports installed stickers on this
  // thread and queues the others, then starts both workers. Null: nothing.
  void startDownloadAllStickerResource(ZRX2DStickerResList* list);

  // Restarts the workers with the first item of the attached list whose
  // resId equals `resId` at the head of the download queue. Nothing happens
  // when no list is attached or no item matches.
  void startDownloadStickerResource(std::string resId,
                                    ZRX2DStickerDownloadListener* listener,
                                    int timeoutSeconds);

  // Ends the run: both workers stopped and joined, the multi handle cleaned
  // up, both queues cleared, the list detached. Any state; returns when both
  // workers have ended.
  void stopDownloadStikcerResource();

  // Called before the manager releases `list`: if it is the attached list,
  // the downloader lets go of it, so no worker and no later
  // startDownloadStickerResource touches released items. Running workers
  // are stopped first (a guard for a host that parses during a run); an
  // idle attachment is dropped without a stop or a log line, but still
  // counts as attached for the next startDownloadAllStickerResource, whose
  // stop then runs and logs as for any attached list.
  void forgetList(const ZRX2DStickerResList* list);

 private:
  friend struct DownloaderTestAccess;

  // One pass of the workers' wait-and-pop loop: false when a stop ends it.
  using WorkFn = void (ZRX2DStickerResourceDownloader::*)(int32_t);
  void runWorker(std::deque<int32_t>& queue, std::mutex& mutex,
                 std::condition_variable& condition, const char* function,
                 WorkFn work);
  void curlDownloadThread();
  void stickerUnzipThread();
  void downloadOne(int32_t index);
  void unzipOne(int32_t index);

  void workerStart();
  void workerShutdown();
  bool workersRunning() const {
    return downloadThread != nullptr || unzipThread != nullptr;
  }
  ZRX2DStickerResItem* itemAt(int32_t index) const;

  void _checkStickerExistsOrNot();
  bool _verifyStickerFiles(int unzipType, std::string stickerFilePath,
                           std::string stickerDir);
  [[nodiscard]] int _curlSetOptions(CURL* easy, ZRX2DStickerResItem* item);
  [[nodiscard]] int _curlPerform(CURL* easy, ZRX2DStickerResItem* item);
  static size_t curlChunkDataCallback(char* data, size_t size, size_t count,
                                      void* downloader);
  static int curlProgressCallback(void* item, double dltotal, double dlnow,
                                  double ultotal, double ulnow);

  // Not owned. Set by startDownloadAllStickerResource, cleared by a stop.
  ZRX2DStickerResList* attachedList;
  // A list was attached and the manager has released it while no worker
  // ran (forgetList): attachedList is null, so nothing reaches the freed
  // items, yet the downloader is not idle until the next stop. Host thread
  // only.
  bool releasedListAttached;
  // The one multi handle of a run; owned.
  CURLM* multiHandle;
  // In the system code page, separators as given.
  std::string downloadPath;
  // Guarded by downloadMutex while the download worker runs.
  std::deque<int32_t> downloadQueue;
  // Guarded by unzipMutex while the unzip worker runs.
  std::deque<int32_t> unzipQueue;
  // The open output file of the transfer in progress; download worker only.
  std::FILE* currentFile;
  // Owned; non-null from the start until the join.
  std::thread* downloadThread;
  std::thread* unzipThread;
  std::mutex unzipMutex;
  std::mutex downloadMutex;
  std::condition_variable downloadCondition;
  std::condition_variable unzipCondition;
  // Written on the host's thread (stop and start), read by both workers and
  // the transfer loop; raised and cleared together with gUnzipStopFlag.
  std::atomic<bool> stopRequested;
};

#endif  // ZRX2DSTICKER_DOWNLOAD_ZRX2DSTICKERRESOURCEDOWNLOADER_H_
