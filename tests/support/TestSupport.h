// Helpers shared by the tests: temp directories, files, commands, waiting,
// and a capture of the library's log lines.
#ifndef ZRX2DSTICKER_TESTS_SUPPORT_TESTSUPPORT_H_
#define ZRX2DSTICKER_TESTS_SUPPORT_TESTSUPPORT_H_

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace zrxtest {

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const {
    return path_ + "/" + name;
  }

 private:
  std::string path_;
};

bool fileExists(const std::string& path);
long long sizeOf(const std::string& path);  // -1 when missing
std::string readFile(const std::string& path);
void writeFile(const std::string& path, const std::string& content);
void makeDirs(const std::string& path);  // like mkdir -p
// Every path below `root`, relative, sorted; directories end in '/'.
std::vector<std::string> listTree(const std::string& root);

// Runs `command` with /bin/sh; returns its exit status (-1 if it died).
int run(const std::string& command);
// Single-quotes `text` for the shell.
std::string shellQuote(const std::string& text);

// Polls `condition` every few milliseconds until it holds or `timeout`
// passes; returns its last value. Generous deadlines only: never a fixed
// sleep in a test.
bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout = std::chrono::seconds(30));

// Directory of the running test executable.
std::string executableDir();

// One log line as the host's callback received it.
struct LogLine {
  int level;
  std::string message;
};

// Captures every message of the library's log facility. The first use
// registers a process-wide callback (a registration stays for the whole
// process); `clear` forgets what came so far.
class LogCapture {
 public:
  static LogCapture& instance();
  void clear();
  std::vector<LogLine> lines() const;
  // Messages that contain `fragment`, in order.
  std::vector<std::string> matching(const std::string& fragment) const;
  bool contains(const std::string& fragment) const {
    return !matching(fragment).empty();
  }
  // Runs for every message on the logging thread, inside the library's log
  // call (so with its log mutex held: it must not log or wait for anything
  // that logs). Null to remove.
  void setHook(std::function<void(const std::string&)> hook);

 private:
  LogCapture();
  static void callback(int level, const char* tag, const char* message,
                       const char* key);
  mutable std::mutex mutex_;
  std::vector<LogLine> lines_;
  std::function<void(const std::string&)> hook_;
};

}  // namespace zrxtest

#endif  // ZRX2DSTICKER_TESTS_SUPPORT_TESTSUPPORT_H_
