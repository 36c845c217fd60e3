/// @file
/// Public interface of zrx2dsticker: the records of a sticker and of a sticker
/// list, the listener through which the host hears about stickers, and the
/// manager that the host creates.
///
/// Failure codes passed to ZRX2DStickerDownloadListener::onDownloadFailed:
/// - -10000: the transfer handle could not be created
/// - -10001: the sticker's directory neither exists nor can be made (also:
///   the name rule refuses the list's name for it)
/// - -10002: configuring the transfer failed
/// - -10003: the local file can't be opened (also: the name rule refuses the
///   list's name for it, or for a type 3 sticker's extraction directory)
/// - -10004: unpacking the archive failed (also: an entry name the name rule
///   refuses), or was interrupted by a stop
///
/// The name rule, the same on every platform: no absolute name, backslash
/// or ".." component; no component with a control character or one of
/// < > : | ? * or a double quote, ending in a dot or a blank, naming a
/// Windows device (con, NUL.png, com1.zip, aux, lpt9, conin$ ...), or
/// longer than 255 bytes; no path longer than 259 bytes. A sticker whose
/// names it refuses is never counted installed.
/// - -10005: the transfer could not be started
/// - -10006: the transfer passed the sticker's time limit
/// - -100000 - N: libcurl ended the transfer with CURLcode N (-100007: could
///   not connect, -100023: write error, -100028: timed out, ...)
#ifndef ZRX2DSTICKER_ZRRESOURCEDOWNLOADMANAGER_H_
#define ZRX2DSTICKER_ZRRESOURCEDOWNLOADMANAGER_H_

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zrx2dsticker/Export.h"
#include "zrx2dsticker/ZRXLog.h"

class ZRX2DStickerResItem;

/// The host's interface for the outcome of each sticker. The host owns the
/// listener and keeps it alive until
/// ZRResourceDownloadManager::ZRX_stop2DStickerDownloadSticker or the
/// manager's destructor has returned.
///
/// Threads: onDownloadProgress runs on the download worker with no lock held.
/// onDownloadFailed and onDownloadSuccess run on the download worker or the
/// unzip worker with the item's stateMutex held, except onDownloadSuccess for
/// a sticker found already installed, which runs on the thread that called
/// ZRResourceDownloadManager::ZRX_start2DStickerDownloadAllSticker before that
/// call returns. Calls for different items can arrive on two threads at once.
/// A callback must not call any operation of the manager: a start or a stop
/// would wait for the very thread that runs the callback.
class ZRX_EXPORT ZRX2DStickerDownloadListener {
 public:
  ///@{
  /// The base class holds no state: making, copying and assigning it does
  /// nothing.
  ZRX2DStickerDownloadListener();
  ZRX2DStickerDownloadListener(const ZRX2DStickerDownloadListener&);
  ZRX2DStickerDownloadListener& operator=(const ZRX2DStickerDownloadListener&);
  ///@}
  /// The library never destroys a listener.
  virtual ~ZRX2DStickerDownloadListener();

  /// New byte counts stand in item->downloadedBytes and item->totalBytes.
  /// Called only once the response's total size is known.
  virtual void onDownloadProgress(ZRX2DStickerResItem* item) = 0;
  /// The sticker is in place; item->downloadState is 1 (or becomes 1 right
  /// after the call for a sticker found installed).
  virtual void onDownloadSuccess(std::string resId) = 0;
  /// The attempt failed with `errorCode` (see the failure codes in
  /// ZRResourceDownloadManager.h); item->downloadState is already -1.
  virtual void onDownloadFailed(std::string resId, int errorCode) = 0;
};

/// The record of one sticker. Plain public data: the host reads the fields
/// directly. Not copyable (it holds a mutex).
class ZRX_EXPORT ZRX2DStickerResItem {
 public:
  ZRX2DStickerResItem();
  ~ZRX2DStickerResItem();
  ZRX2DStickerResItem(const ZRX2DStickerResItem&) = delete;
  ZRX2DStickerResItem& operator=(const ZRX2DStickerResItem&) = delete;

  std::string resId;  ///< identity; what the listener gets back
  std::string url;    ///< download URL
  /// reserved; never read or written by the library
  std::string reservedText;
  std::string dirName;   ///< sub-directory under the download path (UTF-8)
  std::string fileName;  ///< fetched file's name in that directory
  /// not owned; null: nobody is told
  ZRX2DStickerDownloadListener* listener;
  /// Makes a change of downloadState and the listener call that goes with it
  /// one step.
  std::mutex stateMutex;
  bool reservedFlag;  ///< reserved
  /// 2 (default): the fetched file is the sticker. 3: a zip archive unpacked
  /// into a directory named after the file. Any other value: a zip archive
  /// unpacked beside itself.
  int unzipType;
  /// 0 no outcome yet, 1 in place, -1 failed. A plain int, written by the
  /// library under stateMutex while workers run (on the host's thread without
  /// a lock only while none runs: the installed check and the single-sticker
  /// start). To read it while workers may run, hold the item's stateMutex
  /// (`std::lock_guard<std::mutex> lock(item->stateMutex);`) but never inside
  /// a final listener call, which already holds it: there, and after that
  /// call or after a stop has returned, read it directly.
  int downloadState;
  /// Limit of one transfer in seconds and its connect time-out; <= 0: no
  /// overall limit and a connect time-out of 15 seconds.
  int timeoutSeconds;
  int reservedInt;         ///< reserved
  int64_t reservedValue1;  ///< reserved
  int64_t reservedValue2;  ///< reserved
  ///@{
  /// Last byte counts of the transfer, written on the download worker without
  /// a lock: read them inside onDownloadProgress.
  double downloadedBytes;
  double totalBytes;
  ///@}
};

/// A list of sticker records; an item's index is its position in `items`.
/// Copies share the items: the list never releases them (the manager does).
class ZRX_EXPORT ZRX2DStickerResList {
 public:
  ///@{
  /// Plain vector semantics: copies duplicate the item pointers, and the
  /// destructor releases the vector's storage only.
  ZRX2DStickerResList();
  ~ZRX2DStickerResList();
  ZRX2DStickerResList(const ZRX2DStickerResList&);
  ZRX2DStickerResList(ZRX2DStickerResList&&) noexcept;
  ZRX2DStickerResList& operator=(const ZRX2DStickerResList&);
  ZRX2DStickerResList& operator=(ZRX2DStickerResList&&) noexcept;
  ///@}

  std::vector<ZRX2DStickerResItem*> items;  ///< the records, in list order
};

/// The front of the library. Copies share one state (parser, downloader, the
/// list in force); the first destructor of any copy tears that state down and
/// leaves the other copies as valid objects that do nothing.
///
/// Threads: the host calls the operations one at a time per shared state, on
/// any thread of its own, never from inside a listener call.
class ZRX_EXPORT ZRResourceDownloadManager {
 public:
  /// Creates the state; the directory of the host's executable becomes the
  /// download path, and libcurl is initialised.
  ZRResourceDownloadManager();
  /// Shares the other manager's state.
  ZRResourceDownloadManager(const ZRResourceDownloadManager& other);
  /// Rebinds this manager to the other's state. If this was the last
  /// reference to its former state, that state is torn down as by the
  /// destructor.
  ZRResourceDownloadManager& operator=(const ZRResourceDownloadManager& other);
  /// Stops and joins the workers, releases the list in force and its items,
  /// and cleans libcurl up; other copies then do nothing.
  virtual ~ZRResourceDownloadManager();

  /// Replaces the list in force by the stickers of `json` (a JSON array of
  /// objects with the optional keys "resId", "url", "name", "unzip_type" and
  /// "ext"). An empty text returns null and changes nothing. Otherwise the
  /// former list is released (a run on it is stopped first) and the new list
  /// is returned, or null with `errorCode` set to RapidJSON's ParseErrorCode
  /// when the text is not valid JSON; a success doesn't write `errorCode`.
  /// The result is a loan: valid until the next parse of a non-empty text or
  /// the teardown; never release it. `listener` (may be null) is stored in
  /// every item.
  ZRX2DStickerResList* ZRX_parse2DStickerResource(
      std::string json, int& errorCode, ZRX2DStickerDownloadListener* listener);

  /// Makes `list` the list in force, from the next start of all stickers on.
  /// The manager takes ownership of the list and its items (both must come
  /// from `new`); the list that stood before is not released and goes back to
  /// the caller. Null leaves the manager without a list.
  void setStickerResList(ZRX2DStickerResList* list);

  /// Sets the root directory of all stickers (UTF-8). Call it while no run is
  /// going on; it applies from the next start on. The directory is not made.
  void ZRX_set2DStickerDownloadPath(std::string path);

  /// Stops any run, attaches the list in force, reports the stickers already
  /// on disk with onDownloadSuccess (on this thread, before returning), and
  /// starts the two workers on the others. Returns at once without a list.
  void ZRX_start2DStickerDownloadAllSticker();

  /// Fetches the first sticker of the attached list whose resId is `resId`
  /// ahead of all others, whether it is on disk or not, with `listener` and
  /// `timeoutSeconds` stored on the item. Workers that run are stopped and
  /// restarted; a transfer or extraction in progress is dropped. Does nothing
  /// when no list is attached or no item has that resId.
  void ZRX_start2DStickerDownloadSticker(std::string resId,
                                         ZRX2DStickerDownloadListener* listener,
                                         int timeoutSeconds);

  /// Ends the run: the transfer in progress is abandoned and its partial file
  /// removed, an extraction in progress fails with -10004, queues are
  /// cleared. Returns when both workers have ended; no listener call follows.
  void ZRX_stop2DStickerDownloadSticker();

 private:
  struct Imp;
  std::shared_ptr<Imp> imp;
};

#endif  // ZRX2DSTICKER_ZRRESOURCEDOWNLOADMANAGER_H_
