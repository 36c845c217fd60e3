// The shared state behind all copies of one ZRResourceDownloadManager: the
// parser, the downloader and the list in force, with its items.
//
// Created by the manager's constructor on the host's thread; used there one
// call at a time; destroyed by the first destructor of any copy.
#ifndef ZRX2DSTICKER_MANAGER_IMPCORE_H_
#define ZRX2DSTICKER_MANAGER_IMPCORE_H_

#include <string>

#include "zrx2dsticker/ZRResourceDownloadManager.h"

class ZRX2DStickerResouceListParser;
class ZRX2DStickerResourceDownloader;

class ImpCore {
 public:
  // Creates the parser and the downloader, gives the downloader the
  // directory of the host's executable as its path, initialises libcurl.
  ImpCore();
  // Stops and destroys the downloader (joining its workers) before the list
  // and its items are released; then the parser; then cleans libcurl up.
  ~ImpCore();
  ImpCore(const ImpCore&) = delete;
  ImpCore& operator=(const ImpCore&) = delete;

  // Replaces the list in force by the parse of `text`. An empty text
  // returns null and changes nothing; otherwise the former list is released
  // first, and a failed parse leaves no list and writes `errorCode`.
  ZRX2DStickerResList* parseStickerResource(
      std::string text, int& errorCode,
      ZRX2DStickerDownloadListener* listener);

  // The list in force, null if none. Owned, with its items.
  ZRX2DStickerResList* stickerResList;
  // Owned.
  ZRX2DStickerResouceListParser* parser;
  // Owned.
  ZRX2DStickerResourceDownloader* downloader;

 private:
  // Releases stickerResList and its items (null entries skipped) and sets
  // it to null.
  void releaseList();
};

#endif  // ZRX2DSTICKER_MANAGER_IMPCORE_H_
