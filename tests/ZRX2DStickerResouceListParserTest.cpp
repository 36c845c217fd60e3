// The sticker list parser, with the digest and the text conversion that
// name each sticker's directory and file.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <string>
#include <vector>

#include "list/Md5.h"
#include "list/TextConversion.h"
#include "list/ZRX2DStickerResouceListParser.h"
#include "support/RecordingListener.h"
#include "support/TestSupport.h"

namespace zrxtest {
namespace {

const std::string kDigestAbc = "900150983CD24FB0D6963F7D28E17F72";
const std::string kDigestEmpty = "D41D8CD98F00B204E9800998ECF8427E";
const std::string kReplacement = "\xEF\xBF\xBD";
using LogLines = std::vector<std::pair<int, std::string>>;

// "resId|url|dirName|fileName|unzipType", the digests of "abc" and of ""
// written "#abc" and "#".
std::string describe(const ZRX2DStickerResItem& item) {
  std::string text = item.resId + "|" + item.url + "|" + item.dirName + "|" +
                     item.fileName + "|" + std::to_string(item.unzipType);
  for (const auto& digest : {std::make_pair(kDigestAbc, "#abc"),
                             std::make_pair(kDigestEmpty, "#")}) {
    for (std::size_t at; (at = text.find(digest.first)) != std::string::npos;) {
      text.replace(at, digest.first.size(), digest.second);
    }
  }
  return text;
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
  void SetUp() override { LogCapture::instance().clear(); }
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
    for (const LogLine& l : LogCapture::instance().lines()) {
      if (l.message.compare(0, kPrefix.size(), kPrefix) != 0) continue;
      out.emplace_back(l.level, l.message.substr(l.message.find("] ") + 2));
    }
    return out;
  }

  ZRX2DStickerResouceListParser parser;

 private:
  std::vector<ZRX2DStickerResList*> lists_;
};

TEST(Md5Test, DigestsAroundThePaddingAndBlockBorders) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "D41D8CD98F00B204E9800998ECF8427E"},
      {std::string(55, 'a'), "EF1772B6DFF9A122358552954AD0DF65"},
      {std::string(56, 'a'), "3B0C8AC703F828B04C6C197006D17218"},
      {std::string(64, 'a'), "014842D480B571495A4A0363793F7367"},
      {std::string(65, 'a'), "C743A45E0D2E6A95CB859ADAE0248435"}};
  Md5 md5;  // one object, digest after digest: nothing carries over
  for (const auto& c : cases) {
    EXPECT_EQ(md5.digestText(c.first), c.second) << c.first.size();
  }
}

// The run names the code page it means to test (tests/run-windows.sh runs
// the suite at more than one): a locale that didn't take effect must fail
// the run, not pass it at another page.
TEST(TextConversionTest, RunsAtTheCodePageTheRunAsksFor) {
  std::printf("narrow code page %u\n", narrowCodePage());
  const char* wanted = std::getenv("ZRX_TEST_CODE_PAGE");
  if (wanted != nullptr && *wanted != '\0') {
    EXPECT_EQ(std::to_string(narrowCodePage()), wanted);
  }
}

TEST(TextConversionTest, RoundTripsReplacementsAndNulCut) {
  if (!knownNarrowCodePage()) GTEST_SKIP() << "code page " << narrowCodePage();
  std::u16string wide = u"stale";
  std::string narrow;
  // Range edges U+007F..U+10FFFF, long enough for the heap buffers.
  std::string valid =
      "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90"
      "\x80\x80\xF4\x8F\xBF\xBF";
  // Code page 1252 has none of these but U+007F, 932 also U+0080; a
  // character outside the BMP is two units, each a '?'.
  std::string valid1252 = "\x7F????????";
  std::string valid932 = "\x7F\x80???????";
  for (int i = 0; i < 700; ++i) {
    valid += "\xE6\x96\x87\xF0\x9F\x98\x80x";
    valid1252 += "???x";
    valid932 += "\x95\xB6??x";
  }
  EXPECT_EQ(throughWide(valid), inNarrowPage(valid, valid1252, valid932));

  // Ill-formed input: a continuation byte, an overlong form, a cut sequence.
  const std::string r = kReplacement;
  EXPECT_EQ(throughWide("a\xBF\xC0\xAFz"),
            inNarrowPage("a" + r + r + r + "z", "a???z", "a???z"));
  ASSERT_EQ(utf8ToWide(std::string("ab\0cd", 5), wide), 0);
  EXPECT_EQ(wide, u"ab");
  ASSERT_EQ(wideToAnsi(std::u16string(u"\u00E9\0cd", 4), narrow), 0);
  EXPECT_EQ(narrow, inNarrowPage("\xC3\xA9", "\xE9", "e"));
}

TEST_F(ListParserTest, ItemsFromElements) {
  if (!knownNarrowCodePage()) GTEST_SKIP() << "code page " << narrowCodePage();
  const std::pair<std::string, std::string> rows[] = {
      // The naming rule.
      {R"({"url":"abc"})", "|abc|#abc|#abc|2"},
      // The digest is of the url as decoded.
      {R"({"url":"a\u0062c","ext":".zip","unzip_type":1})",
       "|abc|#abc|#abc.zip|1"},
      {R"({"url":"abc","name":"a","ext":".zip"})", "|abc||a.zip|2"},
      {R"({"url":"abc","name":"a","ext":".zip","unzip_type":1})",
       "|abc|a|a.zip|1"},
      {R"({"ext":".png","name":"x/../y","unzip_type":3})", "|||x/../y.png|3"},
      // Elements that are no object make the item of an empty one.
      {"{}", "||#|#|2"},
      {R"("url")", "||#|#|2"},
      // Odd member values; strings of the wrong type count as missing.
      {R"({"resId":42})", "42||#|#|2"},
      {R"({"resId":18446744073709551615})", "0||#|#|2"},
      {R"({"unzip_type":1.0})", "||#|#|0"},
      // Keys match whole after unescaping; the first of a name counts.
      {R"({"resId":"1","url":"abc","name":"a","ext":".zip","unzip_type":1,
           "resId":"2","url":"x","name":"b","ext":".7z","unzip_type":0})",
       "1|abc|a|a.zip|1"},
      {R"({"URL":"abc","Name":"a","url ":"abc","ur":"abc","url\u0000":"abc"})",
       "||#|#|2"},
      {R"({"url":5,"url":"abc","name":null,"name":"n"})", "||#|#|2"},
      // Strings end at an escaped NUL; escapes arrive decoded.
      {R"({"url":"ab\u0000c","name":"ab\u0000cd","ext":".z\u0000ip",
           "resId":"1\u00002","unzip_type":1})",
       "1|ab|ab|ab.z|1"},
      {R"({"url":"a\/b\u00e9","name":"\u00e9\ud83d\ude00","unzip_type":1})",
       "|a/b\xC3\xA9|\xC3\xA9\xF0\x9F\x98\x80|" +
           inNarrowPage("\xC3\xA9\xF0\x9F\x98\x80", "\xE9??", "e??") + "|1"},
      // Invalid UTF-8 passes; only the file name goes through the code page.
      {"{\"name\":\"a\xFFz\",\"unzip_type\":1}",
       "||a\xFFz|a" + inNarrowPage(kReplacement, "?", "?") + "z|1"},
  };
  std::string json = "[";
  for (const auto& row : rows) json += row.first + ",";
  json.back() = ']';
  RecordingListener listener;
  ZRX2DStickerResList* list = parse(json, &listener);
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), std::size(rows));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    EXPECT_EQ(describe(*list->items[i]), rows[i].second) << rows[i].first;
    EXPECT_EQ(list->items[i]->listener, &listener);
    EXPECT_EQ(list->items[i]->downloadState, 0);
  }
  EXPECT_EQ(logLines(), (LogLines{{3, "sticker's items num=" +
                                          std::to_string(std::size(rows))}}));
}

TEST_F(ListParserTest, RootsAndParseErrors) {
  // A root that is no array is an empty list, without a log line.
  for (const char* json : {"{}", R"({"items":[{"url":"abc"}]})", "17"}) {
    ZRX2DStickerResList* list = parse(json);
    ASSERT_NE(list, nullptr) << json;
    EXPECT_TRUE(list->items.empty()) << json;
  }
  EXPECT_TRUE(logLines().empty());
  ZRX2DStickerResList* list = parse(std::string("[{}]\0 garbage", 13));
  ASSERT_NE(list, nullptr);  // text behind a NUL byte is never seen
  EXPECT_EQ(list->items.size(), 1u);

  // clang-format off
  const std::pair<std::string, int> cases[] = {
      {"", 1}, {"[] x", 2}, {"\xEF\xBB\xBF[]", 3}, {"[1,]", 3}, {"[{1:2}]", 4},
      {R"([{"a" 1}])", 5}, {R"([{"a":1 "b":2}])", 6}, {"[1 2]", 7},
      {R"(["\u12G4"])", 8}, {R"(["\ud800x"])", 9}, {R"(["\q"])", 10},
      {R"(["abc)", 11}, {"[1e400]", 13}, {"[1.]", 14}, {"[1e+]", 15},
      // Texts that end early.
      {"[", 3}, {"{", 4}, {R"({"a")", 5}, {R"({"a":1)", 6}, {"[1", 7}};
  // clang-format on
  for (const auto& c : cases) {
    LogCapture::instance().clear();
    EXPECT_EQ(parse(c.first), nullptr) << c.first;
    EXPECT_EQ(parser.lastError, c.second) << c.first;
    EXPECT_EQ(logLines(), (LogLines{{6, "sticker's resource json parse error=" +
                                            std::to_string(c.second)}}));
  }
  ASSERT_NE(parse("[{}]"), nullptr);  // a good parse leaves the code
  EXPECT_EQ(parser.lastError, 7);
}

TEST_F(ListParserTest, AnyNestingDepthParsesAsADocumentWould) {
  auto nested = [](std::size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  ZRX2DStickerResList* list = parse(nested(200000));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items.size(), 1u);
  // A deep unknown member doesn't cost the list its items.
  list = parse(R"([{"x":)" + nested(100000) + R"(,"url":"abc"},7])");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), 2u);
  EXPECT_EQ(list->items[0]->url, "abc");
  // A deep text that ends early fails with the code of the place it ends.
  EXPECT_EQ(parse(std::string(100000, '[') + "1"), nullptr);
  EXPECT_EQ(parser.lastError, 7);
}

}  // namespace
}  // namespace zrxtest
