#include "LoopbackServer.h"

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <utility>
#include <vector>

#include "Os.h"

namespace {

// A request head larger than this is refused: no client of ours sends one.
constexpr std::size_t kMaxRequestHead = 16 * 1024;
// How long a silent client may take to send its request.
constexpr int kRequestTimeoutMs = 10000;
// How often the serving thread looks at the stop flag while it waits.
constexpr int kStopPollMs = 100;
// Pacing step: a paced body goes out in slices of rate/20 every 50 ms.
constexpr int kPaceTickMs = 50;
constexpr std::size_t kUnpacedChunk = 64 * 1024;

// Closes a socket when it goes out of scope.
class SocketOwner {
 public:
  explicit SocketOwner(os::Socket socket) : socket_(socket) {}
  ~SocketOwner() { os::closeSocket(socket_); }
  SocketOwner(const SocketOwner&) = delete;
  SocketOwner& operator=(const SocketOwner&) = delete;

 private:
  os::Socket socket_;
};

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// The request target as a path below the served directory, or "" when it
// is malformed or would leave that directory.
std::string targetToPath(std::string target) {
  const std::size_t query = target.find_first_of("?#");
  if (query != std::string::npos) target.resize(query);
  if (target.empty() || target[0] != '/') return "";
  std::string decoded;
  for (std::size_t i = 0; i < target.size(); ++i) {
    if (target[i] == '%' && i + 2 < target.size() &&
        hexValue(target[i + 1]) >= 0 && hexValue(target[i + 2]) >= 0) {
      decoded += static_cast<char>(hexValue(target[i + 1]) * 16 +
                                   hexValue(target[i + 2]));
      i += 2;
    } else {
      decoded += target[i];
    }
  }
  if (decoded.find('\0') != std::string::npos) return "";
  // No ".." component, whichever separator a client tries.
  std::size_t start = 0;
  while (start <= decoded.size()) {
    std::size_t end = decoded.find_first_of("/\\", start);
    if (end == std::string::npos) end = decoded.size();
    if (decoded.compare(start, end - start, "..") == 0) return "";
    start = end + 1;
  }
  return decoded;
}

const char* contentType(const std::string& path) {
  auto endsWith = [&path](const char* suffix) {
    const std::size_t n = std::strlen(suffix);
    return path.size() >= n && path.compare(path.size() - n, n, suffix) == 0;
  };
  if (endsWith(".png")) return "image/png";
  if (endsWith(".zip")) return "application/zip";
  if (endsWith(".json")) return "application/json";
  return "application/octet-stream";
}

std::string head(const char* status, const char* type, int64_t length) {
  return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
         "\r\nContent-Length: " + std::to_string(length) +
         "\r\nConnection: close\r\n\r\n";
}

}  // namespace

LoopbackServer::LoopbackServer(std::string root, int64_t bytesPerSecond)
    : root_(std::move(root)), bytesPerSecond_(bytesPerSecond) {}

LoopbackServer::~LoopbackServer() { stop(); }

bool LoopbackServer::start(int port, std::string& error) {
  const os::Socket listener = os::listenOnLoopback(port, port_, error);
  if (listener == os::kNoSocket) return false;
  listener_ = listener;
  stopping_ = false;
  thread_ = std::thread(&LoopbackServer::serve, this);
  return true;
}

void LoopbackServer::stop() {
  stopping_ = true;
  if (thread_.joinable()) thread_.join();
  if (listener_ != os::kNoSocket) {
    os::closeSocket(listener_);
    listener_ = os::kNoSocket;
  }
}

std::string LoopbackServer::baseUrl() const {
  return "http://127.0.0.1:" + std::to_string(port_);
}

bool LoopbackServer::waitFor(os::Socket socket, bool forWrite,
                             int timeoutMs) {
  for (int waited = 0; waited < timeoutMs; waited += kStopPollMs) {
    if (stopping_) return false;
    const int ready = os::waitOnSocket(socket, forWrite, kStopPollMs);
    if (ready > 0) return true;
    if (ready < 0) return false;
  }
  return false;
}

void LoopbackServer::serve() {
  while (!stopping_) {
    if (os::waitOnSocket(listener_, false, kStopPollMs) <= 0) continue;
    const os::Socket connection = os::acceptConnection(listener_);
    if (connection == os::kNoSocket) continue;
    SocketOwner owner(connection);
    answer(connection);
  }
}

void LoopbackServer::answer(os::Socket connection) {
  std::string request;
  char buffer[4096];
  while (request.find("\r\n\r\n") == std::string::npos) {
    if (request.size() > kMaxRequestHead ||
        !waitFor(connection, false, kRequestTimeoutMs)) {
      return;
    }
    const long got = os::receiveSome(connection, buffer, sizeof(buffer));
    if (got <= 0) return;
    request.append(buffer, static_cast<std::size_t>(got));
  }
  ++requests_;

  // "METHOD TARGET VERSION"
  const std::size_t lineEnd = request.find("\r\n");
  const std::string line = request.substr(0, lineEnd);
  const std::size_t space1 = line.find(' ');
  const std::size_t space2 = line.find(' ', space1 + 1);
  const std::string method = line.substr(0, space1);
  const std::string path =
      space1 == std::string::npos || space2 == std::string::npos
          ? ""
          : targetToPath(line.substr(space1 + 1, space2 - space1 - 1));

  auto refuse = [&](const char* status) {
    const std::string body = std::string(status) + "\n";
    const std::string reply =
        head(status, "text/plain", static_cast<int64_t>(body.size())) +
        (method == "HEAD" ? "" : body);
    sendAll(connection, reply.data(), reply.size(), false);
  };
  if (method != "GET" && method != "HEAD") return refuse("405 Not Allowed");
  if (path.empty()) return refuse("400 Bad Request");

  // The root comes from the command line (native text), the rest from a
  // URL of the list (UTF-8; a target that is not can name no file here).
  std::filesystem::path filePath = os::nativePath(root_);
  try {
    filePath += std::filesystem::u8path(path);
  } catch (const std::exception&) {
    return refuse("404 Not Found");
  }
  std::error_code error;
  const bool regular = std::filesystem::is_regular_file(filePath, error);
  const auto size = regular ? std::filesystem::file_size(filePath, error) : 0;
  std::ifstream file;
  if (regular && !error) file.open(filePath, std::ios::binary);
  if (!file.is_open()) return refuse("404 Not Found");
  const std::string reply =
      head("200 OK", contentType(path), static_cast<int64_t>(size));
  if (!sendAll(connection, reply.data(), reply.size(), false)) return;
  if (method == "HEAD") return;
  std::vector<char> chunk(kUnpacedChunk);
  for (;;) {
    file.read(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    const std::streamsize got = file.gcount();
    if (got <= 0) return;
    if (!sendAll(connection, chunk.data(), static_cast<std::size_t>(got),
                 bytesPerSecond_ > 0)) {
      return;
    }
  }
}

bool LoopbackServer::sendAll(os::Socket connection, const char* data,
                             std::size_t size, bool paced) {
  const std::size_t slice = paced
                                ? static_cast<std::size_t>(std::max<int64_t>(
                                      1, bytesPerSecond_ * kPaceTickMs / 1000))
                                : size;
  while (size > 0) {
    if (paced) {
      // One slice per tick; the wait doubles as the look at the stop flag.
      if (stopping_) return false;
      std::this_thread::sleep_for(std::chrono::milliseconds(kPaceTickMs));
    }
    std::size_t toSend = std::min(size, slice);
    while (toSend > 0) {
      if (!waitFor(connection, true, kRequestTimeoutMs)) return false;
      const long sent = os::sendSome(connection, data, toSend);
      if (sent <= 0) return false;
      data += sent;
      size -= static_cast<std::size_t>(sent);
      toSend -= static_cast<std::size_t>(sent);
    }
  }
  return true;
}
