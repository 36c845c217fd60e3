#include "support/TestServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace zrxtest {

namespace {

// A CA and a certificate for 127.0.0.1 signed by it, in `dir`.
void makeTlsMaterial(const TempDir& dir) {
  const std::string key =
      " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  writeFile(dir / "server.ext", "subjectAltName = IP:127.0.0.1\n");
  const std::string script =
      "(cd " + shellQuote(dir.path()) + " && openssl req -x509 -days 30" + key +
      " -subj '/CN=zrx test CA' -keyout ca.key -out ca.crt && openssl req "
      "-new" +
      key +
      " -subj /CN=127.0.0.1 -keyout server.key -out server.csr"
      " && openssl x509 -req -days 30 -in server.csr -CA ca.crt -CAkey ca.key"
      " -CAcreateserial -extfile server.ext -out server.crt) >" +
      shellQuote(dir / "openssl.log") + " 2>&1";
  if (run(script) != 0) {
    throw std::runtime_error("openssl failed: " +
                             readFile(dir / "openssl.log"));
  }
}

int countLines(const std::string& log, const std::string& wanted,
               bool allButConnections = false) {
  std::istringstream in(readFile(log));
  int n = 0;
  for (std::string line; std::getline(in, line);) {
    n += allButConnections ? line != "+" : line == wanted;
  }
  return n;
}

}  // namespace

TestServer::TestServer(const std::string& root, bool tls) : tls_(tls) {
  if (tls) makeTlsMaterial(dir_);
  std::string command =
      "exec python3 -I -S -B " +
      shellQuote(std::string(ZRX_TEST_SUPPORT_DIR) + "/sticker_server.py") +
      " " + shellQuote(root) + " " + shellQuote(dir_ / "requests.log");
  if (tls) {
    command += " " + shellQuote(dir_ / "server.crt") + " " +
               shellQuote(dir_ / "server.key");
  }
  out_ = ::popen(command.c_str(), "re");
  if (out_ == nullptr || std::fscanf(out_, "PORT %d %d", &port_, &pid_) != 2) {
    if (out_ != nullptr) ::pclose(out_);
    throw std::runtime_error("the test server did not start");
  }
}

TestServer::~TestServer() {
  ::kill(pid_, SIGTERM);
  ::pclose(out_);
}

std::string TestServer::url(const std::string& target) const {
  return std::string(tls_ ? "https" : "http") +
         "://127.0.0.1:" + std::to_string(port_) + target;
}

int TestServer::requestCount(const std::string& target) const {
  return countLines(dir_ / "requests.log", target);
}

int TestServer::totalRequests() const {
  return countLines(dir_ / "requests.log", "", true);
}

int TestServer::connectionCount() const {
  return countLines(dir_ / "requests.log", "+");
}

int TestServer::closedPort() {
  const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  const bool ok =
      sock >= 0 &&
      ::bind(sock, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
      ::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(sock);
  if (!ok) throw std::runtime_error("no free loopback port");
  return ntohs(address.sin_port);
}

CaBundleInstall::CaBundleInstall(const std::string& caCert)
    : dir_(executableDir() + "/cacerts"),
      lockFd_(::open((executableDir() + "/.cacerts.lock").c_str(),
                     O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
  while (::flock(lockFd_, LOCK_EX) != 0 && errno == EINTR) {
  }
  // Under the lock, a bundle found here was left by a process that died.
  ::unlink((dir_ + "/ca-certificates.crt").c_str());
  if (!caCert.empty()) {
    ::mkdir(dir_.c_str(), 0755);
    writeFile(dir_ + "/ca-certificates.crt", readFile(caCert));
  }
}

CaBundleInstall::~CaBundleInstall() {
  ::unlink((dir_ + "/ca-certificates.crt").c_str());
  ::rmdir(dir_.c_str());
  ::close(lockFd_);
}

}  // namespace zrxtest
