// A real HTTP or HTTPS server on 127.0.0.1 (sticker_server.py, whose header
// lists the routes) for the life of the object, and the CA bundle the
// library trusts beside the test executable.
#ifndef ZRX2DSTICKER_TESTS_SUPPORT_TESTSERVER_H_
#define ZRX2DSTICKER_TESTS_SUPPORT_TESTSERVER_H_

#include <memory>
#include <string>

#include "support/TestSupport.h"

namespace zrxtest {

class TestServer {
 public:
  // Serves the files below `root`. With `tls` it presents a certificate for
  // 127.0.0.1 and localhost signed by a fresh CA of its own (caCert).
  // Throws std::runtime_error when it cannot start.
  explicit TestServer(const std::string& root, bool tls = false);
  ~TestServer();
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  int port() const { return port_; }
  // "http://127.0.0.1:PORT" (or "https://" kTlsHost ":PORT") followed by
  // `target`.
  std::string url(const std::string& target) const;
  std::string caCert() const { return dir_ / "ca.crt"; }

  // Requests received so far under `target` (path and query as sent), all
  // requests, and connections accepted (also those whose handshake failed).
  int requestCount(const std::string& target) const;
  int totalRequests() const;
  int connectionCount() const;

  // A loopback port that nothing listens on.
  static int closedPort();

 private:
  TempDir dir_;
  bool tls_;
  std::unique_ptr<ShellProcess> process_;
  int port_ = 0;
};

// Puts `caCert` where the library looks for its bundle,
// "<exeDir>/cacerts/ca-certificates.crt", until destroyed; an empty
// `caCert` holds the place with no bundle in it. Test processes of one
// directory share the place, so each holds a lock on it meanwhile.
class CaBundleInstall {
 public:
  explicit CaBundleInstall(const std::string& caCert);
  ~CaBundleInstall();
  CaBundleInstall(const CaBundleInstall&) = delete;
  CaBundleInstall& operator=(const CaBundleInstall&) = delete;

 private:
  std::string dir_;
  FileLock lock_;
};

}  // namespace zrxtest

#endif  // ZRX2DSTICKER_TESTS_SUPPORT_TESTSERVER_H_
