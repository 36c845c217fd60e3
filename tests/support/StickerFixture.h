// What the network tests share: a manager that downloads into a fresh
// directory from a loopback server over another, and helpers to write the
// sticker list, find where a sticker lands and read its one final call.
#ifndef ZRX2DSTICKER_TESTS_SUPPORT_STICKERFIXTURE_H_
#define ZRX2DSTICKER_TESTS_SUPPORT_STICKERFIXTURE_H_

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/RecordingListener.h"
#include "support/TestServer.h"
#include "support/TestSupport.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

namespace zrxtest {

using Kind = RecordingListener::Kind;

// One element of a sticker list; an empty name or ext and type 2 (plain,
// the default) leave their key out.
inline std::string sticker(const std::string& resId, const std::string& url,
                           const std::string& name = "",
                           const std::string& ext = "", int unzipType = 2) {
  std::string json = R"({"resId":")" + resId + R"(","url":")" + url + "\"";
  if (!name.empty()) json += R"(,"name":")" + name + "\"";
  if (!ext.empty()) json += R"(,"ext":")" + ext + "\"";
  if (unzipType != 2) json += R"(,"unzip_type":)" + std::to_string(unzipType);
  return json + "}";
}

inline std::string listOf(const std::vector<std::string>& stickers) {
  std::string json = "[";
  for (const std::string& s : stickers) json += (json.size() > 1 ? "," : "") + s;
  return json + "]";
}

// The seed of a randomised test: ZRX_TEST_SEED when set, else a fresh one.
inline unsigned testSeed() {
  const char* fixed = std::getenv("ZRX_TEST_SEED");
  const unsigned seed =
      fixed ? std::strtoul(fixed, nullptr, 10) : std::random_device{}();
  std::printf("seed %u (rerun with ZRX_TEST_SEED=%u)\n", seed, seed);
  return seed;
}

inline std::string randomBytes(std::size_t size, unsigned seed) {
  std::mt19937 generator(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(generator() & 0xFF);
  return bytes;
}

// The file holds exactly `content`; a failure gives sizes, not bytes.
inline ::testing::AssertionResult holds(const std::string& path,
                                        const std::string& content) {
  const std::string actual = readFile(path);
  if (actual == content) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << path << " holds " << actual.size()
                                       << " bytes, not " << content.size();
}

class StickerFixture : public ::testing::Test {
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

  void parse(const std::vector<std::string>& stickers,
             ZRX2DStickerDownloadListener* to = nullptr) {
    json = listOf(stickers);
    int error = 0;
    list = manager->ZRX_parse2DStickerResource(json, error, to ? to : &listener);
    ASSERT_NE(list, nullptr) << json;
  }
  ZRX2DStickerResItem* item(const std::string& resId) const {
    for (ZRX2DStickerResItem* i : list->items) {
      if (i->resId == resId) return i;
    }
    throw std::runtime_error("no item " + resId);
  }
  std::string stickerDir(const std::string& resId) const {
    const std::string& dir = item(resId)->dirName;
    return dir.empty() ? downloads.path() : downloads / dir;
  }
  std::string filePath(const std::string& resId) const {
    return stickerDir(resId) + "/" + item(resId)->fileName;
  }
  // The one final call of `resId`.
  static RecordingListener::Event finalOf(const std::string& resId,
                                          const RecordingListener& of) {
    const auto finals = of.finalsFor(resId);
    EXPECT_EQ(finals.size(), 1u) << resId;
    return finals.empty() ? RecordingListener::Event{} : finals.back();
  }
  RecordingListener::Event finalOf(const std::string& resId) const {
    return finalOf(resId, listener);
  }
  // Info-ZIP zip makes `name` below the served directory from `files`, with
  // an entry for each directory; `order` names what goes in, in order.
  void makeArchive(const std::string& name,
                   const std::map<std::string, std::string>& files,
                   const std::string& order = ".") {
    const std::string src = served / (name + ".src");
    for (const auto& [file, content] : files) {
      makeDirs(src + "/" + file.substr(0, file.rfind('/') + 1));
      writeFile(src + "/" + file, content);
    }
    ASSERT_EQ(run("cd " + shellQuote(src) + " && zip -qr " +
                  shellQuote("../" + name) + " " + order),
              0);
  }
  // The listener hears of a failure before the clean-up and its log line.
  static bool waitForLog(const std::string& fragment) {
    return waitUntil([&] { return LogCapture::instance().contains(fragment); });
  }

  TempDir served;
  TempDir downloads;
  std::unique_ptr<TestServer> server;
  RecordingListener listener;
  std::unique_ptr<ZRResourceDownloadManager> manager;
  ZRX2DStickerResList* list = nullptr;
  std::string json;  // the list parsed last
};

}  // namespace zrxtest

#endif  // ZRX2DSTICKER_TESTS_SUPPORT_STICKERFIXTURE_H_
