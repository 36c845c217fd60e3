#include "zrx2dsticker/ZRResourceDownloadManager.h"

#include <utility>

#include "download/ZRX2DStickerResourceDownloader.h"
#include "manager/ImpCore.h"

// The level between the shared pointer and ImpCore: every copy sees the same
// Imp, and the first copy that dies clears `core` for the others.
struct ZRResourceDownloadManager::Imp {
  ImpCore* core = nullptr;

  void tearDown() {
    delete core;
    core = nullptr;
  }
  // Reached only when the last reference goes without a destructor of a
  // manager having torn the state down: a copy assignment that dropped it.
  // Tearing down here keeps workers, list and libcurl from leaking.
  ~Imp() { tearDown(); }
};

ZRResourceDownloadManager::ZRResourceDownloadManager()
    : imp(std::make_shared<Imp>()) {
  imp->core = new ImpCore();
}

ZRResourceDownloadManager::ZRResourceDownloadManager(
    const ZRResourceDownloadManager& other)
    : imp(other.imp) {}

ZRResourceDownloadManager& ZRResourceDownloadManager::operator=(
    const ZRResourceDownloadManager& other) {
  imp = other.imp;  // self-assignment keeps the same Imp
  return *this;
}

ZRResourceDownloadManager::~ZRResourceDownloadManager() { imp->tearDown(); }

ZRX2DStickerResList* ZRResourceDownloadManager::ZRX_parse2DStickerResource(
    std::string json, int& errorCode, ZRX2DStickerDownloadListener* listener) {
  if (imp->core == nullptr) return nullptr;
  return imp->core->parseStickerResource(std::move(json), errorCode,
                                         listener);
}

void ZRResourceDownloadManager::setStickerResList(ZRX2DStickerResList* list) {
  if (imp->core == nullptr) return;
  imp->core->stickerResList = list;
}

void ZRResourceDownloadManager::ZRX_set2DStickerDownloadPath(
    std::string path) {
  if (imp->core == nullptr) return;
  imp->core->downloader->setDownloadPath(std::move(path));
}

void ZRResourceDownloadManager::ZRX_start2DStickerDownloadAllSticker() {
  if (imp->core == nullptr) return;
  imp->core->downloader->startDownloadAllStickerResource(
      imp->core->stickerResList);
}

void ZRResourceDownloadManager::ZRX_start2DStickerDownloadSticker(
    std::string resId, ZRX2DStickerDownloadListener* listener,
    int timeoutSeconds) {
  if (imp->core == nullptr) return;
  imp->core->downloader->startDownloadStickerResource(std::move(resId),
                                                      listener, timeoutSeconds);
}

void ZRResourceDownloadManager::ZRX_stop2DStickerDownloadSticker() {
  if (imp->core == nullptr) return;
  imp->core->downloader->stopDownloadStikcerResource();
}
