// Faults of the disk, the network and the host, made for real against
// loopback servers: each sticker ends with one report, nothing cut is left
// that a later start would take for installed, and the host never hangs.
#include <curl/curl.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "archive/ZipReader.h"
#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

using Clock = std::chrono::steady_clock;
using FaultInjectionTest = StickerFixture;

double secondsSince(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// Whether libcurl's own CA store is on this machine: a minimal system comes
// without one, and libcurl then fails a handshake it can't verify with 77
// rather than 60. A libcurl that names no file uses the system's store.
bool curlHasItsOwnStore() {
  CURL* easy = curl_easy_init();
  char* file = nullptr;
  curl_easy_getinfo(easy, CURLINFO_CAINFO, &file);
  const bool present = file == nullptr || sizeOf(file) > 0;
  curl_easy_cleanup(easy);
  return present;
}

// A full disk, made by the process's file size limit with SIGXFSZ ignored
// (a write past it fails with EFBIG). The server process keeps its own
// limit. The archive fits under the limit, its first entry does not.
TEST_F(FaultInjectionTest, DiskFullWhileFetchingOrUnpackingFailsOnce) {
  const std::string plain = randomBytes(1 << 20, 1);
  const std::string sparse(2 << 20, '\0');
  const std::string image = randomBytes(3000, 2);
  writeFile(served / "w.bin", plain);
  makeArchive("x.zip", {{"a.bin", sparse}, {"b.png", image}});
  ASSERT_LT(sizeOf(served / "x.zip"), 64 * 1024);
  parse({sticker("w", server->url("/files/w.bin"), "w.bin"),
         sticker("x", server->url("/files/x.zip"), "x", ".zip", 1)});
  rlimit old;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  rlimit limited = old;
  limited.rlim_cur = 256 * 1024;
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  manager->ZRX_start2DStickerDownloadAllSticker();
  const bool finished = listener.waitForFinals(2);
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, oldHandler);
  ASSERT_TRUE(finished);
  EXPECT_EQ(finalOf("w").code, -100023);  // libcurl's write error
  EXPECT_EQ(finalOf("x").code, -10004);
  ASSERT_TRUE(waitForLog("] unzip failed! ("));
  EXPECT_FALSE(fileExists(filePath("w")));
  EXPECT_FALSE(fileExists(filePath("x")));
  // The entry cut at the limit stays; the next start must not take the
  // sticker for installed.
  EXPECT_EQ(sizeOf(stickerDir("x") + "/a.bin"), 256 * 1024);

  listener.clear();
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(2));
  EXPECT_EQ(finalOf("w").kind, Kind::kSuccess);
  EXPECT_EQ(finalOf("x").kind, Kind::kSuccess);
  EXPECT_NE(finalOf("x").thread, std::this_thread::get_id());
  EXPECT_TRUE(holds(filePath("w"), plain));
  EXPECT_TRUE(holds(stickerDir("x") + "/a.bin", sparse));
  EXPECT_TRUE(holds(stickerDir("x") + "/b.png", image));
}

// A trickle of a byte a second and a redirect loop never end by
// themselves: a time limit ends them with -10006, and without one a stop
// ends them at once, quietly.
TEST_F(FaultInjectionTest, EndlessTransfersEndAtTheTimeLimitOrAtAStop) {
  writeFile(served / "t.bin", randomBytes(5000, 3));
  for (const std::string route : {"/slow/t.bin?bps=1", "/loop"}) {
    SCOPED_TRACE(route);
    listener.clear();
    // The query tells the stickers (and routes) apart at the server; /loop
    // drops it on the first redirect.
    const std::string sep = route.find('?') == std::string::npos ? "?" : "&";
    parse({sticker("limited", server->url(route + sep + "n=1"), "l.bin"),
           sticker("endless", server->url(route + sep + "n=2"), "e.bin")});
    manager->ZRX_start2DStickerDownloadAllSticker();
    // The same sticker again, now with a limit of 2 s, ahead of the other.
    const auto limited = Clock::now();
    manager->ZRX_start2DStickerDownloadSticker("limited", &listener, 2);
    ASSERT_TRUE(listener.waitForFinals(1));
    EXPECT_EQ(finalOf("limited").code, -10006);
    EXPECT_GE(secondsSince(limited), 2.0);

    ASSERT_TRUE(waitUntil(
        [&] { return server->requestCount(route + sep + "n=2") > 0; }));
    const auto stop = Clock::now();
    manager->ZRX_stop2DStickerDownloadSticker();
    EXPECT_LT(secondsSince(stop), 20.0);
    EXPECT_TRUE(listener.finalsFor("endless").empty());
    EXPECT_EQ(item("endless")->downloadState, 0);
    EXPECT_FALSE(fileExists(filePath("limited")));
    EXPECT_FALSE(fileExists(filePath("endless")));
  }
}

// The bundle beside the executable is trusted for https:// in either case;
// a mixed-case scheme gets libcurl's own store. A certificate of another CA,
// a server without TLS, a name that never resolves and a missing bundle
// each end the sticker with libcurl's code.
TEST_F(FaultInjectionTest, TlsAndNameFailuresEndTheStickerWithCurlCode) {
  writeFile(served / "t.bin", randomBytes(3000, 4));
  TestServer secure(served.path(), true);
  TestServer foreign(served.path(), true);
  const std::string path = secure.url("/files/t.bin").substr(8);
  parse({sticker("lower", "https://" + path, "lower.bin"),
         sticker("upper", "HTTPS://" + path, "upper.bin"),
         sticker("mixed", "Https://" + path, "mixed.bin"),
         sticker("untrusted", foreign.url("/files/t.bin"), "u.bin"),
         sticker("nottls", server->url("/files/t.bin").replace(0, 4, "https"),
                 "n.bin"),
         sticker("noname", "http://sticker.invalid/t.bin", "x.bin")});
  {
    CaBundleInstall bundle(secure.caCert());
    manager->ZRX_start2DStickerDownloadAllSticker();
    ASSERT_TRUE(listener.waitForFinals(6));
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  EXPECT_TRUE(holds(filePath("lower"), readFile(served / "t.bin")));
  EXPECT_EQ(finalOf("upper").kind, Kind::kSuccess);
  // Neither store holds the test CA: the peer fails verification, or no
  // store loads at all.
  EXPECT_EQ(finalOf("mixed").code, curlHasItsOwnStore() ? -100060 : -100077);
  EXPECT_EQ(finalOf("untrusted").code, -100060);
  EXPECT_LT(finalOf("nottls").code, -100000);
  EXPECT_NE(finalOf("nottls").code, -100007);  // it did connect
  EXPECT_EQ(finalOf("noname").code, -100006);  // couldn't resolve host
  EXPECT_GE(foreign.connectionCount(), 1);
  EXPECT_EQ(foreign.totalRequests(), 0);

  // Without a bundle a fresh fetch (after the start that attaches the
  // list reported the sticker installed) can't verify the handshake.
  listener.clear();
  {
    CaBundleInstall none("");
    manager->ZRX_start2DStickerDownloadAllSticker();
    manager->ZRX_start2DStickerDownloadSticker("lower", &listener, 0);
    ASSERT_TRUE(
        waitUntil([&] { return listener.finalsFor("lower").size() == 2; }));
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  EXPECT_LT(listener.finalsFor("lower").back().code, -100000);
  EXPECT_FALSE(fileExists(filePath("lower")));
}

// Beyond FD_SETSIZE libcurl can't put its socket in a select set; the
// transfer loop then drives it by pauses and every sticker arrives whole.
TEST_F(FaultInjectionTest, TransfersCompleteWithMoreThan1100DescriptorsOpen) {
  rlimit old;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &old), 0);
  if (old.rlim_max != RLIM_INFINITY && old.rlim_max < 1300) {
    GTEST_SKIP() << "hard limit of descriptors " << old.rlim_max;
  }
  rlimit raised = old;
  raised.rlim_cur = std::max<rlim_t>(old.rlim_cur, 1300);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
  const std::string plain = randomBytes(300000, 5);
  const std::string image = randomBytes(100000, 6);
  writeFile(served / "p.bin", plain);
  makeArchive("a.zip", {{"i.png", image}});
  parse({sticker("p", server->url("/files/p.bin"), "p.bin"),
         sticker("a", server->url("/files/a.zip"), "a", ".zip", 0)});
  std::vector<int> held;
  while (held.empty() || held.back() < 1100) {
    held.push_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    ASSERT_GE(held.back(), 0);
  }
  manager->ZRX_start2DStickerDownloadAllSticker();
  const bool finished = listener.waitForFinals(2, std::chrono::seconds(120));
  manager->ZRX_stop2DStickerDownloadSticker();
  for (int fd : held) ::close(fd);
  setrlimit(RLIMIT_NOFILE, &old);
  ASSERT_TRUE(finished);
  EXPECT_TRUE(holds(filePath("p"), plain));
  EXPECT_TRUE(holds(stickerDir("a") + "/i.png", image));
}

// A listener that takes 50 ms in every call (final calls through onFinal),
// and can hold one progress call until a stop has been asked for.
class SlowListener : public RecordingListener {
 public:
  SlowListener() {
    onFinal = [this](const std::string&) { pause(); };
  }
  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    pause();
    if (holdForStop.exchange(false)) {
      held = true;
      waitUntil([] { return gUnzipStopFlag.load(); });
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      heldCallReturned = true;
    }
    RecordingListener::onDownloadProgress(item);
  }
  void pause() {
    if (afterStop) ++lateCalls;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }

  std::atomic<bool> holdForStop{false}, held{false}, heldCallReturned{false};
  std::atomic<bool> afterStop{false};
  std::atomic<int> lateCalls{0};
};

TEST_F(FaultInjectionTest, SlowListenerGetsEverythingAndAStopWaitsForItsCall) {
  SlowListener slow;
  const std::string plain = randomBytes(400000, 7);
  const std::string image = randomBytes(200000, 8);
  writeFile(served / "p.bin", plain);
  makeArchive("a.zip", {{"i.png", image}});
  parse({sticker("p", server->url("/files/p.bin"), "p.bin"),
         sticker("a", server->url("/slow/a.zip?bps=400000"), "a", ".zip", 3)},
        &slow);
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(slow.waitForFinals(2, std::chrono::seconds(120)));
  EXPECT_EQ(finalOf("p", slow).kind, Kind::kSuccess);
  EXPECT_EQ(finalOf("a", slow).kind, Kind::kSuccess);
  EXPECT_TRUE(holds(filePath("p"), plain));
  EXPECT_TRUE(holds(downloads / "a/i.png", image));

  // A stalled transfer: a stop asked for while a progress call runs returns
  // after that call, and no call follows it; the partial file goes.
  writeFile(served / "big.bin", randomBytes(1 << 20, 9));
  slow.clear();
  parse({sticker("s", server->url("/stall/big.bin"), "s.bin")}, &slow);
  slow.holdForStop = true;
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(waitUntil([&] { return slow.held.load(); }));
  manager->ZRX_stop2DStickerDownloadSticker();
  EXPECT_TRUE(slow.heldCallReturned);
  slow.afterStop = true;
  EXPECT_TRUE(slow.finals().empty());
  EXPECT_EQ(item("s")->downloadState, 0);
  EXPECT_FALSE(fileExists(filePath("s")));
  manager.reset();
  EXPECT_EQ(slow.lateCalls, 0);
}

}  // namespace
}  // namespace zrxtest
