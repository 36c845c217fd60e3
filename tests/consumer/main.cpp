// Parses a two-sticker list through the installed library and prints it.
#include <zrx2dsticker/ZRResourceDownloadManager.h>

#include <cstdio>

int main() {
  ZRXDisableLog();
  ZRResourceDownloadManager manager;
  int error = 0;
  ZRX2DStickerResList* list = manager.ZRX_parse2DStickerResource(
      R"([{"resId":"a","url":"abc"},{"resId":7,"name":"b","ext":".zip","unzip_type":1}])",
      error, nullptr);
  if (list == nullptr || list->items.size() != 2) {
    std::fprintf(stderr, "parse failed: %d\n", error);
    return 1;
  }
  for (const ZRX2DStickerResItem* item : list->items) {
    std::printf("%s %s %s %d\n", item->resId.c_str(), item->dirName.c_str(),
                item->fileName.c_str(), item->unzipType);
  }
  return 0;
}
