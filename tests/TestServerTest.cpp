// The loopback server the transfer tests stand on: each route behaves as
// its name says when a real libcurl client asks, the counters are exact,
// HTTPS trusts only its own CA, and nothing outlives the test.
#include <curl/curl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <string>

#include "support/TestServer.h"
#include "support/TestSupport.h"

namespace zrxtest {
namespace {

const bool curlReady = curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK;

struct Fetched {
  CURLcode code = CURLE_OK;
  long status = 0;
  std::string body;
  std::string headers;
  curl_off_t contentLength = -1;
  long redirects = 0;
};

size_t append(char* data, size_t size, size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

Fetched fetch(const std::string& url, const std::string& caCert = "",
              long timeoutMs = 20000) {
  Fetched out;
  CURL* curl = curl_easy_init();
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
  curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS, timeoutMs);
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &out.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, append);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &out.headers);
  if (!caCert.empty()) curl_easy_setopt(curl, CURLOPT_CAINFO, caCert.c_str());
  out.code = curl_easy_perform(curl);
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &out.status);
  curl_easy_getinfo(curl, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T,
                    &out.contentLength);
  curl_easy_getinfo(curl, CURLINFO_REDIRECT_COUNT, &out.redirects);
  curl_easy_cleanup(curl);
  return out;
}

// Bytes that differ along the file, so a cut or a shift shows.
std::string pattern(std::size_t size) {
  std::string out(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    out[i] = static_cast<char>((i * 31 + i / 251) & 0xff);
  }
  return out;
}

class TestServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(curlReady);
    writeFile(root / "big.bin", big);
    writeFile(root / "small.txt", "0123456789abcdefghij");  // 20 bytes
  }
  TempDir root;
  const std::string big = pattern(300 * 1000);
};

TEST_F(TestServerTest, RoutesServeTheFileInEachFraming) {
  TestServer server(root.path());

  const Fetched plain = fetch(server.url("/files/big.bin"));
  EXPECT_EQ(CURLE_OK, plain.code);
  EXPECT_EQ(200, plain.status);
  EXPECT_EQ(static_cast<curl_off_t>(big.size()), plain.contentLength);
  EXPECT_TRUE(plain.body == big);

  const Fetched chunked = fetch(server.url("/chunked/big.bin"));
  EXPECT_EQ(CURLE_OK, chunked.code);
  EXPECT_EQ(-1, chunked.contentLength);
  EXPECT_NE(std::string::npos,
            chunked.headers.find("Transfer-Encoding: chunked"));
  EXPECT_TRUE(chunked.body == big);

  const Fetched redirected = fetch(server.url("/redirect/3/small.txt"));
  EXPECT_EQ(CURLE_OK, redirected.code);
  EXPECT_EQ(3, redirected.redirects);
  EXPECT_EQ("0123456789abcdefghij", redirected.body);

  const Fetched notFound = fetch(server.url("/status/404"));
  EXPECT_EQ(CURLE_OK, notFound.code);
  EXPECT_EQ(404, notFound.status);
  EXPECT_NE(std::string::npos, notFound.body.find("<html>"));
  EXPECT_EQ(404, fetch(server.url("/files/missing.bin")).status);
  EXPECT_EQ(404, fetch(server.url("/files/..%2F..%2Fetc%2Fpasswd")).status);

  EXPECT_EQ(CURLE_TOO_MANY_REDIRECTS, fetch(server.url("/loop")).code);
}

TEST_F(TestServerTest, FaultRoutesCutStallAndTrickle) {
  TestServer server(root.path());

  const Fetched dropped = fetch(server.url("/drop/big.bin"));
  EXPECT_EQ(CURLE_PARTIAL_FILE, dropped.code);
  EXPECT_EQ(static_cast<curl_off_t>(big.size()), dropped.contentLength);
  EXPECT_TRUE(dropped.body == big.substr(0, big.size() / 2));

  const Fetched stalled =
      fetch(server.url("/stall/small.txt?bytes=5"), "", 300);
  EXPECT_EQ(CURLE_OPERATION_TIMEDOUT, stalled.code);
  EXPECT_EQ("01234", stalled.body);

  const auto start = std::chrono::steady_clock::now();
  const Fetched slow = fetch(server.url("/slow/small.txt?bps=40"));
  const auto took = std::chrono::steady_clock::now() - start;
  EXPECT_EQ(CURLE_OK, slow.code);
  EXPECT_EQ("0123456789abcdefghij", slow.body);
  EXPECT_GE(took, std::chrono::milliseconds(400));  // 20 bytes at 40 B/s
}

TEST_F(TestServerTest, StopEndsAStalledConnectionPromptly) {
  TestServer server(root.path());
  const int sock = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(server.port()));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, ::connect(sock, reinterpret_cast<sockaddr*>(&address),
                         sizeof(address)));
  const std::string request =
      "GET /stall/small.txt HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
  ASSERT_EQ(static_cast<ssize_t>(request.size()),
            ::send(sock, request.data(), request.size(), 0));
  ASSERT_TRUE(
      waitUntil([&] { return server.requestCount("/stall/small.txt") == 1; }));

  const auto start = std::chrono::steady_clock::now();
  server.stop();
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));

  // The client sees the headers, half the body, then the end.
  std::string received;
  char buffer[1024];
  ssize_t n;
  while ((n = ::recv(sock, buffer, sizeof(buffer), 0)) > 0) {
    received.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(sock);
  EXPECT_NE(std::string::npos, received.find("Content-Length: 20\r\n"));
  EXPECT_EQ("0123456789", received.substr(received.find("\r\n\r\n") + 4));
}

TEST_F(TestServerTest, CountsEveryRequestByTargetUntilReset) {
  TestServer server(root.path());
  fetch(server.url("/files/small.txt"));
  fetch(server.url("/files/small.txt"));
  fetch(server.url("/slow/small.txt?bps=100000"));
  fetch(server.url("/redirect/1/small.txt"));

  EXPECT_EQ(2 + 1, server.requestCount("/files/small.txt"));  // + redirect's
  EXPECT_EQ(1, server.requestCount("/slow/small.txt?bps=100000"));
  EXPECT_EQ(0, server.requestCount("/slow/small.txt"));
  EXPECT_EQ(5, server.totalRequests());  // control requests never count
  EXPECT_GE(server.connectionCount(), 4);

  server.resetCounts();
  EXPECT_EQ(0, server.totalRequests());
  EXPECT_EQ(0, server.connectionCount());
  EXPECT_TRUE(server.requestCounts().empty());
}

TEST_F(TestServerTest, HttpsIsTrustedThroughItsOwnCaOnly) {
  TestServer trusted(root.path(), {true, {}});
  TestServer stranger(root.path(), {true, {}});
  ASSERT_EQ("https://127.0.0.1:" + std::to_string(trusted.port()) + "/x",
            trusted.url("/x"));
  const std::string ca = trusted.tlsMaterial().caCert;

  const Fetched ok = fetch(trusted.url("/files/big.bin"), ca);
  EXPECT_EQ(CURLE_OK, ok.code);
  EXPECT_TRUE(ok.body == big);
  EXPECT_EQ(CURLE_OK,
            fetch("https://localhost:" + std::to_string(trusted.port()) +
                      "/files/small.txt",
                  ca)
                .code);

  EXPECT_EQ(CURLE_PEER_FAILED_VERIFICATION,
            fetch(stranger.url("/files/small.txt"), ca).code);
  EXPECT_EQ(1, stranger.connectionCount());  // the handshake failed...
  EXPECT_EQ(0, stranger.totalRequests());    // ...so no request came
}

TEST_F(TestServerTest, CaBundleIsInstalledBesideTheExecutableAndRemoved) {
  TempDir certs;
  const TlsMaterial tls = TestServer::makeTlsMaterial(certs.path());
  const std::string dir = executableDir() + "/cacerts";
  const std::string lockFile = executableDir() + "/.cacerts.lock";
  const bool dirWasThere = isDirectory(dir);
  {
    CaBundleInstall bundle(tls.caCert);
    EXPECT_EQ(dir + "/ca-certificates.crt", bundle.path());
    EXPECT_EQ(readFile(tls.caCert), readFile(bundle.path()));
    // Other processes wait for the place; this one may not take it twice.
    EXPECT_EQ(1, run("flock -n " + shellQuote(lockFile) + " true"));
    EXPECT_THROW(CaBundleInstall::none(), std::runtime_error);
  }
  EXPECT_FALSE(fileExists(dir + "/ca-certificates.crt"));
  EXPECT_EQ(dirWasThere, isDirectory(dir));
  EXPECT_EQ(0, run("flock -n " + shellQuote(lockFile) + " true"));

  const CaBundleInstall none = CaBundleInstall::none();
  EXPECT_FALSE(fileExists(none.path()));
}

TEST_F(TestServerTest, ServerNeverOutlivesItsStdinAndReportsStartFailures) {
  // With stdin at end-of-file from the start it must leave by itself.
  EXPECT_EQ(
      0,
      run("timeout 20 python3 -I -S -B " +
          shellQuote(std::string(ZRX_TEST_SUPPORT_DIR) + "/sticker_server.py") +
          " --root " + shellQuote(root.path()) + " </dev/null >/dev/null"));

  TestServer::Options broken;
  broken.tls = true;
  broken.material = {root / "none.crt", root / "none.crt", root / "none.key"};
  EXPECT_THROW(TestServer(root.path(), broken), std::runtime_error);
  EXPECT_THROW(TestServer(root / "missing"), std::runtime_error);
}

}  // namespace
}  // namespace zrxtest
