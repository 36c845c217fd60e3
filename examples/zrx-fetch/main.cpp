// zrx-fetch: installs a list of stickers with zrx2dsticker and shows how it
// goes. An example host program: it uses only the library's public API, and
// libcurl for a list given by URL.
//
// The shape of a run, on the main thread:
//   parse the list -> give every item a listener of its own -> start ->
//   wait until every sticker that will hear of its outcome has heard (or
//   Ctrl-C) -> stop -> summary.
// Listener calls arrive on the library's two workers and, for stickers
// already installed, on the main thread inside the start; they only record
// and print (Report.h). Manager operations happen on the main thread only.
#include <curl/curl.h>

#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "LoopbackServer.h"
#include "Options.h"
#include "Os.h"
#include "Report.h"
#include "zrx2dsticker/Version.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"
#include "zrx2dsticker/ZRXLog.h"

namespace {

constexpr int kExitFailed = 1;
constexpr int kExitUsage = 2;
// A list larger than this is refused rather than held in memory.
constexpr std::size_t kMaxListSize = 64 * 1024 * 1024;
// Time limit for fetching a list by URL when --timeout gives none.
constexpr long kListFetchSeconds = 60;
// How often the waiting main thread looks for a Ctrl-C.
constexpr std::chrono::milliseconds kSignalPoll(100);

// The console that the library's log lines go to with --log-level; null
// before and after.
std::atomic<Console*> gLogConsole{nullptr};

// The library's log callback: runs on the logging thread with the log's
// mutex held, so it only prints.
void showLogLine(int level, const char* /*tag*/, const char* message,
                 const char* /*key*/) {
  if (Console* console = gLogConsole.load()) {
    console->errorLine("log " + std::to_string(level) + ": " + message);
  }
}

// RapidJSON's ParseErrorCode values, as the library passes them on.
const char* describeParseError(int code) {
  static const char* const kTexts[] = {
      "no error",
      "the document is empty",
      "the root value is followed by other values",
      "invalid value",
      "missing a name for an object member",
      "missing a colon after an object member's name",
      "missing a comma or '}' after an object member",
      "missing a comma or ']' after an array element",
      "invalid hex digits after \\u in a string",
      "invalid surrogate pair in a string",
      "invalid escape character in a string",
      "missing a closing quotation mark in a string",
      "invalid encoding in a string",
      "number too big to be stored in a double",
      "missing the fraction part of a number",
      "missing the exponent of a number",
      "parsing was terminated",
      "unspecific syntax error",
  };
  if (code < 0 || code >= static_cast<int>(std::size(kTexts))) {
    return "unknown parse error";
  }
  return kTexts[code];
}

bool startsWithNoCase(const std::string& text, const char* prefix) {
  const std::size_t n = std::strlen(prefix);
  if (text.size() < n) return false;
  for (std::size_t i = 0; i < n; ++i) {
    if (std::tolower(static_cast<unsigned char>(text[i])) !=
        std::tolower(static_cast<unsigned char>(prefix[i]))) {
      return false;
    }
  }
  return true;
}

// The sample catalogue: beside an installed zrx-fetch, then in the source
// tree the binary was built from, then at the configured install prefix.
std::string findCatalogue() {
  std::vector<std::string> candidates;
  const std::string exeDir = os::executableDirectory();
#ifdef ZRX_FETCH_RELATIVE_CATALOG
  if (!exeDir.empty()) {
    candidates.push_back(exeDir + "/" + ZRX_FETCH_RELATIVE_CATALOG);
  }
#endif
#ifdef ZRX_FETCH_SOURCE_CATALOG
  candidates.push_back(ZRX_FETCH_SOURCE_CATALOG);
#endif
#ifdef ZRX_FETCH_INSTALLED_CATALOG
  candidates.push_back(ZRX_FETCH_INSTALLED_CATALOG);
#endif
  for (const std::string& candidate : candidates) {
    std::error_code error;
    if (std::filesystem::is_regular_file(
            os::nativePath(candidate + "/catalog.json"), error)) {
      return candidate;
    }
  }
  return "";
}

// --- reading the list --------------------------------------------------------

struct Download {
  std::string body;
  bool tooLarge = false;
};

extern "C" size_t collectBody(char* data, size_t size, size_t count,
                              void* target) {
  Download& download = *static_cast<Download*>(target);
  if (download.body.size() + size * count > kMaxListSize) {
    download.tooLarge = true;
    return 0;
  }
  download.body.append(data, size * count);
  return size * count;
}

extern "C" int abortOnSignal(void*, curl_off_t, curl_off_t, curl_off_t,
                             curl_off_t) {
  return os::interruptSignal() != 0 ? 1 : 0;
}

bool fetchUrl(const std::string& url, long timeoutSeconds, std::string& text,
              std::string& error) {
  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle(curl_easy_init(),
                                                             curl_easy_cleanup);
  if (!handle) {
    error = "cannot create a transfer handle";
    return false;
  }
  Download download;
  CURL* curl = handle.get();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 10L);
  curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 15L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, timeoutSeconds);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, collectBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &download);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, abortOnSignal);
  curl_easy_setopt(curl, CURLOPT_USERAGENT,
                   "zrx-fetch/" ZRX2DSTICKER_VERSION_STRING);
  const CURLcode result = curl_easy_perform(curl);
  if (result == CURLE_OK) {
    text = std::move(download.body);
    return true;
  }
  if (download.tooLarge) {
    error = "the list is larger than " + formatBytes(kMaxListSize);
  } else if (result == CURLE_HTTP_RETURNED_ERROR) {
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    error = "the server answered with HTTP status " + std::to_string(status);
  } else {
    error = curl_easy_strerror(result);
  }
  return false;
}

// Reads the list from a file, "-" (standard input) or an http(s) URL.
bool readList(const std::string& source, long timeoutSeconds, std::string& text,
              std::string& error) {
  if (startsWithNoCase(source, "http://") ||
      startsWithNoCase(source, "https://")) {
    return fetchUrl(source, timeoutSeconds, text, error);
  }
  std::ifstream file;
  std::istream* in = &std::cin;
  if (source != "-") {
    file.open(os::nativePath(source), std::ios::binary);
    if (!file) {
      error = std::strerror(errno);
      return false;
    }
    in = &file;
  }
  std::ostringstream content;
  content << in->rdbuf();
  if (in->bad()) {
    error = "read error";
    return false;
  }
  text = content.str();
  if (text.size() > kMaxListSize) {
    error = "the list is larger than " + formatBytes(kMaxListSize);
    return false;
  }
  return true;
}

void replaceAll(std::string& text, const std::string& from,
                const std::string& to) {
  for (std::size_t at = text.find(from); at != std::string::npos;
       at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
}

// The library's log and libcurl's transfer details (the library turns
// libcurl's verbose output on) go to standard error, which zrx-fetch points
// at this file beside the download directory: DIR.log, or DIR/zrx-fetch.log
// where DIR has no name of its own ("/", ".", "..").
std::string logPathFor(const std::string& dir) {
  std::string trimmed = dir;
  while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
  const std::string name = std::filesystem::path(trimmed).filename().string();
  if (name.empty() || name == "." || name == "..") {
    return trimmed + (trimmed.back() == '/' ? "" : "/") + "zrx-fetch.log";
  }
  return trimmed + ".log";
}

std::string summaryLine(const RunSummary& summary) {
  char tail[96];
  std::snprintf(tail, sizeof(tail), "; %s in %.1f s",
                formatBytes(summary.bytes).c_str(), summary.seconds);
  std::string line = "summary: " + std::to_string(summary.installed) +
                     " installed already, " +
                     std::to_string(summary.downloaded) + " downloaded, " +
                     std::to_string(summary.failed) + " failed";
  if (summary.skipped > 0) {
    line += ", " + std::to_string(summary.skipped) +
            " skipped (same file name as an earlier sticker)";
  }
  if (summary.unfinished > 0) {
    line += ", " + std::to_string(summary.unfinished) + " not finished";
  }
  return line + tail;
}

// --- the run -----------------------------------------------------------------

int run(const Options& options, Console& console) {
  // Where the list comes from, and what the built-in server serves.
  std::string source = options.list;
  std::string serveDir = options.serveDir;
  int64_t rate = options.serveRate < 0 ? 0 : options.serveRate;
  if (source.empty()) {
    const std::string catalogue = findCatalogue();
    if (catalogue.empty()) {
      console.error("cannot find the sample catalogue; give a LIST");
      return kExitUsage;
    }
    source = catalogue + "/catalog.json";
    if (serveDir.empty()) serveDir = catalogue;
    if (options.serveRate < 0) rate = kCatalogueRate;
  }

  std::string text;
  std::string error;
  if (!readList(source,
                options.timeoutSeconds > 0 ? options.timeoutSeconds
                                           : kListFetchSeconds,
                text, error)) {
    if (os::interruptSignal() != 0) return 128 + os::interruptSignal();
    console.error("cannot read the list " + os::nativeToUtf8(source) + ": " +
                  error);
    return kExitUsage;
  }

  std::error_code fsError;
  std::filesystem::create_directories(os::nativePath(options.dir), fsError);
  if (!std::filesystem::is_directory(os::nativePath(options.dir))) {
    console.error("cannot create the download directory " +
                  os::nativeToUtf8(options.dir) +
                  (fsError ? ": " + fsError.message() : std::string()));
    return kExitUsage;
  }

  // The built-in server, if anything is to be served. Its thread is started
  // with the signals blocked, like the library's workers below.
  std::unique_ptr<LoopbackServer> server;
  if (!serveDir.empty()) {
    server = std::make_unique<LoopbackServer>(serveDir, rate);
    os::InterruptsBlocked blocked;
    if (!server->start(options.servePort, error)) {
      if (options.servePort == 0 || !server->start(0, error)) {
        console.error("cannot serve " + serveDir + " on 127.0.0.1: " + error);
        return kExitUsage;
      }
      console.error("port " + std::to_string(options.servePort) +
                    " is taken; serving on " + server->baseUrl() +
                    " (stickers named after their URL get new directories)");
    }
    replaceAll(text, "{base}", server->baseUrl());
  } else if (text.find("{base}") != std::string::npos) {
    console.error("the list's URLs hold {base}: give --serve DIR");
    return kExitUsage;
  }

  // From here on the library's log and libcurl's verbose output go to the
  // log file; zrx-fetch's own messages still reach the terminal through the
  // console's saved copy of standard error.
  const std::string logPath = logPathFor(options.dir);
  std::string logError;
  const bool logged = os::redirectStandardError(logPath, logError);
  if (!logged) {
    console.error("cannot write the log " + os::nativeToUtf8(logPath) + ": " +
                  logError + "; it goes to standard error");
  }
  if (options.logLevelGiven) {
    gLogConsole = &console;
    ZRXRegisterLogBaseManager(showLogLine);
    ZRXSetLogLevel(options.logLevel);
  }

  ZRResourceDownloadManager manager;
  std::string path = options.dir;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  // The library takes a path in UTF-8 and puts it in the ANSI code page
  // itself; the command line gave it in that code page already.
  manager.ZRX_set2DStickerDownloadPath(os::nativeToUtf8(path));

  // Parsed with no listener: every item gets one of its own below.
  int parseError = 0;
  ZRX2DStickerResList* list =
      manager.ZRX_parse2DStickerResource(text, parseError, nullptr);
  if (list == nullptr) {
    if (text.empty() || parseError == 0) {
      console.error("the list " + source + " is empty");
    } else {
      console.error("the list " + source + " is not valid JSON: error " +
                    std::to_string(parseError) + " (" +
                    describeParseError(parseError) + ")");
    }
    return kExitUsage;
  }
  // The library reads any other root value as an empty list; say so.
  const std::size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string::npos || text[first] != '[') {
    console.error("the list " + source +
                  " is not a JSON array of sticker objects");
    return kExitUsage;
  }

  if (options.onlyGiven) {
    // Keep only the first item with that resId: the manager takes a list of
    // its own with just that item, and the parsed list, with the others,
    // comes back to us to release.
    std::size_t index = list->items.size();
    for (std::size_t i = 0; i < list->items.size(); ++i) {
      if (list->items[i]->resId == options.only) {
        index = i;
        break;
      }
    }
    if (index == list->items.size()) {
      console.error("the list has no sticker with resId '" + options.only +
                    "'");
      return kExitUsage;
    }
    auto* single = new ZRX2DStickerResList();
    single->items.push_back(list->items[index]);
    manager.setStickerResList(single);
    for (std::size_t i = 0; i < list->items.size(); ++i) {
      if (i != index) delete list->items[i];
    }
    delete list;
    list = single;
  }

  std::vector<RunReport::Sticker> stickers;
  for (std::size_t i = 0; i < list->items.size(); ++i) {
    const ZRX2DStickerResItem* item = list->items[i];
    // fileName is in the code page of the disk; the lines are UTF-8.
    std::string label =
        item->resId.empty() ? os::nativeToUtf8(item->fileName) : item->resId;
    if (label.empty()) label = "#" + std::to_string(i + 1);
    stickers.push_back({label, item->fileName});
  }
  RunReport report(console, std::move(stickers));
  // A deque: the listeners' addresses stay put while it grows.
  std::deque<StickerListener> listeners;
  for (std::size_t i = 0; i < list->items.size(); ++i) {
    listeners.emplace_back(report, i);
  }
  if (list->items.empty() && !console.quiet()) {
    console.print("the list holds no stickers");
  }

  {
    os::InterruptsBlocked blocked;
    if (options.onlyGiven) {
      // The single-sticker start needs an attached list, which only the
      // start of all stickers makes. The item has no listener yet, so that
      // start tells nothing; the single start then fetches it afresh,
      // installed or not, with its listener and time limit.
      manager.ZRX_start2DStickerDownloadAllSticker();
      manager.ZRX_start2DStickerDownloadSticker(options.only, &listeners[0],
                                                options.timeoutSeconds);
      report.startReturned(false);
    } else {
      for (std::size_t i = 0; i < list->items.size(); ++i) {
        list->items[i]->listener = &listeners[i];
        // The time limit is a field of the item; the library reads it when
        // the transfer begins.
        list->items[i]->timeoutSeconds = options.timeoutSeconds;
      }
      manager.ZRX_start2DStickerDownloadAllSticker();
      report.startReturned(true);
    }
  }

  // The library has no signal for the end of a run: the report counts the
  // final calls. Meanwhile, a Ctrl-C is noticed here, never in the handler.
  while (!report.waitForEnd(kSignalPoll) && os::interruptSignal() == 0) {
  }
  const int signal = os::interruptSignal();
  // Ends the workers; a transfer in progress is abandoned and its partial
  // file removed. No listener call follows.
  manager.ZRX_stop2DStickerDownloadSticker();
  if (server) server->stop();

  const RunSummary summary = report.summary();
  if (!console.quiet() || signal != 0) {
    if (signal != 0) {
      console.print("interrupted: run stopped, partial download removed");
    }
    console.print(summaryLine(summary));
    if (server && !console.quiet()) {
      console.print("built-in server " + server->baseUrl() + " answered " +
                    std::to_string(server->requestCount()) +
                    (server->requestCount() == 1 ? " request" : " requests"));
    }
  }
  if (summary.failed > 0 && logged) {
    console.print("the library's log: " + os::nativeToUtf8(logPath));
  }
  if (signal != 0) return 128 + signal;
  return summary.failed > 0 ? kExitFailed : 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  std::string error;
  if (!parseOptions(argc, argv, options, error)) {
    std::fprintf(stderr, "zrx-fetch: %s\nTry 'zrx-fetch --help'.\n",
                 error.c_str());
    return kExitUsage;
  }
  if (options.help) {
    std::fputs(usageText().c_str(), stdout);
    return 0;
  }
  if (options.version) {
    std::printf("zrx-fetch %s (zrx2dsticker %s, libcurl %s)\n",
                ZRX2DSTICKER_VERSION_STRING, ZRX2DSTICKER_VERSION_STRING,
                curl_version_info(CURLVERSION_NOW)->version);
    return 0;
  }

  os::installInterruptHandlers();
  // zrx-fetch's own messages keep going to the original standard error
  // after it has been pointed at the log file.
  std::FILE* errors = os::duplicateStandardError();
  if (errors == nullptr) errors = stderr;

  const os::Utf8Console utf8Console;
  const bool terminal = os::standardOutputIsTerminal();
  const char* term = std::getenv("TERM");
  const bool color = terminal && std::getenv("NO_COLOR") == nullptr &&
                     !(term != nullptr && std::strcmp(term, "dumb") == 0);
  int status;
  {
    Console console(terminal, options.quiet, color, errors);
    curl_global_init(CURL_GLOBAL_ALL);
    status = run(options, console);
    // The manager is gone, and with it every thread that logs.
    ZRXReleaseLogBaseManager();
    gLogConsole = nullptr;
    curl_global_cleanup();
  }
  if (errors != stderr) std::fclose(errors);
  return status;
}
