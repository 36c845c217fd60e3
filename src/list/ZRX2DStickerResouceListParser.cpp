#include "list/ZRX2DStickerResouceListParser.h"

#include <rapidjson/error/error.h>
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

#include <climits>
#include <cstring>
#include <memory>
#include <utility>

#include "list/TextConversion.h"
#include "log/LogStatement.h"

namespace {

constexpr const char* kFunctionName =
    "ZRX2DStickerResouceListParser::parseWithString";

// Deepest nesting that the recursive reader may reach: it takes the parsing
// thread's stack once a level, and the host's thread may have a small one.
constexpr unsigned kRecursiveDepth = 64;

using rapidjson::SizeType;

// Length of a JSON string up to its first NUL: an escaped NUL ends the text.
// Without `mayHoldNul` (the list has no "\u0000" at all) no string can hold
// one, and none is searched.
std::size_t textLength(const char* text, SizeType length, bool mayHoldNul) {
  if (!mayHoldNul) return length;
  const void* nul = std::memchr(text, '\0', length);
  return nul != nullptr ? static_cast<const char*>(nul) - text : length;
}

bool isAscii(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

// Releases a list under construction and its items if building it throws;
// a list handed to the caller is release()d first.
class ListGuard {
 public:
  explicit ListGuard(ZRX2DStickerResList* list) : list_(list) {}
  ~ListGuard() {
    if (list_ == nullptr) return;
    for (ZRX2DStickerResItem* item : list_->items) delete item;
    delete list_;
  }
  ListGuard(const ListGuard&) = delete;
  ListGuard& operator=(const ListGuard&) = delete;
  ZRX2DStickerResList* get() const { return list_; }
  ZRX2DStickerResList* release() {
    ZRX2DStickerResList* list = list_;
    list_ = nullptr;
    return list;
  }

 private:
  ZRX2DStickerResList* list_;
};

// Builds the list straight from the reader's events, with no document in
// between: a 100000-item list no longer makes and walks a tree of some
// 400000 values before its items, and the items are the only memory that
// the parse keeps. The result is the one a Document parsed with the default
// flags would give, read as follows:
// - Only the elements of a root array make items, one per element in
//   order; a root that is no array gives none.
// - An element that is no object makes the item of an empty object.
// - Keys compare whole, byte for byte. The first member of a name counts,
//   also when its value has the wrong type: a "url", "name" or "ext" that is
//   no string counts as missing, a "resId" that is no string or 64-bit
//   integer reads "0", an "unzip_type" that is no 32-bit integer reads 0.
// - A string ends at its first NUL.
// Any nesting depth is read (see parseWithString), never at a risk to the
// parsing thread's stack.
// Used on the parsing thread for one parse.
class ListBuilder {
 public:
  // `maxDepth` 0: any depth; else the events stop (the handler returns
  // false) at the first array or object nested deeper, and tooDeep() says
  // so.
  ListBuilder(ZRX2DStickerResList& list, Md5& digest,
              ZRX2DStickerDownloadListener* listener, bool mayHoldNul,
              unsigned maxDepth)
      : list_(list),
        digest_(digest),
        listener_(listener),
        mayHoldNul_(mayHoldNul),
        maxDepth_(maxDepth) {}

  bool Null() { return other(); }
  bool Bool(bool) { return other(); }
  // Numbers as a Document types them: a 32-bit int, a 64-bit int, or
  // neither.
  bool Int(int i) { return integer(i, true, true); }
  bool Uint(unsigned u) { return integer(u, u <= INT_MAX, true); }
  bool Int64(int64_t i) {
    return integer(i, i >= INT_MIN && i <= INT_MAX, true);
  }
  bool Uint64(uint64_t u) {
    return integer(static_cast<int64_t>(u), u <= INT_MAX, u <= INT64_MAX);
  }
  bool Double(double) { return other(); }
  bool RawNumber(const char*, SizeType, bool) { return other(); }

  bool String(const char* text, SizeType length, bool) {
    if (depth_ == kElementDepth && rootIsArray_) return emptyElement();
    if (depth_ != kMemberDepth || item_ == nullptr) return true;
    const std::size_t cut = textLength(text, length, mayHoldNul_);
    switch (std::exchange(pending_, Member::kNone)) {
      case Member::kResId:
        item_->resId.assign(text, cut);
        break;
      case Member::kUrl:
        item_->url.assign(text, cut);
        break;
      case Member::kName:
        item_->fileName.assign(text, cut);
        break;
      case Member::kExt:
        ext_.assign(text, cut);
        hasExt_ = true;
        break;
      case Member::kUnzipType:
        unzipType_ = 0;
        break;
      case Member::kNone:
        break;
    }
    return true;
  }

  bool Key(const char* key, SizeType length, bool) {
    if (depth_ != kMemberDepth || item_ == nullptr) return true;
    Member member = Member::kNone;
    if (length == 3 && std::memcmp(key, "url", 3) == 0) {
      member = Member::kUrl;
    } else if (length == 3 && std::memcmp(key, "ext", 3) == 0) {
      member = Member::kExt;
    } else if (length == 4 && std::memcmp(key, "name", 4) == 0) {
      member = Member::kName;
    } else if (length == 5 && std::memcmp(key, "resId", 5) == 0) {
      member = Member::kResId;
    } else if (length == 10 && std::memcmp(key, "unzip_type", 10) == 0) {
      member = Member::kUnzipType;
    }
    const unsigned bit = 1u << static_cast<unsigned>(member);
    pending_ = (seen_ & bit) != 0 ? Member::kNone : member;
    seen_ |= bit;
    return true;
  }

  bool StartObject() {
    if (depth_ == kElementDepth && rootIsArray_) {
      startItem();
    } else if (depth_ == kMemberDepth) {
      other();
    }
    return enter();
  }
  bool EndObject(SizeType) {
    --depth_;
    if (depth_ == kElementDepth && item_ != nullptr) return finishItem();
    return true;
  }
  bool StartArray() {
    if (depth_ == kRootDepth) {
      rootIsArray_ = true;
    } else if (depth_ == kElementDepth && rootIsArray_) {
      if (!emptyElement()) return false;
    } else if (depth_ == kMemberDepth) {
      other();
    }
    return enter();
  }
  bool EndArray(SizeType) {
    --depth_;
    return true;
  }

  bool rootIsArray() const { return rootIsArray_; }
  bool tooDeep() const { return tooDeep_; }

 private:
  // Nesting depth of the values that the events are about.
  static constexpr unsigned kRootDepth = 0;     // the root
  static constexpr unsigned kElementDepth = 1;  // the root array's elements
  static constexpr unsigned kMemberDepth = 2;   // an element's members

  // The members that mean something; kNone is any other key (its bit in
  // seen_ is of no use).
  enum class Member : unsigned { kNone, kResId, kUrl, kName, kUnzipType, kExt };

  bool enter() {
    if (++depth_ <= maxDepth_ || maxDepth_ == 0) return true;
    tooDeep_ = true;
    return false;
  }

  // A value that is neither string nor number: an element of that kind, or
  // a member of that type.
  bool other() {
    if (depth_ == kElementDepth && rootIsArray_) return emptyElement();
    if (depth_ != kMemberDepth || item_ == nullptr) return true;
    switch (std::exchange(pending_, Member::kNone)) {
      case Member::kResId:
        item_->resId = "0";
        break;
      case Member::kUnzipType:
        unzipType_ = 0;
        break;
      default:  // a "url", "name" or "ext" that is no string is missing
        break;
    }
    return true;
  }

  bool integer(int64_t value, bool isInt, bool isInt64) {
    if (depth_ == kElementDepth && rootIsArray_) return emptyElement();
    if (depth_ != kMemberDepth || item_ == nullptr) return true;
    switch (std::exchange(pending_, Member::kNone)) {
      case Member::kResId:
        // Decimal text of a signed 64-bit integer; anything else reads 0.
        item_->resId = std::to_string(isInt64 ? value : 0);
        break;
      case Member::kUnzipType:
        unzipType_ = isInt ? static_cast<int>(value) : 0;
        break;
      default:
        break;
    }
    return true;
  }

  void startItem() {
    item_.reset(new ZRX2DStickerResItem());
    seen_ = 0;
    pending_ = Member::kNone;
    unzipType_ = 2;  // missing
    hasExt_ = false;
  }

  bool emptyElement() {
    startItem();
    return finishItem();
  }

  // The naming rule and the item's start values; hands the item to the
  // list.
  bool finishItem() {
    ZRX2DStickerResItem& item = *item_;
    item.unzipType = unzipType_;
    // The digest only where it is used.
    if (item.unzipType == 0 || item.fileName.empty()) {
      item.dirName = digest_.digestText(item.url);
      if (item.fileName.empty()) item.fileName = item.dirName;
    } else if (item.unzipType == 1) {
      item.dirName = item.fileName;
    }
    // Nobody else sees the item yet: no ordering needed.
    item.downloadState = 0;
    item.timeoutSeconds = 0;
    item.listener = listener_;
    if (hasExt_) item.fileName += ext_;

    // Into the narrow code page; a failed step leaves the name empty. ASCII
    // text comes out of the pair unchanged (every code page agrees on it),
    // so only other text makes the round trip.
    if (!isAscii(item.fileName)) {
      std::u16string wide;
      std::string narrow;
      static_cast<void>(utf8ToWide(item.fileName, wide));
      static_cast<void>(wideToAnsi(wide, narrow));
      item.fileName = std::move(narrow);
    }
    list_.items.push_back(item_.get());  // if this throws, item_ still owns
    item_.release();
    return true;
  }

  ZRX2DStickerResList& list_;
  Md5& digest_;
  ZRX2DStickerDownloadListener* listener_;
  const bool mayHoldNul_;
  const unsigned maxDepth_;
  bool tooDeep_ = false;
  unsigned depth_ = 0;
  bool rootIsArray_ = false;
  // The element object being read; null outside one.
  std::unique_ptr<ZRX2DStickerResItem> item_;
  unsigned seen_ = 0;  // bits of the members met in this element
  Member pending_ = Member::kNone;
  int unzipType_ = 2;
  bool hasExt_ = false;
  std::string ext_;  // kept between elements for its room
};

}  // namespace

ZRX2DStickerResouceListParser::ZRX2DStickerResouceListParser() : lastError(0) {}

ZRX2DStickerResouceListParser::~ZRX2DStickerResouceListParser() = default;

ZRX2DStickerResList* ZRX2DStickerResouceListParser::parseWithString(
    std::string text, ZRX2DStickerDownloadListener* listener) {
  // The text ends at its first NUL byte and is read as Document::Parse with
  // the default flags reads it. The text is this call's own copy, so the
  // reader decodes each string in place instead of into a stack of its own:
  // the same events and errors, one copy of every string fewer.
  //
  // A list nests two levels. The recursive reader, the fastest, reads up to
  // kRecursiveDepth levels; it takes the parsing thread's stack once a
  // level, so a text that goes deeper is read again from the start by the
  // iterative reader, which keeps its levels on a heap stack (8 bytes a
  // level, linear in the text). The first pass decodes in place, so the
  // second reads a copy taken before it, in a buffer kept for the next
  // parse. The two readers give the same events and codes for every text
  // that reaches the second pass: such a text opens with a bracket (a first
  // token that can't open a value, where they differ, stops the first).
  const bool mayHoldNul = text.find("\\u0000") != std::string::npos;
  const bool mayNestDeeper = text.size() > kRecursiveDepth;
  if (mayNestDeeper) spareText.assign(text);

  ListGuard list(new ZRX2DStickerResList());
  bool rootIsArray = false;
  rapidjson::Reader reader;
  rapidjson::ParseResult result;
  {
    ListBuilder builder(*list.get(), digestState, listener, mayHoldNul,
                        kRecursiveDepth);
    rapidjson::InsituStringStream stream(&text[0]);
    result = reader.Parse<rapidjson::kParseInsituFlag>(stream, builder);
    rootIsArray = builder.rootIsArray();
    if (builder.tooDeep()) {
      for (ZRX2DStickerResItem* item : list.get()->items) delete item;
      list.get()->items.clear();
      ListBuilder deep(*list.get(), digestState, listener, mayHoldNul, 0);
      rapidjson::InsituStringStream deepStream(&spareText[0]);
      result = reader.Parse<rapidjson::kParseInsituFlag |
                            rapidjson::kParseIterativeFlag>(deepStream, deep);
      rootIsArray = deep.rootIsArray();
    }
  }
  if (result.IsError()) {
    lastError = static_cast<int32_t>(result.Code());
    ZRX_LOG(6, "[%s:%d] sticker's resource json parse error=%d",
            ZRX_AT(kFunctionName), static_cast<int>(lastError));
    return nullptr;
  }
  // A root that is no array gives an empty list and no log line.
  if (!rootIsArray) return list.release();
  ZRX_LOG(3, "[%s:%d] sticker's items num=%d", ZRX_AT(kFunctionName),
          static_cast<int>(list.get()->items.size()));
  return list.release();
}
