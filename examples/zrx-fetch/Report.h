// What zrx-fetch shows while a run goes on, and how it knows the run is
// over.
//
// Console: the one place that writes. Finished lines and the summary go to
// standard output; on a terminal a live progress line is kept at the bottom
// of it; errors and (with --log-level) the library's log lines go to the
// saved standard error. Any thread; every write happens under its mutex.
//
// RunReport: the outcome of every sticker of a run, fed by one
// StickerListener per item. The library calls the listeners on its two
// worker threads and, for stickers found installed, on the thread that
// starts the run; the main thread waits on the report until every sticker
// that will hear of its outcome has heard.
#ifndef ZRX_FETCH_REPORT_H_
#define ZRX_FETCH_REPORT_H_

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zrx2dsticker/ZRResourceDownloadManager.h"

// The meaning of a code of onDownloadFailed in words; for -100000 - N,
// libcurl's own text for CURLcode N.
std::string describeFailure(int code);

// "512 B", "12.3 KiB", "4.0 MiB".
std::string formatBytes(double bytes);

class Console {
 public:
  // `terminal`: standard output is a terminal, so a live line may be kept.
  // `quiet`: only failures and errors are shown. `errors` receives error
  // and log lines; not owned, must outlive the console.
  Console(bool terminal, bool quiet, bool color, std::FILE* errors);

  bool terminal() const { return terminal_; }
  bool quiet() const { return quiet_; }
  bool color() const { return color_; }

  // Replaces the live line with `text` about `owner` (terminal only, and
  // not when quiet).
  void status(const void* owner, const std::string& text);
  // Removes the live line if it is about `owner`; null: whoever it is about.
  void clearStatus(const void* owner);
  // A whole line on standard output.
  void print(const std::string& line);
  // "zrx-fetch: <text>" on the error stream.
  void error(const std::string& text);
  // A line as it is, on the error stream.
  void errorLine(const std::string& line);

 private:
  void clearLocked();
  int width() const;

  const bool terminal_;
  const bool quiet_;
  const bool color_;
  std::FILE* const errors_;
  // Guards the two fields below and every write to either stream.
  std::mutex mutex_;
  bool statusShown_ = false;
  const void* statusOwner_ = nullptr;
};

struct RunSummary {
  int installed = 0;   // found on disk by the start's check
  int downloaded = 0;  // fetched (and unpacked) in this run
  int failed = 0;
  int skipped = 0;     // same file name as an earlier sticker: no outcome
  int unfinished = 0;  // still in work when the run was interrupted
  double bytes = 0;    // received over all transfers
  double seconds = 0;
};

class RunReport {
 public:
  // One entry per item of the list, in its order.
  struct Sticker {
    std::string label;     // what the lines call it: resId, else fileName
    std::string fileName;  // what the library tells duplicates by
  };

  RunReport(Console& console, std::vector<Sticker> stickers);
  RunReport(const RunReport&) = delete;
  RunReport& operator=(const RunReport&) = delete;

  // Listener entry points, any thread.
  void progress(std::size_t index, double now, double total);
  void success(std::size_t index);
  void failure(std::size_t index, int code);

  // Called on the starting thread right after the start operation returned.
  // `checked`: the start ran the installed check (a start of all stickers):
  // then successes that arrived on this thread were stickers found on disk,
  // and an item that wasn't, whose file name equals that of an earlier item
  // that wasn't either, was dropped by the library and hears nothing. Without
  // the check (a single-sticker start) every item will hear.
  void startReturned(bool checked);

  // Waits up to `slice` for the run to be over (every item that will hear
  // has heard). True when it is.
  bool waitForEnd(std::chrono::milliseconds slice);

  RunSummary summary() const;

 private:
  enum class Outcome { kPending, kInstalled, kDownloaded, kFailed };
  struct State {
    Outcome outcome = Outcome::kPending;
    bool expected = true;  // a final call will come (or came)
    double received = 0;
    double total = 0;
    bool transferStarted = false;
    std::chrono::steady_clock::time_point transferStart;
    std::chrono::steady_clock::time_point lastDrawn;
  };

  void finish(std::size_t index, Outcome outcome, const std::string& detail);
  std::string progressLine(const Sticker& sticker, const State& state,
                           std::chrono::steady_clock::time_point now) const;
  bool overLocked() const;

  Console& console_;
  const std::vector<Sticker> stickers_;
  const std::thread::id startThread_;
  const std::chrono::steady_clock::time_point begin_;
  std::size_t labelWidth_ = 0;

  // Guards states_ and startReturned_; taken inside listener calls, so no
  // manager operation is ever made while holding it.
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<State> states_;
  bool startReturned_ = false;
};

// The listener of one item: the library tells an item's outcome through the
// listener stored in that item, so one listener per item names the item
// exactly, even where resIds repeat.
class StickerListener : public ZRX2DStickerDownloadListener {
 public:
  StickerListener(RunReport& report, std::size_t index)
      : report_(&report), index_(index) {}

  void onDownloadProgress(ZRX2DStickerResItem* item) override;
  void onDownloadSuccess(std::string resId) override;
  void onDownloadFailed(std::string resId, int errorCode) override;

 private:
  RunReport* report_;
  std::size_t index_;
};

#endif  // ZRX_FETCH_REPORT_H_
