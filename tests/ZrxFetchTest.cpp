// zrx-fetch, the example host, run as a user runs it: as a separate process
// in a directory of its own, judged by its exit status, its output and the
// files it leaves.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <string>
#include <vector>

#include "list/Md5.h"
#include "support/TestServer.h"
#include "support/TestSupport.h"

using zrxtest::fileExists;
using zrxtest::listTree;
using zrxtest::readFile;
using zrxtest::shellQuote;
using zrxtest::sizeOf;
using zrxtest::TempDir;
using zrxtest::TestServer;
using zrxtest::writeFile;

namespace {

// The build puts zrx-fetch in examples/ beside tests/.
std::string fetchBinary() {
  return zrxtest::executableDir() + "/../examples/zrx-fetch";
}

std::string catalogueDir() {
  return std::string(ZRX_TEST_SUPPORT_DIR) + "/../../examples/catalog";
}

struct Outcome {
  int status;
  std::string out;
  std::string err;
};

// A run that hangs (a final call counted wrongly) ends with status 124.
constexpr int kRunLimitSeconds = 60;

// Runs zrx-fetch with `args` (shell words) in `cwd`, `input` on its standard
// input, both outputs captured in files (so it has no terminal).
Outcome fetch(const TempDir& cwd, const std::string& args,
              const std::string& input = "") {
  TempDir io;
  writeFile(io / "in", input);
  Outcome outcome;
  outcome.status = zrxtest::run(
      "cd " + shellQuote(cwd.path()) + " && timeout " +
      std::to_string(kRunLimitSeconds) + " " + shellQuote(fetchBinary()) + " " +
      args + " <" + shellQuote(io / "in") + " >" + shellQuote(io / "out") +
      " 2>" + shellQuote(io / "err"));
  outcome.out = readFile(io / "out");
  outcome.err = readFile(io / "err");
  return outcome;
}

bool contains(const std::string& text, const std::string& fragment) {
  return text.find(fragment) != std::string::npos;
}

std::string digest(const std::string& url) { return Md5().digestText(url); }

class ZrxFetchTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!fileExists(fetchBinary())) {
      GTEST_SKIP() << "zrx-fetch is not built (ZRX_BUILD_EXAMPLES=OFF)";
    }
  }
};

TEST_F(ZrxFetchTest, InstallsTheSampleCatalogueThenFindsItInstalled) {
  TempDir cwd;
  // A port of the test's own rather than the default one, which another
  // zrx-fetch on this machine may hold; both runs must use the same, since
  // the stickers without a name are stored under their URL's digest.
  const std::string port =
      "--serve-port " + std::to_string(TestServer::closedPort());
  const Outcome first = fetch(cwd, port);
  ASSERT_EQ(first.status, 0) << first.out << first.err;
  EXPECT_EQ(first.err, "");  // the library's log went to the log file
  EXPECT_TRUE(fileExists(cwd / "stickers.log"));
  EXPECT_FALSE(contains(first.out, "\033")) << "no terminal, no escapes";
  EXPECT_TRUE(contains(first.out,
                       "summary: 0 installed already, 8 downloaded, 0 failed"))
      << first.out;

  // Every road of the naming rule and the unpacker that the catalogue
  // covers.
  std::smatch match;
  ASSERT_TRUE(std::regex_search(first.out, match,
                                std::regex("http://127\\.0\\.0\\.1:(\\d+)")))
      << first.out;
  const std::string base = match[0].str() + "/files/";
  const std::string moon = digest(base + "moon.png");
  const std::string star = digest(base + "star.png");
  const std::string faces = digest(base + "faces.zip");
  std::vector<std::string> expected = {moon + "/",
                                       moon + "/" + moon,
                                       star + "/",
                                       star + "/" + star + ".png",
                                       faces + "/",
                                       faces + "/faces.zip",
                                       faces + "/smile.png",
                                       faces + "/wink.png",
                                       "arrows.zip",
                                       "arrows/",
                                       "arrows/left.png",
                                       "arrows/right.png",
                                       "shapes/",
                                       "shapes/circle.png",
                                       "shapes/shapes.zip",
                                       "shapes/square.png",
                                       "shapes/triangle.png",
                                       "sky.png",
                                       "sun.png",
                                       "weather.zip",
                                       "weather/",
                                       "weather/cloud.png",
                                       "weather/rain.png"};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(listTree(cwd / "stickers"), expected);
  EXPECT_EQ(readFile(cwd / "stickers/sky.png"),
            readFile(catalogueDir() + "/files/sky.png"));
  EXPECT_EQ(readFile(cwd / ("stickers/" + faces + "/faces.zip")),
            readFile(catalogueDir() + "/files/faces.zip"));

  const Outcome second = fetch(cwd, port + " --dir stickers/");
  ASSERT_EQ(second.status, 0) << second.out << second.err;
  EXPECT_TRUE(contains(second.out,
                       "summary: 8 installed already, 0 downloaded, 0 failed"))
      << second.out;
  EXPECT_TRUE(contains(second.out, "answered 0 requests")) << second.out;
  EXPECT_EQ(listTree(cwd / "stickers"), expected);
}

TEST_F(ZrxFetchTest, RefusesUsageErrorsAndBadListsWithExitTwo) {
  TempDir cwd;
  writeFile(cwd / "object.json", R"({"resId":"a"})");

  const Outcome unknown = fetch(cwd, "--frobnicate");
  EXPECT_EQ(unknown.status, 2);
  EXPECT_TRUE(contains(unknown.err, "unknown option '--frobnicate'"));

  const Outcome badNumber = fetch(cwd, "--timeout soon list.json");
  EXPECT_EQ(badNumber.status, 2);
  EXPECT_TRUE(contains(badNumber.err, "--timeout"));

  const Outcome missing = fetch(cwd, "no-such-list.json");
  EXPECT_EQ(missing.status, 2);
  EXPECT_TRUE(contains(missing.err, "cannot read the list no-such-list.json"))
      << missing.err;

  // Through standard input; RapidJSON's code and its meaning in words.
  const Outcome invalid = fetch(cwd, "-", R"([{"resId":"a"},])");
  EXPECT_EQ(invalid.status, 2);
  EXPECT_TRUE(contains(invalid.err, "not valid JSON: error 3 (invalid value)"))
      << invalid.err;

  const Outcome empty = fetch(cwd, "-", "  \n");
  EXPECT_EQ(empty.status, 2);
  EXPECT_TRUE(contains(empty.err, "error 1 (the document is empty)"))
      << empty.err;

  const Outcome object = fetch(cwd, "object.json");
  EXPECT_EQ(object.status, 2);
  EXPECT_TRUE(contains(object.err, "not a JSON array")) << object.err;

  const Outcome noSuchId = fetch(cwd, "--only zz -", R"([{"resId":"a"}])");
  EXPECT_EQ(noSuchId.status, 2);
  EXPECT_TRUE(contains(noSuchId.err, "no sticker with resId 'zz'"));

  const Outcome unserved = fetch(cwd, "-", R"([{"url":"{base}/a.png"}])");
  EXPECT_EQ(unserved.status, 2);
  EXPECT_TRUE(contains(unserved.err, "--serve"));
}

// A failed sticker doesn't stop the others, shows its code and meaning, and
// makes the exit status 1. A later sticker with an earlier one's file name
// never hears from the library; the run must end all the same.
TEST_F(ZrxFetchTest, ReportsAFailedStickerAndEndsDespiteADuplicate) {
  TempDir cwd;
  TempDir served;
  writeFile(served / "a.png", std::string(3000, 'a'));
  const std::string closed =
      "http://127.0.0.1:" + std::to_string(TestServer::closedPort());
  writeFile(cwd / "list.json",
            R"([{"resId":"a","url":"{base}/a.png","name":"a.png"},
                {"resId":"a-again","url":"{base}/other.png","name":"a.png"},
                {"resId":"down","url":")" +
                closed + R"(/b.png","name":"b.png"}])");

  const Outcome outcome = fetch(cwd, "--serve " + shellQuote(served.path()) +
                                         " --serve-port 0 --dir out list.json");
  EXPECT_EQ(outcome.status, 1) << outcome.out << outcome.err;
  EXPECT_EQ(outcome.err, "");
  EXPECT_TRUE(contains(outcome.out, "downloaded  a ")) << outcome.out;
  EXPECT_TRUE(contains(outcome.out, "-100007 Couldn't connect to server"))
      << outcome.out;
  EXPECT_TRUE(contains(outcome.out,
                       "1 downloaded, 1 failed, 1 skipped (same file name"))
      << outcome.out;
  EXPECT_TRUE(contains(outcome.out, "the library's log: out.log"));
  EXPECT_EQ(listTree(cwd / "out"), std::vector<std::string>{"a.png"});
}

TEST_F(ZrxFetchTest, FetchesAListByUrlAndShowsTheLibraryLogOnRequest) {
  TempDir cwd;
  TempDir served;
  TestServer server(served.path());
  writeFile(served / "a.png", std::string(1500, 'a'));
  writeFile(served / "list.json", R"([{"resId":"a","url":")" +
                                      server.url("/files/a.png") +
                                      R"(","name":"a.png"}])");

  const Outcome quiet =
      fetch(cwd, "--quiet --log-level 3 " + server.url("/files/list.json"));
  ASSERT_EQ(quiet.status, 0) << quiet.out << quiet.err;
  EXPECT_EQ(quiet.out, "");
  EXPECT_TRUE(contains(quiet.err, "log 3: ")) << quiet.err;
  EXPECT_TRUE(contains(quiet.err, "sticker's items num=1")) << quiet.err;
  EXPECT_FALSE(contains(quiet.err, "GET /files/a.png")) << "libcurl's trace";
  EXPECT_EQ(sizeOf(cwd / "stickers/a.png"), 1500);

  const Outcome missing = fetch(cwd, server.url("/status/404"));
  EXPECT_EQ(missing.status, 2);
  EXPECT_TRUE(contains(missing.err, "HTTP status 404")) << missing.err;
}

// --only fetches the one sticker, again when it is installed; --timeout
// fails a transfer that takes too long and removes what it had written.
TEST_F(ZrxFetchTest, OnlyRefetchesOneStickerAndTimeoutEndsASlowOne) {
  TempDir cwd;
  TempDir served;
  writeFile(served / "a.png", std::string(2000, 'a'));
  writeFile(served / "big.bin", std::string(200000, 'b'));
  TestServer server(served.path());
  writeFile(cwd / "list.json", R"([{"resId":"a","url":")" +
                                   server.url("/files/a.png") +
                                   R"(","name":"a.png"},
                {"resId":"slow","url":")" +
                                   server.url("/slow/big.bin?bps=4000") +
                                   R"(","name":"big.bin"}])");

  const Outcome only = fetch(cwd, "--only a list.json");
  ASSERT_EQ(only.status, 0) << only.out << only.err;
  EXPECT_EQ(listTree(cwd / "stickers"), std::vector<std::string>{"a.png"});
  const int afterFirst = server.requestCount("/files/a.png");
  EXPECT_GE(afterFirst, 1);

  const Outcome again = fetch(cwd, "--only a list.json");
  ASSERT_EQ(again.status, 0) << again.out << again.err;
  EXPECT_TRUE(contains(again.out, "downloaded  a")) << again.out;
  EXPECT_GT(server.requestCount("/files/a.png"), afterFirst);
  EXPECT_EQ(server.requestCount("/slow/big.bin?bps=4000"), 0);

  const auto begin = std::chrono::steady_clock::now();
  const Outcome timed = fetch(cwd, "--timeout 1 list.json");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  EXPECT_EQ(timed.status, 1) << timed.out << timed.err;
  EXPECT_TRUE(contains(timed.out, "installed   a")) << timed.out;
  EXPECT_TRUE(contains(timed.out, "-10006 time limit passed")) << timed.out;
  EXPECT_FALSE(fileExists(cwd / "stickers/big.bin"));
}

TEST_F(ZrxFetchTest, CtrlCStopsTheRunAndRemovesThePartialFile) {
  TempDir cwd;
  TempDir served;
  writeFile(served / "big.bin", std::string(400000, 'b'));
  TestServer server(served.path());
  writeFile(cwd / "list.json", R"([{"resId":"big","url":")" +
                                   server.url("/slow/big.bin?bps=20000") +
                                   R"(","name":"big.bin"}])");

  const std::string binary = fetchBinary();
  const std::string output = cwd / "output";
  const pid_t pid = ::fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGINT, SIG_DFL);
    const int fd = ::open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0 || ::chdir(cwd.path().c_str()) != 0) _exit(127);
    ::dup2(fd, 1);
    ::dup2(fd, 2);
    ::execl(binary.c_str(), binary.c_str(), "list.json",
            static_cast<char*>(nullptr));
    _exit(127);
  }

  const std::string partial = cwd / "stickers/big.bin";
  const bool started = zrxtest::waitUntil([&] { return sizeOf(partial) > 0; });
  ::kill(pid, SIGINT);
  int status = 0;
  const bool ended = zrxtest::waitUntil(
      [&] { return ::waitpid(pid, &status, WNOHANG) == pid; });
  if (!ended) {
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
  }
  ASSERT_TRUE(started) << readFile(output);
  ASSERT_TRUE(ended) << "zrx-fetch did not stop";
  const std::string printed = readFile(output);
  ASSERT_TRUE(WIFEXITED(status)) << printed;
  EXPECT_EQ(WEXITSTATUS(status), 130) << printed;
  EXPECT_FALSE(fileExists(partial));
  EXPECT_TRUE(contains(printed, "interrupted")) << printed;
  EXPECT_TRUE(contains(printed, "0 downloaded, 0 failed, 1 not finished"))
      << printed;
}

}  // namespace
