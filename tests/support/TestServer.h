// Real HTTP and HTTPS servers on 127.0.0.1 for the tests: a fixture that
// runs sticker_server.py (see its header for the routes), TLS material made
// with openssl at test time, and the CA bundle beside the test executable.
#ifndef ZRX2DSTICKER_TESTS_SUPPORT_TESTSERVER_H_
#define ZRX2DSTICKER_TESTS_SUPPORT_TESTSERVER_H_

#include <sys/types.h>

#include <map>
#include <memory>
#include <string>

#include "support/TestSupport.h"

namespace zrxtest {

// PEM files: a throwaway certificate authority, and a certificate for
// 127.0.0.1 and localhost signed by it with its private key.
struct TlsMaterial {
  std::string caCert;
  std::string serverCert;
  std::string serverKey;
};

struct TestServerOptions {
  // Serve HTTPS instead of HTTP.
  bool tls = false;
  // What the HTTPS server presents. Left empty, the server makes its own,
  // under a fresh CA of its own (see TestServer::tlsMaterial).
  TlsMaterial material;
};

// A loopback server over the files below `root`, running from the
// constructor to the destructor (or stop). Routes, with NAME a path below
// root:
//   /files/NAME            the file with Content-Length
//   /chunked/NAME          chunked, no Content-Length
//   /status/CODE           that status, small HTML body
//   /redirect/N/NAME       N 302 redirects, then /files/NAME
//   /loop                  302 to itself, forever
//   /slow/NAME?bps=N       Content-Length, trickled at about N bytes/s
//   /stall/NAME?bytes=K    Content-Length, K bytes (default half), silence
//   /drop/NAME?bytes=K     Content-Length, K bytes (default half), closed
// Each request is counted under its target (path and query as sent).
// The server process ends with this object, and by itself when the test
// process dies (it watches its stdin).
class TestServer {
 public:
  using Options = TestServerOptions;

  // Starts the server and waits for its port; throws std::runtime_error
  // when it cannot start.
  explicit TestServer(const std::string& root, Options options = {});
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  int port() const { return port_; }
  bool tls() const { return tls_; }
  // "http://127.0.0.1:PORT" (or https) followed by `pathAndQuery`.
  std::string url(const std::string& pathAndQuery) const;
  // The certificate files in use; caCert is the one to trust.
  const TlsMaterial& tlsMaterial() const { return material_; }

  // Counters, read from the server (so they include every request it has
  // received so far). Throw std::runtime_error when it cannot be reached.
  int requestCount(const std::string& pathAndQuery) const;
  int totalRequests() const;
  std::map<std::string, int> requestCounts() const;
  // Connections accepted, also those whose TLS handshake failed.
  int connectionCount() const;
  void resetCounts();

  // Ends the server now, dropping open connections; the destructor does
  // the same. Safe to call twice.
  void stop();

  // Writes a fresh CA and a server certificate signed by it into `dir`
  // with openssl. Two calls in two directories give two CAs that do not
  // trust each other. Throws std::runtime_error when openssl fails.
  static TlsMaterial makeTlsMaterial(const std::string& dir);
  // A loopback port nothing listens on (just released by this process).
  static int closedPort();

 private:
  struct Counts {
    int connections = 0;
    std::map<std::string, int> requests;
  };
  Counts fetchCounts() const;
  void start(const std::string& root);

  bool tls_;
  TlsMaterial material_;
  std::unique_ptr<TempDir> materialDir_;
  pid_t pid_ = -1;
  int stdinFd_ = -1;
  int stdoutFd_ = -1;
  int port_ = 0;
  int controlPort_ = 0;
};

// Installs a CA certificate where the library looks for its bundle:
// "<exeDir>/cacerts/ca-certificates.crt", exeDir being the directory of the
// test executable by default. The destructor removes the file, and the
// cacerts directory when this object made it.
//
// The place is shared by every test process of an executable (ctest -j
// runs them side by side), so an install holds a lock file beside it for
// its whole life: other processes wait their turn. Tests that need the
// bundle absent hold the place the same way with `none()`. One holder per
// process at a time; a second one throws.
class CaBundleInstall {
 public:
  explicit CaBundleInstall(const std::string& caCert,
                           const std::string& exeDir = executableDir());
  // Holds the place with no bundle in it (an old one is removed).
  static CaBundleInstall none(const std::string& exeDir = executableDir());
  ~CaBundleInstall();
  CaBundleInstall(const CaBundleInstall&) = delete;
  CaBundleInstall& operator=(const CaBundleInstall&) = delete;

  // Where the bundle is (also for none()).
  const std::string& path() const { return file_; }

 private:
  CaBundleInstall(const std::string* caCert, const std::string& exeDir);

  std::string dir_;
  std::string file_;
  int lockFd_ = -1;
  bool madeDir_ = false;
};

}  // namespace zrxtest

#endif  // ZRX2DSTICKER_TESTS_SUPPORT_TESTSERVER_H_
