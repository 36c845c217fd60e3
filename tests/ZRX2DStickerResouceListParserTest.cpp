// The sticker list parser, with the digest and the text conversion that
// name each sticker's directory and file.
#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "list/Md5.h"
#include "list/TextConversion.h"
#include "list/ZRX2DStickerResouceListParser.h"
#include "support/TestSupport.h"

namespace {

const std::string kDigestAbc = "900150983CD24FB0D6963F7D28E17F72";
const std::string kDigestEmpty = "D41D8CD98F00B204E9800998ECF8427E";
const std::string kReplacement = "\xEF\xBF\xBD";
using LogLines = std::vector<std::pair<int, std::string>>;

class NullListener : public ZRX2DStickerDownloadListener {
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string) override {}
  void onDownloadFailed(std::string, int) override {}
};

// Bytes of every value, NUL and high bytes included, differing per length.
std::string pattern(std::size_t length) {
  std::string text(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    text[i] = static_cast<char>((i * 131 + length * 7) & 0xFF);
  }
  return text;
}

std::string hex(const uint8_t digest[16]) {
  std::string out;
  for (int i = 0; i < 16; ++i) {
    out += "0123456789ABCDEF"[digest[i] >> 4];
    out += "0123456789ABCDEF"[digest[i] & 15];
  }
  return out;
}

// The conversion pair as the parser applies it to a file name.
std::string throughWide(const std::string& utf8) {
  std::u16string wide;
  std::string narrow;
  EXPECT_EQ(utf8ToWide(utf8, wide), 0);
  EXPECT_EQ(wideToAnsi(wide, narrow), 0);
  return narrow;
}

class ListParserTest : public ::testing::Test {
 protected:
  void SetUp() override { zrxtest::LogCapture::instance().clear(); }
  void TearDown() override {
    for (ZRX2DStickerResList* list : lists_) {
      for (ZRX2DStickerResItem* item : list->items) delete item;
      delete list;
    }
  }
  ZRX2DStickerResList* parse(const std::string& json,
                             ZRX2DStickerDownloadListener* listener = nullptr) {
    ZRX2DStickerResList* list = parser.parseWithString(json, listener);
    if (list != nullptr) lists_.push_back(list);
    return list;
  }
  // The parser's log lines, without the "[function:line] " prefix.
  static LogLines logLines() {
    static const std::string kPrefix =
        "[ZRX2DStickerResouceListParser::parseWithString:";
    LogLines out;
    for (const zrxtest::LogLine& l : zrxtest::LogCapture::instance().lines()) {
      if (l.message.compare(0, kPrefix.size(), kPrefix) != 0) continue;
      out.emplace_back(l.level, l.message.substr(l.message.find("] ") + 2));
    }
    return out;
  }

  ZRX2DStickerResouceListParser parser;

 private:
  std::vector<ZRX2DStickerResList*> lists_;
};

}  // namespace

TEST(Md5Test, KnownDigestsAndMd5sumAcrossBlockBorders) {
  Md5 md5;  // one object, digest after digest: nothing carries over
  EXPECT_EQ(md5.digestText(""), kDigestEmpty);
  EXPECT_EQ(md5.digestText("abc"), kDigestAbc);
  EXPECT_EQ(md5.digestText("message digest"), "F96B697D7CB7938D525A2F31AAF161D0");
  EXPECT_EQ(md5.digestText(std::string(1000000, 'a')),
            "7707D6AE4E027C70EEA2A935C2296F21");

  // Every length around the padding border (55/56) and the block borders.
  zrxtest::TempDir dir;
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 130; ++n) lengths.push_back(n);
  for (std::size_t n : {447u, 448u, 449u, 4159u}) lengths.push_back(n);
  for (std::size_t n : lengths) {
    zrxtest::writeFile(dir / std::to_string(n), pattern(n));
  }
  std::FILE* pipe = ::popen(
      ("cd " + zrxtest::shellQuote(dir.path()) + " && md5sum *").c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::map<std::size_t, std::string> expected;
  char hexDigits[33];
  char name[32];
  while (std::fscanf(pipe, "%32s %31s", hexDigits, name) == 2) {
    std::string digest = hexDigits;
    for (char& c : digest) c = static_cast<char>(std::toupper(c));
    expected[std::stoul(name)] = digest;
  }
  ASSERT_EQ(::pclose(pipe), 0);
  ASSERT_EQ(expected.size(), lengths.size());
  for (std::size_t n : lengths) {
    EXPECT_EQ(md5.digestText(pattern(n)), expected[n]) << "length " << n;
  }

  // Pieces of any size give the one-pass digest.
  const std::string text = pattern(300);
  uint8_t digest[16];
  for (std::size_t split = 0; split <= text.size(); ++split) {
    md5.init();
    md5.update(text.data(), split);
    md5.update(text.data() + split, text.size() - split);
    md5.finish(digest);
    ASSERT_EQ(hex(digest), md5.digestText(text)) << "split at " << split;
  }
}

TEST(TextConversionTest, RoundTripsReplacementsAndNulCut) {
  std::u16string wide = u"stale";
  std::string narrow = "stale";
  EXPECT_EQ(utf8ToWide("", wide), 0);
  EXPECT_EQ(wideToAnsi(u"", narrow), 0);
  EXPECT_TRUE(wide.empty() && narrow.empty());

  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  ASSERT_EQ(utf8ToWide(text, wide), 0);
  EXPECT_EQ(wide, std::u16string(u"a\u00E9\u20AC\U0001F600z"));
  // Range edges U+007F..U+10FFFF, and a text long enough for the heap buffer.
  std::string longText = "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90"
                         "\x80\x80\xF4\x8F\xBF\xBF";
  for (int i = 0; i < 700; ++i) longText += "\xE6\x96\x87\xF0\x9F\x98\x80x";
  for (const std::string& valid : {text, longText}) {
    EXPECT_EQ(throughWide(valid), valid);
  }

  const std::string r = kReplacement;
  const std::pair<std::string, std::string> illFormed[] = {
      {"a\xBF\x80z", "a" + r + r + "z"},    // lone continuation bytes
      {"\xC0\xAF", r + r},                  // overlong '/'
      {"\xED\xA0\x80", r + r + r},          // a surrogate in UTF-8
      {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
      {"ab\xE2\x82", "ab" + r},             // truncated at the end
      {"\xE2\x82z", r + "z"},               // truncated in the middle
  };
  for (const auto& c : illFormed) {
    EXPECT_EQ(throughWide(c.first), c.second) << testing::PrintToString(c.first);
  }
  const std::pair<std::u16string, std::string> surrogates[] = {
      {std::u16string(1, char16_t(0xD800)), r},
      {std::u16string{char16_t(0xDC00), char16_t(0xD800)}, r + r},
      {std::u16string{char16_t(0xD83D), char16_t(0xDE00)}, "\xF0\x9F\x98\x80"},
  };
  for (const auto& c : surrogates) {
    EXPECT_EQ(wideToAnsi(c.first, narrow), 0);
    EXPECT_EQ(narrow, c.second);
  }

  ASSERT_EQ(utf8ToWide(std::string("ab\0cd", 5), wide), 0);
  EXPECT_EQ(wide, u"ab");
  ASSERT_EQ(wideToAnsi(std::u16string(u"\u00E9\0cd", 4), narrow), 0);
  EXPECT_EQ(narrow, "\xC3\xA9");
}

TEST_F(ListParserTest, NamingRule) {
  const std::string d = kDigestAbc;
  const std::vector<std::vector<std::string>> rows = {  // object, dir, file
      {R"({"url":"abc"})", d, d},
      {R"({"url":"abc","ext":".zip","unzip_type":1})", d, d + ".zip"},
      {R"({"url":"abc","name":"a","ext":".zip"})", "", "a.zip"},
      {R"({"url":"abc","name":"a","ext":".zip","unzip_type":0})", d, "a.zip"},
      {R"({"url":"abc","name":"a","ext":".zip","unzip_type":1})", "a", "a.zip"},
      {R"({"url":"abc","name":"a","unzip_type":7})", "", "a"},
      {R"({"url":"abc","name":"","unzip_type":1})", d, d},
      {R"({"ext":".png","url":"abc","name":"x/../y","unzip_type":3})", "",
       "x/../y.png"},
  };
  std::string json = "[";
  for (const auto& row : rows) json += row[0] + ",";
  json.back() = ']';
  NullListener listener;
  ZRX2DStickerResList* list = parse(json, &listener);
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), rows.size());
  for (std::size_t i = 0; i < rows.size(); ++i) {
    const ZRX2DStickerResItem& item = *list->items[i];
    EXPECT_EQ(item.dirName, rows[i][1]) << rows[i][0];
    EXPECT_EQ(item.fileName, rows[i][2]) << rows[i][0];
    EXPECT_EQ(item.url, "abc");
    EXPECT_EQ(item.listener, &listener);
  }
  EXPECT_EQ(logLines(), (LogLines{{3, "sticker's items num=8"}}));
}

TEST_F(ListParserTest, NonObjectsGiveDefaultItemsAndOddMemberValues) {
  ZRX2DStickerResList* list = parse(
      R"([{}, null, true, 0, "", [], [{"url":"abc"}], "url",
          {"resId":42}, {"resId":-9223372036854775808}, {"resId":"s-1"},
          {"resId":1.5}, {"resId":null}, {"resId":18446744073709551615},
          {"resId":{"a":1}}, {"unzip_type":-1}, {"unzip_type":2147483647},
          {"unzip_type":1.0}, {"unzip_type":"1"}, {"unzip_type":2147483648},
          {"url":5, "name":["a"], "ext":{"e":1}, "unzip_type":1}])");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), 21u);
  for (std::size_t i = 0; i < 8; ++i) {
    const ZRX2DStickerResItem& item = *list->items[i];
    SCOPED_TRACE(i);
    EXPECT_EQ(item.resId, "");
    EXPECT_EQ(item.url, "");
    EXPECT_EQ(item.unzipType, 2);
    EXPECT_EQ(item.dirName, kDigestEmpty);
    EXPECT_EQ(item.fileName, kDigestEmpty);
  }
  const std::vector<std::string> resIds = {
      "42", "-9223372036854775808", "s-1", "0", "0", "0", "0"};
  for (std::size_t i = 0; i < resIds.size(); ++i) {
    EXPECT_EQ(list->items[8 + i]->resId, resIds[i]) << i;
  }
  const std::vector<int> unzipTypes = {-1, 2147483647, 0, 0, 0};
  for (std::size_t i = 0; i < unzipTypes.size(); ++i) {
    EXPECT_EQ(list->items[15 + i]->unzipType, unzipTypes[i]) << i;
  }
  // Strings of the wrong type count as missing.
  EXPECT_EQ(list->items[20]->url, "");
  EXPECT_EQ(list->items[20]->fileName, kDigestEmpty);
}

TEST_F(ListParserTest, KeysMatchWholeAfterUnescapingAndTheFirstCounts) {
  ZRX2DStickerResList* list = parse(R"([
    {"resId":"1","url":"abc","name":"a","ext":".zip","unzip_type":1,
     "resId":"2","url":"x","name":"b","ext":".7z","unzip_type":0},
    {"URL":"abc","Name":"a","url ":"abc","ur":"abc","url\u0000":"abc"},
    {"u\u0072l":"abc","\u006eame":"n"},
    {"url":5,"url":"abc","name":null,"name":"n"}
  ])");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), 4u);
  const ZRX2DStickerResItem& first = *list->items[0];
  EXPECT_EQ(first.resId + first.url + first.dirName + first.fileName,
            "1abcaa.zip");
  EXPECT_EQ(first.unzipType, 1);
  EXPECT_EQ(list->items[1]->url, "");
  EXPECT_EQ(list->items[2]->url, "abc");
  EXPECT_EQ(list->items[2]->fileName, "n");
  EXPECT_EQ(list->items[3]->url, "");  // the first, of the wrong type, counts
  EXPECT_EQ(list->items[3]->fileName, kDigestEmpty);
}

TEST_F(ListParserTest, StringsEndAtAnEscapedNulAndEscapesArriveDecoded) {
  ZRX2DStickerResList* list = parse(R"([
    {"url":"abc","name":"\u0000abc","unzip_type":1},
    {"url":"ab\u0000c","name":"ab\u0000cd","ext":".z\u0000ip",
     "resId":"1\u00002","unzip_type":1},
    {"url":"a\/b\u00e9","name":"\u00e9\ud83d\ude00","unzip_type":1}
  ])");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items[0]->fileName, kDigestAbc);  // the name counts as empty
  const ZRX2DStickerResItem& cut = *list->items[1];
  EXPECT_EQ(cut.url + "|" + cut.resId + "|" + cut.dirName + "|" + cut.fileName,
            "ab|1|ab|ab.z");
  EXPECT_EQ(list->items[2]->url, "a/b\xC3\xA9");
  EXPECT_EQ(list->items[2]->fileName, "\xC3\xA9\xF0\x9F\x98\x80");

  // The digest is over the decoded url bytes.
  list = parse(R"([{"url":"http:\/\/h\/)" + std::string(200, 'x') + "\"}]");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items[0]->dirName,
            Md5().digestText("http://h/" + std::string(200, 'x')));

  // Invalid UTF-8: the file name goes through the code page conversion, the
  // directory name keeps the list's bytes.
  list = parse("[{\"name\":\"a\xFFz\",\"unzip_type\":1}]");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items[0]->dirName, "a\xFFz");
  EXPECT_EQ(list->items[0]->fileName, "a" + kReplacement + "z");
}

TEST_F(ListParserTest, RootsThatAreNoArrayGiveAnEmptyListWithoutALogLine) {
  for (const char* json :
       {"{}", R"({"items":[{"url":"abc"}]})", R"("[]")", "17", "null"}) {
    ZRX2DStickerResList* list = parse(json);
    ASSERT_NE(list, nullptr) << json;
    EXPECT_TRUE(list->items.empty()) << json;
  }
  EXPECT_TRUE(logLines().empty());
  EXPECT_EQ(parser.lastError, 0);
  ASSERT_NE(parse(" [ ] "), nullptr);
  EXPECT_EQ(logLines(), (LogLines{{3, "sticker's items num=0"}}));
  // Text behind a NUL byte is never seen.
  ZRX2DStickerResList* list = parse(std::string("[{}]\0 garbage", 13));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items.size(), 1u);
}

TEST_F(ListParserTest, ParseErrorsGiveNullTheCodeAndTheErrorLine) {
  const std::pair<std::string, int> cases[] = {
      {"", 1},           {"[] x", 2},          {"\xEF\xBB\xBF[]", 3},
      {"[1,]", 3},       {R"([{1:2}])", 4},    {R"([{"a" 1}])", 5},
      {"[{\"a\":1 \"b\":2}]", 6}, {"[1 2]", 7}, {R"(["\u12G4"])", 8},
      {R"(["\ud800x"])", 9},      {R"(["\q"])", 10}, {R"(["abc)", 11},
      {"[1e400]", 13},   {"[1.]", 14},         {"[1e+]", 15},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    zrxtest::LogCapture::instance().clear();
    EXPECT_EQ(parse(c.first), nullptr);
    EXPECT_EQ(parser.lastError, c.second);
    EXPECT_EQ(logLines(), (LogLines{{6, "sticker's resource json parse error=" +
                                            std::to_string(c.second)}}));
  }
  // A good parse leaves the last failure's code.
  ASSERT_NE(parse("[{}]"), nullptr);
  EXPECT_EQ(parser.lastError, 15);
}

TEST_F(ListParserTest, NestingDeeperThanTheBoundIsAParseError) {
  const unsigned bound = zrx::kMaxJsonDepth;
  auto nested = [](unsigned depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  ZRX2DStickerResList* list = parse(nested(bound));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items.size(), 1u);

  std::string objects = "[";
  for (int i = 0; i < 100000; ++i) objects += R"({"url":)";
  for (const std::string& deep :
       {nested(bound + 1), std::string(100000, '['), objects,
        R"([{"url":"abc","x":)" + nested(200) + "}]"}) {
    parser.lastError = 0;
    EXPECT_EQ(parse(deep), nullptr);
    EXPECT_EQ(parser.lastError, 16);
  }
}
