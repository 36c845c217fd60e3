// Faults of the disk, the network and the host, made for real against
// loopback servers: each sticker ends with one report, nothing cut is left
// that a later start would take for installed, and the host never hangs.
#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>
#endif

#include <atomic>
#include <chrono>
#include <filesystem>
#include <thread>

#include "archive/ZipReader.h"
#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

using FaultInjectionTest = StickerFixture;

// A full disk, made by the process's file size limit with SIGXFSZ ignored
// (a write past it fails with EFBIG). The server process keeps its own
// limit. The archive fits under the limit, its first entry does not.
TEST_F(FaultInjectionTest, DiskFullWhileFetchingOrUnpackingFailsOnce) {
#ifdef _WIN32
  GTEST_SKIP() << "POSIX only: the full disk is made with RLIMIT_FSIZE, "
                  "which Windows lacks";
#else
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
#endif
}

// The bundle beside the executable is trusted for https:// in either case;
// a mixed-case scheme gets libcurl's own store, which lacks the test CA, as
// does the bundle for another CA's server; without a bundle nothing verifies.
TEST_F(FaultInjectionTest, TheCaBundleIsTrustedForHttpsInEitherCaseOnly) {
  writeFile(served / "t.bin", randomBytes(3000, 4));
  TestServer secure(served.path(), true);
  TestServer foreign(served.path(), true);
  const std::string path = secure.url("/files/t.bin").substr(8);
  parse({sticker("lower", "https://" + path, "lower.bin"),
         sticker("upper", "HTTPS://" + path, "upper.bin"),
         sticker("mixed", "Https://" + path, "mixed.bin"),
         sticker("untrusted", foreign.url("/files/t.bin"), "u.bin")});
  {
    CaBundleInstall bundle(secure.caCert());
    manager->ZRX_start2DStickerDownloadAllSticker();
    ASSERT_TRUE(listener.waitForFinals(4));
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  EXPECT_TRUE(holds(filePath("lower"), readFile(served / "t.bin")));
  EXPECT_EQ(finalOf("upper").kind, Kind::kSuccess);
  // Wine's Schannel, with no CA file named, accepts any server: a refusal
  // by the system store can't be observed there.
  if (!runningUnderWine()) {
    EXPECT_LT(finalOf("mixed").code, -100000);
  }
  EXPECT_EQ(finalOf("untrusted").code, -100060);
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

// A file where an archive sticker's directory belongs: the extraction into
// it fails (-10004) and the archive goes. The file is left as it is, and
// every start fails the same way until the host clears the place.
TEST_F(FaultInjectionTest, AFileInADirectorysPlaceFailsEveryStartTillCleared) {
  const std::string image = randomBytes(5000, 12);
  makeArchive("a.zip", {{"i.png", image}});
  parse({sticker("three", server->url("/files/a.zip"), "three", ".zip", 3)});
  writeFile(downloads / "three", "in the way");
  for (int start = 0; start < 2; ++start) {
    listener.clear();
    manager->ZRX_start2DStickerDownloadAllSticker();
    ASSERT_TRUE(listener.waitForFinals(1));
    manager->ZRX_stop2DStickerDownloadSticker();
    EXPECT_EQ(finalOf("three").code, -10004);
    EXPECT_EQ(listTree(downloads.path()), std::vector<std::string>{"three"});
    EXPECT_TRUE(holds(downloads / "three", "in the way"));
  }

  std::filesystem::remove(downloads / "three");
  listener.clear();
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(1));
  EXPECT_TRUE(holds(downloads / "three/i.png", image));
}

// Beyond FD_SETSIZE libcurl can't put its socket in a select set; the
// transfer loop then drives it by pauses and every sticker arrives whole.
TEST_F(FaultInjectionTest, TransfersCompleteWithMoreThan1100DescriptorsOpen) {
#ifdef _WIN32
  GTEST_SKIP() << "POSIX only: a select set on Windows holds a socket "
                  "whatever its value, so none falls outside one";
#else
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
#endif
}

// A listener that can hold one progress call until a stop has been asked
// for, and counts the calls that come after the stop returned.
class SlowListener : public RecordingListener {
 public:
  SlowListener() {
    onFinal = [this](const std::string&) { if (afterStop) ++lateCalls; };
  }
  void onDownloadProgress(ZRX2DStickerResItem* item) override {
    if (afterStop) ++lateCalls;
    if (holdForStop.exchange(false)) {
      held = true;
      waitUntil([] { return gUnzipStopFlag.load(); });
      std::this_thread::sleep_for(std::chrono::milliseconds(300));
      heldCallReturned = true;
    }
    RecordingListener::onDownloadProgress(item);
  }

  std::atomic<bool> holdForStop{false}, held{false}, heldCallReturned{false};
  std::atomic<bool> afterStop{false};
  std::atomic<int> lateCalls{0};
};

// A stalled transfer: a stop asked for while a progress call runs returns
// after that call, and no call follows it; the partial file goes.
TEST_F(FaultInjectionTest, AStopWaitsForTheListenersCallAndNoneFollows) {
  SlowListener slow;
  writeFile(served / "big.bin", randomBytes(1 << 20, 9));
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
