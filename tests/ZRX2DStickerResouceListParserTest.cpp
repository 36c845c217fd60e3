#include <gtest/gtest.h>

#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "list/Md5.h"
#include "list/ZRX2DStickerResouceListParser.h"
#include "support/TestSupport.h"

namespace {

const std::string kDigestAbc = "900150983CD24FB0D6963F7D28E17F72";
const std::string kDigestEmpty = "D41D8CD98F00B204E9800998ECF8427E";
const char* const kFunction =
    "[ZRX2DStickerResouceListParser::parseWithString:";

class NullListener : public ZRX2DStickerDownloadListener {
 public:
  void onDownloadProgress(ZRX2DStickerResItem*) override {}
  void onDownloadSuccess(std::string) override {}
  void onDownloadFailed(std::string, int) override {}
};

std::string digest(const std::string& text) { return Md5().digestText(text); }

class ListParserTest : public ::testing::Test {
 protected:
  void SetUp() override { zrxtest::LogCapture::instance().clear(); }
  void TearDown() override {
    for (ZRX2DStickerResList* list : lists_) {
      for (ZRX2DStickerResItem* item : list->items) delete item;
      delete list;
    }
  }

  // Parses `json`; a list that comes back is released after the test.
  ZRX2DStickerResList* parse(const std::string& json,
                             ZRX2DStickerDownloadListener* listener = nullptr) {
    ZRX2DStickerResList* list = parser.parseWithString(json, listener);
    if (list != nullptr) lists_.push_back(list);
    return list;
  }

  // The parser's log lines so far, without the "[function:line] " prefix.
  static std::vector<std::pair<int, std::string>> logLines() {
    std::vector<std::pair<int, std::string>> out;
    for (const zrxtest::LogLine& line :
         zrxtest::LogCapture::instance().lines()) {
      const std::string& m = line.message;
      if (m.compare(0, std::string(kFunction).size(), kFunction) != 0) continue;
      out.emplace_back(line.level, m.substr(m.find("] ") + 2));
    }
    return out;
  }

  ZRX2DStickerResouceListParser parser;

 private:
  std::vector<ZRX2DStickerResList*> lists_;
};

TEST_F(ListParserTest, NamingRule) {
  struct Row {
    const char* object;
    std::string dirName;
    std::string fileName;
  };
  const std::string d = kDigestAbc;
  const Row rows[] = {
      {R"({"url":"abc"})", d, d},
      {R"({"url":"abc","ext":".zip"})", d, d + ".zip"},
      {R"({"url":"abc","ext":".zip","unzip_type":1})", d, d + ".zip"},
      {R"({"url":"abc","name":"a","ext":".zip"})", "", "a.zip"},
      {R"({"url":"abc","name":"a","ext":".zip","unzip_type":0})", d, "a.zip"},
      {R"({"url":"abc","name":"a","ext":".zip","unzip_type":1})", "a", "a.zip"},
      {R"({"url":"abc","name":"a","unzip_type":7})", "", "a"},
      {R"({"url":"abc","name":"a","ext":".zip","unzip_type":-1})", "", "a.zip"},
      {R"({"url":"abc","name":"","unzip_type":1})", d, d},
      {R"({"ext":".png","url":"abc","name":"x/../y","unzip_type":3})", "",
       "x/../y.png"},
  };
  std::string json = "[";
  for (const Row& row : rows) json += std::string(row.object) + ",";
  json.back() = ']';

  NullListener listener;
  ZRX2DStickerResList* list = parse(json, &listener);
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), std::size(rows));
  for (std::size_t i = 0; i < std::size(rows); ++i) {
    const ZRX2DStickerResItem& item = *list->items[i];
    EXPECT_EQ(item.dirName, rows[i].dirName) << rows[i].object;
    EXPECT_EQ(item.fileName, rows[i].fileName) << rows[i].object;
    EXPECT_EQ(item.url, "abc");
    EXPECT_EQ(item.listener, &listener);
  }
  EXPECT_EQ(logLines(), (std::vector<std::pair<int, std::string>>{
                            {3, "sticker's items num=10"}}));
}

// The empty object, and every element that is no object, give an item of
// defaults; the other items keep their array order.
TEST_F(ListParserTest, EmptyObjectsAndNonObjectsGiveDefaultItems) {
  ZRX2DStickerResList* list = parse(
      R"([{}, null, true, false, 0, "", [], [{"url":"abc"}], "url",
          {"resId":"last","url":"abc"}])");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), 10u);
  for (std::size_t i = 0; i < 9; ++i) {
    const ZRX2DStickerResItem& item = *list->items[i];
    SCOPED_TRACE(i);
    EXPECT_EQ(item.resId, "");
    EXPECT_EQ(item.url, "");
    EXPECT_EQ(item.unzipType, 2);
    EXPECT_EQ(item.dirName, kDigestEmpty);
    EXPECT_EQ(item.fileName, kDigestEmpty);
    EXPECT_EQ(item.downloadState, 0);
    EXPECT_EQ(item.timeoutSeconds, 0);
    EXPECT_EQ(item.listener, nullptr);
    EXPECT_EQ(item.reservedText, "");
    EXPECT_FALSE(item.reservedFlag);
  }
  EXPECT_EQ(list->items[9]->resId, "last");
  EXPECT_EQ(list->items[9]->dirName, kDigestAbc);
}

TEST_F(ListParserTest, MemberValuesAndTheirOddForms) {
  ZRX2DStickerResList* list = parse(R"([
    {"resId":42}, {"resId":-7}, {"resId":""}, {"resId":"s-1"},
    {"resId":9223372036854775807}, {"resId":-9223372036854775808},
    {"resId":1.5}, {"resId":1e2}, {"resId":null}, {"resId":true},
    {"resId":18446744073709551615}, {"resId":{"a":1}},
    {"unzip_type":-1}, {"unzip_type":2147483647}, {"unzip_type":1.0},
    {"unzip_type":null}, {"unzip_type":"1"}, {"unzip_type":2147483648},
    {"url":5, "name":["a"], "ext":{"e":1}, "unzip_type":1}
  ])");
  ASSERT_NE(list, nullptr);
  ASSERT_EQ(list->items.size(), 19u);
  const std::vector<std::string> resIds = {"42",
                                           "-7",
                                           "",
                                           "s-1",
                                           "9223372036854775807",
                                           "-9223372036854775808",
                                           "0",
                                           "0",
                                           "0",
                                           "0",
                                           "0",
                                           "0"};
  for (std::size_t i = 0; i < resIds.size(); ++i) {
    EXPECT_EQ(list->items[i]->resId, resIds[i]) << i;
  }
  const std::vector<int> unzipTypes = {-1, 2147483647, 0, 0, 0, 0};
  for (std::size_t i = 0; i < unzipTypes.size(); ++i) {
    EXPECT_EQ(list->items[12 + i]->unzipType, unzipTypes[i]) << i;
  }
  // Strings of the wrong type count as missing.
  const ZRX2DStickerResItem& wrong = *list->items[18];
  EXPECT_EQ(wrong.url, "");
  EXPECT_EQ(wrong.dirName, kDigestEmpty);
  EXPECT_EQ(wrong.fileName, kDigestEmpty);
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
  EXPECT_EQ(first.resId, "1");
  EXPECT_EQ(first.url, "abc");
  EXPECT_EQ(first.unzipType, 1);
  EXPECT_EQ(first.dirName, "a");
  EXPECT_EQ(first.fileName, "a.zip");
  EXPECT_EQ(list->items[1]->url, "");
  EXPECT_EQ(list->items[1]->fileName, kDigestEmpty);
  EXPECT_EQ(list->items[2]->url, "abc");
  EXPECT_EQ(list->items[2]->fileName, "n");
  // The first member counts even when its value is of the wrong type.
  EXPECT_EQ(list->items[3]->url, "");
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
  ASSERT_EQ(list->items.size(), 3u);
  EXPECT_EQ(list->items[0]->dirName, kDigestAbc);  // the name counts as empty
  EXPECT_EQ(list->items[0]->fileName, kDigestAbc);
  const ZRX2DStickerResItem& cut = *list->items[1];
  EXPECT_EQ(cut.url, "ab");
  EXPECT_EQ(cut.resId, "1");
  EXPECT_EQ(cut.dirName, "ab");
  EXPECT_EQ(cut.fileName, "ab.z");
  const ZRX2DStickerResItem& decoded = *list->items[2];
  EXPECT_EQ(decoded.url, "a/b\xC3\xA9");
  EXPECT_EQ(decoded.dirName, "\xC3\xA9\xF0\x9F\x98\x80");
  EXPECT_EQ(decoded.fileName, "\xC3\xA9\xF0\x9F\x98\x80");

  // The digest is over the decoded bytes of the url, whatever their length.
  const std::string longUrl = "http://h/" + std::string(200, 'x');
  list = parse(R"([{"url":"http:\/\/h\/)" + std::string(200, 'x') + "\"}]");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items[0]->dirName, digest(longUrl));

  // Invalid UTF-8 passes the reader; the file name goes through the code
  // page conversion, the directory name keeps the list's bytes.
  list = parse("[{\"name\":\"a\xFFz\",\"unzip_type\":1}]");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items[0]->dirName, "a\xFFz");
  EXPECT_EQ(list->items[0]->fileName, "a\xEF\xBF\xBDz");
}

TEST_F(ListParserTest, RootsThatAreNoArrayGiveAnEmptyListWithoutALogLine) {
  for (const char* json : {"{}", R"({"items":[{"url":"abc"}]})", R"("[]")",
                           "17", "true", "false", "null", " \n\t\r{} "}) {
    ZRX2DStickerResList* list = parse(json);
    ASSERT_NE(list, nullptr) << json;
    EXPECT_TRUE(list->items.empty()) << json;
  }
  EXPECT_TRUE(logLines().empty());
  EXPECT_EQ(parser.lastError, 0);

  ZRX2DStickerResList* list = parse(" [ ] ");
  ASSERT_NE(list, nullptr);
  EXPECT_TRUE(list->items.empty());
  EXPECT_EQ(
      logLines(),
      (std::vector<std::pair<int, std::string>>{{3, "sticker's items num=0"}}));
}

TEST_F(ListParserTest, ParseErrorsGiveNullTheCodeAndTheErrorLine) {
  const std::pair<std::string, int> cases[] = {
      {"", 1},
      {" \t\r\n", 1},
      {"[] x", 2},
      {"[] []", 2},
      {"\xEF\xBB\xBF[]", 3},  // byte-order mark
      {"/* c */ []", 3},
      {"[1,]", 3},
      {"[NaN]", 3},
      {"\f[]", 3},  // not JSON whitespace
      {R"({"a":1,})", 4},
      {R"([{1:2}])", 4},
      {R"([{"a" 1}])", 5},
      {R"([{"a":1 "b":2}])", 6},
      {"[1 2]", 7},
      {R"(["\u12G4"])", 8},
      {R"(["\ud800x"])", 9},
      {R"(["\q"])", 10},
      {R"(["abc)", 11},
      {"[1e400]", 13},
      {"[1.]", 14},
      {"[1e+]", 15},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.first);
    zrxtest::LogCapture::instance().clear();
    EXPECT_EQ(parse(c.first), nullptr);
    EXPECT_EQ(parser.lastError, c.second);
    EXPECT_EQ(logLines(), (std::vector<std::pair<int, std::string>>{
                              {6, "sticker's resource json parse error=" +
                                      std::to_string(c.second)}}));
  }

  // Text behind a NUL byte is never seen.
  ZRX2DStickerResList* list = parse(std::string("[{}]\0 garbage", 13));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items.size(), 1u);
}

TEST_F(ListParserTest, LastErrorOutlivesLaterGoodParses) {
  EXPECT_EQ(parser.lastError, 0);
  EXPECT_EQ(parse("[1,]"), nullptr);
  ASSERT_NE(parse("[{}]"), nullptr);
  ASSERT_NE(parse("{}"), nullptr);
  EXPECT_EQ(parser.lastError, 3);
  EXPECT_EQ(parse("[] ]"), nullptr);
  EXPECT_EQ(parser.lastError, 2);
}

// Nesting is bounded: a hostile list fails cleanly with
// kParseErrorTermination instead of exhausting the stack.
TEST_F(ListParserTest, NestingDeeperThanTheBoundIsAParseError) {
  const unsigned bound = zrx::kMaxJsonDepth;
  auto nestedArrays = [](unsigned depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  ZRX2DStickerResList* list = parse(nestedArrays(bound));
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->items.size(), 1u);

  EXPECT_EQ(parse(nestedArrays(bound + 1)), nullptr);
  EXPECT_EQ(parser.lastError, 16);

  parser.lastError = 0;
  EXPECT_EQ(parse(std::string(100000, '[')), nullptr);
  EXPECT_EQ(parser.lastError, 16);

  parser.lastError = 0;
  std::string objects = "[";
  for (int i = 0; i < 100000; ++i) objects += R"({"url":)";
  EXPECT_EQ(parse(objects), nullptr);
  EXPECT_EQ(parser.lastError, 16);

  // Deep nesting inside one member of an otherwise good list.
  parser.lastError = 0;
  EXPECT_EQ(parse(R"([{"url":"abc","x":)" + nestedArrays(200) + "}]"), nullptr);
  EXPECT_EQ(parser.lastError, 16);
}

}  // namespace
