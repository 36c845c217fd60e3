// Faults of the disk, the network and the host, brought about for real
// against loopback servers: the library must end each sticker with one
// report, leave nothing cut behind that a later start would take for
// installed, and never hang its host. The faults that PipelineTest already
// covers (refused, dropped and stalled transfers, a full disk while
// fetching) are not repeated here.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "archive/ZipReader.h"
#include "support/RecordingListener.h"
#include "support/TestServer.h"
#include "support/TestSupport.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

using zrxtest::CaBundleInstall;
using zrxtest::LogCapture;
using zrxtest::RecordingListener;
using zrxtest::TempDir;
using zrxtest::TestServer;
using Clock = std::chrono::steady_clock;
using Kind = RecordingListener::Kind;

namespace {

// One element of a sticker list; a type of 2 leaves "unzip_type" out.
std::string sticker(const std::string& resId, const std::string& url,
                    const std::string& name, const std::string& ext = "",
                    int unzipType = 2) {
  std::string json = R"({"resId":")" + resId + R"(","url":")" + url +
                     R"(","name":")" + name + "\"";
  if (!ext.empty()) json += R"(,"ext":")" + ext + "\"";
  if (unzipType != 2) json += R"(,"unzip_type":)" + std::to_string(unzipType);
  return json + "}";
}

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator() & 0xFF);
  return bytes;
}

// The file at `path` holds exactly `content`; a failure names the file and
// the sizes instead of printing the bytes.
::testing::AssertionResult holds(const std::string& path,
                                 const std::string& content) {
  const std::string actual = zrxtest::readFile(path);
  if (actual == content) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << path << " holds " << actual.size() << " bytes, not the "
         << content.size() << " expected";
}

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

class FaultInjectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server = std::make_unique<TestServer>(served.path());
    manager = std::make_unique<ZRResourceDownloadManager>();
    manager->ZRX_set2DStickerDownloadPath(downloads.path());
    LogCapture::instance().clear();
  }
  void TearDown() override { manager.reset(); }

  void parse(const std::vector<std::string>& stickers,
             ZRX2DStickerDownloadListener* to = nullptr) {
    std::string json = "[";
    for (std::size_t i = 0; i < stickers.size(); ++i) {
      json += (i ? "," : "") + stickers[i];
    }
    int error = 0;
    list = manager->ZRX_parse2DStickerResource(json + "]", error,
                                               to ? to : &listener);
    ASSERT_NE(list, nullptr) << json;
  }
  ZRX2DStickerResItem* item(const std::string& resId) const {
    for (ZRX2DStickerResItem* i : list->items) {
      if (i->resId == resId) return i;
    }
    ADD_FAILURE() << "no item " << resId;
    return nullptr;
  }
  std::string stickerDir(const std::string& resId) const {
    const ZRX2DStickerResItem* i = item(resId);
    return i->dirName.empty() ? downloads.path()
                              : downloads.path() + "/" + i->dirName;
  }
  std::string filePath(const std::string& resId) const {
    return stickerDir(resId) + "/" + item(resId)->fileName;
  }
  // The one final call of `resId`.
  RecordingListener::Event finalOf(const std::string& resId,
                                   const RecordingListener& of) const {
    const auto finals = of.finalsFor(resId);
    EXPECT_EQ(finals.size(), 1u) << resId;
    return finals.empty() ? RecordingListener::Event{} : finals.back();
  }
  RecordingListener::Event finalOf(const std::string& resId) const {
    return finalOf(resId, listener);
  }
  // A zip archive of `files` (name -> content) made by Info-ZIP zip.
  void makeArchive(const std::string& name,
                   const std::map<std::string, std::string>& files) {
    const std::string src = served / (name + ".src");
    zrxtest::makeDirs(src);
    std::string names;
    for (const auto& file : files) {
      zrxtest::writeFile(src + "/" + file.first, file.second);
      names += " " + zrxtest::shellQuote(file.first);
    }
    ASSERT_EQ(zrxtest::run("cd " + zrxtest::shellQuote(src) + " && zip -q " +
                           zrxtest::shellQuote("../" + name) + names),
              0);
  }

  TempDir served;
  TempDir downloads;
  std::unique_ptr<TestServer> server;
  RecordingListener listener;
  std::unique_ptr<ZRResourceDownloadManager> manager;
  ZRX2DStickerResList* list = nullptr;
};

// The file size limit of the process (RLIMIT_FSIZE) while it lives, with
// SIGXFSZ ignored so a write past it fails with EFBIG instead. The server
// runs in a process of its own that keeps its own limit.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t bytes) {
    getrlimit(RLIMIT_FSIZE, &old_);
    oldHandler_ = signal(SIGXFSZ, SIG_IGN);
    rlimit limited = old_;
    limited.rlim_cur = bytes;
    ok_ = setrlimit(RLIMIT_FSIZE, &limited) == 0;
  }
  ~FileSizeLimit() {
    setrlimit(RLIMIT_FSIZE, &old_);
    signal(SIGXFSZ, oldHandler_);
  }
  bool ok() const { return ok_; }

 private:
  rlimit old_;
  void (*oldHandler_)(int);
  bool ok_;
};

TEST_F(FaultInjectionTest, DiskFullWhileUnpackingFailsTheStickerOnce) {
  // The archive is a few KiB and fits under the limit; its first entry
  // inflates to 2 MiB and does not.
  const std::string sparse(2 << 20, '\0');
  const std::string image = randomBytes(3000, 1);
  makeArchive("x.zip", {{"a.bin", sparse}, {"b.png", image}});
  ASSERT_LT(zrxtest::sizeOf(served / "x.zip"), 64 * 1024);
  parse({sticker("x", server->url("/files/x.zip"), "x", ".zip", 1)});
  bool finished;
  {
    FileSizeLimit limit(256 * 1024);
    ASSERT_TRUE(limit.ok());
    manager->ZRX_start2DStickerDownloadAllSticker();
    finished = listener.waitForFinals(1);
  }
  ASSERT_TRUE(finished);
  EXPECT_EQ(finalOf("x").code, -10004);
  EXPECT_EQ(item("x")->downloadState, -1);
  // The archive goes; the entry cut at the limit stays, and must not let
  // the next start take the sticker for installed.
  ASSERT_TRUE(zrxtest::waitUntil(
      [] { return LogCapture::instance().contains("] unzip failed! ("); }));
  EXPECT_FALSE(zrxtest::fileExists(filePath("x")));
  EXPECT_EQ(zrxtest::sizeOf(stickerDir("x") + "/a.bin"), 256 * 1024);

  listener.clear();
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(1));
  EXPECT_EQ(finalOf("x").kind, Kind::kSuccess);
  EXPECT_NE(finalOf("x").thread, std::this_thread::get_id());
  EXPECT_TRUE(holds(stickerDir("x") + "/a.bin", sparse));
  EXPECT_TRUE(holds(stickerDir("x") + "/b.png", image));
}

// A trickle of one byte a second and a redirect loop never end by
// themselves: a time limit ends them with -10006 within a pass of it, and
// without a limit a stop ends them at once, quietly.
TEST_F(FaultInjectionTest, EndlessTransfersEndAtTheTimeLimitOrAtAStop) {
  zrxtest::writeFile(served / "t.bin", randomBytes(5000, 2));
  for (const std::string& route :
       std::vector<std::string>{"/slow/t.bin?bps=1", "/loop"}) {
    SCOPED_TRACE(route);
    listener.clear();
    server->resetCounts();
    // The query tells the two apart at the server; /loop drops it on the
    // first redirect.
    const std::string sep = route.find('?') == std::string::npos ? "?" : "&";
    parse({sticker("limited", server->url(route + sep + "n=1"), "l.bin"),
           sticker("endless", server->url(route + sep + "n=2"), "e.bin")});
    manager->ZRX_start2DStickerDownloadAllSticker();
    // The same sticker again, now with a limit of 2 s, ahead of the other.
    const auto limited = Clock::now();
    manager->ZRX_start2DStickerDownloadSticker("limited", &listener, 2);
    ASSERT_TRUE(listener.waitForFinals(1));
    const double took = seconds(Clock::now() - limited);
    EXPECT_EQ(finalOf("limited").code, -10006);
    EXPECT_GE(took, 2.0);
    EXPECT_LT(took, 10.0);

    // The other one runs without a limit until it is stopped.
    ASSERT_TRUE(zrxtest::waitUntil(
        [&] { return server->requestCount(route + sep + "n=2") > 0; }));
    const auto stop = Clock::now();
    manager->ZRX_stop2DStickerDownloadSticker();
    EXPECT_LT(seconds(Clock::now() - stop), 5.0);
    EXPECT_TRUE(listener.finalsFor("endless").empty());
    EXPECT_EQ(item("endless")->downloadState, 0);
    EXPECT_FALSE(zrxtest::fileExists(filePath("limited")));
    EXPECT_FALSE(zrxtest::fileExists(filePath("endless")));
  }
}

// The handshake fails against a certificate that does not chain to the
// installed bundle and against a server that doesn't speak TLS at all; a
// name under .invalid never resolves. Each ends its sticker with libcurl's
// code, promptly and once.
TEST_F(FaultInjectionTest, HandshakeAndNameFailuresEndTheStickerWithCurlCode) {
  zrxtest::writeFile(served / "t.bin", randomBytes(3000, 3));
  TestServer::Options options;
  options.tls = true;
  TestServer secure(served.path(), options);
  TempDir otherCa;
  const zrxtest::TlsMaterial foreign =
      TestServer::makeTlsMaterial(otherCa.path());
  const std::string plainPort = std::to_string(server->port());
  parse({sticker("untrusted", secure.url("/files/t.bin"), "u.bin"),
         sticker("nottls", "https://127.0.0.1:" + plainPort + "/files/t.bin",
                 "n.bin"),
         sticker("noname", "http://sticker.invalid/t.bin", "x.bin")});
  {
    CaBundleInstall bundle(foreign.caCert);
    manager->ZRX_start2DStickerDownloadAllSticker();
    ASSERT_TRUE(listener.waitForFinals(3));
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  EXPECT_EQ(finalOf("untrusted").code, -100060);  // peer failed verification
  EXPECT_LT(finalOf("nottls").code, -100000);
  EXPECT_NE(finalOf("nottls").code, -100007);  // it did connect
  EXPECT_EQ(finalOf("noname").code, -100006);  // couldn't resolve host
  EXPECT_GE(secure.connectionCount(), 1);
  EXPECT_EQ(secure.totalRequests(), 0);
  EXPECT_EQ(zrxtest::listTree(downloads.path()), std::vector<std::string>{});
}

// Descriptors that a host holds open on /dev/null, closed again with the
// object.
class OpenDescriptors {
 public:
  explicit OpenDescriptors(int above) {
    while (fds_.empty() || fds_.back() < above) {
      const int fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
      if (fd < 0) break;
      fds_.push_back(fd);
    }
  }
  ~OpenDescriptors() {
    for (int fd : fds_) ::close(fd);
  }
  int highest() const { return fds_.empty() ? -1 : fds_.back(); }

 private:
  std::vector<int> fds_;
};

// With more descriptors open than a select set holds, libcurl can't put its
// socket in a set; the transfer loop then drives it by pauses, and every
// sticker still arrives whole.
TEST_F(FaultInjectionTest, TransfersCompleteWithMoreThan1100DescriptorsOpen) {
  rlimit old;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  if (old.rlim_max != RLIM_INFINITY && old.rlim_max < 1300) {
    GTEST_SKIP() << "hard limit of descriptors " << old.rlim_max;
  }
  rlimit raised = old;
  raised.rlim_cur = old.rlim_max == RLIM_INFINITY
                        ? 4096
                        : std::max<rlim_t>(old.rlim_cur, 1300);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);

  const std::string plain = randomBytes(300000, 4);
  const std::string image = randomBytes(100000, 5);
  zrxtest::writeFile(served / "p.bin", plain);
  makeArchive("a.zip", {{"i.png", image}, {"info.txt", "info"}});
  parse({sticker("p", server->url("/files/p.bin"), "p.bin"),
         sticker("c", server->url("/chunked/p.bin"), "c.bin"),
         sticker("a", server->url("/files/a.zip"), "a", ".zip", 0)});
  {
    OpenDescriptors held(1100);
    ASSERT_GE(held.highest(), 1100);
    ASSERT_GT(held.highest(), FD_SETSIZE);
    manager->ZRX_start2DStickerDownloadAllSticker();
    ASSERT_TRUE(listener.waitForFinals(3, std::chrono::seconds(120)));
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  setrlimit(RLIMIT_NOFILE, &old);
  for (const char* resId : {"p", "c", "a"}) {
    EXPECT_EQ(finalOf(resId).kind, Kind::kSuccess) << resId;
  }
  EXPECT_TRUE(holds(filePath("p"), plain));
  EXPECT_TRUE(holds(filePath("c"), plain));
  EXPECT_TRUE(holds(stickerDir("a") + "/i.png", image));
  EXPECT_FALSE(LogCapture::instance().contains("] curl select error!"));
}

// A listener that takes its time in every call, and can hold one progress
// call until a stop has been asked for.
class SlowListener : public RecordingListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    if (afterStop) ++lateCalls;
    if (holdForStop.exchange(false)) {
      held = true;
      zrxtest::waitUntil([] { return gUnzipStopFlag.load(); });
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      heldCallReturned = true;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    RecordingListener::onDownloadProgress(item);
  }
  void onDownloadSuccess(std::string resId) override {
    if (afterStop) ++lateCalls;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    RecordingListener::onDownloadSuccess(resId);
  }
  void onDownloadFailed(std::string resId, int errorCode) override {
    if (afterStop) ++lateCalls;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    RecordingListener::onDownloadFailed(resId, errorCode);
  }

  std::atomic<bool> holdForStop{false};
  std::atomic<bool> held{false};
  std::atomic<bool> heldCallReturned{false};
  std::atomic<bool> afterStop{false};
  std::atomic<int> lateCalls{0};
};

TEST_F(FaultInjectionTest, SlowListenerGetsEverythingAndAStopWaitsForItsCall) {
  SlowListener slow;
  const std::string plain = randomBytes(400000, 6);
  const std::string image = randomBytes(200000, 7);
  zrxtest::writeFile(served / "p.bin", plain);
  makeArchive("a.zip", {{"i.png", image}});
  parse({sticker("p", server->url("/files/p.bin"), "p.bin"),
         sticker("a0", server->url("/files/a.zip"), "a0", ".zip", 0),
         sticker("a3", server->url("/slow/a.zip?bps=400000"), "a3", ".zip", 3)},
        &slow);
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(slow.waitForFinals(3, std::chrono::seconds(120)));
  for (const char* resId : {"p", "a0", "a3"}) {
    EXPECT_EQ(finalOf(resId, slow).kind, Kind::kSuccess) << resId;
  }
  EXPECT_FALSE(slow.progressFor("p").empty());
  EXPECT_TRUE(holds(filePath("p"), plain));
  EXPECT_TRUE(holds(stickerDir("a0") + "/i.png", image));
  EXPECT_TRUE(holds(downloads / "a3/i.png", image));

  // A stop asked for while a progress call runs returns after that call,
  // and no call follows it.
  zrxtest::writeFile(served / "big.bin", randomBytes(1 << 20, 8));
  slow.clear();
  parse({sticker("s", server->url("/stall/big.bin"), "s.bin")}, &slow);
  slow.holdForStop = true;
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(zrxtest::waitUntil([&] { return slow.held.load(); }));
  manager->ZRX_stop2DStickerDownloadSticker();
  EXPECT_TRUE(slow.heldCallReturned);
  slow.afterStop = true;
  EXPECT_TRUE(slow.finals().empty());
  EXPECT_FALSE(zrxtest::fileExists(filePath("s")));
  manager.reset();  // joins nothing more; the list goes
  EXPECT_EQ(slow.lateCalls, 0);
}

}  // namespace
