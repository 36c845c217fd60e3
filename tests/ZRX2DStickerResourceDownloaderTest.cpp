// The downloader's frame: the installed check, the queues, start and stop.
// Transfers here go to a closed loopback port and fail at once; the whole
// road over real servers is in PipelineTest.
#include "download/ZRX2DStickerResourceDownloader.h"

#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "archive/ZipReader.h"
#include "support/RecordingListener.h"
#include "support/TestSupport.h"

using zrxtest::LogCapture;
using zrxtest::RecordingListener;
using zrxtest::TempDir;

// Reaches the downloader's private fields (declared a friend there).
struct DownloaderTestAccess {
  using D = ZRX2DStickerResourceDownloader;
  static std::deque<int32_t>& downloadQueue(D& d) { return d.downloadQueue; }
  static ZRX2DStickerResList* attached(D& d) { return d.attachedList; }
  static void attach(D& d, ZRX2DStickerResList* list) { d.attachedList = list; }
  static void check(D& d) { d._checkStickerExistsOrNot(); }
  static bool running(D& d) { return d.workersRunning(); }
  static CURLM* multi(D& d) { return d.multiHandle; }
  static bool stopRequested(D& d) { return d.stopRequested; }
};
using Access = DownloaderTestAccess;

namespace {

// A list that owns its items, for tests that drive the downloader directly.
struct OwnedList {
  ZRX2DStickerResList list;
  ~OwnedList() {
    for (ZRX2DStickerResItem* item : list.items) delete item;
  }
  ZRX2DStickerResItem* add(const std::string& resId, const std::string& dir,
                           const std::string& file, int unzipType,
                           ZRX2DStickerDownloadListener* listener) {
    auto* item = new ZRX2DStickerResItem();
    item->resId = resId;
    item->url = "http://127.0.0.1:1/" + resId;  // refused at once
    item->dirName = dir;
    item->fileName = file;
    item->unzipType = unzipType;
    item->listener = listener;
    list.items.push_back(item);
    return item;
  }
};

std::deque<int32_t> queueOf(std::initializer_list<int32_t> values) {
  return std::deque<int32_t>(values);
}

// Writes an archive with Python's zipfile: entries given as name -> content,
// a name ending in '/' is a directory entry.
void makeZip(const std::string& path,
             const std::vector<std::pair<std::string, std::string>>& entries) {
  std::string script =
      "import sys, zipfile\n"
      "z = zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED)\n"
      "args = sys.argv[2:]\n"
      "for i in range(0, len(args), 2):\n"
      "    z.writestr(args[i], args[i + 1])\n"
      "z.close()\n";
  std::string command = "python3 -c " + zrxtest::shellQuote(script) + " " +
                        zrxtest::shellQuote(path);
  for (const auto& entry : entries) {
    command += " " + zrxtest::shellQuote(entry.first) + " " +
               zrxtest::shellQuote(entry.second);
  }
  ASSERT_EQ(zrxtest::run(command), 0) << command;
}

}  // namespace

TEST(InstalledCheckTest, QueuesMissingStickersInListOrderAndReportsTheRest) {
  TempDir dir;
  RecordingListener listener;
  OwnedList owned;
  for (int i = 0; i < 5; ++i) {
    owned.add("s" + std::to_string(i), "", "s" + std::to_string(i) + ".png", 2,
              &listener);
  }
  zrxtest::writeFile(dir / "s0.png", "");  // size plays no part for type 2
  zrxtest::writeFile(dir / "s2.png", "x");

  ZRX2DStickerResourceDownloader downloader;
  downloader.setDownloadPath(dir.path());
  Access::attach(downloader, &owned.list);
  LogCapture::instance().clear();
  Access::check(downloader);

  EXPECT_EQ(Access::downloadQueue(downloader), queueOf({1, 3, 4}));
  const auto finals = listener.finals();
  ASSERT_EQ(finals.size(), 2u);
  EXPECT_EQ(finals[0].resId, "s0");
  EXPECT_EQ(finals[1].resId, "s2");
  EXPECT_EQ(finals[0].thread, std::this_thread::get_id());
  const int states[] = {1, 0, 1, 0, 0};
  for (int i = 0; i < 5; ++i) {
    EXPECT_EQ(owned.list.items[i]->downloadState, states[i]) << i;
  }
  EXPECT_EQ(LogCapture::instance().matching(
                "] file exist! unzip_type=2, zipPath=(" + dir.path() +
                "/s2.png)")
                .size(),
            1u);
  Access::attach(downloader, nullptr);
  Access::downloadQueue(downloader).clear();
}

TEST(InstalledCheckTest, SameFileNameIsQueuedOnceUnlessTheLaterOneIsOnDisk) {
  TempDir dir;
  RecordingListener first;
  RecordingListener second;
  RecordingListener third;
  OwnedList owned;
  owned.add("a", "", "x.png", 2, &first);
  owned.add("b", "", "x.png", 2, &second);  // dropped in silence
  owned.add("c", "other", "x.png", 0, &third);
  zrxtest::makeDirs(dir / "other");
  makeZip(dir / "other/x.png", {{"in.txt", "abc"}});
  zrxtest::writeFile(dir / "other/in.txt", "abc");

  ZRX2DStickerResourceDownloader downloader;
  downloader.setDownloadPath(dir.path());
  Access::attach(downloader, &owned.list);
  Access::check(downloader);

  // The disk is looked at before the name: "c" is installed elsewhere.
  EXPECT_EQ(Access::downloadQueue(downloader), queueOf({0}));
  EXPECT_TRUE(second.events().empty());
  EXPECT_EQ(owned.list.items[1]->downloadState, 0);
  ASSERT_EQ(third.finals().size(), 1u);
  EXPECT_EQ(third.finals()[0].kind, RecordingListener::Kind::kSuccess);
  Access::attach(downloader, nullptr);
  Access::downloadQueue(downloader).clear();
}

TEST(InstalledCheckTest, ArchivesAreComparedEntryByEntryWithTheDisk) {
  TempDir dir;
  OwnedList owned;
  ZRX2DStickerResItem* pack = owned.add("pack", "pack", "pack.zip", 1, nullptr);
  ZRX2DStickerResItem* own = owned.add("own", "", "t.v1.zip", 3, nullptr);
  ZRX2DStickerResItem* empty = owned.add("empty", "", "e.zip", 0, nullptr);

  zrxtest::makeDirs(dir / "pack/a");
  makeZip(dir / "pack/pack.zip",
          {{"a/", ""}, {"a/b.txt", "hello"}, {"c.txt", "abc"}});
  zrxtest::writeFile(dir / "pack/a/b.txt", "hello");
  zrxtest::writeFile(dir / "pack/c.txt", "abc");
  // Type 3 lives in a directory named after the archive's stem.
  zrxtest::makeDirs(dir / "t.v1");
  makeZip(dir / "t.v1.zip", {{"img.png", "12345678"}});
  zrxtest::writeFile(dir / "t.v1/img.png", "87654321");
  makeZip(dir / "e.zip", {});

  ZRX2DStickerResourceDownloader downloader;
  downloader.setDownloadPath(dir.path());
  Access::attach(downloader, &owned.list);
  Access::check(downloader);
  EXPECT_EQ(pack->downloadState, 1);
  EXPECT_EQ(own->downloadState, 1);
  EXPECT_EQ(empty->downloadState, 0) << "an archive with no entries";
  EXPECT_EQ(Access::downloadQueue(downloader), queueOf({2}));

  // A changed size, then a missing file: each is logged and fetched again.
  pack->downloadState = 0;
  own->downloadState = 0;
  Access::downloadQueue(downloader).clear();
  zrxtest::writeFile(dir / "pack/c.txt", "abcde");
  ::unlink((dir / "t.v1/img.png").c_str());
  LogCapture::instance().clear();
  Access::check(downloader);
  EXPECT_EQ(Access::downloadQueue(downloader), queueOf({0, 1, 2}));
  EXPECT_TRUE(LogCapture::instance().contains(
      "] file(" + dir.path() + "/pack/c.txt) size not match[5:3]!"));
  EXPECT_TRUE(LogCapture::instance().contains(
      "] directory(" + dir.path() + "/t.v1/img.png) no exist!"));
  Access::attach(downloader, nullptr);
  Access::downloadQueue(downloader).clear();
}

TEST(DownloaderTest, NothingToFetchLogsAndStartsNoWorker) {
  TempDir dir;
  RecordingListener listener;
  OwnedList owned;
  ZRX2DStickerResItem* item = owned.add("a", "", "a.png", 2, &listener);
  zrxtest::writeFile(dir / "a.png", "x");
  // The state is set after the call returns, on the caller's thread.
  int stateDuringCall = -5;
  listener.onFinal = [&](const std::string&) {
    stateDuringCall = item->downloadState;
  };

  ZRX2DStickerResourceDownloader downloader;
  downloader.setDownloadPath(dir.path());
  LogCapture::instance().clear();
  downloader.startDownloadAllStickerResource(&owned.list);
  ASSERT_EQ(listener.finals().size(), 1u);
  EXPECT_EQ(listener.finals()[0].thread, std::this_thread::get_id());
  EXPECT_EQ(stateDuringCall, 0);
  EXPECT_EQ(item->downloadState, 1);
  EXPECT_TRUE(LogCapture::instance().contains("] no valid index to download!"));
  EXPECT_FALSE(Access::running(downloader));
  EXPECT_EQ(Access::multi(downloader), nullptr);
  EXPECT_EQ(Access::attached(downloader), &owned.list);

  // An empty list takes the same road and stays attached.
  ZRX2DStickerResList emptyList;
  LogCapture::instance().clear();
  downloader.startDownloadAllStickerResource(&emptyList);
  EXPECT_TRUE(LogCapture::instance().contains("] no valid index to download!"));
  EXPECT_EQ(Access::attached(downloader), &emptyList);

  // A null list changes nothing and logs nothing.
  LogCapture::instance().clear();
  downloader.startDownloadAllStickerResource(nullptr);
  EXPECT_TRUE(LogCapture::instance().lines().empty());
  EXPECT_EQ(Access::attached(downloader), &emptyList);
  downloader.stopDownloadStikcerResource();
}

TEST(DownloaderTest, StopWithNothingRunningLogsBothLinesAndLeavesFlagsUp) {
  ZRX2DStickerResourceDownloader downloader;
  for (int round = 0; round < 2; ++round) {
    LogCapture::instance().clear();
    downloader.stopDownloadStikcerResource();
    const auto lines = LogCapture::instance().lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].message.find(
                  "[ZRX2DStickerResourceDownloader::stopDownloadStikcerResource:"),
              std::string::npos);
    EXPECT_NE(lines[0].message.find("] stop downloader begin!"),
              std::string::npos);
    EXPECT_EQ(lines[0].level, 3);
    EXPECT_NE(lines[1].message.find("] stop downloader success!"),
              std::string::npos);
    EXPECT_TRUE(Access::stopRequested(downloader));
    EXPECT_TRUE(gUnzipStopFlag);
  }
}

TEST(DownloaderTest, StartAndStopCyclesNeverHangOrLoseAFinalCall) {
  TempDir dir;
  RecordingListener listener;
  OwnedList owned;
  for (int i = 0; i < 4; ++i) {
    owned.add("r" + std::to_string(i), "", "r" + std::to_string(i), 2,
              &listener);
  }
  ZRX2DStickerResourceDownloader downloader;
  downloader.setDownloadPath(dir.path());
  for (int round = 0; round < 40; ++round) {
    listener.clear();
    downloader.startDownloadAllStickerResource(&owned.list);
    EXPECT_TRUE(Access::running(downloader));
    if (round % 2 == 1) {
      // Let the run end: every sticker fails to connect, once.
      ASSERT_TRUE(listener.waitForFinals(4));
      for (const auto& item : owned.list.items) {
        const auto finals = listener.finalsFor(item->resId);
        ASSERT_EQ(finals.size(), 1u);
        EXPECT_EQ(finals[0].code, -100007);
        EXPECT_EQ(item->downloadState, -1);
      }
    }
    // A stop right after a start returns too; at most one final per item.
    downloader.stopDownloadStikcerResource();
    EXPECT_FALSE(Access::running(downloader));
    for (const auto& item : owned.list.items) {
      EXPECT_LE(listener.finalsFor(item->resId).size(), 1u);
    }
  }
}

TEST(DownloaderTest, SingleStickerStartPutsItAtTheHeadOfTheLine) {
  TempDir dir;
  RecordingListener listener;
  RecordingListener other;
  OwnedList owned;
  owned.add("a", "", "a", 2, &listener);
  owned.add("b", "", "b", 2, &listener);
  owned.add("c", "", "c", 2, &listener);
  owned.add("c", "", "c2", 2, &listener);  // same resId: never chosen

  ZRX2DStickerResourceDownloader downloader;
  downloader.setDownloadPath(dir.path());
  // Without an attached list nothing happens.
  downloader.startDownloadStickerResource("a", &other, 3);
  EXPECT_FALSE(Access::running(downloader));

  Access::attach(downloader, &owned.list);
  Access::downloadQueue(downloader) = queueOf({0, 1});
  // An unknown resId leaves queues and state alone.
  downloader.startDownloadStickerResource("zz", &other, 3);
  EXPECT_FALSE(Access::running(downloader));
  EXPECT_EQ(Access::downloadQueue(downloader), queueOf({0, 1}));

  LogCapture::instance().clear();
  downloader.startDownloadStickerResource("c", &other, 7);
  ASSERT_TRUE(other.waitForFinals(1));
  ASSERT_TRUE(listener.waitForFinals(2));
  EXPECT_EQ(owned.list.items[2]->timeoutSeconds, 7);
  EXPECT_EQ(owned.list.items[2]->listener, &other);
  EXPECT_EQ(owned.list.items[3]->downloadState, 0);
  const auto started = LogCapture::instance().matching("start downloading!");
  ASSERT_EQ(started.size(), 3u);
  EXPECT_NE(started[0].find("] (2:c:"), std::string::npos) << started[0];
  EXPECT_NE(started[1].find("] (0:a:"), std::string::npos) << started[1];
  EXPECT_NE(started[2].find("] (1:b:"), std::string::npos) << started[2];
  downloader.stopDownloadStikcerResource();
  EXPECT_EQ(Access::attached(downloader), nullptr);
}
