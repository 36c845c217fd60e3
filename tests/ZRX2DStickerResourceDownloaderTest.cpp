// The downloader's frame: the installed check, the queues, start and stop.
// Transfers here go to a closed loopback port and fail at once.
#include <gtest/gtest.h>

#include <cstdio>

#include "archive/ZipReader.h"
#include "download/ZRX2DStickerResourceDownloader.h"
#include "support/RecordingListener.h"
#include "support/TestSupport.h"

using zrxtest::LogCapture;
using zrxtest::RecordingListener;
using Queue = std::deque<int32_t>;

// Reaches the downloader's private fields (declared a friend there).
struct DownloaderTestAccess {
  using D = ZRX2DStickerResourceDownloader;
  static Queue& downloadQueue(D& d) { return d.downloadQueue; }
  static ZRX2DStickerResList* attached(D& d) { return d.attachedList; }
  static void attach(D& d, ZRX2DStickerResList* list) { d.attachedList = list; }
  static void check(D& d) { d._checkStickerExistsOrNot(); }
  static bool running(D& d) { return d.workersRunning(); }
  static bool stopRequested(D& d) { return d.stopRequested; }
};
using Access = DownloaderTestAccess;

namespace {

// A list that owns its items, and a downloader on a fresh directory.
struct Fixture {
  zrxtest::TempDir dir;
  ZRX2DStickerResList list;
  ZRX2DStickerResourceDownloader downloader;
  Fixture() {
    downloader.setDownloadPath(dir.path());
    LogCapture::instance().clear();
  }
  ~Fixture() {
    downloader.stopDownloadStikcerResource();
    for (ZRX2DStickerResItem* item : list.items) delete item;
  }
  ZRX2DStickerResItem* add(const std::string& resId, const std::string& dirName,
                           const std::string& file, int unzipType,
                           ZRX2DStickerDownloadListener* listener) {
    auto* item = new ZRX2DStickerResItem();
    item->resId = resId;
    item->url = "http://127.0.0.1:1/" + resId;  // refused at once
    item->dirName = dirName;
    item->fileName = file;
    item->unzipType = unzipType;
    item->listener = listener;
    list.items.push_back(item);
    return item;
  }
  // The installed check on the attached list, from empty queues.
  Queue check() {
    Access::downloadQueue(downloader).clear();
    Access::attach(downloader, &list);
    Access::check(downloader);
    return Access::downloadQueue(downloader);
  }
};

// Runs Info-ZIP's zip with `args` in `dir`.
void zip(const std::string& dir, const std::string& args) {
  ASSERT_EQ(
      zrxtest::run("cd " + zrxtest::shellQuote(dir) + " && zip -q " + args), 0);
}

}  // namespace

TEST(InstalledCheckTest, QueuesMissingStickersOnceAndReportsTheRest) {
  Fixture f;
  RecordingListener listener, other;
  for (int i = 0; i < 4; ++i) {
    f.add("s" + std::to_string(i), "", "s" + std::to_string(i) + ".png", 2,
          &listener);
  }
  // The same file name again is dropped in silence, unless it is on disk.
  f.add("dup", "", "s1.png", 2, &other);
  f.add("elsewhere", "d", "s1.png", 0, &other);
  zrxtest::writeFile(f.dir / "s0.png", "");  // size plays no part for type 2
  zrxtest::writeFile(f.dir / "s2.png", "x");
  zrxtest::makeDirs(f.dir / "d");
  zrxtest::writeFile(f.dir / "d/in.txt", "abc");
  zip(f.dir / "d", "s1.png in.txt");

  EXPECT_EQ(f.check(), (Queue{1, 3}));
  const auto finals = listener.finals();
  ASSERT_EQ(finals.size(), 2u);
  EXPECT_EQ(finals[0].resId + finals[1].resId, "s0s2");
  ASSERT_EQ(other.finals().size(), 1u);
  EXPECT_EQ(other.finals()[0].resId, "elsewhere");
  const int states[] = {1, 0, 1, 0, 0, 1};
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(f.list.items[i]->downloadState, states[i]) << i;
  EXPECT_EQ(LogCapture::instance()
                .matching("] file exist! unzip_type=2, zipPath=(" +
                          f.dir.path() + "/s2.png)")
                .size(),
            1u);
}

TEST(InstalledCheckTest, ArchivesAreComparedEntryByEntryWithTheDisk) {
  Fixture f;
  f.add("pack", "pack", "pack.zip", 1, nullptr);
  f.add("own", "", "t.v1.zip", 3, nullptr);
  f.add("empty", "", "e.zip", 0, nullptr);
  zrxtest::makeDirs(f.dir / "pack/a");
  zrxtest::writeFile(f.dir / "pack/a/b.txt", "hello");
  zrxtest::writeFile(f.dir / "pack/c.txt", "abc");
  zip(f.dir / "pack", "pack.zip a a/b.txt c.txt");
  // Type 3 lives in a directory named after the archive's stem; only the
  // sizes are compared.
  zrxtest::makeDirs(f.dir / "t.v1");
  zrxtest::writeFile(f.dir / "t.v1/img.png", "12345678");
  zip(f.dir / "t.v1", "../t.v1.zip img.png");
  zrxtest::writeFile(f.dir / "t.v1/img.png", "87654321");
  zrxtest::writeFile(f.dir / "e.zip",
                     std::string("PK\5\6") + std::string(18, '\0'));
  EXPECT_EQ(f.check(), (Queue{2})) << "an archive with no entries is missing";

  // A changed size, then a missing file: each is logged and fetched again.
  zrxtest::writeFile(f.dir / "pack/c.txt", "abcde");
  std::remove((f.dir / "t.v1/img.png").c_str());
  LogCapture::instance().clear();
  EXPECT_EQ(f.check(), (Queue{0, 1, 2}));
  EXPECT_TRUE(LogCapture::instance().contains(
      "] file(" + f.dir.path() + "/pack/c.txt) size not match[5:3]!"));
  EXPECT_TRUE(LogCapture::instance().contains("] directory(" + f.dir.path() +
                                              "/t.v1/img.png) no exist!"));
}

TEST(DownloaderTest, NothingToFetchLogsAndStartsNoWorker) {
  Fixture f;
  RecordingListener listener;
  ZRX2DStickerResItem* item = f.add("a", "", "a.png", 2, &listener);
  zrxtest::writeFile(f.dir / "a.png", "x");
  int stateDuringCall = -5;  // the state is set after the call returns
  listener.onFinal = [&](const std::string&) {
    stateDuringCall = item->downloadState;
  };
  LogCapture::instance().clear();
  f.downloader.startDownloadAllStickerResource(&f.list);
  ASSERT_EQ(listener.finals().size(), 1u);
  EXPECT_EQ(stateDuringCall, 0);
  EXPECT_EQ(item->downloadState, 1);
  EXPECT_TRUE(LogCapture::instance().contains("] no valid index to download!"));
  EXPECT_FALSE(Access::running(f.downloader));
  EXPECT_EQ(Access::attached(f.downloader), &f.list);

  // A stop, also with nothing running, logs both lines and leaves the flags
  // up.
  LogCapture::instance().clear();
  f.downloader.stopDownloadStikcerResource();
  ASSERT_EQ(LogCapture::instance().lines().size(), 2u);
  EXPECT_TRUE(LogCapture::instance().contains("] stop downloader success!"));
  EXPECT_TRUE(Access::stopRequested(f.downloader) && gUnzipStopFlag);
  EXPECT_EQ(Access::attached(f.downloader), nullptr);
}

TEST(DownloaderTest, SingleStickerStartPutsItAtTheHeadOfTheLine) {
  Fixture f;
  RecordingListener listener, other;
  for (const char* name : {"a", "b", "c"}) f.add(name, "", name, 2, &listener);
  f.add("c", "", "c2", 2, &listener);  // same resId: never chosen
  // No list attached, then an unknown resId: nothing happens.
  f.downloader.startDownloadStickerResource("a", &other, 3);
  EXPECT_FALSE(Access::running(f.downloader));

  Access::attach(f.downloader, &f.list);
  Access::downloadQueue(f.downloader) = Queue{0, 1};
  f.downloader.startDownloadStickerResource("zz", &other, 3);
  EXPECT_FALSE(Access::running(f.downloader));
  EXPECT_EQ(Access::downloadQueue(f.downloader), (Queue{0, 1}));

  LogCapture::instance().clear();
  f.downloader.startDownloadStickerResource("c", &other, 7);
  ASSERT_TRUE(other.waitForFinals(1));
  ASSERT_TRUE(listener.waitForFinals(2));
  EXPECT_EQ(f.list.items[2]->timeoutSeconds, 7);
  EXPECT_EQ(f.list.items[2]->listener, &other);
  EXPECT_EQ(f.list.items[3]->downloadState, 0);
  const auto started = LogCapture::instance().matching("start downloading!");
  ASSERT_EQ(started.size(), 3u);
  EXPECT_NE(started[0].find("] (2:c:"), std::string::npos) << started[0];
  EXPECT_NE(started[1].find("] (0:a:"), std::string::npos) << started[1];
  EXPECT_NE(started[2].find("] (1:b:"), std::string::npos) << started[2];
}
