#include "support/TestSupport.h"

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
    out.push_back(entry.path().lexically_relative(root).generic_string() +
                  (entry.is_directory() ? "/" : ""));
  }
  std::sort(out.begin(), out.end());
  return out;
}

bool knownNarrowCodePage() {
  const unsigned page = narrowCodePage();
  return page == 65001 || page == 1252 || page == 932;
}

std::string inNarrowPage(const std::string& utf8, const std::string& cp1252,
                         const std::string& cp932) {
  switch (narrowCodePage()) {
    case 65001:
      return utf8;
    case 1252:
      return cp1252;
    case 932:
      return cp932;
    default:
      return "";
  }
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

Watchdog::Watchdog(std::function<void(const char*)> onExpiry)
    : onExpiry_(std::move(onExpiry)), thread_(&Watchdog::watch, this) {}

Watchdog::~Watchdog() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void Watchdog::arm(const char* what, std::chrono::seconds limit) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    what_ = what;
    deadline_ = std::chrono::steady_clock::now() + limit;
  }
  changed_.notify_all();
}

void Watchdog::disarm() {
  std::lock_guard<std::mutex> lock(mutex_);
  what_ = nullptr;
}

void Watchdog::watch() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ending_) {
    if (what_ == nullptr) {
      changed_.wait(lock);
    } else if (changed_.wait_until(lock, deadline_) ==
                   std::cv_status::timeout &&
               what_ != nullptr &&
               std::chrono::steady_clock::now() >= deadline_) {
      onExpiry_(what_);
      what_ = nullptr;
    }
  }
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
