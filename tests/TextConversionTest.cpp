#include <gtest/gtest.h>

#include <string>

#include "list/TextConversion.h"

namespace {

// The pair as the parser applies it to a file name.
std::string throughWide(const std::string& utf8) {
  std::u16string wide;
  std::string narrow;
  EXPECT_EQ(utf8ToWide(utf8, wide), 0);
  EXPECT_EQ(wideToAnsi(wide, narrow), 0);
  return narrow;
}

const std::string kReplacementUtf8 = "\xEF\xBF\xBD";

}  // namespace

TEST(TextConversionTest, EmptySourceClearsTheTarget) {
  std::u16string wide = u"stale";
  std::string narrow = "stale";
  EXPECT_EQ(utf8ToWide("", wide), 0);
  EXPECT_EQ(wideToAnsi(u"", narrow), 0);
  EXPECT_TRUE(wide.empty());
  EXPECT_TRUE(narrow.empty());
}

TEST(TextConversionTest, ValidUtf8RoundTripsUnchanged) {
  // One-, two-, three- and four-byte forms, the last a surrogate pair.
  const std::string text = "a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80z";
  std::u16string wide = u"stale";
  ASSERT_EQ(utf8ToWide(text, wide), 0);
  EXPECT_EQ(wide, std::u16string(u"a\u00E9\u20AC\U0001F600z"));
  EXPECT_EQ(throughWide(text), text);

  // The edges of the ranges: U+007F, U+0080, U+07FF, U+0800, U+FFFF,
  // U+10000, U+10FFFF.
  const std::string edges =
      "\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x90\x80\x80"
      "\xF4\x8F\xBF\xBF";
  EXPECT_EQ(throughWide(edges), edges);

  // Long enough for the conversions' large-buffer path.
  std::string longText;
  for (int i = 0; i < 700; ++i) longText += "\xE6\x96\x87\xF0\x9F\x98\x80x";
  EXPECT_EQ(throughWide(longText), longText);
}

TEST(TextConversionTest, IllFormedUtf8BecomesReplacementCharacters) {
  const std::string r = kReplacementUtf8;
  const std::pair<std::string, std::string> cases[] = {
      {"\x80", r},                          // lone continuation byte
      {"a\xBF\x80z", "a" + r + r + "z"},    // two of them
      {"\xC0\xAF", r + r},                  // overlong '/'
      {"\xE0\x80\xAF", r + r + r},          // overlong, three bytes
      {"\xF0\x80\x80\xAF", r + r + r + r},  // overlong, four bytes
      {"\xED\xA0\x80", r + r + r},          // U+D800 in UTF-8
      {"\xED\xB0\x80x", r + r + r + "x"},   // U+DC00 in UTF-8
      {"\xF4\x90\x80\x80", r + r + r + r},  // above U+10FFFF
      {"\xFE\xFF", r + r},                  // never valid bytes
      {"ab\xE2\x82", "ab" + r},             // truncated at the end
      {"\xE2\x82z", r + "z"},               // truncated in the middle
      {"\xF0\x9F\x98", r},                  // truncated four-byte form
      {"\xC3\xA9\xC3", "\xC3\xA9" + r},     // valid, then truncated
  };
  for (const auto& c : cases) {
    EXPECT_EQ(throughWide(c.first), c.second)
        << testing::PrintToString(c.first);
  }
}

TEST(TextConversionTest, UnpairedSurrogatesBecomeReplacementCharacters) {
  const std::string r = kReplacementUtf8;
  const std::pair<std::u16string, std::string> cases[] = {
      {std::u16string(1, char16_t(0xD800)), r},
      {std::u16string(1, char16_t(0xDC00)) + u"a", r + "a"},
      {u"a" + std::u16string(1, char16_t(0xDBFF)), "a" + r},
      // low before high is two unpaired halves
      {std::u16string{char16_t(0xDC00), char16_t(0xD800)}, r + r},
      {std::u16string{char16_t(0xD83D), char16_t(0xDE00)}, "\xF0\x9F\x98\x80"},
  };
  for (const auto& c : cases) {
    std::string narrow = "stale";
    EXPECT_EQ(wideToAnsi(c.first, narrow), 0);
    EXPECT_EQ(narrow, c.second);
  }
}

TEST(TextConversionTest, ResultEndsAtTheFirstNul) {
  std::u16string wide;
  ASSERT_EQ(utf8ToWide(std::string("ab\0cd", 5), wide), 0);
  EXPECT_EQ(wide, u"ab");
  ASSERT_EQ(utf8ToWide(std::string("\0ab", 3), wide), 0);
  EXPECT_EQ(wide, u"");

  std::string narrow;
  ASSERT_EQ(wideToAnsi(std::u16string(u"\u00E9\0cd", 4), narrow), 0);
  EXPECT_EQ(narrow, "\xC3\xA9");
  ASSERT_EQ(wideToAnsi(std::u16string(u"\0x", 2), narrow), 0);
  EXPECT_EQ(narrow, "");
}
