#include "support/TestServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <vector>

#include "rapidjson/document.h"

extern char** environ;

namespace zrxtest {

namespace {

using Clock = std::chrono::steady_clock;

const std::chrono::seconds kStartDeadline(30);
const std::chrono::seconds kExitDeadline(10);
const std::chrono::seconds kControlDeadline(10);
const std::chrono::seconds kBundleLockDeadline(240);

std::runtime_error failure(const std::string& what) {
  return std::runtime_error("TestServer: " + what);
}

std::string errnoText(const std::string& call) {
  return call + ": " + std::strerror(errno);
}

// Closes a descriptor when it goes out of scope.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  int get() const { return fd_; }
  int release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
  }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

 private:
  int fd_;
};

// Moves `fd` above the standard descriptors (a pipe may get 0 or 1 when the
// test process has them closed, and dup2 onto itself would keep
// close-on-exec set); the result is close-on-exec.
int aboveStdio(int fd) {
  if (fd > 2) return fd;
  const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
  ::close(fd);
  if (moved < 0) throw failure(errnoText("fcntl"));
  return moved;
}

void makePipe(Fd& readEnd, Fd& writeEnd) {
  int fds[2];
  if (::pipe2(fds, O_CLOEXEC) != 0) throw failure(errnoText("pipe2"));
  readEnd.reset(aboveStdio(fds[0]));
  writeEnd.reset(aboveStdio(fds[1]));
}

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
      deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

// Waits until `fd` is ready for `events` or the deadline passes. poll, not
// select: the tests run with more than FD_SETSIZE descriptors open.
bool pollFor(int fd, short events, Clock::time_point deadline) {
  for (;;) {
    pollfd entry{fd, events, 0};
    const int n = ::poll(&entry, 1, remainingMs(deadline));
    if (n > 0) return true;
    if (n == 0) return false;
    if (errno != EINTR) throw failure(errnoText("poll"));
  }
}

// Reads lines from the server's stdout until both ports are known.
void readPorts(int fd, int& port, int& controlPort) {
  const auto deadline = Clock::now() + kStartDeadline;
  std::string text;
  while (port == 0 || controlPort == 0) {
    std::size_t end;
    while ((end = text.find('\n')) != std::string::npos) {
      const std::string line = text.substr(0, end);
      text.erase(0, end + 1);
      std::sscanf(line.c_str(), "PORT %d", &port);
      std::sscanf(line.c_str(), "CONTROL %d", &controlPort);
    }
    if (port != 0 && controlPort != 0) break;
    if (!pollFor(fd, POLLIN, deadline)) {
      throw failure("no port reported within " +
                    std::to_string(kStartDeadline.count()) + " s");
    }
    char buffer[256];
    const ssize_t n = ::read(fd, buffer, sizeof(buffer));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw failure("server exited before reporting its port");
    text.append(buffer, static_cast<std::size_t>(n));
  }
}

// Waits for `pid` until the deadline; true when it was reaped.
bool reapBefore(pid_t pid, Clock::time_point deadline) {
  for (;;) {
    int status = 0;
    const pid_t r = ::waitpid(pid, &status, WNOHANG);
    if (r == pid || (r < 0 && errno != EINTR)) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

// Ends the child `pid`: SIGTERM, then SIGKILL when it lingers.
void endChild(pid_t pid) {
  ::kill(pid, SIGTERM);
  if (reapBefore(pid, Clock::now() + kExitDeadline)) return;
  ::kill(pid, SIGKILL);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
}

// One GET over a fresh loopback connection; returns the body of a 200.
std::string httpGet(int port, const std::string& target) {
  Fd sock(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (sock.get() < 0) throw failure(errnoText("socket"));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  while (::connect(sock.get(), reinterpret_cast<sockaddr*>(&address),
                   sizeof(address)) != 0) {
    if (errno != EINTR) throw failure(errnoText("connect to control port"));
  }
  const auto deadline = Clock::now() + kControlDeadline;
  const std::string request = "GET " + target +
                              " HTTP/1.1\r\nHost: 127.0.0.1\r\n"
                              "Connection: close\r\n\r\n";
  std::size_t sent = 0;
  while (sent < request.size()) {
    const ssize_t n = ::send(sock.get(), request.data() + sent,
                             request.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) throw failure(errnoText("send to control port"));
    sent += static_cast<std::size_t>(n);
  }
  std::string response;
  for (;;) {
    if (!pollFor(sock.get(), POLLIN, deadline)) {
      throw failure("control request " + target + " timed out");
    }
    char buffer[4096];
    const ssize_t n = ::recv(sock.get(), buffer, sizeof(buffer), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) throw failure(errnoText("recv from control port"));
    if (n == 0) break;
    response.append(buffer, static_cast<std::size_t>(n));
  }
  const std::size_t bodyStart = response.find("\r\n\r\n");
  if (response.compare(0, 13, "HTTP/1.1 200 ") != 0 ||
      bodyStart == std::string::npos) {
    throw failure("bad control response to " + target + ": " +
                  response.substr(0, response.find('\r')));
  }
  return response.substr(bodyStart + 4);
}

}  // namespace

TestServer::TestServer(const std::string& root, Options options)
    : tls_(options.tls), material_(std::move(options.material)) {
  if (tls_ && (material_.serverCert.empty() || material_.serverKey.empty())) {
    materialDir_.reset(new TempDir());
    material_ = makeTlsMaterial(materialDir_->path());
  }
  try {
    start(root);
  } catch (...) {
    stop();
    throw;
  }
}

TestServer::~TestServer() { stop(); }

void TestServer::start(const std::string& root) {
  Fd childStdin, toServer, fromServer, childStdout;
  makePipe(childStdin, toServer);
  makePipe(fromServer, childStdout);

  // -I -S: the standard library only, whatever the environment holds.
  std::vector<std::string> args = {
      "python3",
      "-I",
      "-S",
      "-B",
      std::string(ZRX_TEST_SUPPORT_DIR) + "/sticker_server.py",
      "--root",
      root};
  if (tls_) {
    args.insert(args.end(),
                {"--tls", material_.serverCert, material_.serverKey});
  }
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, childStdin.get(), 0);
  posix_spawn_file_actions_adddup2(&actions, childStdout.get(), 1);
#if defined(__GLIBC__) && (__GLIBC__ > 2 || __GLIBC_MINOR__ >= 34)
  // Nothing else of the test process goes to the server: an inherited
  // client socket would keep a connection open after the client closed it.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
#endif
  // Whatever the test did to its signals, the server gets the defaults.
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none, defaults;
  sigemptyset(&none);
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGTERM);
  sigaddset(&defaults, SIGINT);
  sigaddset(&defaults, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

  pid_t pid = -1;
  const int error = ::posix_spawnp(&pid, "python3", &actions, &attributes,
                                   argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attributes);
  if (error != 0) {
    throw failure(std::string("cannot start python3: ") + std::strerror(error));
  }
  pid_ = pid;
  stdinFd_ = toServer.release();
  stdoutFd_ = fromServer.release();
  childStdin.reset();
  childStdout.reset();  // so a server that dies gives end-of-file
  readPorts(stdoutFd_, port_, controlPort_);
}

void TestServer::stop() {
  if (stdinFd_ >= 0) {
    ::close(stdinFd_);  // end-of-file alone stops it
    stdinFd_ = -1;
  }
  if (pid_ > 0) {
    endChild(pid_);
    pid_ = -1;
  }
  if (stdoutFd_ >= 0) {
    ::close(stdoutFd_);
    stdoutFd_ = -1;
  }
}

std::string TestServer::url(const std::string& pathAndQuery) const {
  std::string out = std::string(tls_ ? "https" : "http") +
                    "://127.0.0.1:" + std::to_string(port_);
  if (!pathAndQuery.empty() && pathAndQuery[0] != '/') out += '/';
  return out + pathAndQuery;
}

TestServer::Counts TestServer::fetchCounts() const {
  if (pid_ <= 0) throw failure("counts asked of a stopped server");
  const std::string body = httpGet(controlPort_, "/__requests");
  rapidjson::Document json;
  json.Parse(body.c_str());
  if (json.HasParseError() || !json.IsObject() ||
      !json.HasMember("connections") || !json["connections"].IsInt() ||
      !json.HasMember("requests") || !json["requests"].IsObject()) {
    throw failure("bad counts: " + body);
  }
  Counts counts;
  counts.connections = json["connections"].GetInt();
  for (const auto& entry : json["requests"].GetObject()) {
    counts.requests[entry.name.GetString()] = entry.value.GetInt();
  }
  return counts;
}

int TestServer::requestCount(const std::string& pathAndQuery) const {
  const auto counts = fetchCounts().requests;
  const auto it = counts.find(pathAndQuery);
  return it == counts.end() ? 0 : it->second;
}

int TestServer::totalRequests() const {
  int total = 0;
  for (const auto& entry : fetchCounts().requests) total += entry.second;
  return total;
}

std::map<std::string, int> TestServer::requestCounts() const {
  return fetchCounts().requests;
}

int TestServer::connectionCount() const { return fetchCounts().connections; }

void TestServer::resetCounts() {
  if (pid_ <= 0) throw failure("reset asked of a stopped server");
  httpGet(controlPort_, "/__reset");
}

TlsMaterial TestServer::makeTlsMaterial(const std::string& dir) {
  TlsMaterial out{dir + "/ca.crt", dir + "/server.crt", dir + "/server.key"};
  const std::string config = dir + "/openssl.cnf";
  writeFile(config,
            "[req]\n"
            "distinguished_name = dn\n"
            "prompt = no\n"
            "[dn]\n"
            "CN = zrx2dsticker test\n"
            "[v3_ca]\n"
            "basicConstraints = critical, CA:TRUE\n"
            "keyUsage = critical, keyCertSign, cRLSign\n"
            "subjectKeyIdentifier = hash\n"
            "[v3_server]\n"
            "basicConstraints = critical, CA:FALSE\n"
            "keyUsage = critical, digitalSignature, keyEncipherment\n"
            "extendedKeyUsage = serverAuth\n"
            "subjectAltName = IP:127.0.0.1, DNS:localhost\n"
            "subjectKeyIdentifier = hash\n"
            "authorityKeyIdentifier = keyid\n");
  const std::string newKey =
      " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -config " +
      shellQuote(config);
  const std::string caKey = dir + "/ca.key";
  const std::string request = dir + "/server.csr";
  const std::string steps[] = {
      "req -x509 -extensions v3_ca -days 30" + newKey +
          " -subj '/CN=zrx2dsticker test CA' -keyout " + shellQuote(caKey) +
          " -out " + shellQuote(out.caCert),
      "req -new" + newKey + " -subj '/CN=127.0.0.1' -keyout " +
          shellQuote(out.serverKey) + " -out " + shellQuote(request),
      "x509 -req -days 30 -CAcreateserial -in " + shellQuote(request) +
          " -CA " + shellQuote(out.caCert) + " -CAkey " + shellQuote(caKey) +
          " -extfile " + shellQuote(config) + " -extensions v3_server -out " +
          shellQuote(out.serverCert)};
  const std::string log = dir + "/openssl.log";
  for (const std::string& step : steps) {
    if (run("openssl " + step + " >" + shellQuote(log) + " 2>&1") != 0) {
      throw failure("openssl " + step + " failed: " + readFile(log));
    }
  }
  return out;
}

int TestServer::closedPort() {
  Fd sock(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  if (sock.get() < 0 ||
      ::bind(sock.get(), reinterpret_cast<sockaddr*>(&address),
             sizeof(address)) != 0 ||
      ::getsockname(sock.get(), reinterpret_cast<sockaddr*>(&address),
                    &length) != 0) {
    throw failure(errnoText("closedPort"));
  }
  return ntohs(address.sin_port);
}

namespace {
std::atomic<bool> bundleHeld(false);
}  // namespace

CaBundleInstall::CaBundleInstall(const std::string& caCert,
                                 const std::string& exeDir)
    : CaBundleInstall(&caCert, exeDir) {}

CaBundleInstall CaBundleInstall::none(const std::string& exeDir) {
  return CaBundleInstall(nullptr, exeDir);
}

CaBundleInstall::CaBundleInstall(const std::string* caCert,
                                 const std::string& exeDir)
    : dir_(exeDir + "/cacerts"), file_(dir_ + "/ca-certificates.crt") {
  if (bundleHeld.exchange(true)) {
    throw std::runtime_error(
        "CaBundleInstall: this process already holds the CA bundle");
  }
  try {
    Fd lock(::open((exeDir + "/.cacerts.lock").c_str(),
                   O_RDWR | O_CREAT | O_CLOEXEC, 0644));
    if (lock.get() < 0) throw failure(errnoText("open bundle lock"));
    const bool locked =
        waitUntil([&] { return ::flock(lock.get(), LOCK_EX | LOCK_NB) == 0; },
                  kBundleLockDeadline);
    if (!locked) throw failure("CA bundle lock still busy after 240 s");
    // Under the lock anything found here was left by a process that died.
    ::unlink(file_.c_str());
    if (caCert != nullptr) {
      if (::mkdir(dir_.c_str(), 0755) == 0) {
        madeDir_ = true;
      } else if (errno != EEXIST) {
        throw failure(errnoText("mkdir " + dir_));
      }
      const std::string content = readFile(*caCert);
      if (content.empty()) throw failure("empty CA certificate " + *caCert);
      writeFile(file_ + ".tmp", content);
      if (::rename((file_ + ".tmp").c_str(), file_.c_str()) != 0) {
        throw failure(errnoText("rename to " + file_));
      }
    }
    lockFd_ = lock.release();
  } catch (...) {
    if (madeDir_) ::rmdir(dir_.c_str());
    bundleHeld = false;
    throw;
  }
}

CaBundleInstall::~CaBundleInstall() {
  ::unlink(file_.c_str());
  if (madeDir_) ::rmdir(dir_.c_str());
  ::close(lockFd_);  // releases the lock
  bundleHeld = false;
}

}  // namespace zrxtest
