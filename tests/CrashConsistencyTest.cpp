// What a host killed in the middle of an install leaves on the disk, and what
// the next start makes of it. A real host process (support/crash_host.cpp)
// installs a catalogue from a loopback server and is killed with SIGKILL at
// random moments; a fresh host then runs to its end.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/TestServer.h"
#include "support/TestSupport.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

extern char** environ;

using zrxtest::TempDir;
using zrxtest::TestServer;
using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

namespace {

// A host that has not ended this long after its start is hung.
constexpr Ms kHostDeadline(150000);

// The seed of a randomised test: ZRX_TEST_SEED when set, else a fresh one.
unsigned testSeed() {
  const char* fixed = std::getenv("ZRX_TEST_SEED");
  const unsigned seed =
      fixed != nullptr ? static_cast<unsigned>(std::strtoul(fixed, nullptr, 10))
                       : std::random_device{}();
  std::printf("seed %u (rerun with ZRX_TEST_SEED=%u)\n", seed, seed);
  return seed;
}

std::string randomBytes(std::size_t size, std::mt19937& rng) {
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(rng() & 0xFF);
  return bytes;
}

// Mostly zeros with a random stamp every 4 KiB: it deflates to almost
// nothing, so the archive is quick to fetch and slow, by comparison, to
// unpack, and a byte out of place still shows.
std::string sparseBytes(std::size_t size, std::mt19937& rng) {
  std::string bytes(size, '\0');
  for (std::size_t at = 0; at + 8 <= size; at += 4096) {
    for (std::size_t i = 0; i < 8; ++i) {
      bytes[at + i] = static_cast<char>(rng() & 0xFF);
    }
  }
  return bytes;
}

// True when the file at `path` holds exactly `content`; reads it in
// pieces, since the test compares many megabytes after every kill.
bool sameContent(const std::string& path, const std::string& content) {
  std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(
      std::fopen(path.c_str(), "rb"), &std::fclose);
  if (!file) return false;
  char buffer[1 << 16];
  std::size_t at = 0;
  for (;;) {
    const std::size_t n = std::fread(buffer, 1, sizeof buffer, file.get());
    if (n == 0) break;
    if (n > content.size() - at ||
        std::memcmp(buffer, content.data() + at, n) != 0) {
      return false;
    }
    at += n;
  }
  return at == content.size();
}

// One run of crash_host: its output lines with the time each arrived.
struct HostRun {
  struct Line {
    Ms at;
    std::string text;
  };
  std::vector<Line> lines;
  bool killed = false;  // SIGKILL ended it
  int exitStatus = -1;  // when it exited by itself
  Ms duration{0};

  std::vector<std::string> withPrefix(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const Line& line : lines) {
      if (line.text.compare(0, prefix.size(), prefix) == 0) {
        out.push_back(line.text.substr(prefix.size()));
      }
    }
    return out;
  }
};

// When to kill a host: `afterMs` after its start, or `afterMs` after its
// `unzipLine`-th UNZIPPING line (counted from 1) when that is set, or as
// soon as `when` holds (polled every few milliseconds). The default plan
// never kills.
struct KillPlan {
  long afterMs = -1;
  int unzipLine = 0;
  std::function<bool()> when;
};

// Runs crash_host on `downloadDir` and `catalogue` (a file), kills it as the
// plan says, and returns what it printed. Its stderr (libcurl's verbose
// trace) goes to /dev/null.
HostRun runHost(const std::string& downloadDir, const std::string& catalogue,
                const KillPlan& plan) {
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe2");
  const std::string host = zrxtest::executableDir() + "/crash_host";
  std::vector<std::string> args = {host, downloadDir, catalogue};
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(&arg[0]);
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  pid_t pid = -1;
  const auto begin = Clock::now();
  const int error = ::posix_spawn(&pid, host.c_str(), &actions, nullptr,
                                  argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  if (error != 0) {
    ::close(out[0]);
    throw std::runtime_error("cannot start " + host);
  }

  HostRun result;
  const auto elapsed = [&] {
    return std::chrono::duration_cast<Ms>(Clock::now() - begin);
  };
  Clock::time_point killAt = Clock::time_point::max();
  if (plan.afterMs >= 0 && plan.unzipLine == 0)
    killAt = begin + Ms(plan.afterMs);
  int unzipLines = 0;
  bool sentKill = false;
  std::string pending;
  for (;;) {
    const auto now = Clock::now();
    const bool hung = now - begin > kHostDeadline;
    if (!sentKill && (now >= killAt || (plan.when && plan.when()) || hung)) {
      ::kill(pid, SIGKILL);
      sentKill = true;
      if (hung) ADD_FAILURE() << "crash_host hung";
    }
    int waitMs = plan.when ? 5 : 50;
    if (!sentKill && killAt != Clock::time_point::max()) {
      const auto left = std::chrono::duration_cast<Ms>(killAt - now).count();
      waitMs = static_cast<int>(
          std::max<long long>(0, std::min<long long>(left, waitMs)));
    }
    pollfd entry{out[0], POLLIN, 0};
    if (::poll(&entry, 1, waitMs) <= 0) continue;
    char buffer[4096];
    const ssize_t n = ::read(out[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the host has ended, one way or the other
    pending.append(buffer, static_cast<std::size_t>(n));
    std::size_t end;
    while ((end = pending.find('\n')) != std::string::npos) {
      const std::string text = pending.substr(0, end);
      pending.erase(0, end + 1);
      result.lines.push_back({elapsed(), text});
      if (text == "UNZIPPING" && ++unzipLines == plan.unzipLine &&
          plan.afterMs >= 0) {
        killAt = Clock::now() + Ms(plan.afterMs);
      }
    }
  }
  ::close(out[0]);
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.duration = elapsed();
  result.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  if (WIFEXITED(status)) result.exitStatus = WEXITSTATUS(status);
  return result;
}

// What a clean install of one sticker puts on the disk, relative to the
// download directory.
struct StickerFiles {
  std::string archive;                         // the stored archive
  std::map<std::string, std::string> entries;  // extracted file -> content
};

enum class StickerState {
  kNothing,        // no archive, no entry
  kArchiveCut,     // a part of the archive
  kExtractionCut,  // whole archive, an entry written in part
  kNotUnpacked,    // whole archive, entries missing but none cut
  kComplete,
};

class CrashConsistencyTest : public ::testing::Test {
 protected:
  void writeCatalogue(const std::vector<std::string>& elements) {
    std::string json = "[";
    for (std::size_t i = 0; i < elements.size(); ++i) {
      json += (i ? "," : "") + elements[i];
    }
    json += "]";
    zrxtest::writeFile(catalogue, json);
    // Where each sticker goes, by the library's own naming rule.
    ZRResourceDownloadManager manager;
    int error = 0;
    ZRX2DStickerResList* list =
        manager.ZRX_parse2DStickerResource(json, error, nullptr);
    ASSERT_NE(list, nullptr) << json;
    for (const ZRX2DStickerResItem* item : list->items) {
      const std::string dir = item->dirName.empty() ? "" : item->dirName + "/";
      fileOf[item->resId] = dir + item->fileName;
      std::string extract = dir;
      if (item->unzipType == 3) {
        const auto dot = item->fileName.rfind('.');
        extract += item->fileName.substr(0, dot) + "/";
      }
      extractDirOf[item->resId] = extract;
    }
  }

  std::string content(const std::string& relative) const {
    const auto it = expected.find(relative);
    return it == expected.end() ? std::string() : it->second;
  }

  // The tree below `dir` is exactly a clean install: the same paths, and
  // every file with its content.
  ::testing::AssertionResult isCleanInstall(const std::string& dir) const {
    std::vector<std::string> want(expectedDirs.begin(), expectedDirs.end());
    for (const auto& file : expected) want.push_back(file.first);
    std::sort(want.begin(), want.end());
    const std::vector<std::string> have = zrxtest::listTree(dir);
    if (have != want) {
      std::string text;
      for (const std::string& path : have) {
        if (!std::binary_search(want.begin(), want.end(), path)) {
          text += " extra:" + path;
        }
      }
      for (const std::string& path : want) {
        if (!std::binary_search(have.begin(), have.end(), path)) {
          text += " missing:" + path;
        }
      }
      return ::testing::AssertionFailure() << "tree differs:" << text;
    }
    for (const auto& file : expected) {
      if (!sameContent(dir + "/" + file.first, file.second)) {
        return ::testing::AssertionFailure()
               << file.first << " differs from a clean install";
      }
    }
    return ::testing::AssertionSuccess();
  }

  StickerState stateOf(const std::string& dir, const StickerFiles& s) const {
    const long long archiveSize = zrxtest::sizeOf(dir + "/" + s.archive);
    const long long full = static_cast<long long>(content(s.archive).size());
    bool anyEntry = false, anyCut = false, allComplete = true;
    for (const auto& entry : s.entries) {
      const long long size = zrxtest::sizeOf(dir + "/" + entry.first);
      const long long want = static_cast<long long>(entry.second.size());
      anyEntry = anyEntry || size >= 0;
      anyCut = anyCut || (size >= 0 && size < want);
      allComplete = allComplete && size == want &&
                    sameContent(dir + "/" + entry.first, entry.second);
    }
    if (archiveSize < 0) {
      return anyEntry ? StickerState::kNotUnpacked : StickerState::kNothing;
    }
    if (archiveSize != full ||
        !sameContent(dir + "/" + s.archive, content(s.archive))) {
      return StickerState::kArchiveCut;
    }
    if (allComplete) return StickerState::kComplete;
    return anyCut ? StickerState::kExtractionCut : StickerState::kNotUnpacked;
  }

  // Every sticker that `run` reported installed at its start is complete
  // on the disk. Nothing touches an installed sticker after the check, so
  // the disk still shows what the check saw.
  void expectInstalledClaimsHold(const HostRun& run, const std::string& dir,
                                 const std::string& what) {
    for (const std::string& resId : run.withPrefix("INSTALLED ")) {
      const auto it = stickers.find(resId);
      ASSERT_NE(it, stickers.end()) << resId;
      EXPECT_EQ(stateOf(dir, it->second), StickerState::kComplete)
          << what << ": " << resId << " reported installed but incomplete";
    }
  }

  TempDir served;
  TempDir work;
  const std::string catalogue = work / "catalogue.json";
  std::map<std::string, std::string> fileOf;        // resId -> archive path
  std::map<std::string, std::string> extractDirOf;  // resId -> "" or "d/"
  std::map<std::string, StickerFiles> stickers;
  std::map<std::string, std::string> expected;  // relative file -> content
  std::set<std::string> expectedDirs;
};

// Archive stickers of every unpacking type, killed again and again: each
// round starts empty, kills one to three hosts in a row (each starting from
// what the last one left), then lets a host finish. A kill comes at a
// moment drawn over the whole install, or during a transfer, or during an
// extraction, a third of the time each.
TEST_F(CrashConsistencyTest, KilledInstallsEndAsACleanInstall) {
  const unsigned seed = testSeed();
  std::mt19937 rng(seed);

  // Archives made by Info-ZIP zip from random files: a directory entry,
  // incompressible images and a large sparse file, in varying order. The
  // server sends a tenth of `bps` every 100 ms, so each archive arrives in
  // two or three pieces.
  struct Entry {
    std::string resId, name;
    int unzipType;
  };
  const std::vector<Entry> catalogueEntries = {{"t0", "zero", 0},
                                               {"t1", "one", 1},
                                               {"t3", "three.v2", 3},
                                               {"t5", "", 5}};
  std::vector<std::string> elements;
  TestServer server(served.path());
  for (const Entry& entry : catalogueEntries) {
    const std::string src = served / ("src-" + entry.resId);
    zrxtest::makeDirs(src + "/img");
    const std::map<std::string, std::string> sources = {
        {"img/a.png", randomBytes(50000 + rng() % 40000, rng)},
        {"img/b.png", randomBytes(10000 + rng() % 20000, rng)},
        {"data.bin", sparseBytes((1 + rng() % 3) << 20, rng)},
        {"info.txt", "sticker " + entry.resId + "\n"}};
    for (const auto& source : sources) {
      zrxtest::writeFile(src + "/" + source.first, source.second);
    }
    std::vector<std::string> order = {"img", "data.bin", "info.txt"};
    std::shuffle(order.begin(), order.end(), rng);
    std::string names;
    for (const std::string& name : order) names += " " + name;
    const std::string zipName = entry.resId + ".zip";
    ASSERT_EQ(zrxtest::run("cd " + zrxtest::shellQuote(src) +
                           " && zip -qr ../" + zipName + names),
              0);
    std::string element = R"({"resId":")" + entry.resId + R"(","url":")" +
                          server.url("/slow/" + zipName + "?bps=500000") +
                          R"(","ext":".zip","unzip_type":)" +
                          std::to_string(entry.unzipType);
    if (!entry.name.empty()) element += R"(,"name":")" + entry.name + "\"";
    elements.push_back(element + "}");
    stickers[entry.resId].entries = sources;
  }
  writeCatalogue(elements);
  // Expected paths, now that the naming rule has placed each sticker.
  for (auto& [resId, files] : stickers) {
    files.archive = fileOf[resId];
    expected[files.archive] = zrxtest::readFile(served / (resId + ".zip"));
    std::map<std::string, std::string> placed;
    for (const auto& entry : files.entries) {
      placed[extractDirOf[resId] + entry.first] = entry.second;
      expected[extractDirOf[resId] + entry.first] = entry.second;
    }
    files.entries = placed;
    for (const std::string& path :
         {fileOf[resId], extractDirOf[resId] + "img/x"}) {
      for (std::size_t slash = path.find('/'); slash != std::string::npos;
           slash = path.find('/', slash + 1)) {
        expectedDirs.insert(path.substr(0, slash + 1));
      }
    }
  }

  // A clean install first: the reference for the kill moments.
  Ms installTime(0);
  Ms unzipTime(0);
  {
    TempDir clean;
    const HostRun run = runHost(clean.path(), catalogue, KillPlan{});
    ASSERT_EQ(run.exitStatus, 0);
    ASSERT_EQ(run.withPrefix("DONE ").size(), catalogueEntries.size());
    ASSERT_TRUE(isCleanInstall(clean.path()));
    installTime = run.duration;
    // The i-th UNZIPPING line and the i-th DONE line belong to one archive:
    // extractions run one after the other.
    std::vector<Ms> starts, ends;
    for (const auto& line : run.lines) {
      if (line.text == "UNZIPPING") starts.push_back(line.at);
      if (line.text.compare(0, 5, "DONE ") == 0) ends.push_back(line.at);
    }
    ASSERT_EQ(starts.size(), ends.size());
    for (std::size_t i = 0; i < starts.size(); ++i) {
      unzipTime = std::max(unzipTime, ends[i] - starts[i]);
    }
  }

  // Twenty rounds, unless a slow build or machine runs out of time first;
  // never fewer than eight.
  const int kRounds = 20;
  const int kMinRounds = 8;
  const auto budget = Clock::now() + std::chrono::seconds(75);
  int rounds = 0;
  int kills = 0, finishedFirst = 0;
  int killsCuttingAnArchive = 0, killsCuttingAnExtraction = 0;
  std::map<StickerState, int> leftBehind;  // sticker states after kills
  int reportedInstalled = 0;
  for (int round = 1;
       round <= kRounds && (round <= kMinRounds || Clock::now() < budget);
       ++round) {
    ++rounds;
    SCOPED_TRACE("round " + std::to_string(round) + ", seed " +
                 std::to_string(seed));
    TempDir dir;
    const int killsThisRound = 1 + static_cast<int>(rng() % 3);
    for (int k = 0; k < killsThisRound; ++k) {
      std::vector<const StickerFiles*> toFetch;
      for (const auto& sticker : stickers) {
        if (stateOf(dir.path(), sticker.second) != StickerState::kComplete) {
          toFetch.push_back(&sticker.second);
        }
      }
      if (toFetch.empty()) break;
      KillPlan plan;
      switch (rng() % 3) {
        case 0:
          plan.afterMs = static_cast<long>(rng() % (installTime.count() + 1));
          break;
        case 1: {
          // Once a part of a chosen archive has arrived, and a little later.
          const std::string archive =
              dir / toFetch[rng() % toFetch.size()]->archive;
          const long long full = static_cast<long long>(
              expected[archive.substr(dir.path().size() + 1)].size());
          const long long atLeast = 1 + static_cast<long long>(rng() % full);
          plan.when = [archive, atLeast, full] {
            const long long size = zrxtest::sizeOf(archive);
            return size >= atLeast && size < full;
          };
          break;
        }
        default:
          plan.unzipLine = 1 + static_cast<int>(rng() % toFetch.size());
          plan.afterMs = static_cast<long>(rng() % (unzipTime.count() + 1));
      }
      const HostRun run = runHost(dir.path(), catalogue, plan);
      expectInstalledClaimsHold(run, dir.path(), "killed host");
      reportedInstalled +=
          static_cast<int>(run.withPrefix("INSTALLED ").size());
      if (!run.killed) {
        EXPECT_EQ(run.exitStatus, 0);
        ++finishedFirst;
        continue;
      }
      ++kills;
      bool cutArchive = false, cutExtraction = false;
      for (const auto& sticker : stickers) {
        const StickerState state = stateOf(dir.path(), sticker.second);
        ++leftBehind[state];
        cutArchive = cutArchive || state == StickerState::kArchiveCut;
        cutExtraction = cutExtraction || state == StickerState::kExtractionCut;
      }
      killsCuttingAnArchive += cutArchive;
      killsCuttingAnExtraction += cutExtraction;
    }
    // A fresh host to its end: a clean install, whatever the kills left.
    const HostRun last = runHost(dir.path(), catalogue, KillPlan{});
    EXPECT_EQ(last.exitStatus, 0);
    expectInstalledClaimsHold(last, dir.path(), "final host");
    reportedInstalled += static_cast<int>(last.withPrefix("INSTALLED ").size());
    EXPECT_EQ(
        last.withPrefix("INSTALLED ").size() + last.withPrefix("DONE ").size(),
        catalogueEntries.size());
    EXPECT_TRUE(last.withPrefix("FAILED ").empty());
    EXPECT_TRUE(isCleanInstall(dir.path()));
  }

  std::printf(
      "crash consistency: %d rounds, %d kills, %d hosts finished before "
      "their kill; kills that cut an archive transfer: %d, that cut an "
      "extracted file: %d; sticker states left by the kills: nothing %d, "
      "archive cut %d, extracted file cut %d, not unpacked %d, complete %d; "
      "installed reports checked: %d; clean install %lld ms\n",
      rounds, kills, finishedFirst, killsCuttingAnArchive,
      killsCuttingAnExtraction, leftBehind[StickerState::kNothing],
      leftBehind[StickerState::kArchiveCut],
      leftBehind[StickerState::kExtractionCut],
      leftBehind[StickerState::kNotUnpacked],
      leftBehind[StickerState::kComplete], reportedInstalled,
      static_cast<long long>(installTime.count()));
  // The kills must have met both kinds of work, or the test proved little.
  EXPECT_GT(killsCuttingAnArchive, 0);
  EXPECT_GT(killsCuttingAnExtraction, 0);
}

// A plain sticker goes straight to its final name and counts as installed
// when it exists: a file cut by a kill is reported installed by the next
// start and not fetched again. A host that needs more must delete it.
TEST_F(CrashConsistencyTest, PlainStickerCutByAKillCountsAsInstalled) {
  std::mt19937 rng(7);
  const std::string body = randomBytes(200000, rng);
  zrxtest::writeFile(served / "p.bin", body);
  TestServer server(served.path());
  writeCatalogue({R"({"resId":"p","url":")" +
                  server.url("/slow/p.bin?bps=20000") +
                  R"(","name":"p.bin"})"});
  TempDir dir;
  const std::string file = dir / fileOf["p"];

  // Every chunk is flushed as it arrives: kill once a part is on the disk.
  KillPlan plan;
  plan.when = [&] { return zrxtest::sizeOf(file) >= 20000; };
  const HostRun first = runHost(dir.path(), catalogue, plan);
  ASSERT_TRUE(first.killed);
  const std::string cut = zrxtest::readFile(file);
  ASSERT_GE(cut.size(), 20000u);
  ASSERT_LT(cut.size(), body.size());
  EXPECT_EQ(body.compare(0, cut.size(), cut), 0);

  server.resetCounts();
  const HostRun next = runHost(dir.path(), catalogue, KillPlan{});
  EXPECT_EQ(next.exitStatus, 0);
  EXPECT_EQ(next.withPrefix("INSTALLED "), std::vector<std::string>{"p"});
  EXPECT_TRUE(zrxtest::readFile(file) == cut) << file;
  EXPECT_EQ(server.totalRequests(), 0);
}

// Two kills in a row can leave a state that the check at start takes for a
// complete install. The first cuts the extraction; the second cuts the
// fetch that follows just after an entry that is itself a zip archive
// stored as it is (Info-ZIP zip stores *.zip that way by default). minizip
// looks for the end of the central directory backwards from the end of the
// file and finds the inner archive's, whose entries lie on the disk since
// the first extraction. The listing refuses an archive whose directory does
// not end where its end record begins, so the sticker is fetched again
// instead of being reported installed with its archive and a file cut.
TEST_F(CrashConsistencyTest, CutFetchEndingInAnInnerArchiveIsFetched) {
  TempDir dir;
  zrxtest::writeFile(work / "make.py", R"(
import io, os, random, sys, zipfile
random.seed(9)
a = bytes(random.getrandbits(8) for _ in range(30000))
z = bytes(random.getrandbits(8) for _ in range(200000))
inner = io.BytesIO()
with zipfile.ZipFile(inner, "w") as f:
    f.writestr("img/a.png", a)
inner = inner.getvalue()
with zipfile.ZipFile(sys.argv[1] + "/pk.zip", "w") as f:
    for name, data in (("img/", b""), ("img/a.png", a), ("inner.zip", inner),
                       ("z.bin", z)):
        f.writestr(name, data)
whole = open(sys.argv[1] + "/pk.zip", "rb").read()
open(sys.argv[1] + "/z.bin", "wb").write(z)
# What the two kills left: every entry up to z.bin extracted, z.bin cut,
# then the fetch again cut 1000 bytes after the inner archive.
os.makedirs(sys.argv[2] + "/pk/img")
for name, data in (("img/a.png", a), ("inner.zip", inner), ("z.bin", z[:5000]),
                   ("pk.zip", whole[:whole.find(inner) + len(inner) + 1000])):
    open(sys.argv[2] + "/pk/" + name, "wb").write(data)
)");
  ASSERT_EQ(zrxtest::run("python3 " + zrxtest::shellQuote(work / "make.py") +
                         " " + zrxtest::shellQuote(served.path()) + " " +
                         zrxtest::shellQuote(dir.path())),
            0);
  TestServer server(served.path());
  writeCatalogue({R"({"resId":"pk","url":")" + server.url("/files/pk.zip") +
                  R"(","name":"pk","ext":".zip","unzip_type":1})"});
  const HostRun run = runHost(dir.path(), catalogue, KillPlan{});
  EXPECT_EQ(run.exitStatus, 0);
  EXPECT_EQ(run.withPrefix("DONE "), std::vector<std::string>{"pk"});
  EXPECT_TRUE(
      sameContent(dir / "pk/z.bin", zrxtest::readFile(served / "z.bin")));
}

}  // namespace
