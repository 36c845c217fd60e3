#include "zrx2dsticker/ZRResourceDownloadManager.h"

ZRX2DStickerDownloadListener::ZRX2DStickerDownloadListener() = default;
ZRX2DStickerDownloadListener::ZRX2DStickerDownloadListener(
    const ZRX2DStickerDownloadListener&) = default;
ZRX2DStickerDownloadListener& ZRX2DStickerDownloadListener::operator=(
    const ZRX2DStickerDownloadListener&) {
  return *this;  // a listener has no state to copy
}
ZRX2DStickerDownloadListener::~ZRX2DStickerDownloadListener() = default;
