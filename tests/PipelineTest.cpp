// The whole road of a sticker, from the JSON list to files on disk, through
// the public API against real loopback HTTP and HTTPS servers.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <thread>

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
using Kind = RecordingListener::Kind;

namespace {

// One element of a sticker list; empty strings and a type of 0x7fff leave
// the key out.
std::string sticker(const std::string& resId, const std::string& url,
                    const std::string& name = "", const std::string& ext = "",
                    int unzipType = 0x7fff) {
  std::string json = R"({"resId":")" + resId + R"(","url":")" + url + "\"";
  if (!name.empty()) json += R"(,"name":")" + name + "\"";
  if (!ext.empty()) json += R"(,"ext":")" + ext + "\"";
  if (unzipType != 0x7fff) json += R"(,"unzip_type":)" + std::to_string(unzipType);
  return json + "}";
}

std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator() & 0xFF);
  return bytes;
}

class PipelineTest : public ::testing::Test {
 protected:
  void SetUp() override {
    server = std::make_unique<TestServer>(served.path());
    manager = std::make_unique<ZRResourceDownloadManager>();
    manager->ZRX_set2DStickerDownloadPath(downloads.path());
    LogCapture::instance().clear();
  }
  void TearDown() override {
    manager.reset();
    LogCapture::instance().setHook(nullptr);
  }

  ZRX2DStickerResList* parse(const std::vector<std::string>& stickers) {
    std::string json = "[";
    for (std::size_t i = 0; i < stickers.size(); ++i) {
      json += (i ? "," : "") + stickers[i];
    }
    int error = 0;
    list = manager->ZRX_parse2DStickerResource(json + "]", error, &listener);
    EXPECT_NE(list, nullptr) << json;
    return list;
  }
  ZRX2DStickerResItem* item(const std::string& resId) const {
    for (ZRX2DStickerResItem* i : list->items) {
      if (i->resId == resId) return i;
    }
    ADD_FAILURE() << "no item " << resId;
    return nullptr;
  }
  // Where the library puts a sticker's fetched file.
  std::string filePath(const std::string& resId) const {
    const ZRX2DStickerResItem* i = item(resId);
    std::string dir = downloads.path();
    if (!i->dirName.empty()) dir += "/" + i->dirName;
    return dir + "/" + i->fileName;
  }
  std::string stickerDir(const std::string& resId) const {
    const ZRX2DStickerResItem* i = item(resId);
    return i->dirName.empty() ? downloads.path()
                              : downloads.path() + "/" + i->dirName;
  }
  // Each sticker of the list had at most one final call.
  void expectAtMostOneFinalEach() const {
    for (const ZRX2DStickerResItem* i : list->items) {
      EXPECT_LE(listener.finalsFor(i->resId).size(), 1u) << i->resId;
    }
  }
  // The listener hears of a failure before the clean-up and the log line:
  // wait for the line that ends the sticker's pass.
  static bool waitForLog(const std::string& fragment) {
    return zrxtest::waitUntil(
        [&] { return LogCapture::instance().contains(fragment); });
  }
  RecordingListener::Event finalOf(const std::string& resId) const {
    const auto finals = listener.finalsFor(resId);
    EXPECT_EQ(finals.size(), 1u) << resId;
    return finals.empty() ? RecordingListener::Event{} : finals.back();
  }

  TempDir served;
  TempDir downloads;
  std::unique_ptr<TestServer> server;
  RecordingListener listener;
  std::unique_ptr<ZRResourceDownloadManager> manager;
  ZRX2DStickerResList* list = nullptr;
};

TEST_F(PipelineTest, HttpAnswersAreStoredAndReported) {
  const std::string plain = randomBytes(300000, 1);
  const std::string chunked = randomBytes(50000, 2);
  zrxtest::writeFile(served / "p.bin", plain);
  zrxtest::writeFile(served / "c.bin", chunked);
  parse({sticker("p", server->url("/files/p.bin"), "p", ".bin"),
         sticker("c", server->url("/chunked/c.bin"), "c.bin"),
         sticker("r", server->url("/redirect/2/c.bin"), "r.bin"),
         sticker("nf", server->url("/status/404"), "nf.html"),
         sticker("nfz", server->url("/status/404"), "nfz", ".zip", 0)});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(5));
  expectAtMostOneFinalEach();

  // A plain sticker: on the download worker, with growing byte counts.
  EXPECT_EQ(finalOf("p").kind, Kind::kSuccess);
  EXPECT_NE(finalOf("p").thread, std::this_thread::get_id());
  EXPECT_EQ(zrxtest::readFile(filePath("p")), plain);
  EXPECT_EQ(item("p")->downloadState, 1);
  const auto progress = listener.progressFor("p");
  ASSERT_FALSE(progress.empty());
  double last = 0;
  for (const auto& event : progress) {
    EXPECT_EQ(event.total, 300000.0);
    EXPECT_GE(event.downloaded, last);
    last = event.downloaded;
  }
  EXPECT_EQ(last, 300000.0);

  // Without a known length nothing is reported on the way, and redirects
  // are followed.
  EXPECT_TRUE(listener.progressFor("c").empty());
  EXPECT_EQ(zrxtest::readFile(filePath("c")), chunked);
  EXPECT_EQ(zrxtest::readFile(filePath("r")), chunked);

  // An error page is a finished transfer: stored for a plain sticker, an
  // unpacking failure for an archive, whose file is then removed.
  EXPECT_EQ(finalOf("nf").kind, Kind::kSuccess);
  EXPECT_NE(zrxtest::readFile(filePath("nf")).find("404"), std::string::npos);
  EXPECT_EQ(finalOf("nfz").kind, Kind::kFailed);
  EXPECT_EQ(finalOf("nfz").code, -10004);
  ASSERT_TRUE(waitForLog("] unzip failed! ("));
  EXPECT_FALSE(zrxtest::fileExists(filePath("nfz")));
  EXPECT_EQ(item("nfz")->downloadState, -1);

  auto& log = LogCapture::instance();
  EXPECT_TRUE(log.contains("] (resId:p) perform result=0"));
  EXPECT_TRUE(log.contains("] (resId:p) response code=200"));
  EXPECT_TRUE(log.contains("] (resId:nf) response code=404"));
  EXPECT_TRUE(log.contains("] (resId:p) download speed="));
  EXPECT_TRUE(log.contains("] unzip failed! ("));
  EXPECT_LT(log.indexOf("] (resId:p) perform result=0"),
            log.indexOf("] download finish! (0:"));
}

TEST_F(PipelineTest, FailuresReportOnceAndLeaveNoFileBehind) {
  zrxtest::writeFile(served / "big.bin", randomBytes(200000, 3));
  zrxtest::writeFile(downloads / "f", "a file where a directory belongs");
  const std::string refused =
      "http://127.0.0.1:" + std::to_string(TestServer::closedPort()) + "/x";
  parse({sticker("refused", refused, "refused.bin"),
         sticker("drop", server->url("/drop/big.bin"), "drop.bin"),
         sticker("noparent", server->url("/files/big.bin"), "a/b", ".zip", 1),
         sticker("blocked", server->url("/files/big.bin"), "f", ".zip", 1),
         sticker("escfile", server->url("/files/big.bin"), "../escape.bin"),
         sticker("escdir", server->url("/files/big.bin"), "../escdir", ".zip",
                 1)});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(6));
  // The stickers run one after the other: the last one's line ends the run.
  ASSERT_TRUE(waitForLog("/../escdir, make directory failed!"));
  expectAtMostOneFinalEach();

  EXPECT_EQ(finalOf("refused").code, -100007);
  EXPECT_EQ(finalOf("drop").code, -100018);
  EXPECT_EQ(finalOf("noparent").code, -10001);
  EXPECT_EQ(finalOf("blocked").code, -10003);
  EXPECT_EQ(finalOf("escfile").code, -10003);
  EXPECT_EQ(finalOf("escdir").code, -10001);
  for (const ZRX2DStickerResItem* i : list->items) {
    EXPECT_EQ(i->downloadState, -1) << i->resId;
  }
  // Nothing but the blocking file is left, inside or beside the directory.
  EXPECT_EQ(zrxtest::listTree(downloads.path()),
            std::vector<std::string>{"f"});
  EXPECT_FALSE(zrxtest::fileExists(downloads.path() + "/../escape.bin"));
  EXPECT_FALSE(zrxtest::fileExists(downloads.path() + "/../escdir"));

  auto& log = LogCapture::instance();
  EXPECT_TRUE(log.contains("] (resId:drop) perform result=18"));
  EXPECT_TRUE(log.contains("] download failed! (1:"));
  EXPECT_TRUE(log.contains("path=" + downloads.path() +
                           "/a/b, make directory failed!"));
  EXPECT_TRUE(log.contains("] open local file failed! (3:"));
}

TEST_F(PipelineTest, TimeLimitOfASingleStartEndsASlowTransfer) {
  zrxtest::writeFile(served / "s.bin", randomBytes(40000, 4));
  parse({sticker("slow", server->url("/slow/s.bin?bps=2000"), "s.bin")});
  manager->ZRX_start2DStickerDownloadAllSticker();  // no limit
  ASSERT_TRUE(zrxtest::waitUntil([&] {
    return !listener.progressFor("slow").empty();
  }));
  manager->ZRX_start2DStickerDownloadSticker("slow", &listener, 1);
  ASSERT_TRUE(listener.waitForFinals(1));
  EXPECT_EQ(finalOf("slow").code, -10006);
  EXPECT_EQ(item("slow")->timeoutSeconds, 1);
  ASSERT_TRUE(waitForLog("] (resId:slow) perform overtime!"));
  auto& log = LogCapture::instance();
  ASSERT_TRUE(zrxtest::waitUntil(
      [&] { return log.matching("] download failed! (0:").size() == 2; }));
  EXPECT_FALSE(zrxtest::fileExists(filePath("slow")));
  manager->ZRX_stop2DStickerDownloadSticker();
  expectAtMostOneFinalEach();
}

TEST_F(PipelineTest, WriteErrorReachesTheListenerAsCurlWriteError) {
  zrxtest::writeFile(served / "w.bin", randomBytes(1 << 20, 5));
  parse({sticker("w", server->url("/files/w.bin"), "w.bin")});
  // The server runs already, so only this process's files are limited.
  struct rlimit old;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &old), 0);
  struct rlimit limited = old;
  limited.rlim_cur = 64 * 1024;
  auto oldHandler = signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);
  manager->ZRX_start2DStickerDownloadAllSticker();
  const bool finished = listener.waitForFinals(1);
  setrlimit(RLIMIT_FSIZE, &old);
  signal(SIGXFSZ, oldHandler);
  ASSERT_TRUE(finished);
  EXPECT_EQ(finalOf("w").code, -100023);
  EXPECT_TRUE(LogCapture::instance().contains("] write file failed!"));
  ASSERT_TRUE(waitForLog("] download failed! (0:"));
  EXPECT_FALSE(zrxtest::fileExists(filePath("w")));
}

TEST_F(PipelineTest, HttpsTrustsTheBundleBesideTheExecutable) {
  zrxtest::writeFile(served / "t.bin", randomBytes(30000, 6));
  TestServer::Options options;
  options.tls = true;
  TestServer secure(served.path(), options);
  const std::string path = "127.0.0.1:" + std::to_string(secure.port()) +
                           "/files/t.bin";
  parse({sticker("lower", "https://" + path, "lower.bin"),
         sticker("upper", "HTTPS://" + path, "upper.bin"),
         sticker("mixed", "Https://" + path, "mixed.bin")});
  {
    CaBundleInstall bundle(secure.tlsMaterial().caCert);
    manager->ZRX_start2DStickerDownloadAllSticker();
    ASSERT_TRUE(listener.waitForFinals(3));
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  expectAtMostOneFinalEach();
  EXPECT_EQ(finalOf("lower").kind, Kind::kSuccess);
  EXPECT_EQ(finalOf("upper").kind, Kind::kSuccess);
  // A mixed-case scheme gets libcurl's own CA store, which doesn't know the
  // test CA.
  EXPECT_EQ(finalOf("mixed").code, -100060);

  // Without the bundle the handshake can't be verified.
  listener.clear();
  {
    CaBundleInstall none = CaBundleInstall::none();
    manager->ZRX_start2DStickerDownloadAllSticker();  // attach the list
    manager->ZRX_start2DStickerDownloadSticker("lower", &listener, 0);
    ASSERT_TRUE(zrxtest::waitUntil(
        [&] { return listener.finalsFor("lower").size() == 2; }));
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  const auto finals = listener.finalsFor("lower");
  ASSERT_GE(finals.size(), 1u);
  EXPECT_EQ(finals.back().kind, Kind::kFailed);
  EXPECT_LT(finals.back().code, -100000);
}

TEST_F(PipelineTest, ArchivesAreUnpackedAndASecondStartFetchesNothing) {
  // One archive by Info-ZIP zip (with a directory entry), one by Python.
  const std::string work = served / "src";
  zrxtest::makeDirs(work + "/img");
  zrxtest::writeFile(work + "/img/a.png", randomBytes(5000, 7));
  zrxtest::writeFile(work + "/info.txt", "sticker info");
  ASSERT_EQ(zrxtest::run("cd " + zrxtest::shellQuote(work) +
                         " && zip -qr ../pack.zip img info.txt"),
            0);
  ASSERT_EQ(zrxtest::run(
                "python3 -c \"import zipfile,sys; z=zipfile.ZipFile(sys.argv[1],"
                "'w',zipfile.ZIP_DEFLATED); z.writestr('info.txt','sticker info');"
                "z.close()\" " +
                zrxtest::shellQuote(served / "py.zip")),
            0);
  const std::string url = server->url("/files/pack.zip");
  parse({sticker("t0", url, "zero", ".zip", 0),
         sticker("t1", url, "one", ".zip", 1),
         sticker("t3", url, "three.v2", ".zip", 3),
         sticker("t5", server->url("/files/py.zip"), "", ".zip", 5)});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(4));
  expectAtMostOneFinalEach();

  const std::map<std::string, std::string> extractInto = {
      {"t0", stickerDir("t0")},
      {"t1", downloads / "one"},
      {"t3", downloads / "three.v2"},
      {"t5", stickerDir("t5")}};
  for (const auto& [resId, dir] : extractInto) {
    EXPECT_EQ(finalOf(resId).kind, Kind::kSuccess) << resId;
    EXPECT_NE(finalOf(resId).thread, std::this_thread::get_id());
    EXPECT_TRUE(zrxtest::fileExists(filePath(resId))) << "archive stays";
    EXPECT_EQ(zrxtest::readFile(dir + "/info.txt"), "sticker info") << resId;
  }
  EXPECT_EQ(filePath("t3"), downloads / "three.v2.zip");
  EXPECT_EQ(zrxtest::sizeOf(downloads / "three.v2/img/a.png"), 5000);
  EXPECT_EQ(zrxtest::sizeOf(downloads / "one/img/a.png"), 5000);

  // The next start compares the stored archives with the disk: all in
  // place, reported on this thread, and not one request.
  manager->ZRX_stop2DStickerDownloadSticker();
  server->resetCounts();
  listener.clear();
  LogCapture::instance().clear();
  manager->ZRX_start2DStickerDownloadAllSticker();
  EXPECT_EQ(listener.finals().size(), 4u);
  for (const auto& event : listener.finals()) {
    EXPECT_EQ(event.kind, Kind::kSuccess);
    EXPECT_EQ(event.thread, std::this_thread::get_id());
  }
  EXPECT_TRUE(LogCapture::instance().contains("] no valid index to download!"));
  EXPECT_EQ(server->totalRequests(), 0);
}

TEST_F(PipelineTest, StopDuringATransferIsQuietAndRemovesThePartialFile) {
  zrxtest::writeFile(served / "big.bin", randomBytes(1 << 20, 8));
  parse({sticker("stall", server->url("/stall/big.bin"), "stall.bin")});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(zrxtest::waitUntil(
      [&] { return !listener.progressFor("stall").empty(); }));
  const auto begin = std::chrono::steady_clock::now();
  manager->ZRX_stop2DStickerDownloadSticker();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(10));
  EXPECT_TRUE(listener.finals().empty());
  EXPECT_EQ(item("stall")->downloadState, 0);
  EXPECT_FALSE(zrxtest::fileExists(filePath("stall")));
  auto& log = LogCapture::instance();
  EXPECT_LT(log.indexOf("] (resId:stall) exit curl perform!"),
            log.indexOf("] download failed! (0:"));
}

TEST_F(PipelineTest, StopDuringAnExtractionFailsTheSticker) {
  const std::string work = served / "src";
  zrxtest::makeDirs(work);
  zrxtest::writeFile(work + "/big.bin", randomBytes(2 << 20, 9));
  ASSERT_EQ(zrxtest::run("cd " + zrxtest::shellQuote(work) +
                         " && zip -q ../x.zip big.bin"),
            0);
  parse({sticker("x", server->url("/files/x.zip"), "x", ".zip", 1)});
  // Hold the unzip worker at its "start unzipping!" line until the stop has
  // raised the flags, so the stop meets the extraction for certain.
  std::atomic<bool> reached{false};
  LogCapture::instance().setHook([&](const std::string& message) {
    if (message.find("] start unzipping!") == std::string::npos) return;
    reached = true;
    zrxtest::waitUntil([] { return gUnzipStopFlag.load(); });
  });
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(zrxtest::waitUntil([&] { return reached.load(); }));
  // The held worker owns the log's mutex: the stop must not log meanwhile.
  ZRXDisableLog();
  manager->ZRX_stop2DStickerDownloadSticker();
  ZRXEnableLog();
  ASSERT_EQ(listener.finals().size(), 1u);  // the stop has joined
  EXPECT_EQ(finalOf("x").code, -10004);
  EXPECT_EQ(item("x")->downloadState, -1);
  EXPECT_FALSE(zrxtest::fileExists(filePath("x")));
}

TEST_F(PipelineTest, SingleStartFetchesAFinishedStickerAgain) {
  zrxtest::writeFile(served / "f.bin", randomBytes(20000, 10));
  parse({sticker("f", server->url("/slow/f.bin?bps=40000"), "f.bin")});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(1));
  EXPECT_EQ(item("f")->downloadState, 1);
  manager->ZRX_start2DStickerDownloadSticker("f", &listener, 0);
  EXPECT_EQ(item("f")->downloadState, 0);  // the transfer takes ~0.5 s
  ASSERT_TRUE(listener.waitForFinals(2));
  EXPECT_EQ(item("f")->downloadState, 1);
  EXPECT_EQ(listener.finalsFor("f").size(), 2u);
  EXPECT_EQ(server->requestCount("/slow/f.bin?bps=40000"), 2);
}

}  // namespace
