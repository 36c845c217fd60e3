#include "zrx2dsticker/ZRResourceDownloadManager.h"

ZRX2DStickerResItem::ZRX2DStickerResItem()
    : listener(nullptr),
      reservedFlag(false),
      unzipType(2),
      downloadState(0),
      timeoutSeconds(0),
      reservedInt(0),
      reservedValue1(0),
      reservedValue2(0),
      downloadedBytes(0.0),
      totalBytes(0.0) {}

ZRX2DStickerResItem::~ZRX2DStickerResItem() = default;
