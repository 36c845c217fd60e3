// The installed check of 2000 archive stickers of 20 entries each, all
// installed, through the public API: a start that finds every sticker on
// the disk reports each one and starts no worker. Run with the library's
// log switched off and at its default (every line to the debug channel,
// here stderr sent to /dev/null).
#include <benchmark/benchmark.h>
#include <zip.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "QuietStderr.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

namespace {

constexpr int kStickers = 2000;
constexpr int kFilesPerSticker = 19;  // plus one directory entry: 20

class CountingListener : public ZRX2DStickerDownloadListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string) override { ++successes; }
  void onDownloadFailed(std::string, int) override { ++failures; }
  std::atomic<int> successes{0};
  std::atomic<int> failures{0};
};

// 2000 installed stickers under a temporary directory: each archive
// (stored entries: the listing never inflates) beside its extracted files.
// Made once for the process and removed at its end.
class InstalledTree {
 public:
  InstalledTree() {
    char pattern[] = "/tmp/zrx-bench-check-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr) std::abort();
    root = made;
    std::string content(4096, 'x');
    json = "[";
    for (int s = 0; s < kStickers; ++s) {
      const std::string name = "s" + std::to_string(s);
      const std::string dir = root + "/" + name;
      std::filesystem::create_directories(dir + "/img");
      zipFile archive = zipOpen64((dir + "/" + name + ".zip").c_str(), 0);
      if (archive == nullptr) std::abort();
      addEntry(archive, "img/", nullptr, 0);
      for (int f = 0; f < kFilesPerSticker; ++f) {
        const std::string entry = "img/frame_" + std::to_string(f) + ".png";
        const std::size_t size = 200 + (s * 31 + f * 97) % 3800;
        addEntry(archive, entry, content.data(), size);
        std::ofstream(dir + "/" + entry, std::ios::binary)
            .write(content.data(), static_cast<std::streamsize>(size));
      }
      zipClose(archive, nullptr);
      if (s > 0) json += ',';
      json += "{\"resId\":\"" + name + "\",\"url\":\"http://127.0.0.1:9/" +
              name + ".zip\",\"name\":\"" + name +
              "\",\"unzip_type\":1,\"ext\":\".zip\"}";
    }
    json += "]";
  }
  ~InstalledTree() { std::filesystem::remove_all(root); }

  std::string root;
  std::string json;

 private:
  static void addEntry(zipFile archive, const std::string& name,
                       const char* data, std::size_t size) {
    zip_fileinfo info = {};
    if (zipOpenNewFileInZip64(archive, name.c_str(), &info, nullptr, 0, nullptr,
                              0, nullptr, 0, 0, 0) != ZIP_OK ||
        (size > 0 &&
         zipWriteInFileInZip(archive, data, static_cast<unsigned>(size)) !=
             ZIP_OK) ||
        zipCloseFileInZip(archive) != ZIP_OK) {
      std::abort();
    }
  }
};

const InstalledTree& installedTree() {
  static const InstalledTree tree;
  return tree;
}

// Arg 0: ZRXDisableLog(); arg 1: the log at its default.
void BM_InstalledCheck2000x20(benchmark::State& state) {
  const InstalledTree& tree = installedTree();
  const bool logOn = state.range(0) != 0;
  QuietStderr quiet;
  if (logOn) {
    ZRXEnableLog();
  } else {
    ZRXDisableLog();
  }
  CountingListener listener;
  ZRResourceDownloadManager manager;
  manager.ZRX_set2DStickerDownloadPath(tree.root);
  int error = 0;
  if (manager.ZRX_parse2DStickerResource(tree.json, error, &listener) ==
      nullptr) {
    state.SkipWithError("list did not parse");
    return;
  }
  for (auto _ : state) {
    listener.successes = 0;
    manager.ZRX_start2DStickerDownloadAllSticker();
    if (listener.successes != kStickers || listener.failures != 0) {
      state.SkipWithError("not every sticker was found installed");
      break;
    }
  }
  ZRXEnableLog();
  state.SetItemsProcessed(state.iterations() * kStickers);
}
BENCHMARK(BM_InstalledCheck2000x20)
    ->ArgName("log")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond);

}  // namespace
