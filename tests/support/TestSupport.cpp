#include "support/TestSupport.h"

#include <sys/stat.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>
#include <utility>

#include "zrx2dsticker/ZRXLog.h"

namespace zrxtest {

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base && *base ? base : "/tmp") + "/zrx2dsticker-test-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = pattern;
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

long long sizeOf(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<long long>(info.st_size);
}

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(content.data(), static_cast<std::streamsize>(content.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

void makeDirs(const std::string& path) {
  std::filesystem::create_directories(path);
}

std::vector<std::string> listTree(const std::string& root) {
  std::vector<std::string> out;
  std::error_code error;
  for (const auto& entry :
       std::filesystem::recursive_directory_iterator(root, error)) {
    out.push_back(entry.path().lexically_relative(root).string() +
                  (entry.is_directory() ? "/" : ""));
  }
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
  for (char c : text)
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
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
  return std::filesystem::read_symlink("/proc/self/exe").parent_path();
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

}  // namespace zrxtest
