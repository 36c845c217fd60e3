// Listing and extraction of archives made by Info-ZIP zip and byte by byte; hostile archives must never write outside the target.
#include <gtest/gtest.h>
#include <zlib.h>

#include <chrono>
#include <cstdint>
#include <future>
#include <string>
#include <vector>

#include "archive/ZipReader.h"
#include "support/TestSupport.h"

namespace zrxtest {
namespace {

using Tree = std::vector<std::string>;

struct RawEntry {
  std::string name, data;
  uint16_t flags = 0, method = 0;
};

// `value` as a little-endian field of `width` bytes.
std::string le(uint64_t value, int width) {
  std::string out;
  for (int i = 0; i < width; ++i) out += char(i < 8 ? value >> (8 * i) : 0);
  return out;
}

// An archive whose entries hold their data as is, whatever the method field
// says; names, flags and methods exactly as given.
void writeRawZip(const std::string& path,
                 const std::vector<RawEntry>& entries) {
  std::string body, central;
  for (const RawEntry& e : entries) {
    const uint64_t size = e.data.size();
    const uint64_t crc =
        crc32(0, reinterpret_cast<const Bytef*>(e.data.data()), size);
    // Version needed, flags, method, time and date, crc, sizes, name and
    // extra length.
    const std::string common = le(20, 2) + le(e.flags, 2) + le(e.method, 2) +
                               le(0, 4) + le(crc, 4) + le(size, 4) +
                               le(size, 4) + le(e.name.size(), 2) + le(0, 2);
    central += le(0x02014b50, 4) + le(20, 2) + common + le(0, 10) +
               le(body.size(), 4) + e.name;
    body += le(0x04034b50, 4) + common + e.name + e.data;
  }
  const uint64_t count = entries.size();
  writeFile(path, body + central + le(0x06054b50, 4) + le(0, 4) + le(count, 2) +
                      le(count, 2) + le(central.size(), 4) +
                      le(body.size(), 4) + le(0, 2));
}

class ZipReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { gUnzipStopFlag = false; }
  void TearDown() override { gUnzipStopFlag = false; }
  std::string freshDir(const std::string& name) {
    makeDirs(temp / name);
    return temp / name;
  }
  TempDir temp;
};

// Info-ZIP's zip with zip64 records, deflated, with directory entries.
TEST_F(ZipReaderTest, ExtractsAndListsAnArchiveOfARealTool) {
  const std::string src = freshDir("src");
  makeDirs(src + "/sub/deeper");
  writeFile(src + "/empty.txt", "");
  std::string big(300000, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = char(i * i >> 3);
  writeFile(src + "/sub/deeper/b.bin", big);
  const std::string archive = temp / "zip64.zip";
  ASSERT_EQ(run("cd " + shellQuote(src) + " && zip -q -r -fz " +
                shellQuote(archive) + " ."),
            0);
  ASSERT_NE(readFile(archive).find("PK\x06\x06"), std::string::npos);
  EXPECT_EQ(listZipEntries(archive),
            (zipEntryMap{{"empty.txt", 0}, {"sub/", 0}, {"sub/deeper/", 0},
                         {"sub/deeper/b.bin", 300000}}));
  const std::string target = freshDir("out");
  ASSERT_TRUE(unzipToDirectory(archive, target));
  EXPECT_EQ(listTree(target), listTree(src));
  EXPECT_TRUE(readFile(target + "/sub/deeper/b.bin") == big);
}

TEST_F(ZipReaderTest, NamesAsStoredDuplicatesAndDirectoryOrder) {
  const std::string archive = temp / "names.zip";
  // Names that only resemble a device or a stripped ending are plain names.
  // clang-format off
  writeRawZip(archive, {{"b", "first b"}, {"a/", ""}, {"\xC3\xA9.png", "e"},
                        {"Z", "z"}, {"a/x", "in a"}, {"com10.txt", "c"},
                        {"a/./y.b.c", "y"}, {"b", "second b"}});
  // Unsigned byte order; the later duplicate's size.
  EXPECT_EQ(listZipEntries(archive),
            (zipEntryMap{{"Z", 1}, {"a/", 0}, {"a/./y.b.c", 1}, {"a/x", 4},
                         {"b", 8}, {"com10.txt", 1}, {"\xC3\xA9.png", 1}}));
  // clang-format on
  const std::string target = freshDir("names");
  writeFile(target + "/b", std::string(5000, 'o'));  // overwritten whole
  ASSERT_TRUE(unzipToDirectory(archive, target));
  // The name's bytes reach the disk as they are (Windows reads them in the
  // ANSI code page).
  EXPECT_EQ(listTree(target), (Tree{"Z", "a/", "a/x", "a/y.b.c", "b", "com10.txt",
                                   listedName("\xC3\xA9.png")}));
  EXPECT_EQ(readFile(target + "/b"), "second b");
  EXPECT_TRUE(unzipToDirectory(archive, target));  // existing directories do

  // A file entry needs its directory from an earlier entry or the disk; a
  // directory entry whose parent is missing is done, the file below fails.
  writeRawZip(archive, {{"x.txt", "x"}, {"a/b.png", "png"}, {"p/q/", ""}});
  EXPECT_FALSE(unzipToDirectory(archive, freshDir("missing")));
  EXPECT_EQ(listTree(temp / "missing"), Tree{"x.txt"});
  writeRawZip(archive, {{"p/q/", ""}, {"z.txt", "z"}, {"p/q/r.txt", "r"}});
  EXPECT_FALSE(unzipToDirectory(archive, freshDir("orphan")));
  EXPECT_EQ(listTree(temp / "orphan"), Tree{"z.txt"});
}

// Entry names in code page 932's bytes, as Japanese archivers store them.
// At 932 the trail bytes that equal '|' ("ポ" is 83 7C) and '\\' ("表" is
// 95 5C) belong to their characters, and the entries extract under their
// names. Read byte by byte (POSIX, 1252) they are a '|' and a backslash,
// and the archive is refused at its first entry.
TEST_F(ZipReaderTest, DoubleByteNamesAreReadAsTheCodePageReadsThem) {
  const std::string archive = temp / "cp932.zip";
  writeRawZip(archive, {{"\x83\x7C/", ""}, {"\x83\x7C/\x95\x5C.png", "hyo"}});
  const std::string target = freshDir("cp932");
  if (narrowCodePage() == 932) {
    EXPECT_TRUE(unzipToDirectory(archive, target));
    EXPECT_EQ(listZipEntries(archive),
              (zipEntryMap{{"\x83\x7C/", 0}, {"\x83\x7C/\x95\x5C.png", 3}}));
    EXPECT_EQ(listTree(target),
              (Tree{"\xE3\x83\x9D/", "\xE3\x83\x9D/\xE8\xA1\xA8.png"}));
  } else {
    EXPECT_FALSE(unzipToDirectory(archive, target));
    EXPECT_TRUE(listZipEntries(archive).empty());
    EXPECT_TRUE(listTree(target).empty());
  }
}

TEST_F(ZipReaderTest, StopFlag) {
  const std::string empty = temp / "empty.zip";  // the end record alone
  writeRawZip(empty, {});
  const std::string small = temp / "small.zip";
  writeRawZip(small, {{"d/", ""}, {"d/f", "f"}});
  const std::string target = freshDir("target");
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
  const char* const script =
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1], 'w', 8, compresslevel=1) as z:\n"
      "  z.writestr('first.txt', 'first')\n"
      "  with z.open('large.bin', 'w') as f:\n"
      "    for _ in range(512): f.write(bytes(1 << 20))\n";
  ASSERT_EQ(run("python3 -c " + shellQuote(script) + " " + shellQuote(archive)),
            0);
  ASSERT_EQ(listZipEntries(archive).at("large.bin"), 512u << 20);
  const std::string large = target + "/large.bin";
  auto result = std::async(std::launch::async,
                           [&] { return unzipToDirectory(archive, target); });
  const bool started = waitUntil([&] { return sizeOf(large) > 0; });
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
  auto add = [&](Tree target, zipEntryMap listing) -> const std::string& {
    cases.push_back(
        {archives + "/" + std::to_string(cases.size()), target, listing});
    return cases.back().archive;
  };
  // Names that lead out, by either separator, or that a Win32 file call
  // reads as a device, a stream, a drive, a stripped ending or a path: the
  // entries before are written, the listing is empty whatever came before.
  for (const std::string& name :
       Tree{"../escape.txt", "sub/../../escape.txt", "..\\escape.txt",
            temp / "absolute.txt", "C:abs.txt", "NUL.png", "sub/com1.zip",
            "Aux/", "CONOUT$.x", "com\xC2\xB9", "prn .txt", "a.png:s", "t.png.",
            "dir./x", "??.png", "a|b", "d\\", std::string(256, 'n')}) {
    writeRawZip(add({"ok.txt", "sub/"}, {}),
                {{"ok.txt", "ok"}, {"sub/", ""}, {name, "evil"}});
  }
  // A name has at most 511 bytes; a bad name ends the listing there. A path
  // past 259 bytes is listed, but never written.
  const zipEntryMap okOnly = {{"ok.txt", 2}};
  writeRawZip(add({"ok.txt"}, okOnly),
              {{"ok.txt", "ok"}, {std::string(512, 'p'), "x"}, {"b", "b"}});
  const std::string d1 = std::string(120, 'p') + "/";
  const std::string longest = d1 + std::string(140, 'q');
  writeRawZip(add({"ok.txt", d1}, {{"ok.txt", 2}, {d1, 0}, {longest, 1}}),
              {{"ok.txt", "ok"}, {d1, ""}, {longest, "x"}});
  writeRawZip(add({"ok.txt"}, okOnly),
              {{"ok.txt", "ok"}, {std::string("a\0/../../x.txt", 14), "x"}});
  // Flagged as encrypted: never handed over as is, even when the bytes are
  // in the clear.
  const zipEntryMap secret = {{"ok.txt", 2}, {"secret.txt", 5}};
  writeRawZip(add({"ok.txt"}, secret),
              {{"ok.txt", "ok"}, {"secret.txt", "plain", 1}});
  // A method not decoded here (bzip2): the file is made, and stays empty;
  // minizip would hand over its bytes undecoded.
  writeRawZip(add({"ok.txt", "secret.txt"}, secret),
              {{"ok.txt", "ok"}, {"secret.txt", "plain", 0, 12}});
  // Cut short; bytes before an archive (a fetch cut just after a stored
  // inner archive); no archive at all.
  const std::string whole = readFile(cases.back().archive);
  for (const std::string& bytes :
       {whole.substr(0, whole.size() / 2), "PK\3\4 cut outer archive" + whole,
        std::string("<html>502 Bad Gateway</html>\n")}) {
    writeFile(add({}, {}), bytes);
  }

  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.archive);
    // Two levels down: a ".." or "../.." lands where the last check sees it.
    const std::string base = freshDir("case" + std::to_string(i));
    makeDirs(base + "/in/target");
    EXPECT_FALSE(unzipToDirectory(c.archive, base + "/in/target"));
    EXPECT_EQ(listZipEntries(c.archive), c.listing);
    Tree expected = {"in/", "in/target/"};
    for (const std::string& p : c.target) expected.push_back("in/target/" + p);
    EXPECT_EQ(listTree(base), expected);
    if (fileExists(base + "/in/target/secret.txt")) {
      EXPECT_EQ(sizeOf(base + "/in/target/secret.txt"), 0);
    }
  }
  EXPECT_FALSE(fileExists(temp / "absolute.txt"));
}

}  // namespace
}  // namespace zrxtest
