// Listing and extraction of archives made by Info-ZIP zip, Python's zipfile
// and byte by byte; hostile archives must never write outside the target.
#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "archive/ZipReader.h"
#include "support/TestSupport.h"

namespace {

using zrxtest::listTree;
using zrxtest::readFile;
using zrxtest::run;
using zrxtest::shellQuote;
using zrxtest::sizeOf;
using zrxtest::writeFile;
using Tree = std::vector<std::string>;

struct RawEntry {
  std::string name, data;
  uint16_t flags = 0;
};

// `value` as a little-endian field of `width` bytes.
std::string le(uint64_t value, int width) {
  std::string out;
  for (int i = 0; i < width; ++i) out += char(i < 8 ? value >> (8 * i) : 0);
  return out;
}

// A plain archive of stored entries, names and flags exactly as given.
void writeRawZip(const std::string& path,
                 const std::vector<RawEntry>& entries) {
  std::string body, central;
  for (const RawEntry& e : entries) {
    const uint64_t size = e.data.size();
    const uint64_t crc =
        crc32(0, reinterpret_cast<const Bytef*>(e.data.data()), size);
    // Version needed, flags, method 0, time and date, crc, sizes, name and
    // extra length.
    const std::string common = le(20, 2) + le(e.flags, 2) + le(0, 6) +
                               le(crc, 4) + le(size, 4) + le(size, 4) +
                               le(e.name.size(), 2) + le(0, 2);
    central += le(0x02014b50, 4) + le(20, 2) + common + le(0, 10) +
               le(body.size(), 4) + e.name;
    body += le(0x04034b50, 4) + common + e.name + e.data;
  }
  const uint64_t count = entries.size();
  writeFile(path, body + central + le(0x06054b50, 4) + le(0, 4) + le(count, 2) +
                      le(count, 2) + le(central.size(), 4) +
                      le(body.size(), 4) + le(0, 2));
}

void python(const std::string& script, const std::string& args) {
  ASSERT_EQ(run("python3 -c " + shellQuote(script) + " " + args), 0) << args;
}

class ZipReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { gUnzipStopFlag = false; }
  void TearDown() override { gUnzipStopFlag = false; }
  std::string freshDir(const std::string& name) {
    zrxtest::makeDirs(temp / name);
    return temp / name;
  }
  zrxtest::TempDir temp;
};

}  // namespace

TEST_F(ZipReaderTest, ExtractsAndListsArchivesOfRealTools) {
  const std::string src = freshDir("src");
  zrxtest::makeDirs(src + "/sub/deeper");
  writeFile(src + "/a.txt", "alpha\n");
  writeFile(src + "/empty.txt", "");
  std::string big(300000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = char(i * i >> 3);
  writeFile(src + "/sub/b.bin", big);
  writeFile(src + "/sub/deeper/c.txt", std::string(50000, 'c'));
  // clang-format off
  const zipEntryMap files = {{"a.txt", 6}, {"empty.txt", 0},
                             {"sub/b.bin", 300000}, {"sub/deeper/c.txt", 50000}};
  // clang-format on
  zipEntryMap listing = files;
  listing.insert({{"sub/", 0}, {"sub/deeper/", 0}});
  for (const std::string tool :
       {"zip -q -r deflated.zip", "zip -q -r -0 stored.zip",
        "zip -q -r -fz zip64.zip", "python3 -m zipfile -c python.zip"}) {
    SCOPED_TRACE(tool);
    const std::string name = tool.substr(tool.rfind(' ') + 1);
    const std::string archive = temp / name;
    ASSERT_EQ(
        run("cd " + shellQuote(src) + " && " + tool.substr(0, tool.rfind(' ')) +
            " " + shellQuote(archive) + " ."),
        0);
    EXPECT_EQ(listZipEntries(archive), listing);
    const std::string target = freshDir("out-" + name);
    ASSERT_TRUE(unzipToDirectory(archive, target));
    ASSERT_EQ(listTree(target), listTree(src));
    for (const auto& file : files) {
      EXPECT_TRUE(readFile(target + "/" + file.first) ==
                  readFile(src + "/" + file.first))
          << file.first;
    }
  }
  ASSERT_NE(readFile(temp / "zip64.zip").find("PK\x06\x06"), std::string::npos);

  // Streamed through pipes, zip can't seek back: sizes follow the data in
  // descriptors and the entry is named "-".
  const std::string streamed = temp / "streamed.zip";
  ASSERT_EQ(run("zip -q - - < " + shellQuote(src + "/sub/b.bin") + " | cat > " +
                shellQuote(streamed)),
            0);
  ASSERT_NE(readFile(streamed)[6] & 8, 0) << "no data descriptor";
  EXPECT_EQ(listZipEntries(streamed), (zipEntryMap{{"-", 300000}}));
  ASSERT_TRUE(unzipToDirectory(streamed, freshDir("out-streamed")));
  EXPECT_TRUE(readFile(temp / "out-streamed/-") == big);
}

TEST_F(ZipReaderTest, NamesAsStoredDuplicatesAndDirectoryOrder) {
  const std::string archive = temp / "names.zip";
  // clang-format off
  writeRawZip(archive, {{"b", "first b"}, {"a/", ""}, {"\xC3\xA9.png", "e"},
                        {"a\\b.txt", "back"}, {"d\\", ""}, {"Z", "z"},
                        {"a/x", "in a"}, {"b", "second b"}});
  // Unsigned byte order ('/' < '\' < 'b' < 0xC3); the later duplicate's size.
  EXPECT_EQ(listZipEntries(archive),
            (zipEntryMap{{"Z", 1}, {"a/", 0}, {"a/x", 4}, {"a\\b.txt", 4},
                         {"b", 8}, {"d\\", 0}, {"\xC3\xA9.png", 1}}));
  // clang-format on
  const std::string target = freshDir("names");
  writeFile(target + "/b", std::string(5000, 'o'));  // overwritten whole
  ASSERT_TRUE(unzipToDirectory(archive, target));
  // A backslash inside a name is a name byte, one at the end a directory.
  EXPECT_EQ(listTree(target),
            (Tree{"Z", "a/", "a/x", "a\\b.txt", "b", "d\\/", "\xC3\xA9.png"}));
  EXPECT_EQ(readFile(target + "/b"), "second b");
  EXPECT_TRUE(unzipToDirectory(archive, target));  // existing directories do

  // A file entry needs its directory from an earlier entry or the disk; a
  // directory entry whose parent is missing is done, the file below fails.
  writeRawZip(archive, {{"x.txt", "x"}, {"a/b.png", "png"}, {"p/q/", ""}});
  EXPECT_FALSE(unzipToDirectory(archive, freshDir("missing")));
  EXPECT_EQ(listTree(temp / "missing"), Tree{"x.txt"});
  zrxtest::makeDirs(temp / "present/a");
  EXPECT_TRUE(unzipToDirectory(archive, temp / "present"));
  writeRawZip(archive, {{"p/q/", ""}, {"z.txt", "z"}, {"p/q/r.txt", "r"}});
  EXPECT_FALSE(unzipToDirectory(archive, freshDir("orphan")));
  EXPECT_EQ(listTree(temp / "orphan"), Tree{"z.txt"});
}

TEST_F(ZipReaderTest, StopFlag) {
  const std::string empty = temp / "empty.zip";
  python("import zipfile, sys; zipfile.ZipFile(sys.argv[1], 'w').close()",
         shellQuote(empty));
  const std::string small = temp / "small.zip";
  writeRawZip(small, {{"d/", ""}, {"d/f", "f"}});
  const std::string target = freshDir("target");
  EXPECT_TRUE(listZipEntries(empty).empty());
  EXPECT_TRUE(unzipToDirectory(empty, target));
  // Raised: an archive with no entries is still done, any other is not
  // touched; a listing ignores the flag.
  gUnzipStopFlag = true;
  EXPECT_TRUE(unzipToDirectory(empty, target));
  EXPECT_FALSE(unzipToDirectory(small, target));
  EXPECT_TRUE(listTree(target).empty());
  EXPECT_EQ(listZipEntries(small).size(), 2u);
  gUnzipStopFlag = false;

  // A stop from another thread ends a large entry early.
  const std::string archive = temp / "large.zip";
  python(
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1], 'w', 8, compresslevel=1) as z:\n"
      "  z.writestr('first.txt', 'first')\n"
      "  with z.open('large.bin', 'w') as f:\n"
      "    for _ in range(512): f.write(bytes(1 << 20))\n",
      shellQuote(archive));
  ASSERT_EQ(listZipEntries(archive).at("large.bin"), 512u << 20);
  const std::string large = target + "/large.bin";
  auto result = std::async(std::launch::async,
                           [&] { return unzipToDirectory(archive, target); });
  const bool started = zrxtest::waitUntil([&] { return sizeOf(large) > 0; });
  gUnzipStopFlag = true;
  ASSERT_TRUE(started);
  ASSERT_EQ(result.wait_for(std::chrono::seconds(30)),
            std::future_status::ready);
  EXPECT_FALSE(result.get());
  EXPECT_LT(sizeOf(large), 512 << 20);
  EXPECT_EQ(readFile(target + "/first.txt"), "first");
}

TEST_F(ZipReaderTest, HostileArchivesFailAndWriteNothingOutsideTheTarget) {
  struct Case {
    std::string archive;
    Tree target;  // what the target holds afterwards
    zipEntryMap listing;
  };
  std::vector<Case> cases;
  const std::string archives = freshDir("archives");
  auto raw = [&](std::vector<RawEntry> entries, Tree target,
                 zipEntryMap listing) {
    const std::string path = archives + "/" + std::to_string(cases.size());
    writeRawZip(path, entries);
    cases.push_back({path, target, listing});
  };
  // Names that lead out: the entries before are written, the listing is
  // empty whatever came before.
  for (const std::string& name :
       Tree{"../escape.txt", "sub/../../escape.txt", "..\\escape.txt",
            "sub\\..\\..\\x.txt", "../escdir/", temp / "absolute.txt",
            "\\abs.txt", "C:abs.txt", "C:\\abs.txt"}) {
    raw({{"ok.txt", "ok"}, {"sub/", ""}, {name, "evil"}}, {"ok.txt", "sub/"},
        {});
  }
  // A name has at most 511 bytes; a bad name ends the listing there.
  const std::string d1 = std::string(250, 'p') + "/";
  const std::string d2 = d1 + std::string(250, 'q') + "/";
  const std::string longest = d2 + std::string(9, 'n');
  // clang-format off
  raw({{d1, ""}, {d2, ""}, {longest, "7 bytes"}, {longest + "n", "x"},
       {"after", "x"}}, {d1, d2, longest}, {{d1, 0}, {d2, 0}, {longest, 7}});
  // clang-format on
  const zipEntryMap okOnly = {{"ok.txt", 2}};
  raw({{"ok.txt", "ok"}, {std::string("a\0/../../x.txt", 14), "x"}}, {"ok.txt"},
      okOnly);
  raw({{"ok.txt", "ok"}, {"", "x"}, {"b.txt", "b"}}, {"ok.txt"}, okOnly);
  // Flagged as encrypted but stored in the clear: never handed over as is.
  raw({{"ok.txt", "ok"}, {"secret.txt", "plain", 1}}, {"ok.txt"},
      {{"ok.txt", 2}, {"secret.txt", 5}});

  const std::string plain = freshDir("plain");
  writeFile(plain + "/secret.txt", "the secret content");
  const zipEntryMap secret = {{"secret.txt", 18}};
  const std::string encrypted = archives + "/encrypted.zip";
  ASSERT_EQ(run("cd " + shellQuote(plain) + " && zip -q -0 -P pw " +
                shellQuote(encrypted) + " secret.txt"),
            0);
  cases.push_back({encrypted, {}, secret});
  // Methods not decoded here (bzip2, lzma): the file is made, and stays empty.
  for (const char* method : {"12", "14"}) {
    const std::string path = archives + "/method" + method;
    python(
        "import os, sys, zipfile; os.chdir(sys.argv[1]); "
        "zipfile.ZipFile(sys.argv[2], 'w', int(sys.argv[3]))"
        ".write('secret.txt')",
        shellQuote(plain) + " " + shellQuote(path) + " " + method);
    cases.push_back({path, {"secret.txt"}, secret});
  }
  // Cut short; bytes before an archive (a fetch cut just after a stored
  // inner archive); no archive at all.
  const std::string whole = readFile(encrypted);
  for (const std::string& bytes :
       {whole.substr(0, whole.size() / 2), "PK\3\4 cut outer archive" + whole,
        std::string("<html>502 Bad Gateway</html>\n")}) {
    cases.push_back({archives + "/bad" + std::to_string(cases.size()), {}, {}});
    writeFile(cases.back().archive, bytes);
  }

  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.archive);
    // Two levels down: a ".." or "../.." lands where the last check sees it.
    const std::string base = freshDir("case" + std::to_string(i));
    zrxtest::makeDirs(base + "/in/target");
    EXPECT_FALSE(unzipToDirectory(c.archive, base + "/in/target"));
    EXPECT_EQ(listZipEntries(c.archive), c.listing);
    Tree expected = {"in/", "in/target/"};
    for (const std::string& p : c.target) expected.push_back("in/target/" + p);
    EXPECT_EQ(listTree(base), expected);
    if (c.target == Tree{"secret.txt"}) {
      EXPECT_EQ(sizeOf(base + "/in/target/secret.txt"), 0);
    }
  }
  EXPECT_FALSE(zrxtest::fileExists(temp / "absolute.txt"));
}
