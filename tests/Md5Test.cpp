#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "list/Md5.h"
#include "support/TestSupport.h"

namespace {

std::string upper(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return std::toupper(c); });
  return text;
}

// Bytes of every value, NUL and high bytes included, differing per length.
std::string pattern(std::size_t length) {
  std::string text(length, '\0');
  for (std::size_t i = 0; i < length; ++i) {
    text[i] = static_cast<char>((i * 131 + length * 7) & 0xFF);
  }
  return text;
}

}  // namespace

TEST(Md5Test, Rfc1321TestSuiteInUppercase) {
  const std::pair<const char*, const char*> suite[] = {
      {"", "D41D8CD98F00B204E9800998ECF8427E"},
      {"a", "0CC175B9C0F1B6A831C399E269772661"},
      {"abc", "900150983CD24FB0D6963F7D28E17F72"},
      {"message digest", "F96B697D7CB7938D525A2F31AAF161D0"},
      {"abcdefghijklmnopqrstuvwxyz", "C3FCD3D76192E4007DFB496CCA67E13B"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "D174AB98D277D9F5A5611C2C9F419D9F"},
      {"1234567890123456789012345678901234567890123456789012345678901234567890"
       "1234567890",
       "57EDF4A22BE3C955AC49DA2E2107B67A"},
  };
  Md5 md5;  // one object, digest after digest: nothing carries over
  for (const auto& entry : suite) {
    EXPECT_EQ(md5.digestText(entry.first), entry.second) << entry.first;
  }
  EXPECT_EQ(md5.digestText(std::string(1000000, 'a')),
            "7707D6AE4E027C70EEA2A935C2296F21");
}

// Every length around the padding border (55/56 bytes) and the block
// borders, checked against the system's md5sum.
TEST(Md5Test, MatchesMd5sumForLengthsAcrossBlockBorders) {
  zrxtest::TempDir dir;
  std::vector<std::size_t> lengths;
  for (std::size_t n = 0; n <= 200; ++n) lengths.push_back(n);
  for (std::size_t n : {447u, 448u, 449u, 511u, 512u, 513u, 4159u}) {
    lengths.push_back(n);
  }
  for (std::size_t n : lengths) {
    zrxtest::writeFile(dir / ("len-" + std::to_string(n)), pattern(n));
  }

  const std::string command =
      "cd " + zrxtest::shellQuote(dir.path()) + " && md5sum len-*";
  std::FILE* pipe = ::popen(command.c_str(), "r");
  ASSERT_NE(pipe, nullptr);
  std::map<std::string, std::string> expected;  // file name -> digest
  char line[256];
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    const std::string text(line);
    const std::size_t gap = text.find("  ");
    ASSERT_NE(gap, std::string::npos) << text;
    expected[text.substr(gap + 2, text.find('\n') - gap - 2)] =
        upper(text.substr(0, gap));
  }
  ASSERT_EQ(::pclose(pipe), 0);
  ASSERT_EQ(expected.size(), lengths.size());

  Md5 md5;
  for (std::size_t n : lengths) {
    EXPECT_EQ(md5.digestText(pattern(n)), expected["len-" + std::to_string(n)])
        << "length " << n;
  }
}

// Feeding the same bytes in pieces of any size gives the one-pass digest.
TEST(Md5Test, PiecewiseUpdatesMatchOnePass) {
  const std::string text = pattern(300);
  Md5 md5;
  const std::string whole = md5.digestText(text);
  auto hex = [](const uint8_t digest[16]) {
    static const char kDigits[] = "0123456789ABCDEF";
    std::string out;
    for (int i = 0; i < 16; ++i) {
      out += kDigits[digest[i] >> 4];
      out += kDigits[digest[i] & 15];
    }
    return out;
  };
  uint8_t digest[16];
  for (std::size_t split = 0; split <= text.size(); ++split) {
    md5.init();
    md5.update(text.data(), split);
    md5.update(text.data() + split, text.size() - split);
    md5.finish(digest);
    ASSERT_EQ(hex(digest), whole) << "split at " << split;
  }
  for (std::size_t piece : {1u, 3u, 63u, 65u, 128u}) {
    md5.init();
    for (std::size_t at = 0; at < text.size(); at += piece) {
      md5.update(text.data() + at, std::min(piece, text.size() - at));
    }
    md5.finish(digest);
    EXPECT_EQ(hex(digest), whole) << "pieces of " << piece;
  }
}
