// Listing and extraction of archives made by Info-ZIP zip, Python's zipfile
// and byte by byte; hostile archives must never write outside the target.
#include <gtest/gtest.h>
#include <zlib.h>

#include <algorithm>
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
using zrxtest::TempDir;
using zrxtest::writeFile;
using Tree = std::vector<std::string>;

// One stored entry of an archive written byte by byte: any name bytes, any
// general-purpose flags.
struct RawEntry {
  std::string name;
  std::string data;
  uint16_t flags = 0;
};

void put(std::string& out, uint32_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out += static_cast<char>(value >> (8 * i));
}

// Writes a plain (not zip64) archive of stored entries, names untouched.
void writeRawZip(const std::string& path,
                 const std::vector<RawEntry>& entries) {
  std::string body;
  std::string central;
  for (const RawEntry& e : entries) {
    const uint32_t crc = static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(e.data.data()),
              static_cast<uInt>(e.data.size())));
    const uint32_t size = static_cast<uint32_t>(e.data.size());
    const uint32_t offset = static_cast<uint32_t>(body.size());
    std::string common;  // version needed .. extra length
    put(common, 20, 2);
    put(common, e.flags, 2);
    put(common, 0, 2);  // stored
    put(common, 0, 4);  // time, date
    put(common, crc, 4);
    put(common, size, 4);
    put(common, size, 4);
    put(common, static_cast<uint32_t>(e.name.size()), 2);
    put(common, 0, 2);
    put(body, 0x04034b50, 4);
    body += common + e.name + e.data;
    put(central, 0x02014b50, 4);
    put(central, 20, 2);  // made by
    central += common;
    put(central, 0, 2);  // comment length
    put(central, 0, 4);  // disk, internal attributes
    put(central, 0, 4);  // external attributes
    put(central, offset, 4);
    central += e.name;
  }
  std::string end;
  put(end, 0x06054b50, 4);
  put(end, 0, 4);
  put(end, static_cast<uint32_t>(entries.size()), 2);
  put(end, static_cast<uint32_t>(entries.size()), 2);
  put(end, static_cast<uint32_t>(central.size()), 4);
  put(end, static_cast<uint32_t>(body.size()), 4);
  put(end, 0, 2);
  writeFile(path, body + central + end);
}

void python(const std::string& script, const std::string& args) {
  ASSERT_EQ(run("python3 -c " + shellQuote(script) + " " + args), 0) << args;
}

// Listing a tree as zip tools name it: files with their sizes, directories
// (when the archive holds them) with a trailing '/' and size 0.
zipEntryMap expectedListing(const std::string& root, bool withDirectories) {
  zipEntryMap out;
  for (const std::string& path : listTree(root)) {
    if (path.back() == '/') {
      if (withDirectories) out[path] = 0;
    } else {
      out[path] = static_cast<uint64_t>(sizeOf(root + "/" + path));
    }
  }
  return out;
}

std::string patternBytes(std::size_t count) {
  std::string out(count, '\0');
  uint32_t state = 12345;
  for (char& c : out) {
    state = state * 1103515245u + 12345u;
    c = static_cast<char>(state >> 16);
  }
  return out;
}

class ZipReaderTest : public ::testing::Test {
 protected:
  void SetUp() override { gUnzipStopFlag = false; }
  void TearDown() override { gUnzipStopFlag = false; }

  // A fresh empty directory below the temp root.
  std::string freshDir(const std::string& name) {
    const std::string path = temp / name;
    zrxtest::makeDirs(path);
    return path;
  }

  TempDir temp;
};

TEST_F(ZipReaderTest, ExtractsAndListsArchivesOfRealTools) {
  const std::string src = freshDir("src");
  zrxtest::makeDirs(src + "/sub/deeper");
  writeFile(src + "/a.txt", "alpha\n");
  writeFile(src + "/empty.txt", "");
  writeFile(src + "/sub/b.bin", patternBytes(300000));
  writeFile(src + "/sub/deeper/c.txt", std::string(50000, 'c'));
  const std::string walk =
      "import os, sys, zipfile\n"
      "src, out, method, dirs = sys.argv[1:]\n"
      "with zipfile.ZipFile(out, 'w', int(method)) as z:\n"
      "  for root, ds, fs in os.walk(src):\n"
      "    ds.sort()\n"
      "    for n in (ds if dirs == '1' else []) + sorted(fs):\n"
      "      p = os.path.join(root, n)\n"
      "      z.write(p, os.path.relpath(p, src))\n";

  struct Made {
    std::string label;
    bool withDirectories;
  };
  std::vector<Made> made;
  auto infoZip = [&](const std::string& label, const std::string& options) {
    ASSERT_EQ(run("cd " + shellQuote(src) + " && zip -q -r " + options + " " +
                  shellQuote(temp / label) + " ."),
              0);
    made.push_back({label, true});
  };
  infoZip("deflated.zip", "");
  infoZip("stored.zip", "-0");
  infoZip("zip64.zip", "-fz");
  ASSERT_NE(readFile(temp / "zip64.zip").find("PK\x06\x06"), std::string::npos);
  for (const char* method : {"0", "8"}) {
    for (const char* dirs : {"0", "1"}) {
      const std::string label =
          std::string("python-") + method + "-" + dirs + ".zip";
      python(walk, shellQuote(src) + " " + shellQuote(temp / label) + " " +
                       method + " " + dirs);
      made.push_back({label, std::string(dirs) == "1"});
    }
  }

  for (const Made& m : made) {
    SCOPED_TRACE(m.label);
    EXPECT_EQ(listZipEntries(temp / m.label),
              expectedListing(src, m.withDirectories));
    const std::string target = freshDir("out-" + m.label);
    // Without directory entries only directories already there can
    // receive the files.
    if (!m.withDirectories) zrxtest::makeDirs(target + "/sub/deeper");
    ASSERT_TRUE(unzipToDirectory(temp / m.label, target));
    ASSERT_EQ(listTree(target), listTree(src));
    for (const std::string& path : listTree(src)) {
      if (path.back() != '/') {
        EXPECT_EQ(readFile(target + "/" + path), readFile(src + "/" + path))
            << path;
      }
    }
  }

  // Streamed through pipes, zip can't seek back: sizes follow the data in
  // descriptors and the entry is named "-".
  const std::string streamed = temp / "streamed.zip";
  ASSERT_EQ(run("zip -q - - < " + shellQuote(src + "/sub/b.bin") + " | cat > " +
                shellQuote(streamed)),
            0);
  ASSERT_NE(readFile(streamed)[6] & 8, 0) << "no data descriptor";
  EXPECT_EQ(listZipEntries(streamed), (zipEntryMap{{"-", 300000}}));
  const std::string target = freshDir("out-streamed");
  ASSERT_TRUE(unzipToDirectory(streamed, target));
  EXPECT_EQ(readFile(target + "/-"), readFile(src + "/sub/b.bin"));
}

TEST_F(ZipReaderTest, KeepsNamesAsStoredInByteOrderAndLaterDuplicateWins) {
  const std::string archive = temp / "names.zip";
  writeRawZip(archive, {{"b", "first b"},
                        {"a/", ""},
                        {"\xC3\xA9.png", "e"},
                        {"a\\b.txt", "back"},
                        {"d\\", ""},
                        {"Z", "z"},
                        {"a/x", "in a"},
                        {"b", "second, longer b"}});
  const zipEntryMap listing = listZipEntries(archive);
  std::vector<std::string> keys;
  for (const auto& entry : listing) keys.push_back(entry.first);
  // Unsigned byte order: '/' < '\' < 'b' < 0xC3.
  EXPECT_EQ(keys, (std::vector<std::string>{"Z", "a/", "a/x", "a\\b.txt", "b",
                                            "d\\", "\xC3\xA9.png"}));
  EXPECT_EQ(listing.at("b"), 16u);

  const std::string target = freshDir("target");
  ASSERT_TRUE(unzipToDirectory(archive, target));
  // A backslash inside a name is a name byte here, but one at the end still
  // marks a directory entry.
  EXPECT_EQ(listTree(target),
            (Tree{"Z", "a/", "a/x", "a\\b.txt", "b", "d\\/", "\xC3\xA9.png"}));
  EXPECT_EQ(readFile(target + "/b"), "second, longer b");
  EXPECT_EQ(readFile(target + "/a\\b.txt"), "back");
}

TEST_F(ZipReaderTest, FileEntryNeedsItsDirectoryFromAnEarlierEntryOrTheDisk) {
  const std::string ordered = temp / "ordered.zip";
  writeRawZip(ordered, {{"x.txt", "x"}, {"a/", ""}, {"a/b.png", "png"}});
  std::string target = freshDir("ordered");
  EXPECT_TRUE(unzipToDirectory(ordered, target));
  EXPECT_EQ(listTree(target), (Tree{"a/", "a/b.png", "x.txt"}));
  // Again over the same tree: an existing directory counts as made.
  EXPECT_TRUE(unzipToDirectory(ordered, target));

  const std::string missing = temp / "missing.zip";
  writeRawZip(missing, {{"x.txt", "x"}, {"a/b.png", "png"}, {"y.txt", "y"}});
  target = freshDir("missing");
  EXPECT_FALSE(unzipToDirectory(missing, target));
  EXPECT_EQ(listTree(target), Tree{"x.txt"});
  target = freshDir("present");
  zrxtest::makeDirs(target + "/a");
  EXPECT_TRUE(unzipToDirectory(missing, target));

  // A directory entry whose parent is missing counts as done; the first file
  // below it fails the archive.
  const std::string orphan = temp / "orphan.zip";
  writeRawZip(orphan, {{"p/q/", ""}, {"z.txt", "z"}, {"p/q/r.txt", "r"}});
  target = freshDir("orphan");
  EXPECT_FALSE(unzipToDirectory(orphan, target));
  EXPECT_EQ(listTree(target), Tree{"z.txt"});
}

TEST_F(ZipReaderTest, OverwritesAnExistingFileFromItsStart) {
  const std::string archive = temp / "a.zip";
  writeRawZip(archive, {{"f.txt", "new"}});
  const std::string target = freshDir("target");
  writeFile(target + "/f.txt", std::string(5000, 'o'));
  ASSERT_TRUE(unzipToDirectory(archive, target));
  EXPECT_EQ(readFile(target + "/f.txt"), "new");
}

TEST_F(ZipReaderTest, EmptyArchiveExtractsNothingEvenWhenStopped) {
  const std::string archive = temp / "empty.zip";
  python("import zipfile, sys; zipfile.ZipFile(sys.argv[1], 'w').close()",
         shellQuote(archive));
  const std::string target = freshDir("target");
  EXPECT_TRUE(listZipEntries(archive).empty());
  EXPECT_TRUE(unzipToDirectory(archive, target));
  gUnzipStopFlag = true;
  EXPECT_TRUE(unzipToDirectory(archive, target));
  EXPECT_TRUE(listTree(target).empty());
}

TEST_F(ZipReaderTest,
       StopRaisedBeforeTheCallTouchesNoEntryButListingIgnoresIt) {
  const std::string archive = temp / "a.zip";
  writeRawZip(archive, {{"d/", ""}, {"d/f", "f"}});
  const std::string target = freshDir("target");
  gUnzipStopFlag = true;
  EXPECT_FALSE(unzipToDirectory(archive, target));
  EXPECT_TRUE(listTree(target).empty());
  EXPECT_EQ(listZipEntries(archive).size(), 2u);
}

TEST_F(ZipReaderTest, StopFromAnotherThreadEndsALargeEntryEarly) {
  constexpr uint64_t kLargeSize = uint64_t{512} << 20;
  const std::string archive = temp / "large.zip";
  python(
      "import sys, zipfile\n"
      "with zipfile.ZipFile(sys.argv[1], 'w', zipfile.ZIP_DEFLATED,"
      " compresslevel=1) as z:\n"
      "  z.writestr('first.txt', 'first')\n"
      "  with z.open('large.bin', 'w') as f:\n"
      "    for _ in range(512): f.write(bytes(1 << 20))\n",
      shellQuote(archive));
  ASSERT_EQ(listZipEntries(archive).at("large.bin"), kLargeSize);

  const std::string target = freshDir("target");
  const std::string large = target + "/large.bin";
  auto result = std::async(std::launch::async,
                           [&] { return unzipToDirectory(archive, target); });
  const bool started = zrxtest::waitUntil([&] { return sizeOf(large) > 0; });
  gUnzipStopFlag = true;
  ASSERT_TRUE(started);
  ASSERT_EQ(result.wait_for(std::chrono::seconds(30)),
            std::future_status::ready);
  EXPECT_FALSE(result.get());
  EXPECT_LT(static_cast<uint64_t>(sizeOf(large)), kLargeSize);
  EXPECT_EQ(readFile(target + "/first.txt"), "first");
}

TEST_F(ZipReaderTest, HostileArchivesFailAndWriteNothingOutsideTheTarget) {
  // A 404-byte run of directories; 107 more bytes make the longest name the
  // buffer holds, 108 one byte too long.
  std::string deep;
  std::vector<RawEntry> deepDirs;
  for (char c : std::string("pqrs")) {
    deep += std::string(100, c) + "/";
    deepDirs.push_back({deep, ""});
  }
  const std::string longest = deep + std::string(107, 'n');
  const std::string tooLong = deep + std::string(108, 'n');

  struct Case {
    std::string label;
    std::string archive;  // path of the archive, made below
    Tree target;          // what the target holds afterwards
    zipEntryMap listing;
  };
  std::vector<Case> cases;
  auto raw = [&](const std::string& label, std::vector<RawEntry> entries,
                 Tree target, zipEntryMap listing) {
    const std::string path = freshDir("archives") + "/" + label + ".zip";
    writeRawZip(path, entries);
    cases.push_back({label, path, std::move(target), std::move(listing)});
  };
  // Names that lead out: the entry before them is written, the listing is
  // empty whatever came before.
  const std::string absolute = temp / "absolute.txt";
  for (const std::string& name :
       {std::string("../escape.txt"), std::string("sub/../../escape.txt"),
        std::string("..\\escape.txt"), std::string("sub\\..\\..\\x.txt"),
        std::string("../escdir/"), absolute, std::string("\\abs.txt"),
        std::string("C:abs.txt"), std::string("C:\\abs.txt")}) {
    raw("out" + std::to_string(cases.size()),
        {{"ok.txt", "ok"}, {"sub/", ""}, {name, "evil"}}, {"ok.txt", "sub/"},
        {});
  }
  // Bad names end the listing where they stand.
  std::vector<RawEntry> longNames = deepDirs;
  longNames.push_back({longest, "longest"});
  longNames.push_back({tooLong, "too long"});
  longNames.push_back({"after.txt", "after"});
  Tree longTree;
  zipEntryMap longListing;
  for (const RawEntry& e : deepDirs) {
    longTree.push_back(e.name);
    longListing[e.name] = 0;
  }
  longTree.push_back(longest);
  longListing[longest] = 7;
  raw("long", longNames, longTree, longListing);
  raw("long600", {{"ok.txt", "ok"}, {std::string(600, 'l'), "x"}}, {"ok.txt"},
      {{"ok.txt", 2}});
  raw("nul", {{"ok.txt", "ok"}, {std::string("a\0/../../x.txt", 14), "x"}},
      {"ok.txt"}, {{"ok.txt", 2}});
  raw("emptyname", {{"ok.txt", "ok"}, {"", "x"}, {"b.txt", "b"}}, {"ok.txt"},
      {{"ok.txt", 2}});
  // Flagged as encrypted but stored in the clear: minizip would hand the
  // bytes over as they stand.
  raw("flagged", {{"ok.txt", "ok"}, {"secret.txt", "plain", 1}}, {"ok.txt"},
      {{"ok.txt", 2}, {"secret.txt", 5}});

  const std::string plain = freshDir("plain");
  writeFile(plain + "/secret.txt", "the secret content");
  const std::string archives = temp / "archives";
  auto tool = [&](const std::string& label, const std::string& command,
                  Tree target, zipEntryMap listing) {
    ASSERT_EQ(run("cd " + shellQuote(plain) + " && " + command), 0) << label;
    cases.push_back(
        {label, archives + "/" + label, std::move(target), std::move(listing)});
  };
  tool("encrypted.zip",
       "zip -q -0 -P pw " + shellQuote(archives + "/encrypted.zip") +
           " secret.txt",
       {}, {{"secret.txt", 18}});
  // Methods minizip doesn't decode: the file is made, and stays empty.
  for (const char* method : {"12", "14"}) {
    const std::string label = std::string("method") + method + ".zip";
    tool(label,
         "python3 -c 'import sys, zipfile; zipfile.ZipFile(sys.argv[1], "
         "\"w\", int(sys.argv[2])).write(\"secret.txt\")' " +
             shellQuote(archives + "/" + label) + " " + method,
         {"secret.txt"}, {{"secret.txt", 18}});
  }
  const std::string whole = readFile(temp / "archives/encrypted.zip");
  writeFile(temp / "archives/truncated.zip", whole.substr(0, whole.size() / 2));
  cases.push_back({"truncated", temp / "archives/truncated.zip", {}, {}});
  // Bytes before an archive: what a fetch cut just after a stored inner
  // archive looks like from its end.
  writeFile(temp / "archives/prefixed.zip", "PK\3\4 cut outer archive" + whole);
  cases.push_back({"prefixed", temp / "archives/prefixed.zip", {}, {}});
  writeFile(temp / "archives/page.zip", "<html>502 Bad Gateway</html>\n");
  cases.push_back({"not a zip", temp / "archives/page.zip", {}, {}});

  Tree expectedAll = listTree(temp / "archives");
  for (std::string& path : expectedAll) path = "archives/" + path;
  expectedAll.insert(expectedAll.begin(), "archives/");
  expectedAll.push_back("plain/");
  expectedAll.push_back("plain/secret.txt");
  for (std::size_t i = 0; i < cases.size(); ++i) {
    const Case& c = cases[i];
    SCOPED_TRACE(c.label);
    // The target sits two levels down, so a ".." or "../.." lands in the
    // temp tree where the final check sees it.
    const std::string base = "case" + std::to_string(i);
    const std::string target = freshDir(base + "/in/target");
    EXPECT_FALSE(unzipToDirectory(c.archive, target));
    EXPECT_EQ(listTree(target), c.target);
    EXPECT_EQ(listZipEntries(c.archive), c.listing);
    if (c.label.rfind("method", 0) == 0) {
      EXPECT_EQ(sizeOf(target + "/secret.txt"), 0);
    }
    for (const char* p : {"/", "/in/", "/in/target/"}) {
      expectedAll.push_back(base + p);
    }
    for (const std::string& p : c.target) {
      expectedAll.push_back(base + "/in/target/" + p);
    }
  }
  std::sort(expectedAll.begin(), expectedAll.end());
  EXPECT_EQ(listTree(temp.path()), expectedAll);
}

}  // namespace
