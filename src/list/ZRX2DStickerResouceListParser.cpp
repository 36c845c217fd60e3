#include "list/ZRX2DStickerResouceListParser.h"

#include <rapidjson/document.h>
#include <rapidjson/error/error.h>
#include <rapidjson/reader.h>
#include <rapidjson/stream.h>

#include <cstring>
#include <memory>

#include "list/TextConversion.h"
#include "log/LogStatement.h"

namespace {

constexpr const char* kFunctionName =
    "ZRX2DStickerResouceListParser::parseWithString";

using rapidjson::SizeType;
using JsonValue = rapidjson::Value;

// Hands the reader's events on to the document, and stops the parse with
// kParseErrorTermination at an array or object nested deeper than
// kMaxJsonDepth. The reader recurses once per level, so this bound is what
// keeps a hostile list from overflowing the parsing thread's stack.
class DepthBoundHandler {
 public:
  explicit DepthBoundHandler(rapidjson::Document& document)
      : document_(document) {}

  bool Null() { return document_.Null(); }
  bool Bool(bool b) { return document_.Bool(b); }
  bool Int(int i) { return document_.Int(i); }
  bool Uint(unsigned u) { return document_.Uint(u); }
  bool Int64(int64_t i) { return document_.Int64(i); }
  bool Uint64(uint64_t u) { return document_.Uint64(u); }
  bool Double(double d) { return document_.Double(d); }
  bool RawNumber(const char* str, SizeType length, bool copy) {
    return document_.RawNumber(str, length, copy);
  }
  bool String(const char* str, SizeType length, bool copy) {
    return document_.String(str, length, copy);
  }
  bool Key(const char* str, SizeType length, bool copy) {
    return document_.Key(str, length, copy);
  }
  bool StartObject() { return enter() && document_.StartObject(); }
  bool EndObject(SizeType memberCount) {
    --depth_;
    return document_.EndObject(memberCount);
  }
  bool StartArray() { return enter() && document_.StartArray(); }
  bool EndArray(SizeType elementCount) {
    --depth_;
    return document_.EndArray(elementCount);
  }

 private:
  bool enter() { return ++depth_ <= zrx::kMaxJsonDepth; }

  rapidjson::Document& document_;
  unsigned depth_ = 0;
};

// Fills a document the way Document::Parse<kParseDefaultFlags> does (same
// reader, same flags, strings copied, the text left as it is), through
// DepthBoundHandler; keeps the reader's result.
struct BoundedParse {
  const char* text;
  rapidjson::ParseResult result;

  bool operator()(rapidjson::Document& document) {
    rapidjson::StringStream stream(text);
    rapidjson::Reader reader;
    DepthBoundHandler handler(document);
    result = reader.Parse<rapidjson::kParseDefaultFlags>(stream, handler);
    return !result.IsError();
  }
};

// Length of a JSON string value up to its first NUL: an escaped NUL ends the
// text.
std::size_t textLength(const JsonValue& value) {
  const char* text = value.GetString();
  const void* nul = std::memchr(text, '\0', value.GetStringLength());
  return nul != nullptr ? static_cast<const char*>(nul) - text
                        : value.GetStringLength();
}

void assignText(std::string& target, const JsonValue& value) {
  target.assign(value.GetString(), textLength(value));
}

bool isAscii(const std::string& text) {
  for (const char c : text) {
    if (static_cast<unsigned char>(c) >= 0x80) return false;
  }
  return true;
}

const JsonValue* stringOrNull(const JsonValue* value) {
  return value != nullptr && value->IsString() ? value : nullptr;
}

// The members of one sticker object; null where missing. The first member of
// a name counts, as with FindMember, also when its value has the wrong type: a
// "url", "name" or "ext" that is not a string counts as missing.
struct StickerMembers {
  const JsonValue* resId = nullptr;
  const JsonValue* url = nullptr;
  const JsonValue* name = nullptr;
  const JsonValue* unzipType = nullptr;
  const JsonValue* ext = nullptr;

  // An element that is no object has no members: it yields the item of an
  // empty object.
  explicit StickerMembers(const JsonValue& element) {
    if (!element.IsObject()) return;
    const JsonValue* urlValue = nullptr;
    const JsonValue* nameValue = nullptr;
    const JsonValue* extValue = nullptr;
    // One pass instead of five FindMember scans; keys compare whole, byte
    // for byte.
    for (auto m = element.MemberBegin(); m != element.MemberEnd(); ++m) {
      const char* key = m->name.GetString();
      const SizeType length = m->name.GetStringLength();
      const JsonValue* value = &m->value;
      if (length == 3 && std::memcmp(key, "url", 3) == 0) {
        if (urlValue == nullptr) urlValue = value;
      } else if (length == 3 && std::memcmp(key, "ext", 3) == 0) {
        if (extValue == nullptr) extValue = value;
      } else if (length == 4 && std::memcmp(key, "name", 4) == 0) {
        if (nameValue == nullptr) nameValue = value;
      } else if (length == 5 && std::memcmp(key, "resId", 5) == 0) {
        if (resId == nullptr) resId = value;
      } else if (length == 10 && std::memcmp(key, "unzip_type", 10) == 0) {
        if (unzipType == nullptr) unzipType = value;
      }
    }
    url = stringOrNull(urlValue);
    name = stringOrNull(nameValue);
    ext = stringOrNull(extValue);
  }
};

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

}  // namespace

ZRX2DStickerResouceListParser::ZRX2DStickerResouceListParser() : lastError(0) {}

ZRX2DStickerResouceListParser::~ZRX2DStickerResouceListParser() = default;

ZRX2DStickerResList* ZRX2DStickerResouceListParser::parseWithString(
    std::string text, ZRX2DStickerDownloadListener* listener) {
  // The text ends at its first NUL byte; the document holds copies of its
  // strings and is released on return.
  rapidjson::Document document;
  BoundedParse parse{text.c_str(), rapidjson::ParseResult()};
  document.Populate(parse);
  if (parse.result.IsError()) {
    lastError = static_cast<int32_t>(parse.result.Code());
    ZRX_LOG(6, "[%s:%d] sticker's resource json parse error=%d",
            ZRX_AT(kFunctionName), static_cast<int>(lastError));
    return nullptr;
  }

  ListGuard list(new ZRX2DStickerResList());
  if (!document.IsArray()) return list.release();

  const auto elements = document.GetArray();
  list.get()->items.reserve(elements.Size());
  for (const JsonValue& element : elements) {
    const StickerMembers members(element);
    std::unique_ptr<ZRX2DStickerResItem> item(new ZRX2DStickerResItem());

    if (members.resId != nullptr) {
      if (members.resId->IsString()) {
        assignText(item->resId, *members.resId);
      } else {
        // Decimal text of a signed 64-bit integer; anything else reads 0.
        item->resId = std::to_string(
            members.resId->IsInt64() ? members.resId->GetInt64() : 0);
      }
    }
    if (members.url != nullptr) assignText(item->url, *members.url);
    // Room for "ext" up front, so that appending it doesn't reallocate.
    const std::size_t extLength =
        members.ext != nullptr ? textLength(*members.ext) : 0;
    if (members.name != nullptr) {
      item->fileName.reserve(textLength(*members.name) + extLength);
      assignText(item->fileName, *members.name);
    }
    if (members.unzipType == nullptr) {
      item->unzipType = 2;
    } else {
      item->unzipType =
          members.unzipType->IsInt() ? members.unzipType->GetInt() : 0;
    }

    // The naming rule; the digest only where it is used.
    if (item->unzipType == 0 || item->fileName.empty()) {
      item->dirName = digestState.digestText(item->url);
      if (item->fileName.empty()) {
        item->fileName.reserve(item->dirName.size() + extLength);
        item->fileName = item->dirName;
      }
    } else if (item->unzipType == 1) {
      item->dirName = item->fileName;
    } else {
      item->dirName.clear();
    }

    // Nobody else sees the item yet: no ordering needed.
    item->downloadState.store(0, std::memory_order_relaxed);
    item->timeoutSeconds = 0;
    item->listener = listener;

    if (members.ext != nullptr) {
      item->fileName.append(members.ext->GetString(), extLength);
    }

    // Into the narrow code page; a failed step leaves the name empty. ASCII
    // text comes out of the pair unchanged (every code page agrees on it),
    // so only other text makes the round trip.
    if (!isAscii(item->fileName)) {
      std::u16string wide;
      std::string narrow;
      static_cast<void>(utf8ToWide(item->fileName, wide));
      static_cast<void>(wideToAnsi(wide, narrow));
      item->fileName = std::move(narrow);
    }

    list.get()->items.push_back(item.release());  // reserved: doesn't throw
  }

  ZRX_LOG(3, "[%s:%d] sticker's items num=%d", ZRX_AT(kFunctionName),
          static_cast<int>(list.get()->items.size()));
  return list.release();
}
