// The manager's front: list replacement and ownership, copies and teardown.
// Under ASan a leak, a double release or a use of a released list fails here.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "platform/Platform.h"
#include "support/RecordingListener.h"
#include "support/TestServer.h"
#include "support/TestSupport.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

namespace zrxtest {
namespace {

// One plain sticker that lies beside the test executable during the test: a
// start of all stickers reports it on the caller's thread, no transfer.
const char* const kInstalledList =
    R"([{"resId":"here","url":"http://127.0.0.1:1/x","name":"zrx-probe.png"}])";

TEST(ZRResourceDownloadManagerTest, ParseReplacesTheListAndWritesErrorsOnly) {
  ZRResourceDownloadManager manager;
  int error = -77;
  ZRX2DStickerResList* first = manager.ZRX_parse2DStickerResource(
      R"([{"resId":"a"},{"resId":"b"}])", error, nullptr);
  ASSERT_NE(first, nullptr);
  EXPECT_EQ(error, -77) << "a success doesn't write the error code";
  // An empty text changes nothing: the earlier list stays valid.
  EXPECT_EQ(manager.ZRX_parse2DStickerResource("", error, nullptr), nullptr);
  EXPECT_EQ(first->items[1]->resId, "b");

  // An invalid text releases the list: a start finds none and returns at once.
  EXPECT_EQ(manager.ZRX_parse2DStickerResource("[1,", error, nullptr), nullptr);
  EXPECT_EQ(error, 3);
  LogCapture::instance().clear();
  manager.ZRX_start2DStickerDownloadAllSticker();
  EXPECT_FALSE(LogCapture::instance().contains("no valid index"));
}

TEST(ZRResourceDownloadManagerTest, CopiesShareOneStateUntilTheFirstDies) {
  // The default path is the executable's directory.
  const std::string probe = executableDir() + "/zrx-probe.png";
  writeFile(probe, "x");
  RecordingListener listener;
  int error = 0;
  auto* source = new ZRResourceDownloadManager();
  ZRResourceDownloadManager copy(*source);
  ASSERT_NE(copy.ZRX_parse2DStickerResource(kInstalledList, error, &listener),
            nullptr);
  source->ZRX_start2DStickerDownloadAllSticker();  // attached, no worker
  std::remove(probe.c_str());
  ASSERT_EQ(listener.finals().size(), 1u);
  EXPECT_EQ(listener.finals()[0].kind, RecordingListener::Kind::kSuccess);
  // A parse releases the attached list: a single start must not reach it.
  source->ZRX_parse2DStickerResource(kInstalledList, error, &listener);
  LogCapture::instance().clear();
  copy.ZRX_start2DStickerDownloadSticker("here", &listener, 1);
  EXPECT_FALSE(LogCapture::instance().contains("start downloading!"));
  // Yet the downloader is not idle: the next start of all stickers stops
  // it, with both lines, before it attaches the new list.
  ASSERT_NE(copy.ZRX_parse2DStickerResource("[]", error, &listener), nullptr);
  LogCapture::instance().clear();
  source->ZRX_start2DStickerDownloadAllSticker();
  std::vector<std::string> messages;
  for (const LogLine& line : LogCapture::instance().lines()) {
    messages.push_back(line.message.substr(line.message.find("] ") + 2));
  }
  EXPECT_EQ(messages, (std::vector<std::string>{
                          "stop downloader begin!", "stop downloader success!",
                          "no valid index to download!"}));

  delete source;  // tears the shared state down for the copy too
  EXPECT_EQ(copy.ZRX_parse2DStickerResource("[{}]", error, nullptr), nullptr);
  copy.ZRX_start2DStickerDownloadAllSticker();
  copy.ZRX_stop2DStickerDownloadSticker();
  EXPECT_EQ(listener.finals().size(), 1u);
}

// The default path is the host executable's directory as the system names
// it, in the narrow code page, put through the conversion from UTF-8 that a
// host's path goes through. A host in the directory of the bytes C3 A9
// ("é" in UTF-8, "Ã©" at 1252, "ﾃｩ" at 932) therefore looks in "é" at
// UTF-8 and at 1252 (E9), and in "e" at 932. The host's own name may hold a
// trail byte that equals '\\' ("表" at 932), which is no separator.
TEST(ZRResourceDownloadManagerTest, DefaultPathIsTheConvertedExecutableDir) {
  if (!knownNarrowCodePage()) GTEST_SKIP() << "code page " << narrowCodePage();
  TempDir temp;
  const std::string home = temp / "\xC3\xA9";
  const std::string looked = temp / inNarrowPage("\xC3\xA9", "\xE9", "e");
  ASSERT_EQ(zrx::platform::makeDirectory(home), 0);
  if (looked != home) {
    ASSERT_EQ(zrx::platform::makeDirectory(looked), 0);
  }
  const std::string host =
      inNarrowPage("\xE8\xA1\xA8", "host", "\x95\\") + kExecutableSuffix;
  copyProgram(executableDir() + "/crash_host" + kExecutableSuffix, home, host);
  // Found installed where the default path leads; anywhere else it is
  // fetched from a port where nothing listens, and fails.
  writeFile(looked + "/probe.png", "x");
  writeFile(temp / "list.json",
            R"([{"resId":"probe","name":"probe.png","url":"http://127.0.0.1:)" +
                std::to_string(TestServer::closedPort()) + R"(/x"}])");
  ChildProcess child(home + "/" + host, {"-", temp / "list.json"});
  std::string out;
  const auto deadline =
      std::chrono::steady_clock::now() + std::chrono::minutes(2);
  while (child.read(out, std::chrono::milliseconds(100)) &&
         std::chrono::steady_clock::now() < deadline) {
  }
  int status = -1;
  ASSERT_TRUE(child.wait(status));
  EXPECT_EQ(out.substr(0, out.find_first_of("\r\n")), "OK probe");
  EXPECT_EQ(status, 0);
}

TEST(ZRResourceDownloadManagerTest, HandedOverListsAndAssignment) {
  int error = 0;
  ZRX2DStickerResList* mine = nullptr;
  {
    // The parsed list that a handed-over one replaces goes back to the
    // caller; the handed-over one is released by the next parse, null
    // entries skipped.
    ZRResourceDownloadManager manager;
    mine = manager.ZRX_parse2DStickerResource("[{},{}]", error, nullptr);
    ASSERT_NE(mine, nullptr);
    auto* handed = new ZRX2DStickerResList();
    handed->items = {new ZRX2DStickerResItem(), nullptr};
    manager.setStickerResList(handed);
    ASSERT_NE(manager.ZRX_parse2DStickerResource("[{}]", error, nullptr),
              nullptr);
  }
  ASSERT_EQ(mine->items.size(), 2u);
  for (ZRX2DStickerResItem* item : mine->items) delete item;
  delete mine;

  ZRResourceDownloadManager a, b;
  ASSERT_NE(a.ZRX_parse2DStickerResource("[{},{}]", error, nullptr), nullptr);
  LogCapture::instance().clear();
  a = b;  // a's former state had no other reference: it is torn down
  EXPECT_TRUE(LogCapture::instance().contains("stop downloader success!"));
  ASSERT_NE(a.ZRX_parse2DStickerResource("[{}]", error, nullptr), nullptr);
}

}  // namespace
}  // namespace zrxtest
