// The whole road of a sticker, from the JSON list to files on disk, through
// the public API against a real loopback server.
#include <algorithm>
#include <atomic>
#include <iterator>
#include <thread>
#include <vector>

#include "archive/ZipReader.h"
#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

using PipelineTest = StickerFixture;

TEST_F(PipelineTest, HttpAnswersAreStoredAndReported) {
  const std::string plain = randomBytes(300000, 1);
  writeFile(served / "p.bin", plain);
  parse({sticker("p", server->url("/files/p.bin"), "p", ".bin"),
         sticker("nf", server->url("/status/404"), "nf.html"),
         sticker("nfz", server->url("/status/404"), "nfz", ".zip", 0)});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(3));

  // A plain sticker: on the download worker, with growing byte counts.
  EXPECT_EQ(finalOf("p").kind, Kind::kSuccess);
  EXPECT_NE(finalOf("p").thread, std::this_thread::get_id());
  EXPECT_TRUE(holds(filePath("p"), plain));
  EXPECT_EQ(item("p")->downloadState, 1);
  double last = 0;
  for (const auto& event : listener.progressFor("p")) {
    EXPECT_EQ(event.total, 300000.0);
    EXPECT_GE(event.downloaded, last);
    last = event.downloaded;
  }
  EXPECT_EQ(last, 300000.0);
  // An error page is a finished transfer: stored for a plain sticker, an
  // unpacking failure for an archive, whose file is then removed.
  EXPECT_EQ(finalOf("nf").kind, Kind::kSuccess);
  EXPECT_NE(readFile(filePath("nf")).find("404"), std::string::npos);
  EXPECT_EQ(finalOf("nfz").code, -10004);
  ASSERT_TRUE(waitForLog("] unzip failed! ("));
  EXPECT_FALSE(fileExists(filePath("nfz")));
  EXPECT_EQ(item("nfz")->downloadState, -1);
  EXPECT_TRUE(
      LogCapture::instance().contains("] (resId:nf) response code=404"));
}

TEST_F(PipelineTest, FailuresReportOnceAndLeaveNoFileBehind) {
  writeFile(served / "big.bin", randomBytes(200000, 3));
  writeFile(downloads / "f", "a file where a directory belongs");
  const std::string url = server->url("/files/big.bin");
  parse({sticker("refused",
                 "http://127.0.0.1:" + std::to_string(TestServer::closedPort()),
                 "refused.bin"),
         sticker("drop", server->url("/drop/big.bin"), "drop.bin"),
         sticker("noparent", url, "a/b", ".zip", 1),
         sticker("blocked", url, "f", ".zip", 1),
         sticker("escfile", url, "../escape.bin"),
         sticker("escdir", url, "../escdir", ".zip", 1)});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(6));
  // The stickers run one after the other: the last one's line ends the run.
  ASSERT_TRUE(waitForLog("/../escdir, make directory failed!"));

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
  EXPECT_EQ(listTree(downloads.path()), std::vector<std::string>{"f"});
  EXPECT_FALSE(fileExists(downloads / "../escape.bin"));
  EXPECT_FALSE(fileExists(downloads / "../escdir"));
}

// Names that would leave the download directory or that a Win32 file call
// reads specially fail where their step fails, before anything is made or
// opened, and the check at start never looks them up: what lies at such a
// place (here made by hand) never counts as installed.
TEST_F(PipelineTest, NamesTheRuleRefusesFailAndAreNeverInstalled) {
  const std::string inner = downloads / "inner";
  makeDirs(inner);
  manager->ZRX_set2DStickerDownloadPath(inner);
  makeArchive("pack.zip", {{"info.txt", "info"}});
  const std::string url = server->url("/files/pack.zip");
  // Installed-looking places: plain files under refused names, and a whole
  // type 1 install beside the download directory.
#ifndef _WIN32
  // Windows can't hold this name: it is a path on drive C:.
  writeFile(inner + "/c:cat.png", "x");
#endif
  writeFile(inner + "/t.png.", "x");
  makeDirs(downloads / "outside");
  writeFile(downloads / "outside/outside.zip", readFile(served / "pack.zip"));
  writeFile(downloads / "outside/info.txt", "info");
  const std::vector<std::string> before = listTree(downloads.path());
  parse({sticker("drive", url, "c:cat.png"), sticker("dot", url, "t.png."),
         sticker("device", url, "con", ".png"),
         sticker("stream", url, "x", ":s"),
         sticker("stem", url, "x ", ".zip", 3),
         sticker("devdir", url, "aux", ".zip", 1),
         sticker("outside", url, "../outside", ".zip", 1)});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(7));
  ASSERT_TRUE(waitForLog("/../outside, make directory failed!"));
  for (const char* resId : {"drive", "dot", "device", "stream", "stem"}) {
    EXPECT_EQ(finalOf(resId).code, -10003) << resId;
  }
  EXPECT_EQ(finalOf("devdir").code, -10001);
  EXPECT_EQ(finalOf("outside").code, -10001);
  EXPECT_FALSE(LogCapture::instance().contains("file exist!"));
  EXPECT_EQ(listTree(downloads.path()), before);
}

// Names outside ASCII at the narrow code page of the run. fileName reaches
// the disk in that page's bytes, a character the page lacks replaced by
// the system's best fit or by '?'; a name that the replacement makes
// unusable ('?', the '\\' that "¥" becomes at 932, the "../" of fullwidth
// "．．／" at 1252) fails with -10003 before anything is opened. Trail
// bytes of 932 that equal '\\' or '|' ("表", "ポ") are no such thing.
// dirName keeps its UTF-8 bytes, which the file system reads in the code
// page, and the host's download path is converted like a file name. What
// installed is found installed by the next start; what failed fails again.
TEST_F(PipelineTest, NamesLieOnTheDiskInTheNarrowCodePage) {
  if (!knownNarrowCodePage()) GTEST_SKIP() << "code page " << narrowCodePage();
  makeArchive("pack.zip", {{"info.txt", "info"}});
  writeFile(served / "p.png", "png");
  const std::string png = server->url("/files/p.png");
  const std::string acute = "\xC3\xA9";
  manager->ZRX_set2DStickerDownloadPath(downloads / acute);
  // Where each sticker's file lies below the download path, as listTree
  // shows names (in UTF-8); empty for a sticker that fails.
  const struct {
    const char* resId;
    std::string name;
    std::string listed;
  } cases[] = {
      {"acute", acute + ".png",
       inNarrowPage("\xC3\xA9.png", "\xC3\xA9.png", "e.png")},
      {"table", "\xE8\xA1\xA8.txt",
       inNarrowPage("\xE8\xA1\xA8.txt", "", "\xE8\xA1\xA8.txt")},
      {"po", "\xE3\x83\x9D.gif",
       inNarrowPage("\xE3\x83\x9D.gif", "", "\xE3\x83\x9D.gif")},
      {"yen", "\xC2\xA5.png", inNarrowPage("\xC2\xA5.png", "\xC2\xA5.png", "")},
      {"wide", "\xEF\xBC\x8E\xEF\xBC\x8E\xEF\xBC\x8Fx.png",
       inNarrowPage("\xEF\xBC\x8E\xEF\xBC\x8E\xEF\xBC\x8Fx.png", "",
                    "\xEF\xBC\x8E\xEF\xBC\x8E\xEF\xBC\x8Fx.png")},
  };
  std::vector<std::string> stickers;
  for (const auto& c : cases) stickers.push_back(sticker(c.resId, png, c.name));
  stickers.push_back(
      sticker("dir", server->url("/files/pack.zip"), acute, ".zip", 1));
  parse(stickers);
  // The path's "é" as the code page holds it, as listTree shows it.
  const std::string root = inNarrowPage(acute, acute, "e") + "/";
  const std::string dir = root + listedName(acute) + "/";
  EXPECT_EQ(item("dir")->dirName, acute);
  EXPECT_EQ(item("dir")->fileName,
            inNarrowPage(acute + ".zip", "\xE9.zip", "e.zip"));

  const std::size_t count = std::size(cases) + 1;
  std::vector<std::string> expected = {
      root, dir, dir + "info.txt",
      dir + inNarrowPage(acute, acute, "e") + ".zip"};
  for (int start = 0; start < 2; ++start) {
    listener.clear();
    manager->ZRX_start2DStickerDownloadAllSticker();
    ASSERT_TRUE(listener.waitForFinals(count));
    for (const auto& c : cases) {
      const RecordingListener::Event event = finalOf(c.resId);
      if (c.listed.empty()) {
        EXPECT_EQ(event.code, -10003) << c.resId;
        continue;
      }
      EXPECT_EQ(event.kind, Kind::kSuccess) << c.resId;
      // The second start finds it installed, on the caller's thread.
      if (start == 0) {
        expected.push_back(root + c.listed);
      } else {
        EXPECT_EQ(event.thread, std::this_thread::get_id()) << c.resId;
      }
    }
    EXPECT_EQ(finalOf("dir").kind, Kind::kSuccess);
    manager->ZRX_stop2DStickerDownloadSticker();
  }
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listTree(downloads.path()), expected);
}

// Every unpacking type, and the next start finds all installed without a
// request.
TEST_F(PipelineTest, ArchivesAreUnpackedAndASecondStartFetchesNothing) {
  const std::string image = randomBytes(5000, 4);
  makeArchive("pack.zip", {{"img/a.png", image}, {"info.txt", "info"}});
  const std::string url = server->url("/files/pack.zip");
  parse({sticker("t0", url, "zero", ".zip", 0),
         sticker("t1", url, "one", ".zip", 1),
         sticker("t3", url, "three.v2", ".zip", 3)});
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(3));
  const std::map<std::string, std::string> extractedInto = {
      {"t0", stickerDir("t0")},
      {"t1", downloads / "one"},
      {"t3", downloads / "three.v2"}};
  for (const auto& [resId, dir] : extractedInto) {
    EXPECT_EQ(finalOf(resId).kind, Kind::kSuccess) << resId;
    EXPECT_TRUE(holds(filePath(resId), readFile(served / "pack.zip")));
    EXPECT_TRUE(holds(dir + "/img/a.png", image)) << resId;
    EXPECT_TRUE(holds(dir + "/info.txt", "info")) << resId;
  }
  EXPECT_EQ(filePath("t3"), downloads / "three.v2.zip");

  manager->ZRX_stop2DStickerDownloadSticker();
  const int requests = server->totalRequests();
  listener.clear();
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_EQ(listener.finals().size(), 3u);
  for (const auto& event : listener.finals()) {
    EXPECT_EQ(event.kind, Kind::kSuccess);
    EXPECT_EQ(event.thread, std::this_thread::get_id());
  }
  EXPECT_EQ(server->totalRequests(), requests);
}

TEST_F(PipelineTest, StopDuringAnExtractionFailsTheSticker) {
  makeArchive("x.zip", {{"big.bin", randomBytes(2 << 20, 5)}});
  parse({sticker("x", server->url("/files/x.zip"), "x", ".zip", 1)});
  // Hold the unzip worker at its "start unzipping!" line until the stop has
  // raised the flags, so the stop meets the extraction for certain.
  std::atomic<bool> reached{false};
  LogCapture::instance().setHook([&](const std::string& message) {
    if (message.find("] start unzipping!") == std::string::npos) return;
    reached = true;
    waitUntil([] { return gUnzipStopFlag.load(); });
  });
  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(waitUntil([&] { return reached.load(); }));
  // The held worker owns the log's mutex: the stop must not log meanwhile.
  ZRXDisableLog();
  manager->ZRX_stop2DStickerDownloadSticker();
  ZRXEnableLog();
  ASSERT_EQ(listener.finals().size(), 1u);  // the stop has joined
  EXPECT_EQ(finalOf("x").code, -10004);
  EXPECT_EQ(item("x")->downloadState, -1);
  EXPECT_FALSE(fileExists(filePath("x")));
}

}  // namespace
}  // namespace zrxtest
