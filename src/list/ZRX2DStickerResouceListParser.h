// Turns the JSON sticker list into records and names each sticker's
// directory and file.
//
// Created and destroyed by the manager's state; used on the host's thread,
// one parse at a time.
#ifndef ZRX2DSTICKER_LIST_ZRX2DSTICKERRESOUCELISTPARSER_H_
#define ZRX2DSTICKER_LIST_ZRX2DSTICKERRESOUCELISTPARSER_H_

#include <cstdint>
#include <string>

#include "list/Md5.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

class ZRX2DStickerResouceListParser {
 public:
  ZRX2DStickerResouceListParser();
  virtual ~ZRX2DStickerResouceListParser();

  // A new list with one new item per element of the JSON array `text`, in
  // array order; the caller owns the list and its items, and `listener` is
  // stored in each item. Null when the text (up to its first NUL byte) is
  // not valid JSON: lastError then holds RapidJSON's ParseErrorCode, the
  // code Document::Parse with the default flags gives, at any nesting
  // depth. A root that is no array gives an empty list; an element that is
  // no object gives the item of an empty object. Never fails for a single
  // element.
  ZRX2DStickerResList* parseWithString(std::string text,
                                       ZRX2DStickerDownloadListener* listener);

  // Code of the last failed parse; 0 until one fails. A good parse leaves it.
  int32_t lastError;

 private:
  // Scratch of one digest, set up anew for each item that needs one.
  Md5 digestState;
  // A copy of the text for a second pass over a deeply nested one; kept
  // between parses so that its room is reused.
  std::string spareText;
};

#endif  // ZRX2DSTICKER_LIST_ZRX2DSTICKERRESOUCELISTPARSER_H_
