// A listener that records every call, thread-safe, for the tests.
#ifndef ZRX2DSTICKER_TESTS_SUPPORT_RECORDINGLISTENER_H_
#define ZRX2DSTICKER_TESTS_SUPPORT_RECORDINGLISTENER_H_

#include <condition_variable>
#include <functional>
#include <map>
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
    int code;                 // failure code, 0 otherwise
    std::thread::id thread;   // the calling thread
    double downloaded;        // progress only
    double total;             // progress only
  };

  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    record(Event{Kind::kProgress, item->resId, 0, std::this_thread::get_id(),
                 item->downloadedBytes, item->totalBytes});
  }
  void onDownloadSuccess(std::string resId) override {
    if (onFinal) onFinal(resId);
    record(Event{Kind::kSuccess, resId, 0, std::this_thread::get_id(), 0, 0});
  }
  void onDownloadFailed(std::string resId, int errorCode) override {
    if (onFinal) onFinal(resId);
    record(Event{Kind::kFailed, resId, errorCode, std::this_thread::get_id(),
                 0, 0});
  }

  std::vector<Event> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  // Final calls (success or failure) so far.
  std::vector<Event> finals() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> out;
    for (const Event& e : events_) {
      if (e.kind != Kind::kProgress) out.push_back(e);
    }
    return out;
  }
  std::vector<Event> finalsFor(const std::string& resId) const {
    std::vector<Event> out;
    for (const Event& e : finals()) {
      if (e.resId == resId) out.push_back(e);
    }
    return out;
  }
  std::vector<Event> progressFor(const std::string& resId) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Event> out;
    for (const Event& e : events_) {
      if (e.kind == Kind::kProgress && e.resId == resId) out.push_back(e);
    }
    return out;
  }
  // Waits until `count` final calls have come (generous deadline).
  bool waitForFinals(std::size_t count,
                     std::chrono::milliseconds timeout = std::chrono::seconds(
                         60)) {
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

  // Runs inside each final call, before it is recorded (on the calling
  // thread, with the item's stateMutex held where the library holds it).
  std::function<void(const std::string&)> onFinal;

 private:
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
