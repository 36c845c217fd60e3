// A listener that records every call, thread-safe, for the tests.
#ifndef ZRX2DSTICKER_TESTS_SUPPORT_RECORDINGLISTENER_H_
#define ZRX2DSTICKER_TESTS_SUPPORT_RECORDINGLISTENER_H_

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "zrx2dsticker/ZRResourceDownloadManager.h"

namespace zrxtest {

class RecordingListener : public ZRX2DStickerDownloadListener {
 public:
  enum class Kind { kProgress, kSuccess, kFailed };
  struct Event {
    Kind kind;
    std::string resId;
    int code;  // failure code, 0 otherwise
    std::thread::id thread;
    double downloaded;  // progress only
    double total;       // progress only
  };

  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    record({Kind::kProgress, item->resId, 0, std::this_thread::get_id(),
            item->downloadedBytes, item->totalBytes});
  }
  void onDownloadSuccess(std::string resId) override {
    if (onFinal) onFinal(resId);
    record({Kind::kSuccess, resId, 0, std::this_thread::get_id(), 0, 0});
  }
  void onDownloadFailed(std::string resId, int errorCode) override {
    if (onFinal) onFinal(resId);
    record({Kind::kFailed, resId, errorCode, std::this_thread::get_id(), 0, 0});
  }

  // Final calls (success or failure), of every sticker or of `resId`.
  std::vector<Event> finals() const { return select(false, nullptr); }
  std::vector<Event> finalsFor(const std::string& resId) const {
    return select(false, &resId);
  }
  std::vector<Event> progressFor(const std::string& resId) const {
    return select(true, &resId);
  }
  // Waits until `count` final calls have come (generous deadline).
  bool waitForFinals(std::size_t count, std::chrono::milliseconds timeout =
                                            std::chrono::seconds(60)) {
    std::unique_lock<std::mutex> lock(mutex_);
    return changed_.wait_for(lock, timeout, [&] {
      std::size_t n = 0;
      for (const Event& e : events_) n += e.kind != Kind::kProgress;
      return n >= count;
    });
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.clear();
  }

  // Runs inside each final call, before it is recorded, on the calling
  // thread.
  std::function<void(const std::string&)> onFinal;

 private:
  std::vector<Event> select(bool progress, const std::string* resId) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> out;
    for (const Event& e : events_) {
      if ((e.kind == Kind::kProgress) == progress &&
          (resId == nullptr || e.resId == *resId)) {
        out.push_back(e);
      }
    }
    return out;
  }
  void record(const Event& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(event);
    changed_.notify_all();
  }
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<Event> events_;
};

}  // namespace zrxtest

#endif  // ZRX2DSTICKER_TESTS_SUPPORT_RECORDINGLISTENER_H_
