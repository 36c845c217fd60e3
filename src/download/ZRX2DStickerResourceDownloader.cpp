// The progress callback is installed with CURLOPT_PROGRESSFUNCTION, which
// libcurl's headers mark deprecated; this unit alone opts out of that one
// warning.
#define CURL_DISABLE_DEPRECATION 1

#include "download/ZRX2DStickerResourceDownloader.h"

#include <set>
#include <utility>

#include "archive/ZipReader.h"
#include "download/FailureCodes.h"
#include "download/StickerPaths.h"
#include "list/TextConversion.h"
#include "log/LogStatement.h"
#include "names/NameRule.h"
#include "platform/Platform.h"

namespace {

constexpr const char* kStartAllFunction =
    "ZRX2DStickerResourceDownloader::startDownloadAllStickerResource";
constexpr const char* kStopFunction =
    "ZRX2DStickerResourceDownloader::stopDownloadStikcerResource";
constexpr const char* kDownloadThreadFunction =
    "ZRX2DStickerResourceDownloader::curlDownloadThread";
constexpr const char* kUnzipThreadFunction =
    "ZRX2DStickerResourceDownloader::stickerUnzipThread";
constexpr const char* kCheckFunction =
    "ZRX2DStickerResourceDownloader::_checkStickerExistsOrNot";
constexpr const char* kVerifyFunction =
    "ZRX2DStickerResourceDownloader::_verifyStickerFiles";
constexpr const char* kPerformFunction =
    "ZRX2DStickerResourceDownloader::_curlPerform";
constexpr const char* kChunkFunction =
    "ZRX2DStickerResourceDownloader::curlChunkDataCallback";

// Connect time-out when the item gives none (timeoutSeconds below 1).
constexpr long kDefaultConnectTimeoutSeconds = 15;
// Receive buffer handed to libcurl; also the largest chunk the write
// callback sees.
constexpr long kReceiveBufferSize = 16384;
// CA bundle below the directory of the host's executable, for HTTPS URLs.
constexpr const char* kCaBundleRelativePath = "cacerts/ca-certificates.crt";
// One wait in select: bounds how late a stop or the time limit is noticed.
constexpr long kSelectWaitMicroseconds = 200000;
// Pause of a pass in which libcurl has no descriptor to wait on.
constexpr unsigned kNoDescriptorPauseMilliseconds = 100;
// From bytes to the log's KB.
constexpr double kBytesToKilobytes = 0.0009765625;

// The one sequence by which a worker tells of a failed sticker: the state
// and the listener call are one step under the item's stateMutex.
void reportFailure(ZRX2DStickerResItem* item, int code) {
  std::lock_guard<std::mutex> lock(item->stateMutex);
  item->downloadState = -1;
  if (item->listener != nullptr) {
    item->listener->onDownloadFailed(item->resId, code);
  }
}

void reportSuccess(ZRX2DStickerResItem* item) {
  std::lock_guard<std::mutex> lock(item->stateMutex);
  item->downloadState = 1;
  if (item->listener != nullptr) item->listener->onDownloadSuccess(item->resId);
}

// What the name rule says of an item's names: 0 when they may be used, else
// the code of the step that would use them: -10001 for dirName (or a
// directory path too long), -10003 for fileName (or, for unzipType 3, the
// directory named after its stem, or a path too long). The installed check
// and the download worker ask the same question, so a sticker that the
// worker would refuse is never looked up, nor counted installed.
int nameRuleFailure(const ZRX2DStickerResItem& item,
                    const zrx::StickerPaths& paths) {
  if (!zrx::isSafeName(item.dirName) || !zrx::fitsPathLimit(paths.stickerDir)) {
    return zrx::kFailDirectory;
  }
  if (!zrx::isSafeName(item.fileName) ||
      !zrx::fitsPathLimit(paths.stickerFilePath)) {
    return zrx::kFailOpenFile;
  }
  if (item.unzipType == 3 &&
      (!zrx::isSafeName(zrx::fileStemOf(item.fileName)) ||
       !zrx::fitsPathLimit(zrx::extractDirFor(3, paths.stickerDir,
                                              item.fileName)))) {
    return zrx::kFailOpenFile;
  }
  return 0;
}

// True when the URL's scheme (the text before the first ':') is exactly
// "https" or "HTTPS"; no case folding.
bool isHttpsUrl(const std::string& url) {
  const std::string::size_type colon = url.find(':');
  if (colon != 5) return false;
  return url.compare(0, 5, "https") == 0 || url.compare(0, 5, "HTTPS") == 0;
}

}  // namespace

ZRX2DStickerResourceDownloader::ZRX2DStickerResourceDownloader()
    : attachedList(nullptr),
      releasedListAttached(false),
      multiHandle(nullptr),
      currentFile(nullptr),
      downloadThread(nullptr),
      unzipThread(nullptr),
      stopRequested(false) {}

ZRX2DStickerResourceDownloader::~ZRX2DStickerResourceDownloader() {
  stopDownloadStikcerResource();
}

void ZRX2DStickerResourceDownloader::setDownloadPath(std::string path) {
  // A failed conversion leaves an empty path, as documented.
  std::u16string wide;
  std::string narrow;
  (void)utf8ToWide(path, wide);
  (void)wideToAnsi(wide, narrow);
  downloadPath = std::move(narrow);
}

// ---------------------------------------------------------------------------
// Start and stop

void ZRX2DStickerResourceDownloader::workerStart() {
  downloadThread = new std::thread(
      &ZRX2DStickerResourceDownloader::curlDownloadThread, this);
  unzipThread = new std::thread(
      &ZRX2DStickerResourceDownloader::stickerUnzipThread, this);
}

void ZRX2DStickerResourceDownloader::workerShutdown() {
  // Both flags go up before either worker is woken, so an extraction is
  // interrupted while the caller still waits for the download worker. The
  // flag is raised before the mutex is taken for the broadcast, and each
  // worker tests it under that mutex before waiting: the stop can't be lost.
  stopRequested = true;
  gUnzipStopFlag = true;
  if (downloadThread != nullptr) {
    {
      std::lock_guard<std::mutex> lock(downloadMutex);
      downloadCondition.notify_all();
    }
    downloadThread->join();
    delete downloadThread;
    downloadThread = nullptr;
  }
  if (unzipThread != nullptr) {
    {
      std::lock_guard<std::mutex> lock(unzipMutex);
      unzipCondition.notify_all();
    }
    unzipThread->join();
    delete unzipThread;
    unzipThread = nullptr;
  }
}

void ZRX2DStickerResourceDownloader::startDownloadAllStickerResource(
    ZRX2DStickerResList* list) {
  if (list == nullptr) return;
  if (attachedList != nullptr || releasedListAttached) {
    stopDownloadStikcerResource();
  }
  attachedList = list;
  _checkStickerExistsOrNot();
  if (downloadQueue.empty()) {
    ZRX_LOG(6, "[%s:%d] no valid index to download!",
            ZRX_AT(kStartAllFunction));
    return;
  }
  multiHandle = curl_multi_init();
  if (multiHandle == nullptr) {
    ZRX_LOG(6, "[%s:%d] init multi curl handle failed!",
            ZRX_AT(kStartAllFunction));
    return;
  }
  stopRequested = false;
  gUnzipStopFlag = false;
  workerStart();
}

void ZRX2DStickerResourceDownloader::startDownloadStickerResource(
    std::string resId, ZRX2DStickerDownloadListener* listener,
    int timeoutSeconds) {
  // Without an attached list there is nothing to search: the same exit as
  // an unknown resId.
  if (attachedList == nullptr) return;
  const auto& items = attachedList->items;
  int32_t index = -1;
  for (std::size_t i = 0; i < items.size(); ++i) {
    if (items[i] != nullptr && items[i]->resId == resId) {
      index = static_cast<int32_t>(i);
      break;
    }
  }
  if (index < 0) return;

  workerShutdown();
  ZRX2DStickerResItem* item = items[static_cast<std::size_t>(index)];
  item->downloadState = 0;
  item->timeoutSeconds = timeoutSeconds;
  item->listener = listener;
  for (std::deque<int32_t>* queue : {&downloadQueue, &unzipQueue}) {
    for (auto it = queue->begin(); it != queue->end(); ++it) {
      if (*it == index) {
        queue->erase(it);
        break;  // an index stands at most once in a queue
      }
    }
  }
  downloadQueue.push_front(index);
  stopRequested = false;
  gUnzipStopFlag = false;
  if (multiHandle == nullptr) multiHandle = curl_multi_init();
  workerStart();
}

void ZRX2DStickerResourceDownloader::stopDownloadStikcerResource() {
  ZRX_LOG(3, "[%s:%d] stop downloader begin!", ZRX_AT(kStopFunction));
  workerShutdown();
  if (multiHandle != nullptr) {
    curl_multi_cleanup(multiHandle);
    multiHandle = nullptr;
  }
  downloadQueue.clear();
  unzipQueue.clear();
  attachedList = nullptr;
  releasedListAttached = false;
  ZRX_LOG(3, "[%s:%d] stop downloader success!", ZRX_AT(kStopFunction));
}

void ZRX2DStickerResourceDownloader::forgetList(
    const ZRX2DStickerResList* list) {
  if (list == nullptr || attachedList != list) return;
  if (workersRunning()) {
    stopDownloadStikcerResource();
    return;
  }
  // Attached but idle: no stop and no log line here. The queues (filled
  // only after a failed curl_multi_init) stay until the stop that the next
  // start of all stickers runs; nothing pops them meanwhile, since a
  // single-sticker start finds no attached list.
  attachedList = nullptr;
  releasedListAttached = true;
}

// ---------------------------------------------------------------------------
// The workers' loop

void ZRX2DStickerResourceDownloader::runWorker(
    std::deque<int32_t>& queue, std::mutex& mutex,
    std::condition_variable& condition, const char* function, WorkFn work) {
  if (stopRequested) return;
  for (;;) {
    int32_t index;
    {
      std::unique_lock<std::mutex> lock(mutex);
      // With entries queued the stop is not looked at here: the work for the
      // index ends early when the transfer loop or the extractor sees it.
      while (queue.empty()) {
        if (stopRequested) return;
        condition.wait(lock);
        if (stopRequested) return;
      }
      index = queue.front();
      queue.pop_front();
    }
    if (index < 0) {
      ZRX_LOG(6, "[%s:%d] index(%d) is invalid!", ZRX_AT(function), index);
    } else {
      (this->*work)(index);
    }
    if (stopRequested) return;
  }
}

void ZRX2DStickerResourceDownloader::curlDownloadThread() {
  runWorker(downloadQueue, downloadMutex, downloadCondition,
            kDownloadThreadFunction,
            &ZRX2DStickerResourceDownloader::downloadOne);
}

void ZRX2DStickerResourceDownloader::stickerUnzipThread() {
  runWorker(unzipQueue, unzipMutex, unzipCondition, kUnzipThreadFunction,
            &ZRX2DStickerResourceDownloader::unzipOne);
}

ZRX2DStickerResItem* ZRX2DStickerResourceDownloader::itemAt(
    int32_t index) const {
  // Indexes come from this downloader's own queues, so they are in range;
  // a null entry (possible in a list handed over by the host) is skipped.
  if (attachedList == nullptr ||
      static_cast<std::size_t>(index) >= attachedList->items.size()) {
    return nullptr;
  }
  return attachedList->items[static_cast<std::size_t>(index)];
}

// ---------------------------------------------------------------------------
// Download worker: one popped index

void ZRX2DStickerResourceDownloader::downloadOne(int32_t index) {
  ZRX2DStickerResItem* item = itemAt(index);
  if (item == nullptr) {
    ZRX_LOG(6, "[%s:%d] index(%d) is invalid!",
            ZRX_AT(kDownloadThreadFunction), index);
    return;
  }
  ZRX_LOG(3, "[%s:%d] (%d:%s:%s) start downloading!",
          ZRX_AT(kDownloadThreadFunction), index, item->resId.c_str(),
          item->url.c_str());

  // The order on every failing path before the transfer is fixed: report
  // to the listener, clean the handle up, remove the file, log.
  CURL* easy = curl_easy_init();
  if (easy == nullptr) {
    reportFailure(item, zrx::kFailEasyInit);
    ZRX_LOG(6, "[%s:%d] (%d:%s) curl easy init failed!",
            ZRX_AT(kDownloadThreadFunction), index, item->url.c_str());
    return;
  }

  const zrx::StickerPaths paths = zrx::StickerPaths::of(downloadPath, *item);

  // Names that the name rule refuses fail the sticker before anything is
  // made or opened.
  const int nameFailure = nameRuleFailure(*item, paths);
  if (nameFailure == zrx::kFailDirectory ||
      (zrx::platform::pathAccess(paths.stickerDir) != 0 &&
       zrx::platform::makeDirectory(paths.stickerDir) != 0)) {
    reportFailure(item, zrx::kFailDirectory);
    curl_easy_cleanup(easy);
    ZRX_LOG(6, "[%s:%d] (%d:%s) path=%s, make directory failed!",
            ZRX_AT(kDownloadThreadFunction), index, item->url.c_str(),
            paths.stickerDir.c_str());
    return;
  }

  if (_curlSetOptions(easy, item) != 0) {
    reportFailure(item, zrx::kFailSetOptions);
    curl_easy_cleanup(easy);
    ZRX_LOG(6, "[%s:%d] (%d:%s) curl setopt failed!",
            ZRX_AT(kDownloadThreadFunction), index, item->url.c_str());
    return;
  }

  const bool fileAllowed = nameFailure == 0;
  std::FILE* file = nullptr;
  if (fileAllowed) {
    file = zrx::platform::openFile(paths.stickerFilePath, "wb+");
  }
  // Unbuffered: each chunk reaches the file in one write(2) inside fwrite,
  // where a 4 KiB stdio buffer split it in two and copied a part. A failed
  // write still shows in fwrite's result at the chunk where it happens, and
  // the fflush after every chunk stays (it has nothing left to do).
  if (file != nullptr) std::setvbuf(file, nullptr, _IONBF, 0);
  currentFile = file;
  if (file == nullptr) {
    reportFailure(item, zrx::kFailOpenFile);
    curl_easy_cleanup(easy);
    // A path that the name rule refuses is never touched.
    if (fileAllowed) (void)zrx::platform::removeFile(paths.stickerFilePath);
    ZRX_LOG(6, "[%s:%d] open local file failed! (%d:%s) filePath=%s",
            ZRX_AT(kDownloadThreadFunction), index, item->url.c_str(),
            paths.stickerFilePath.c_str());
    return;
  }

  if (_curlPerform(easy, item) != 0) {
    if (currentFile != nullptr) {
      std::fclose(currentFile);
      currentFile = nullptr;
    }
    (void)zrx::platform::removeFile(paths.stickerFilePath);
    ZRX_LOG(6, "[%s:%d] download failed! (%d:%s) filePath=%s",
            ZRX_AT(kDownloadThreadFunction), index, item->url.c_str(),
            paths.stickerFilePath.c_str());
  } else {
    if (currentFile != nullptr) {
      std::fclose(currentFile);
      currentFile = nullptr;
    }
    if (item->unzipType != 2) {
      // The only push while the workers run; the unzip worker owns the
      // sticker's state and listener from here on.
      std::lock_guard<std::mutex> lock(unzipMutex);
      unzipQueue.push_back(index);
      unzipCondition.notify_all();
    } else {
      reportSuccess(item);
    }
    ZRX_LOG(4, "[%s:%d] download finish! (%d:%s) filePath=%s",
            ZRX_AT(kDownloadThreadFunction), index, item->url.c_str(),
            paths.stickerFilePath.c_str());
  }
  // Also after a failed add, where the handle was never in: no effect then.
  curl_multi_remove_handle(multiHandle, easy);
  curl_easy_cleanup(easy);
}

// ---------------------------------------------------------------------------
// Unzip worker: one popped index

void ZRX2DStickerResourceDownloader::unzipOne(int32_t index) {
  ZRX2DStickerResItem* item = itemAt(index);
  if (item == nullptr) {
    ZRX_LOG(6, "[%s:%d] index(%d) is invalid!", ZRX_AT(kUnzipThreadFunction),
            index);
    return;
  }
  const zrx::StickerPaths paths = zrx::StickerPaths::of(downloadPath, *item);
  const std::string extractDir =
      zrx::extractDirFor(item->unzipType, paths.stickerDir, item->fileName);
  // A directory that is not made shows up as a failure at the first file
  // entry.
  if (item->unzipType == 3 && zrx::platform::pathAccess(extractDir) != 0) {
    (void)zrx::platform::makeDirectory(extractDir);
  }
  ZRX_LOG(3, "[%s:%d] start unzipping! (%d:%s) filePath=%s",
          ZRX_AT(kUnzipThreadFunction), index, item->url.c_str(),
          paths.stickerFilePath.c_str());

  if (unzipToDirectory(paths.stickerFilePath, extractDir)) {
    reportSuccess(item);
    ZRX_LOG(3, "[%s:%d] unzip finish! (%d:%s:%s)",
            ZRX_AT(kUnzipThreadFunction), index, item->resId.c_str(),
            item->url.c_str());
  } else {
    reportFailure(item, zrx::kFailUnzip);
    (void)zrx::platform::removeFile(paths.stickerFilePath);
    ZRX_LOG(6, "[%s:%d] unzip failed! (%d:%s)", ZRX_AT(kUnzipThreadFunction),
            index, item->url.c_str());
  }
}

// ---------------------------------------------------------------------------
// Installed-sticker check

void ZRX2DStickerResourceDownloader::_checkStickerExistsOrNot() {
  const auto& items = attachedList->items;
  if (items.empty()) return;
  std::set<std::string> seenFileNames;
  int32_t index = 0;
  for (ZRX2DStickerResItem* item : items) {
    if (item != nullptr) {
      const zrx::StickerPaths paths =
          zrx::StickerPaths::of(downloadPath, *item);
      // An archive of type 3 is extracted into a directory of its own, and
      // that is where its entries are looked for.
      const std::string lookIn =
          zrx::extractDirFor(item->unzipType, paths.stickerDir,
                             item->fileName);
      // Names that the worker would refuse are not looked up at all: such
      // a sticker is never installed, and fails in the worker.
      if (nameRuleFailure(*item, paths) == 0 &&
          _verifyStickerFiles(item->unzipType, paths.stickerFilePath,
                              lookIn)) {
        ZRX_LOG(6, "[%s:%d] file exist! unzip_type=%d, zipPath=(%s)",
                ZRX_AT(kCheckFunction), item->unzipType,
                paths.stickerFilePath.c_str());
        // On the caller's thread, no lock; the state follows the call.
        if (item->listener != nullptr) {
          item->listener->onDownloadSuccess(item->resId);
        }
        item->downloadState = 1;
      } else if (seenFileNames.insert(item->fileName).second) {
        downloadQueue.push_back(index);
      }
    }
    ++index;
  }
}

bool ZRX2DStickerResourceDownloader::_verifyStickerFiles(
    int unzipType, std::string stickerFilePath, std::string stickerDir) {
  if (unzipType == 2) return zrx::platform::pathAccess(stickerFilePath) == 0;
  const zipEntryMap entries = listZipEntries(stickerFilePath);
  if (entries.empty()) return false;
  std::string entryPath;
  for (const auto& entry : entries) {
    entryPath.assign(stickerDir);
    entryPath += '/';
    entryPath += entry.first;
    // One look-up an entry: a directory entry is asked whether it exists,
    // a file entry for its size, which answers both questions. A directory
    // is never asked for a size: Windows' _stat64 fails on a name that ends
    // in a separator. A path too long for the extraction to have written
    // counts as absent.
    const char last = entryPath.back();
    const bool directory = last == '\\' || last == '/';
    int64_t onDisk = -1;
    if (zrx::fitsPathLimit(entryPath)) {
      onDisk = directory
                   ? (zrx::platform::pathAccess(entryPath) == 0 ? 0 : -1)
                   : zrx::platform::fileSize(entryPath);
    }
    if (onDisk < 0) {
      ZRX_LOG(6, "[%s:%d] directory(%s) no exist!", ZRX_AT(kVerifyFunction),
              entryPath.c_str());
      return false;
    }
    if (directory) continue;
    const auto listed = static_cast<long long>(entry.second);
    if (onDisk != listed) {
      ZRX_LOG(6, "[%s:%d] file(%s) size not match[%lld:%lld]!",
              ZRX_AT(kVerifyFunction), entryPath.c_str(),
              static_cast<long long>(onDisk), listed);
      return false;
    }
  }
  return true;
}

// ---------------------------------------------------------------------------
// Transfer

int ZRX2DStickerResourceDownloader::_curlSetOptions(
    CURL* easy, ZRX2DStickerResItem* item) {
  if (easy == nullptr) return -1;
  const long connectTimeout = item->timeoutSeconds >= 1
                                  ? static_cast<long>(item->timeoutSeconds)
                                  : kDefaultConnectTimeoutSeconds;
  // The order is fixed; the first option not accepted ends the sequence.
  if (curl_easy_setopt(easy, CURLOPT_VERBOSE, 1L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, connectTimeout) !=
          CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kReceiveBufferSize) !=
          CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_FORBID_REUSE, 1L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_FRESH_CONNECT, 1L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_URL, item->url.c_str()) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_WRITEDATA, this) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION,
                       &ZRX2DStickerResourceDownloader::curlChunkDataCallback) !=
          CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_PROGRESSDATA, item) != CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_PROGRESSFUNCTION,
                       &ZRX2DStickerResourceDownloader::curlProgressCallback) !=
          CURLE_OK ||
      curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L) != CURLE_OK) {
    return -1;
  }
  if (!isHttpsUrl(item->url)) return 0;
  // The host's executable, not this library, names the bundle's place.
  // libcurl copies the text.
  const std::string bundle =
      zrx::executableDirectory() + "/" + kCaBundleRelativePath;
  return curl_easy_setopt(easy, CURLOPT_CAINFO, bundle.c_str()) == CURLE_OK
             ? 0
             : -1;
}

int ZRX2DStickerResourceDownloader::_curlPerform(CURL* easy,
                                                 ZRX2DStickerResItem* item) {
  const char* resId = item->resId.c_str();
  if (curl_multi_add_handle(multiHandle, easy) != CURLM_OK) {
    reportFailure(item, zrx::kFailAddHandle);
    ZRX_LOG(6, "[%s:%d] (resId:%s) add curl handle failed!",
            ZRX_AT(kPerformFunction), resId);
    return -1;
  }
  int running = 0;
  curl_multi_perform(multiHandle, &running);
  // Wall clock, as the time limit is defined on it; the first
  // curl_multi_perform lies outside the limit.
  const int64_t start = zrx::platform::wallClockMilliseconds();

  while (running != 0) {
    if (stopRequested) {
      ZRX_LOG(6, "[%s:%d] (resId:%s) exit curl perform!",
              ZRX_AT(kPerformFunction), resId);
      return -1;
    }
    if (item->timeoutSeconds > 0) {
      const int64_t elapsed = zrx::platform::wallClockMilliseconds() - start;
      if (elapsed > static_cast<int64_t>(item->timeoutSeconds) * 1000) {
        reportFailure(item, zrx::kFailTimeLimit);
        ZRX_LOG(6, "[%s:%d] (resId:%s) perform overtime!",
                ZRX_AT(kPerformFunction), resId);
        return -1;
      }
    }
    zrx::platform::DescriptorSets sets;
    int highest = -1;
    const CURLMcode fdsetResult = curl_multi_fdset(
        multiHandle, &sets.read, &sets.write, &sets.except, &highest);
    if (fdsetResult != CURLM_OK) {
      ZRX_LOG(6, "[%s:%d] (resId:%s) curl_multi_fdset error(%d)!",
              ZRX_AT(kPerformFunction), resId, static_cast<int>(fdsetResult));
      return -1;
    }
    int selected = 0;
    if (highest == -1) {
      // No descriptor to wait on (libcurl is between steps, or its socket
      // doesn't fit a descriptor set): pause, then drive it.
      zrx::platform::sleepMilliseconds(kNoDescriptorPauseMilliseconds);
    } else {
      selected = zrx::platform::waitOnDescriptors(highest, sets,
                                                  kSelectWaitMicroseconds);
    }
    if (selected == -1) {
      // The next pass follows at once and tests the stop and the limit.
      ZRX_LOG(6, "[%s:%d] (resId:%s) curl select error!",
              ZRX_AT(kPerformFunction), resId);
      continue;
    }
    while (curl_multi_perform(multiHandle, &running) ==
           CURLM_CALL_MULTI_PERFORM) {
    }
  }

  int result = 0;
  int pending = 0;
  while (CURLMsg* message = curl_multi_info_read(multiHandle, &pending)) {
    if (message->msg != CURLMSG_DONE) continue;
    result = static_cast<int>(message->data.result);
    ZRX_LOG(4, "[%s:%d] (resId:%s) perform result=%d",
            ZRX_AT(kPerformFunction), resId, result);
    if (result != 0) reportFailure(item, zrx::kFailCurlBase - result);
    long responseCode = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &responseCode);
    ZRX_LOG(3, "[%s:%d] (resId:%s) response code=%ld",
            ZRX_AT(kPerformFunction), resId, responseCode);
    double speed = 0.0;
    double totalTime = 0.0;
    double size = 0.0;
    curl_easy_getinfo(easy, CURLINFO_SPEED_DOWNLOAD, &speed);
    curl_easy_getinfo(easy, CURLINFO_TOTAL_TIME, &totalTime);
    curl_easy_getinfo(easy, CURLINFO_SIZE_DOWNLOAD, &size);
    ZRX_LOG(3,
            "[%s:%d] (resId:%s) download speed=%.2f KB/sec, total_time=%.1f "
            "seconds, down_size=%.0f KBytes",
            ZRX_AT(kPerformFunction), resId, speed * kBytesToKilobytes,
            totalTime, size * kBytesToKilobytes);
  }
  return result;
}

size_t ZRX2DStickerResourceDownloader::curlChunkDataCallback(
    char* data, size_t size, size_t count, void* downloader) {
  const size_t bytes = size * count;
  if (bytes == 0) return 0;
  std::FILE* file =
      static_cast<ZRX2DStickerResourceDownloader*>(downloader)->currentFile;
  if (file == nullptr) return static_cast<size_t>(-1);
  // Chunks are bounded by the receive buffer, so the count fits an int.
  const int length = static_cast<int>(bytes);
  bool ok = data != nullptr && length >= 1;
  if (ok) {
    ok = std::fwrite(data, 1, static_cast<size_t>(length), file) ==
         static_cast<size_t>(length);
  }
  if (!ok) {
    ZRX_LOG(6, "[%s:%d] write file failed!", ZRX_AT(kChunkFunction));
    return static_cast<size_t>(-1);
  }
  // Every chunk reaches the file system at once: a host that looks at the
  // file sees what arrived, and nothing waits in memory.
  std::fflush(file);
  return static_cast<size_t>(length);
}

int ZRX2DStickerResourceDownloader::curlProgressCallback(void* item,
                                                         double dltotal,
                                                         double dlnow,
                                                         double /*ultotal*/,
                                                         double /*ulnow*/) {
  if (!(dltotal > 0)) return 0;
  if (item == nullptr) return -1;
  auto* sticker = static_cast<ZRX2DStickerResItem*>(item);
  sticker->downloadedBytes = dlnow;
  sticker->totalBytes = dltotal;
  if (sticker->listener != nullptr) {
    sticker->listener->onDownloadProgress(sticker);
  }
  return 0;
}
