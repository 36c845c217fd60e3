#include "manager/ImpCore.h"

#include <curl/curl.h>

#include "download/ZRX2DStickerResourceDownloader.h"
#include "list/ZRX2DStickerResouceListParser.h"
#include "download/StickerPaths.h"

ImpCore::ImpCore()
    : stickerResList(nullptr),
      parser(new ZRX2DStickerResouceListParser()),
      downloader(new ZRX2DStickerResourceDownloader()) {
  // The default download path, passed on like a host's path.
  downloader->setDownloadPath(zrx::executableDirectory());
  // A failure here shows up later as failed transfers; nothing to report.
  (void)curl_global_init(CURL_GLOBAL_ALL);
}

ImpCore::~ImpCore() {
  delete downloader;
  downloader = nullptr;
  releaseList();
  delete parser;
  parser = nullptr;
  curl_global_cleanup();
}

void ImpCore::releaseList() {
  if (stickerResList == nullptr) return;
  for (ZRX2DStickerResItem* item : stickerResList->items) delete item;
  delete stickerResList;
  stickerResList = nullptr;
}

ZRX2DStickerResList* ImpCore::parseStickerResource(
    std::string text, int& errorCode,
    ZRX2DStickerDownloadListener* listener) {
  if (text.empty()) return nullptr;
  // The downloader lets go of the list before its items are released, so
  // no worker and no later single-sticker start reaches freed memory.
  downloader->forgetList(stickerResList);
  releaseList();
  stickerResList = parser->parseWithString(std::move(text), listener);
  if (stickerResList == nullptr) errorCode = parser->lastError;
  return stickerResList;
}
