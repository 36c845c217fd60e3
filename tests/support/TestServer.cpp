#include "support/TestServer.h"

#include <cstdio>
#include <filesystem>
#include <sstream>
#include <stdexcept>

namespace zrxtest {

namespace {

// A CA and a certificate for 127.0.0.1 and localhost signed by it, in
// `dir`.
void makeTlsMaterial(const TempDir& dir) {
  const std::string key =
      " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
  writeFile(dir / "server.ext", "subjectAltName = IP:127.0.0.1, DNS:localhost\n");
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
  process_ = std::make_unique<ShellProcess>(command);
  int pid = 0;
  if (std::sscanf(process_->firstLine().c_str(), "PORT %d %d", &port_,
                  &pid) != 2) {
    throw std::runtime_error("the test server did not start");
  }
}

TestServer::~TestServer() = default;

std::string TestServer::url(const std::string& target) const {
  return std::string(tls_ ? "https://" : "http://") +
         (tls_ ? kTlsHost : "127.0.0.1") + ":" + std::to_string(port_) +
         target;
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

int TestServer::closedPort() { return freeLoopbackPort(); }

CaBundleInstall::CaBundleInstall(const std::string& caCert)
    : dir_(executableDir() + "/cacerts"),
      lock_(executableDir() + "/.cacerts.lock") {
  std::error_code ignored;
  // Under the lock, a bundle found here was left by a process that died.
  std::filesystem::remove(dir_ + "/ca-certificates.crt", ignored);
  if (!caCert.empty()) {
    std::filesystem::create_directory(dir_, ignored);
    writeFile(dir_ + "/ca-certificates.crt", readFile(caCert));
  }
}

CaBundleInstall::~CaBundleInstall() {
  std::error_code ignored;
  std::filesystem::remove(dir_ + "/ca-certificates.crt", ignored);
  std::filesystem::remove(dir_, ignored);
}

}  // namespace zrxtest
