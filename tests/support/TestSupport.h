// Helpers shared by the tests: temp directories, files, commands, child
// processes, waiting, and a capture of the library's log lines.
//
// The OS-specific parts live in TestSupportPosix.cpp and
// TestSupportWin32.cpp. On Windows the tests run under Wine on a Linux
// machine, and the commands of run() and ShellProcess run there, through
// the host agent (host_agent.py) that ctest starts: paths of the test's
// own (Z:/...) reach those commands as Linux paths through shellQuote.
#ifndef ZRX2DSTICKER_TESTS_SUPPORT_TESTSUPPORT_H_
#define ZRX2DSTICKER_TESTS_SUPPORT_TESTSUPPORT_H_

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
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
// Single-quotes `text` for the shell; a path of the test's own becomes the
// shell's path to the same place.
std::string shellQuote(const std::string& text);

// The end of an executable's file name on this OS: "" or ".exe".
extern const char* const kExecutableSuffix;
// Shell words for run() that start the build's own program at `path`
// (kExecutableSuffix included), through the emulator the build runs its
// programs with, if any.
std::string programCommand(const std::string& path);

// `command` run with /bin/sh until the object dies, which ends it and what
// it started (its session).
class ShellProcess {
 public:
  // Starts it and waits for the first line of its standard output. Throws
  // std::runtime_error when it can't be started.
  explicit ShellProcess(const std::string& command);
  ~ShellProcess();
  ShellProcess(const ShellProcess&) = delete;
  ShellProcess& operator=(const ShellProcess&) = delete;
  // That line, without its end.
  const std::string& firstLine() const { return firstLine_; }

 private:
  void end();
  std::string firstLine_;
  std::FILE* out_ = nullptr;  // POSIX: its standard output
  int pid_ = 0;               // POSIX: its pid
  std::intptr_t agent_ = -1;  // Windows: the connection that keeps it
};

// One of the build's own programs, started with its standard output on a
// pipe and its standard error discarded.
class ChildProcess {
 public:
  // `program` is a path, kExecutableSuffix included. Throws
  // std::runtime_error when it can't be started.
  ChildProcess(const std::string& program,
               const std::vector<std::string>& arguments);
  // Kills it when it still runs, and waits for it.
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  // Waits up to `timeout` for output and appends what came to `out`. False
  // once the output has ended (the program has ended or was killed).
  bool read(std::string& out, std::chrono::milliseconds timeout);
  // Ends it at once, as a crash would (SIGKILL, TerminateProcess).
  void kill();
  // Waits for its end: true with its exit status when it exited, false
  // when it was killed.
  bool wait(int& exitStatus);

 private:
  std::intptr_t process_ = -1;  // pid, or the process handle
  std::intptr_t output_ = -1;   // the pipe's reading end
  bool killed_ = false;
  bool waited_ = false;
  int status_ = 0;
};

// Copies the build's program at `from` to `directory`/`name` (a narrow
// path: bytes on POSIX, the ANSI code page on Windows, where the DLLs that
// lie beside `from` go along), so that it runs from there.
void copyProgram(const std::string& from, const std::string& directory,
                 const std::string& name);

// An exclusive lock on the file at `path` (made if missing), between
// processes, held for the object's life.
class FileLock {
 public:
  explicit FileLock(const std::string& path);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

 private:
  std::intptr_t handle_;
};

// The code page of the library's narrow texts (file names on the disk):
// 65001 (UTF-8) on POSIX, the process's ANSI code page on Windows.
unsigned narrowCodePage();

// Whether the tests hold expectations for the narrow code page they run at:
// UTF-8, or Windows' code pages 1252 (Western, Wine's default) and 932
// (Japanese, a double-byte page). Tests of narrow bytes skip at any other.
bool knownNarrowCodePage();
// The one of `utf8`, `cp1252` and `cp932` that belongs to the narrow code
// page the tests run at (empty at any other).
std::string inNarrowPage(const std::string& utf8, const std::string& cp1252,
                         const std::string& cp932);

// How listTree shows a file made under the narrow name `bytes`: the bytes
// themselves on POSIX; on Windows their reading in the ANSI code page, in
// UTF-8.
std::string listedName(const std::string& bytes);

// Whether the tests run under Wine rather than on Windows itself (some
// behaviour of Windows' own can't be observed there).
bool runningUnderWine();

// What the platform's debug channel (standard error on POSIX,
// OutputDebugString on Windows) receives from this process while `body`
// runs. Captures in different processes take turns.
std::string captureDebugChannel(const std::function<void()>& body);

// A loopback port that nothing listens on.
int freeLoopbackPort();

// The host name of the TLS test servers' certificates in URLs: 127.0.0.1,
// or localhost where the TLS stack can't match a certificate to an address
// (Wine's Schannel).
extern const char* const kTlsHost;

// Calls `onExpiry` (on a thread of its own) if an armed deadline passes
// before disarm(): a hang must end the test process, not the suite.
class Watchdog {
 public:
  explicit Watchdog(std::function<void(const char*)> onExpiry);
  ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  void arm(const char* what, std::chrono::seconds limit);
  void disarm();

 private:
  void watch();
  std::function<void(const char*)> onExpiry_;
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by mutex_.
  const char* what_ = nullptr;
  std::chrono::steady_clock::time_point deadline_;
  bool ending_ = false;
  std::thread thread_;
};

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
