// The manager's front: list replacement and ownership, copies and teardown.
// Run under ASan, a leak or a double release of a list fails these tests.
#include <gtest/gtest.h>

#include <thread>

#include "support/RecordingListener.h"
#include "support/TestSupport.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

using zrxtest::LogCapture;
using zrxtest::RecordingListener;
using zrxtest::TempDir;

namespace {

// A list whose one plain sticker lies on disk already, so a start of all
// stickers reports it on the caller's thread without any transfer.
std::string installedListJson() {
  return R"([{"resId":"here","url":"http://127.0.0.1:1/x","name":"here.png"}])";
}

}  // namespace

TEST(ZRX2DStickerResItemTest, NewItemHasDocumentedDefaults) {
  ZRX2DStickerResItem item;
  EXPECT_EQ(item.unzipType, 2);
  EXPECT_EQ(item.downloadState, 0);
  EXPECT_EQ(item.timeoutSeconds, 0);
  EXPECT_EQ(item.downloadedBytes, 0.0);
  EXPECT_EQ(item.totalBytes, 0.0);
  EXPECT_EQ(item.listener, nullptr);
  EXPECT_FALSE(item.reservedFlag);
  EXPECT_EQ(item.reservedInt, 0);
  EXPECT_EQ(item.reservedValue1, 0);
  EXPECT_EQ(item.reservedValue2, 0);
  for (const std::string* s : {&item.resId, &item.url, &item.reservedText,
                               &item.dirName, &item.fileName}) {
    EXPECT_TRUE(s->empty());
  }
  int state = item.downloadState;  // hosts read it as a plain int
  EXPECT_EQ(state, 0);
}

TEST(ZRResourceDownloadManagerTest, ParseReplacesTheListAndWritesErrorsOnly) {
  ZRResourceDownloadManager manager;
  int error = -77;
  ZRX2DStickerResList* first = manager.ZRX_parse2DStickerResource(
      R"([{"resId":"a"},{"resId":"b"}])", error, nullptr);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(first->items.size(), 2u);
  EXPECT_EQ(error, -77) << "a success doesn't write the error code";

  // An empty text changes nothing: the earlier list stays valid.
  EXPECT_EQ(manager.ZRX_parse2DStickerResource("", error, nullptr), nullptr);
  EXPECT_EQ(error, -77);
  EXPECT_EQ(first->items[1]->resId, "b");

  // An invalid text releases the earlier list and reports the code; a start
  // then finds no list and returns at once, without a log line.
  EXPECT_EQ(manager.ZRX_parse2DStickerResource("[1,", error, nullptr),
            nullptr);
  EXPECT_NE(error, -77);
  const int failure = error;
  LogCapture::instance().clear();
  manager.ZRX_start2DStickerDownloadAllSticker();
  EXPECT_FALSE(LogCapture::instance().contains("no valid index"));

  // A valid text after a failed one: the error keeps the failure's code.
  ZRX2DStickerResList* next =
      manager.ZRX_parse2DStickerResource("[]", error, nullptr);
  ASSERT_NE(next, nullptr);
  EXPECT_TRUE(next->items.empty());
  EXPECT_EQ(error, failure);
}

TEST(ZRResourceDownloadManagerTest, CopiesShareOneStateUntilTheFirstDies) {
  TempDir dir;
  zrxtest::writeFile(dir / "here.png", "png");
  RecordingListener listener;
  int error = 0;

  auto* source = new ZRResourceDownloadManager();
  ZRResourceDownloadManager copy(*source);
  source->ZRX_set2DStickerDownloadPath(dir.path());
  ASSERT_NE(copy.ZRX_parse2DStickerResource(installedListJson(), error,
                                            &listener),
            nullptr);
  // The list parsed through the copy, the path set through the source and
  // the start through the source all meet in the one state.
  source->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_EQ(listener.finals().size(), 1u);
  EXPECT_EQ(listener.finals()[0].kind, RecordingListener::Kind::kSuccess);

  delete source;  // tears the shared state down for the copy too
  error = 5;
  EXPECT_EQ(copy.ZRX_parse2DStickerResource("[{}]", error, nullptr), nullptr);
  EXPECT_EQ(error, 5);
  copy.ZRX_set2DStickerDownloadPath(dir.path());
  copy.ZRX_start2DStickerDownloadAllSticker();
  copy.ZRX_start2DStickerDownloadSticker("here", &listener, 1);
  copy.ZRX_stop2DStickerDownloadSticker();
  copy.setStickerResList(nullptr);
  EXPECT_EQ(listener.finals().size(), 1u);
  // The copy's own destruction only drops its reference.
}

TEST(ZRResourceDownloadManagerTest, HandedOverListsAreOwnedAndReleased) {
  int error = 0;
  // A list handed over is released by the teardown, null entries skipped;
  // the list it replaced stays the caller's (ASan reports a leak or a double
  // release if either goes wrong).
  ZRX2DStickerResList* mine = nullptr;
  {
    ZRResourceDownloadManager manager;
    mine = manager.ZRX_parse2DStickerResource("[{}]", error, nullptr);
    ASSERT_NE(mine, nullptr);
    auto* handed = new ZRX2DStickerResList();
    handed->items.push_back(new ZRX2DStickerResItem());
    handed->items.push_back(nullptr);
    manager.setStickerResList(handed);
  }
  for (ZRX2DStickerResItem* item : mine->items) delete item;
  delete mine;

  // setStickerResList(null) forgets the parsed list without releasing it,
  // and the next parse releases nothing.
  ZRX2DStickerResList* kept = nullptr;
  {
    ZRResourceDownloadManager manager;
    kept = manager.ZRX_parse2DStickerResource("[{},{}]", error, nullptr);
    manager.setStickerResList(nullptr);
    ASSERT_NE(manager.ZRX_parse2DStickerResource("[{}]", error, nullptr),
              nullptr);
  }
  ASSERT_EQ(kept->items.size(), 2u);
  for (ZRX2DStickerResItem* item : kept->items) delete item;
  delete kept;

  // A copy of a list shares the items; destroying it leaves them intact.
  ZRResourceDownloadManager manager;
  ZRX2DStickerResList* list =
      manager.ZRX_parse2DStickerResource(R"([{"resId":"x"}])", error, nullptr);
  { ZRX2DStickerResList copy(*list); }
  EXPECT_EQ(list->items[0]->resId, "x");
}

TEST(ZRResourceDownloadManagerTest, AssignmentThatDropsTheLastReferenceTearsDown) {
  ZRResourceDownloadManager a;
  ZRResourceDownloadManager b;
  int error = 0;
  ASSERT_NE(a.ZRX_parse2DStickerResource("[{}]", error, nullptr), nullptr);
  a = a;  // self-assignment changes nothing
  ASSERT_NE(a.ZRX_parse2DStickerResource("[{},{}]", error, nullptr), nullptr);

  LogCapture::instance().clear();
  a = b;  // a's former state had no other reference: its downloader stops
  EXPECT_TRUE(LogCapture::instance().contains("stop downloader success!"));
  // Both now share b's state.
  ZRX2DStickerResList* list =
      a.ZRX_parse2DStickerResource("[{},{},{}]", error, nullptr);
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items.size(), 3u);
}

TEST(ZRResourceDownloadManagerTest, DefaultPathIsTheExecutablesDirectory) {
  const std::string probe =
      zrxtest::executableDir() + "/zrx-default-path-probe.png";
  zrxtest::writeFile(probe, "x");
  RecordingListener listener;
  {
    ZRResourceDownloadManager manager;
    int error = 0;
    manager.ZRX_parse2DStickerResource(
        R"([{"resId":"p","name":"zrx-default-path-probe.png"}])", error,
        &listener);
    manager.ZRX_start2DStickerDownloadAllSticker();
  }
  std::remove(probe.c_str());
  ASSERT_EQ(listener.finals().size(), 1u);
  EXPECT_EQ(listener.finals()[0].kind, RecordingListener::Kind::kSuccess);
}

TEST(ZRResourceDownloadManagerTest, ParseLetsTheDownloaderForgetTheOldList) {
  TempDir dir;
  zrxtest::writeFile(dir / "here.png", "png");
  RecordingListener listener;
  ZRResourceDownloadManager manager;
  manager.ZRX_set2DStickerDownloadPath(dir.path());
  int error = 0;
  manager.ZRX_parse2DStickerResource(installedListJson(), error, &listener);
  manager.ZRX_start2DStickerDownloadAllSticker();  // attached, no worker
  ASSERT_EQ(listener.finals().size(), 1u);

  // After a new parse the old list is gone; a single-sticker start must not
  // reach it (ASan would report a use after free) and does nothing.
  manager.ZRX_parse2DStickerResource(installedListJson(), error, &listener);
  LogCapture::instance().clear();
  manager.ZRX_start2DStickerDownloadSticker("here", &listener, 1);
  EXPECT_FALSE(LogCapture::instance().contains("start downloading!"));
  EXPECT_EQ(listener.finals().size(), 1u);
}
