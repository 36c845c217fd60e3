// Parses a two-sticker list through the installed library and prints it,
// after the version of the headers it was built against.
#include <zrx2dsticker/Version.h>
#include <zrx2dsticker/ZRResourceDownloadManager.h>

#include <cstdio>
#include <type_traits>

// Ordinary host code that the public records and log functions must accept
// as written: a plain int state and the log key as a char pointer.
static_assert(
    std::is_same<decltype(ZRX2DStickerResItem::downloadState), int>::value,
    "downloadState is a plain int");
static void (*const setKey)(char*) = &ZRXSetLogBaseManagerUniqueKey;

static int stateOf(ZRX2DStickerResItem* item) {
  auto s = item->downloadState;
  std::printf("%d\n", item->downloadState);
  int* p = &item->downloadState;
  return s + *p;
}

int main() {
  std::printf("zrx2dsticker %s\n", ZRX2DSTICKER_VERSION_STRING);
  ZRXDisableLog();
  static char key[] = "consumer";
  setKey(key);
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
  if (stateOf(list->items[0]) != 0) return 1;
  return 0;
}
