// zrx-fetch, the example host, run as a user runs it: a separate process in
// a directory of its own, judged by its exit status, output and files.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

// The build puts zrx-fetch in examples/ beside tests/.
const std::string kFetch =
    executableDir() + "/../examples/zrx-fetch" + kExecutableSuffix;

struct Outcome {
  int status;
  std::string out, err;
  bool says(const std::string& text) const {
    return out.find(text) != std::string::npos ||
           err.find(text) != std::string::npos;
  }
};

// Runs zrx-fetch with `args` (shell words) in `cwd`, `input` on its stdin,
// without a terminal, under timeout(1) with `limit`: by default a run that
// hangs ends with status 124. A signal sent by `limit` must use --foreground,
// or timeout(1) sends it a second time to the whole process group.
Outcome fetch(const TempDir& cwd, const std::string& args,
              const std::string& input = "", const std::string& limit = "60") {
  writeFile(cwd / "stdin", input);
  const int status =
      run("cd " + shellQuote(cwd.path()) + " && timeout " + limit + " " +
          programCommand(kFetch) + " " + args + " <stdin >stdout 2>stderr");
  return {status, readFile(cwd / "stdout"), readFile(cwd / "stderr")};
}

class ZrxFetchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fileExists(kFetch)) GTEST_SKIP() << "zrx-fetch is not built";
  }
};

// The built-in catalogue on the program's own server: a run installs all
// eight stickers.
TEST_F(ZrxFetchTest, BuiltInCatalogueInstallsEverySticker) {
  TempDir cwd;
  // A port of the test's own: another zrx-fetch may hold the default one,
  // and stickers without a name are stored under their URL's digest.
  const std::string port =
      "--serve-port " + std::to_string(TestServer::closedPort());
  const Outcome first = fetch(cwd, port);
  ASSERT_EQ(first.status, 0) << first.out << first.err;
  EXPECT_EQ(first.err, "");  // the library's log goes to its file
  EXPECT_TRUE(fileExists(cwd / "stickers.log"));
  EXPECT_TRUE(
      first.says("summary: 0 installed already, 8 downloaded, 0 failed"))
      << first.out;
  EXPECT_EQ(listTree(cwd / "stickers").size(), 23u);
  EXPECT_EQ(readFile(cwd / "stickers/sky.png"),
            readFile(std::string(ZRX_TEST_SUPPORT_DIR) +
                     "/../../examples/catalog/files/sky.png"));
}

// Exit 2 for usage errors and lists that don't parse, 1 when a sticker
// fails (the others go on, and a duplicate file name must not keep the run
// from ending), 130 after Ctrl-C with the partial file removed.
TEST_F(ZrxFetchTest, ExitStatusTellsUsageErrorsFailuresAndInterrupts) {
  TempDir cwd, served;
  TestServer server(served.path());
  writeFile(served / "a.png", std::string(2000, 'a'));
  writeFile(served / "big.bin", std::string(400000, 'b'));
  const std::string a = server.url("/files/a.png");
  const std::string closed =
      "http://127.0.0.1:" + std::to_string(TestServer::closedPort());
  writeFile(
      served / "list.json",
      listOf(
          {sticker("a", a, "a.png"), sticker("again", a + "?2", "a.png"),
           sticker("down", closed, "b.png"),
           sticker("slow", server.url("/slow/big.bin?bps=10000"), "big.bin")}));

  EXPECT_EQ(fetch(cwd, "--frobnicate").status, 2);
  const Outcome invalid = fetch(cwd, "-", R"([{"resId":"a"},])");
  EXPECT_EQ(invalid.status, 2);
  EXPECT_TRUE(invalid.says("not valid JSON: error 3 (invalid value)"));

  const Outcome failed =
      fetch(cwd, "--timeout 1 " + server.url("/files/list.json"));
  EXPECT_EQ(failed.status, 1) << failed.out << failed.err;
  EXPECT_TRUE(failed.says("-100007 Couldn't connect to server")) << failed.out;
  EXPECT_TRUE(failed.says("-10006 time limit passed")) << failed.out;
  EXPECT_TRUE(failed.says("1 downloaded, 2 failed, 1 skipped (same file name"))
      << failed.out;
  EXPECT_EQ(listTree(cwd / "stickers"), std::vector<std::string>{"a.png"});

  // Ctrl-C three seconds in, in the middle of the slow sticker.
  const Outcome interrupted =
      fetch(cwd, served / "list.json", "",
            "--foreground --preserve-status -k 30 -s INT 3");
  EXPECT_EQ(interrupted.status, 130) << interrupted.out << interrupted.err;
  EXPECT_TRUE(interrupted.says("interrupted")) << interrupted.out;
  EXPECT_FALSE(fileExists(cwd / "stickers/big.bin"));
}

// A list on standard input, into a download directory named outside ASCII:
// zrx-fetch and the library must agree on it. On Windows the command line
// comes in the ANSI code page ("é" is E9 at 1252, its look-alike "e" at 932)
// and the library takes its path in UTF-8.
TEST_F(ZrxFetchTest, ListFromStandardInputIntoADirectoryOutsideAscii) {
  TempDir cwd, served;
  TestServer server(served.path());
  writeFile(served / "a.png", "png");
  const std::string list =
      listOf({sticker("a", server.url("/files/a.png"), "a.png")});
  const Outcome first = fetch(cwd, "--dir stickers-\xC3\xA9 -", list);
  ASSERT_EQ(first.status, 0) << first.out << first.err;
  EXPECT_TRUE(first.says("downloaded  a")) << first.out;
  const std::string dir =
      inNarrowPage("stickers-\xC3\xA9", "stickers-\xC3\xA9", "stickers-e");
  std::vector<std::string> expected = {"stderr",  "stdin",        "stdout",
                                       dir + "/", dir + "/a.png", dir + ".log"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listTree(cwd.path()), expected);
  const Outcome second = fetch(cwd, "--dir stickers-\xC3\xA9 -", list);
  EXPECT_TRUE(
      second.says("summary: 1 installed already, 0 downloaded, 0 failed"))
      << second.out;
}

}  // namespace
}  // namespace zrxtest
