#include "Report.h"

#include <curl/curl.h>

#include <algorithm>
#include <cstdio>
#include <set>
#include <utility>

#include "Os.h"

namespace {

// Longest label that keeps its column; longer ones stick out.
constexpr std::size_t kMaxLabelWidth = 24;
constexpr int kBarWidth = 20;
// The live line is redrawn at most this often per sticker.
constexpr std::chrono::milliseconds kRedrawEvery(100);

const char* const kGreen = "\033[32m";
const char* const kRed = "\033[31m";
const char* const kDim = "\033[2m";
const char* const kPlain = "\033[0m";

double secondsBetween(std::chrono::steady_clock::time_point from,
                      std::chrono::steady_clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

std::string padded(const std::string& text, std::size_t width) {
  return text.size() >= width ? text
                              : text + std::string(width - text.size(), ' ');
}

}  // namespace

std::string describeFailure(int code) {
  switch (code) {
    case -10000:
      return "cannot create a transfer handle";
    case -10001:
      return "cannot create directory (its parent is missing, or the "
             "list's name for it is refused)";
    case -10002:
      return "cannot configure the transfer";
    case -10003:
      return "cannot open the local file (or the list's name for it is "
             "refused)";
    case -10004:
      return "cannot unpack the archive (not a zip, damaged, a refused "
             "entry name, or a file whose directory has no entry before it: "
             "make archives with zip -r)";
    case -10005:
      return "cannot start the transfer";
    case -10006:
      return "time limit passed";
    default:
      break;
  }
  if (code < -100000) {
    return curl_easy_strerror(static_cast<CURLcode>(-100000 - code));
  }
  return "unknown failure";
}

std::string formatBytes(double bytes) {
  char text[32];
  if (bytes < 1024) {
    std::snprintf(text, sizeof(text), "%.0f B", bytes);
  } else if (bytes < 1024 * 1024) {
    std::snprintf(text, sizeof(text), "%.1f KiB", bytes / 1024);
  } else {
    std::snprintf(text, sizeof(text), "%.1f MiB", bytes / (1024 * 1024));
  }
  return text;
}

// --- Console -----------------------------------------------------------------

Console::Console(bool terminal, bool quiet, bool color, std::FILE* errors)
    : terminal_(terminal), quiet_(quiet), color_(color), errors_(errors) {}

int Console::width() const {
  const int columns = os::terminalColumns();
  return columns > 10 ? columns : 80;
}

void Console::clearLocked() {
  if (!statusShown_) return;
  std::fputs("\r\033[K", stdout);
  std::fflush(stdout);
  statusShown_ = false;
  statusOwner_ = nullptr;
}

void Console::status(const void* owner, const std::string& text) {
  if (!terminal_ || quiet_) return;
  std::lock_guard<std::mutex> lock(mutex_);
  // Cut to the terminal's width: a wrapped line can't be redrawn in place.
  const std::size_t room = static_cast<std::size_t>(width() - 1);
  std::fputs("\r", stdout);
  std::fwrite(text.data(), 1, std::min(text.size(), room), stdout);
  std::fputs("\033[K", stdout);
  std::fflush(stdout);
  statusShown_ = true;
  statusOwner_ = owner;
}

void Console::clearStatus(const void* owner) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (owner == nullptr || owner == statusOwner_) clearLocked();
}

void Console::print(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  clearLocked();
  std::fputs(line.c_str(), stdout);
  std::fputc('\n', stdout);
  std::fflush(stdout);
}

void Console::error(const std::string& text) {
  errorLine("zrx-fetch: " + text);
}

void Console::errorLine(const std::string& line) {
  std::lock_guard<std::mutex> lock(mutex_);
  clearLocked();
  std::fputs(line.c_str(), errors_);
  std::fputc('\n', errors_);
  std::fflush(errors_);
}

// --- RunReport ---------------------------------------------------------------

RunReport::RunReport(Console& console, std::vector<Sticker> stickers)
    : console_(console),
      stickers_(std::move(stickers)),
      startThread_(std::this_thread::get_id()),
      begin_(std::chrono::steady_clock::now()),
      states_(stickers_.size()) {
  for (const Sticker& sticker : stickers_) {
    labelWidth_ =
        std::max(labelWidth_, std::min(sticker.label.size(), kMaxLabelWidth));
  }
}

std::string RunReport::progressLine(
    const Sticker& sticker, const State& state,
    std::chrono::steady_clock::time_point now) const {
  const double fraction =
      state.total > 0 ? std::min(1.0, state.received / state.total) : 0.0;
  const int filled = static_cast<int>(fraction * kBarWidth);
  std::string line = padded(sticker.label, labelWidth_) + " [" +
                     std::string(filled, '#') +
                     std::string(kBarWidth - filled, '.') + "] ";
  char text[96];
  std::snprintf(text, sizeof(text), "%3d%%  ",
                static_cast<int>(fraction * 100));
  line += text;
  line += formatBytes(state.received) + " / " + formatBytes(state.total);
  const double elapsed = secondsBetween(state.transferStart, now);
  if (elapsed > 0.05) {
    line += "  " + formatBytes(state.received / elapsed) + "/s";
  }
  return line;
}

void RunReport::progress(std::size_t index, double now, double total) {
  std::lock_guard<std::mutex> lock(mutex_);
  State& state = states_[index];
  const auto clock = std::chrono::steady_clock::now();
  if (!state.transferStarted) {
    state.transferStarted = true;
    state.transferStart = clock;
    state.lastDrawn = clock - kRedrawEvery;
  }
  state.received = now;
  state.total = total;
  if (clock - state.lastDrawn < kRedrawEvery && now < total) return;
  state.lastDrawn = clock;
  console_.status(&state, progressLine(stickers_[index], state, clock));
}

void RunReport::success(std::size_t index) {
  // A success on the starting thread comes from the installed check, which
  // runs inside the start before any worker does.
  const bool onDisk = std::this_thread::get_id() == startThread_;
  std::string detail;
  if (!onDisk) {
    std::lock_guard<std::mutex> lock(mutex_);
    const State& state = states_[index];
    detail = formatBytes(state.received);
    if (state.transferStarted) {
      char text[32];
      std::snprintf(text, sizeof(text), " in %.1f s",
                    secondsBetween(state.transferStart,
                                   std::chrono::steady_clock::now()));
      detail += text;
    }
  }
  finish(index, onDisk ? Outcome::kInstalled : Outcome::kDownloaded, detail);
}

void RunReport::failure(std::size_t index, int code) {
  finish(index, Outcome::kFailed,
         std::to_string(code) + " " + describeFailure(code));
}

void RunReport::finish(std::size_t index, Outcome outcome,
                       const std::string& detail) {
  std::lock_guard<std::mutex> lock(mutex_);
  State& state = states_[index];
  // At most one outcome per item and run; a second call would be the
  // library's fault, and the first one stands.
  if (state.outcome != Outcome::kPending) return;
  state.outcome = outcome;
  console_.clearStatus(&state);

  const bool failed = outcome == Outcome::kFailed;
  if (!failed && console_.quiet()) {
    // Nothing to show.
  } else {
    const char* word = outcome == Outcome::kInstalled    ? "installed "
                       : outcome == Outcome::kDownloaded ? "downloaded"
                                                         : "failed    ";
    const char* color = outcome == Outcome::kInstalled    ? kDim
                        : outcome == Outcome::kDownloaded ? kGreen
                                                          : kRed;
    std::string line = console_.color() ? std::string(color) + word + kPlain
                                        : std::string(word);
    line += "  ";
    line += detail.empty()
                ? stickers_[index].label
                : padded(stickers_[index].label, labelWidth_) + "  " + detail;
    console_.print(line);
  }
  changed_.notify_all();
}

void RunReport::startReturned(bool checked) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (checked) {
    // The library queues the first missing sticker of each file name and
    // drops the later ones without a word.
    std::set<std::string> queued;
    for (std::size_t i = 0; i < states_.size(); ++i) {
      if (states_[i].outcome == Outcome::kInstalled) continue;
      states_[i].expected = queued.insert(stickers_[i].fileName).second;
    }
  }
  startReturned_ = true;
  changed_.notify_all();
}

bool RunReport::overLocked() const {
  if (!startReturned_) return false;
  for (const State& state : states_) {
    if (state.expected && state.outcome == Outcome::kPending) return false;
  }
  return true;
}

bool RunReport::waitForEnd(std::chrono::milliseconds slice) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, slice, [this] { return overLocked(); });
}

RunSummary RunReport::summary() const {
  std::lock_guard<std::mutex> lock(mutex_);
  RunSummary summary;
  for (const State& state : states_) {
    switch (state.outcome) {
      case Outcome::kInstalled:
        ++summary.installed;
        break;
      case Outcome::kDownloaded:
        ++summary.downloaded;
        break;
      case Outcome::kFailed:
        ++summary.failed;
        break;
      case Outcome::kPending:
        ++(state.expected ? summary.unfinished : summary.skipped);
        break;
    }
    summary.bytes += state.received;
  }
  summary.seconds = secondsBetween(begin_, std::chrono::steady_clock::now());
  return summary;
}

// --- StickerListener ---------------------------------------------------------

void StickerListener::onDownloadProgress(ZRX2DStickerResItem* item) {
  // The byte counts are written on this very thread just before the call.
  report_->progress(index_, item->downloadedBytes, item->totalBytes);
}

void StickerListener::onDownloadSuccess(std::string /*resId*/) {
  report_->success(index_);
}

void StickerListener::onDownloadFailed(std::string /*resId*/, int errorCode) {
  report_->failure(index_, errorCode);
}
