#include "zrx2dsticker/ZRResourceDownloadManager.h"

// Plain vector semantics: copies duplicate the pointers, the destructor
// releases the vector's storage only. The manager releases the items.
ZRX2DStickerResList::ZRX2DStickerResList() = default;
ZRX2DStickerResList::~ZRX2DStickerResList() = default;
ZRX2DStickerResList::ZRX2DStickerResList(const ZRX2DStickerResList&) = default;
ZRX2DStickerResList::ZRX2DStickerResList(ZRX2DStickerResList&&) noexcept =
    default;
ZRX2DStickerResList& ZRX2DStickerResList::operator=(
    const ZRX2DStickerResList&) = default;
ZRX2DStickerResList& ZRX2DStickerResList::operator=(
    ZRX2DStickerResList&&) noexcept = default;
