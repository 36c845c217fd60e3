// Fuzzes the sticker list parser: the input bytes are the JSON text.
//
// Every result is checked against an oracle built apart from the parser: a
// plain RapidJSON Document of the same NUL-terminated text, parsed with the
// default flags (the recursive reader) at any depth, its own MD5 and its own
// UTF-8 repair. Checked on every input:
// - the result is null exactly when the text is not JSON, at any nesting
//   depth; lastError then holds the reader's code, and a good parse leaves
//   lastError as it was;
// - a root that is no array gives an empty list, an array one item per
//   element, in order, each item holding the fields the list format gives
//   (a non-object element gives the item of an empty object);
// - dirName is empty only for a named sticker of an unzip_type other than 0
//   and 1, fileName is never empty, and the digest text, wherever it names
//   something, is 32 uppercase hex digits equal to the MD5 of url;
// - fileName is (name or digest) + ext brought into UTF-8 with each
//   ill-formed subsequence replaced by one U+FFFD;
// - the items own their strings (the document is gone when they are read)
//   and releasing the list frees everything (LeakSanitizer at exit).
// A violation prints what broke and traps.
#include <pthread.h>
#include <rapidjson/document.h>
#include <rapidjson/reader.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "list/ZRX2DStickerResouceListParser.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"
#include "zrx2dsticker/ZRXLog.h"

namespace {

// The recursive reader takes about 100 bytes of stack a level in this
// build (ASan and coverage included). Up to kCallerDepth levels it runs on
// the fuzzing thread (some 100 KiB of its stack); a deeper text gets a
// thread of its own with kStackPerLevel a level, ten times the need.
constexpr unsigned kCallerDepth = 1024;
constexpr std::size_t kStackPerLevel = 1024;
constexpr std::size_t kStackBase = std::size_t{1} << 20;

void require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "ListParserFuzzer: invariant broken: %s\n", what);
  __builtin_trap();
}

// RFC 1321 MD5, written here apart from the library's own so that a fault
// there can't hide itself. Constants derived as the RFC defines them.
class ReferenceMd5 {
 public:
  static std::string hexDigest(const std::string& message) {
    static const Table table;
    uint32_t h[4] = {0x67452301u, 0xefcdab89u, 0x98badcfeu, 0x10325476u};
    std::vector<uint8_t> padded(message.begin(), message.end());
    padded.push_back(0x80);
    while (padded.size() % 64 != 56) padded.push_back(0);
    const uint64_t bits = static_cast<uint64_t>(message.size()) * 8;
    for (int i = 0; i < 8; ++i) padded.push_back(uint8_t(bits >> (8 * i)));
    for (std::size_t at = 0; at < padded.size(); at += 64) {
      uint32_t w[16];
      for (int i = 0; i < 16; ++i) {
        const uint8_t* b = &padded[at + 4 * i];
        w[i] = uint32_t(b[0]) | uint32_t(b[1]) << 8 | uint32_t(b[2]) << 16 |
               uint32_t(b[3]) << 24;
      }
      uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
      for (int i = 0; i < 64; ++i) {
        uint32_t f;
        int g;
        if (i < 16) {
          f = (b & c) | (~b & d);
          g = i;
        } else if (i < 32) {
          f = (d & b) | (~d & c);
          g = (5 * i + 1) % 16;
        } else if (i < 48) {
          f = b ^ c ^ d;
          g = (3 * i + 5) % 16;
        } else {
          f = c ^ (b | ~d);
          g = (7 * i) % 16;
        }
        const uint32_t sum = a + f + table.k[i] + w[g];
        a = d;
        d = c;
        c = b;
        b += sum << kShift[i] | sum >> (32 - kShift[i]);
      }
      h[0] += a;
      h[1] += b;
      h[2] += c;
      h[3] += d;
    }
    std::string text;
    for (uint32_t word : h) {
      for (int i = 0; i < 4; ++i) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02X", (word >> (8 * i)) & 0xFF);
        text += hex;
      }
    }
    return text;
  }

 private:
  struct Table {
    uint32_t k[64];
    Table() {
      for (int i = 0; i < 64; ++i) {
        k[i] = static_cast<uint32_t>(
            std::floor(std::fabs(std::sin(i + 1.0)) * 4294967296.0));
      }
    }
  };
  static constexpr int kShift[64] = {
      7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
      5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
      4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
      6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};
};

void appendUtf8(std::string& out, uint32_t cp) {
  if (cp < 0x80) {
    out += char(cp);
  } else if (cp < 0x800) {
    out += char(0xC0 | cp >> 6);
    out += char(0x80 | (cp & 0x3F));
  } else if (cp < 0x10000) {
    out += char(0xE0 | cp >> 12);
    out += char(0x80 | (cp >> 6 & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  } else {
    out += char(0xF0 | cp >> 18);
    out += char(0x80 | (cp >> 12 & 0x3F));
    out += char(0x80 | (cp >> 6 & 0x3F));
    out += char(0x80 | (cp & 0x3F));
  }
}

// `text` as well-formed UTF-8: each maximal ill-formed subsequence becomes
// one U+FFFD (the decoder of the WHATWG Encoding Standard), valid text stays
// as it is.
std::string repairUtf8(const std::string& text) {
  std::string out;
  uint32_t cp = 0;
  int needed = 0, seen = 0;
  unsigned lower = 0x80, upper = 0xBF;
  for (std::size_t i = 0; i < text.size();) {
    const unsigned b = static_cast<unsigned char>(text[i]);
    if (needed == 0) {
      ++i;
      if (b < 0x80) {
        out += char(b);
      } else if (b >= 0xC2 && b <= 0xDF) {
        needed = 1;
        cp = b & 0x1F;
      } else if (b >= 0xE0 && b <= 0xEF) {
        if (b == 0xE0) lower = 0xA0;
        if (b == 0xED) upper = 0x9F;
        needed = 2;
        cp = b & 0x0F;
      } else if (b >= 0xF0 && b <= 0xF4) {
        if (b == 0xF0) lower = 0x90;
        if (b == 0xF4) upper = 0x8F;
        needed = 3;
        cp = b & 0x07;
      } else {
        appendUtf8(out, 0xFFFD);
      }
      continue;
    }
    if (b < lower || b > upper) {
      // The byte is not consumed: it starts over as a lead byte.
      cp = 0;
      needed = seen = 0;
      lower = 0x80;
      upper = 0xBF;
      appendUtf8(out, 0xFFFD);
      continue;
    }
    ++i;
    lower = 0x80;
    upper = 0xBF;
    cp = cp << 6 | (b & 0x3F);
    if (++seen == needed) {
      appendUtf8(out, cp);
      cp = 0;
      needed = seen = 0;
    }
  }
  if (needed != 0) appendUtf8(out, 0xFFFD);
  return out;
}

bool isDigestText(const std::string& text) {
  if (text.size() != 32) return false;
  for (char c : text) {
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
  }
  return true;
}

// Deepest bracket nesting of the JSON text, strings skipped. Equal to the
// document's depth when the text is JSON; otherwise never below the depth
// the reader reaches before it stops, since up to its stop the text is JSON.
unsigned bracketDepth(const char* text) {
  unsigned depth = 0, deepest = 0;
  bool inString = false;
  for (const char* p = text; *p != '\0'; ++p) {
    if (inString) {
      if (*p == '\\' && p[1] != '\0') {
        ++p;
      } else if (*p == '"') {
        inString = false;
      }
    } else if (*p == '"') {
      inString = true;
    } else if (*p == '[' || *p == '{') {
      if (++depth > deepest) deepest = depth;
    } else if ((*p == ']' || *p == '}') && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

struct ReferenceJob {
  rapidjson::Document* document;
  const char* text;
};

void* parseReferenceJob(void* argument) {
  const ReferenceJob* job = static_cast<const ReferenceJob*>(argument);
  job->document->Parse<rapidjson::kParseDefaultFlags>(job->text);
  return nullptr;
}

// Parses `text` into `document` as Document::Parse with the default flags
// does, however deep it nests: past kCallerDepth on a thread whose stack
// holds the recursion.
void parseReference(rapidjson::Document& document, const std::string& text) {
  ReferenceJob job{&document, text.c_str()};
  const unsigned depth = bracketDepth(job.text);
  if (depth <= kCallerDepth) {
    parseReferenceJob(&job);
    return;
  }
  pthread_attr_t attributes;
  require(pthread_attr_init(&attributes) == 0 &&
              pthread_attr_setstacksize(
                  &attributes, kStackBase + kStackPerLevel * depth) == 0,
          "a parsing thread's stack can be sized");
  pthread_t thread;
  require(pthread_create(&thread, &attributes, parseReferenceJob, &job) == 0,
          "a parsing thread starts");
  require(pthread_join(thread, nullptr) == 0, "the parsing thread ends");
  pthread_attr_destroy(&attributes);
}

// The first member named `key` (whole, byte for byte) of an object element.
const rapidjson::Value* member(const rapidjson::Value& element,
                               const std::string& key) {
  if (!element.IsObject()) return nullptr;
  for (const auto& m : element.GetObject()) {
    if (key == std::string(m.name.GetString(), m.name.GetStringLength())) {
      return &m.value;
    }
  }
  return nullptr;
}

// A string member's text up to its first NUL; empty when missing or not a
// string.
std::string text(const rapidjson::Value& element, const char* key) {
  const rapidjson::Value* value = member(element, key);
  return value != nullptr && value->IsString() ? value->GetString() : "";
}

struct ExpectedItem {
  std::string resId, url, dirName, fileName;
  int unzipType;
  bool nameless;    // "name" empty or missing
  bool digestUsed;  // the digest text names the directory
};

ExpectedItem expectItem(const rapidjson::Value& element) {
  ExpectedItem e;
  const rapidjson::Value* resId = member(element, "resId");
  if (resId != nullptr && resId->IsString()) {
    e.resId = resId->GetString();
  } else if (resId != nullptr) {
    char number[32];
    std::snprintf(
        number, sizeof number, "%lld",
        resId->IsInt64() ? static_cast<long long>(resId->GetInt64()) : 0LL);
    e.resId = number;
  }
  e.url = text(element, "url");
  const std::string name = text(element, "name");
  const rapidjson::Value* unzipType = member(element, "unzip_type");
  e.unzipType = unzipType == nullptr ? 2
                : unzipType->IsInt() ? unzipType->GetInt()
                                     : 0;

  e.nameless = name.empty();
  e.digestUsed = e.nameless || e.unzipType == 0;
  const std::string digest =
      e.digestUsed ? ReferenceMd5::hexDigest(e.url) : std::string();
  std::string file = e.nameless ? digest : name;
  if (e.digestUsed) {
    e.dirName = digest;
  } else if (e.unzipType == 1) {
    e.dirName = name;
  }
  file += text(element, "ext");
  e.fileName = repairUtf8(file);
  return e;
}

class QuietListener : public ZRX2DStickerDownloadListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string) override {}
  void onDownloadFailed(std::string, int) override {}
};

void checkItem(const ZRX2DStickerResItem& item, const ExpectedItem& e,
               const ZRX2DStickerDownloadListener* listener) {
  require(item.resId == e.resId, "resId as the list gives it");
  require(item.url == e.url, "url as the list gives it");
  require(item.unzipType == e.unzipType, "unzipType as the list gives it");
  require(!item.fileName.empty(), "fileName is never empty");
  require(!item.dirName.empty() ||
              (!e.nameless && e.unzipType != 0 && e.unzipType != 1),
          "dirName is empty only for a named sticker of unzip_type not 0/1");
  if (e.digestUsed) {
    require(isDigestText(item.dirName), "digest text is 32 uppercase hex");
    require(item.dirName == e.dirName, "digest text is the MD5 of url");
  }
  if (e.nameless) {
    require(item.fileName.compare(0, 32, item.dirName) == 0,
            "a nameless sticker's file starts with the digest text");
  }
  require(item.dirName == e.dirName, "dirName by the naming rule");
  require(item.fileName == e.fileName,
          "fileName by the naming rule, ext appended, UTF-8 repaired");
  require(item.listener == listener, "listener stored");
  require(item.downloadState == 0 && item.timeoutSeconds == 0,
          "downloadState and timeoutSeconds are 0");
  require(!item.reservedFlag && item.reservedInt == 0 &&
              item.reservedValue1 == 0 && item.reservedValue2 == 0 &&
              item.downloadedBytes == 0.0 && item.totalBytes == 0.0,
          "other fields keep the constructor's values");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  ZRXDisableLog();
  // The reference digest must be right before it judges anything.
  require(
      ReferenceMd5::hexDigest("") == "D41D8CD98F00B204E9800998ECF8427E" &&
          ReferenceMd5::hexDigest("abc") == "900150983CD24FB0D6963F7D28E17F72",
      "reference MD5 passes RFC 1321's test vectors");
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  // One parser for the whole run, as the manager keeps one: lastError must
  // carry over from call to call exactly as documented.
  static ZRX2DStickerResouceListParser parser;
  static int32_t lastError = 0;
  static QuietListener listener;

  const std::string input(reinterpret_cast<const char*>(data), size);
  ZRX2DStickerResList* list = parser.parseWithString(input, &listener);

  std::vector<ExpectedItem> expected;
  bool isArray = false;
  {
    rapidjson::Document reference;
    parseReference(reference, input);
    if (reference.HasParseError()) {
      const int32_t code = reference.GetParseError();
      require(list == nullptr, "text that is not JSON gives null");
      require(parser.lastError == code, "lastError holds the reader's code");
      lastError = parser.lastError;
      return 0;
    }
    isArray = reference.IsArray();
    if (isArray) {
      for (const auto& element : reference.GetArray()) {
        expected.push_back(expectItem(element));
      }
    }
  }
  require(list != nullptr, "JSON gives a list");
  require(parser.lastError == lastError, "a good parse leaves lastError");
  require(isArray || list->items.empty(), "a root that is no array: empty");
  require(list->items.size() == expected.size(), "one item per element");
  for (std::size_t i = 0; i < expected.size(); ++i) {
    require(list->items[i] != nullptr, "items are non-null");
    checkItem(*list->items[i], expected[i], &listener);
  }
  for (ZRX2DStickerResItem* item : list->items) delete item;
  delete list;
  return 0;
}
