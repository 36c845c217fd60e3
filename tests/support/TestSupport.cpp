#include "support/TestSupport.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>
#include <utility>

#include "zrx2dsticker/ZRXLog.h"

namespace zrxtest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") +
                        "/zrx2dsticker-test-XXXXXX";
  std::vector<char> buffer(pattern.begin(), pattern.end());
  buffer.push_back('\0');
  if (::mkdtemp(buffer.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = buffer.data();
}

TempDir::~TempDir() {
  // Make everything writable again (tests chmod directories) and remove it.
  run("chmod -R u+rwx " + shellQuote(path_) + " 2>/dev/null; rm -rf " +
      shellQuote(path_));
}

bool fileExists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

bool isDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

long long sizeOf(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<long long>(info.st_size);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream out;
  out << in.rdbuf();
  return out.str();
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

void makeDirs(const std::string& path) {
  if (run("mkdir -p " + shellQuote(path)) != 0) {
    throw std::runtime_error("mkdir -p failed: " + path);
  }
}

namespace {
void walk(const std::string& root, const std::string& relative,
          std::vector<std::string>& out) {
  DIR* dir = ::opendir((root + "/" + relative).c_str());
  if (dir == nullptr) return;
  while (struct dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    const std::string rel = relative.empty() ? name : relative + "/" + name;
    if (isDirectory(root + "/" + rel)) {
      out.push_back(rel + "/");
      walk(root, rel, out);
    } else {
      out.push_back(rel);
    }
  }
  ::closedir(dir);
}
}  // namespace

std::vector<std::string> listTree(const std::string& root) {
  std::vector<std::string> out;
  walk(root, "", out);
  std::sort(out.begin(), out.end());
  return out;
}

int run(const std::string& command) {
  const int status = std::system(command.c_str());
  if (status == -1 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::string shellQuote(const std::string& text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

bool waitUntil(const std::function<bool()>& condition,
               std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= deadline) return condition();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

std::string executableDir() {
  char buffer[4096];
  const ssize_t n = ::readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
  if (n <= 0) return ".";
  std::string path(buffer, static_cast<std::size_t>(n));
  return path.substr(0, path.find_last_of('/'));
}

LogCapture::LogCapture() { ZRXRegisterLogBaseManager(&LogCapture::callback); }

LogCapture& LogCapture::instance() {
  static LogCapture* capture = new LogCapture();  // lives for the process
  return *capture;
}

void LogCapture::callback(int level, const char* /*tag*/, const char* message,
                          const char* /*key*/) {
  LogCapture& self = instance();
  std::function<void(const std::string&)> hook;
  {
    std::lock_guard<std::mutex> lock(self.mutex_);
    self.lines_.push_back(LogLine{level, message ? message : ""});
    hook = self.hook_;
  }
  if (hook) hook(message ? message : "");
}

void LogCapture::setHook(std::function<void(const std::string&)> hook) {
  std::lock_guard<std::mutex> lock(mutex_);
  hook_ = std::move(hook);
}

void LogCapture::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  lines_.clear();
}

std::vector<LogLine> LogCapture::lines() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

std::vector<std::string> LogCapture::matching(
    const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const LogLine& line : lines_) {
    if (line.message.find(fragment) != std::string::npos) {
      out.push_back(line.message);
    }
  }
  return out;
}

int LogCapture::indexOf(const std::string& fragment) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (std::size_t i = 0; i < lines_.size(); ++i) {
    if (lines_[i].message.find(fragment) != std::string::npos) {
      return static_cast<int>(i);
    }
  }
  return -1;
}

}  // namespace zrxtest
