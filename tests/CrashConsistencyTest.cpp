// What a host killed in the middle of an install leaves on the disk, and what
// the next start makes of it. A real host process (support/crash_host.cpp)
// installs a catalogue from a loopback server and is killed with SIGKILL at
// random moments; a fresh host then runs to its end.
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <tuple>

#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

using Clock = std::chrono::steady_clock;
using Ms = std::chrono::milliseconds;

// What one run of crash_host printed, each line with the time it came.
struct HostRun {
  std::vector<std::pair<Ms, std::string>> lines;
  bool killed = false;
  int exitStatus = -1;
  Ms duration{0};

  std::vector<std::string> withPrefix(const std::string& prefix) const {
    std::vector<std::string> out;
    for (const auto& line : lines) {
      if (line.second.rfind(prefix, 0) == 0) {
        out.push_back(line.second.substr(prefix.size()));
      }
    }
    return out;
  }
};

// Decides, every few milliseconds, from what the host printed so far and
// the time since its start, whether to kill it now.
using KillPlan = std::function<bool(const HostRun&, Ms)>;

HostRun runHost(const std::string& dir, const std::string& catalogue,
                const KillPlan& plan = nullptr) {
  const auto begin = Clock::now();
  std::FILE* out =
      ::popen(("exec " + shellQuote(executableDir() + "/crash_host") + " " +
               shellQuote(dir) + " " + shellQuote(catalogue) + " 2>/dev/null")
                  .c_str(),
              "r");
  if (out == nullptr) throw std::runtime_error("cannot start crash_host");
  HostRun run;
  const auto elapsed = [&] {
    return std::chrono::duration_cast<Ms>(Clock::now() - begin);
  };
  pid_t pid = -1;
  bool sentKill = false;
  std::string pending;
  for (;;) {
    const bool hung = elapsed() > Ms(150000);
    if (pid > 0 && !sentKill && (hung || (plan && plan(run, elapsed())))) {
      ::kill(pid, SIGKILL);
      sentKill = true;
      if (hung) ADD_FAILURE() << "crash_host hung";
    }
    pollfd entry{::fileno(out), POLLIN, 0};
    if (::poll(&entry, 1, 2) <= 0) continue;
    char buffer[4096];
    const ssize_t n = ::read(::fileno(out), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;  // the host has ended, one way or the other
    pending.append(buffer, static_cast<std::size_t>(n));
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      const std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (line.rfind("PID ", 0) == 0)
        pid = std::stoi(line.substr(4));
      else
        run.lines.push_back({elapsed(), line});
    }
  }
  const int status = ::pclose(out);
  run.duration = elapsed();
  run.killed = WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL;
  if (WIFEXITED(status)) run.exitStatus = WEXITSTATUS(status);
  return run;
}

// What a clean install of one sticker puts on the disk, relative to the
// download directory.
struct StickerFiles {
  std::string archive, archiveContent;
  std::map<std::string, std::string> entries;  // extracted file -> content
};

enum class State { kOther, kArchiveCut, kExtractionCut, kComplete };

class CrashConsistencyTest : public ::testing::Test {
 protected:
  // Writes the catalogue; the library's own naming rule tells where each
  // sticker's archive and entries go.
  void writeCatalogue(
      const std::vector<std::string>& elements,
      const std::map<std::string, std::map<std::string, std::string>>&
          sourcesOf = {}) {
    std::string json = "[";
    for (const std::string& e : elements)
      json += (json.size() > 1 ? "," : "") + e;
    writeFile(catalogue, json + "]");
    ZRResourceDownloadManager manager;
    int error = 0;
    ZRX2DStickerResList* list =
        manager.ZRX_parse2DStickerResource(json + "]", error, nullptr);
    ASSERT_NE(list, nullptr) << json;
    for (const ZRX2DStickerResItem* item : list->items) {
      const std::string dir = item->dirName.empty() ? "" : item->dirName + "/";
      StickerFiles& files = stickers[item->resId];
      files.archive = dir + item->fileName;
      files.archiveContent = readFile(served / (item->resId + ".zip"));
      const std::string into =
          item->unzipType == 3
              ? dir + item->fileName.substr(0, item->fileName.rfind('.')) + "/"
              : dir;
      if (sourcesOf.count(item->resId) == 0) continue;
      for (const auto& [name, content] : sourcesOf.at(item->resId)) {
        files.entries[into + name] = content;
      }
    }
  }

  State stateOf(const std::string& dir, const StickerFiles& s) const {
    const std::string archive = readFile(dir + "/" + s.archive);
    if (!archive.empty() && archive != s.archiveContent)
      return State::kArchiveCut;
    bool anyCut = false, allComplete = !archive.empty();
    for (const auto& [name, content] : s.entries) {
      const long long size = sizeOf(dir + "/" + name);
      anyCut = anyCut || (size >= 0 && size < (long long)content.size());
      allComplete = allComplete && readFile(dir + "/" + name) == content;
    }
    if (allComplete) return State::kComplete;
    return anyCut && !archive.empty() ? State::kExtractionCut : State::kOther;
  }

  // Every sticker the host reported installed at its start is complete.
  // Nothing touches an installed sticker after that check, so the disk
  // still shows what it saw.
  void expectInstalledReportsHold(const HostRun& run, const std::string& dir) {
    for (const std::string& resId : run.withPrefix("INSTALLED ")) {
      EXPECT_EQ(stateOf(dir, stickers.at(resId)), State::kComplete)
          << resId << " reported installed but incomplete";
    }
  }

  TempDir served;
  TempDir work;
  const std::string catalogue = work / "catalogue.json";
  std::map<std::string, StickerFiles> stickers;
};

// Archive stickers of every unpacking type, killed again and again: each
// round starts empty, kills one to three hosts in a row (each starting from
// what the last one left), then lets a host finish. A kill comes at a
// moment drawn over the whole install, or once a chosen archive or
// extracted file is partly on the disk, a third of the time each.
TEST_F(CrashConsistencyTest, KilledInstallsEndAsACleanInstall) {
  const unsigned seed = testSeed();
  std::mt19937 rng(seed);

  // Each archive: a directory entry, incompressible images and a sparse
  // file that deflates to almost nothing (quick to fetch, slow to unpack),
  // in varying order, fetched in two or three pieces.
  TestServer server(served.path());
  std::vector<std::string> elements;
  std::map<std::string, std::map<std::string, std::string>> sourcesOf;
  for (const auto& [resId, name, type] :
       std::vector<std::tuple<std::string, std::string, int>>{
           {"t0", "zero", 0},
           {"t1", "one", 1},
           {"t3", "three.v2", 3},
           {"t5", "", 5}}) {
    std::string sparse((1 + rng() % 3) << 20, '\0');
    for (std::size_t at = 0; at < sparse.size(); at += 4096) sparse[at] = 'x';
    auto& sources = sourcesOf[resId];
    sources = {{"img/a.png", randomBytes(50000 + rng() % 40000, rng())},
               {"img/b.png", randomBytes(10000 + rng() % 20000, rng())},
               {"data.bin", sparse},
               {"info.txt", resId}};
    const std::string src = served / ("src-" + resId);
    makeDirs(src + "/img");
    for (const auto& [file, content] : sources)
      writeFile(src + "/" + file, content);
    std::vector<std::string> order = {"img", "data.bin", "info.txt"};
    std::shuffle(order.begin(), order.end(), rng);
    ASSERT_EQ(run("cd " + shellQuote(src) + " && zip -qr ../" + resId +
                  ".zip " + order[0] + " " + order[1] + " " + order[2]),
              0);
    elements.push_back(sticker(resId,
                               server.url("/slow/" + resId + ".zip?bps=500000"),
                               name, ".zip", type));
  }
  writeCatalogue(elements, sourcesOf);

  // A clean install first: the reference tree, and the time to draw kill
  // moments from.
  TempDir clean;
  const HostRun reference = runHost(clean.path(), catalogue);
  ASSERT_EQ(reference.exitStatus, 0);
  ASSERT_EQ(reference.withPrefix("DONE ").size(), stickers.size());
  for (const auto& [resId, files] : stickers) {
    ASSERT_EQ(stateOf(clean.path(), files), State::kComplete) << resId;
  }
  const std::vector<std::string> cleanTree = listTree(clean.path());

  // Twelve rounds, fewer (never under six) if a slow build runs out of time.
  const auto budget = Clock::now() + std::chrono::seconds(50);
  int rounds = 0, kills = 0, cutTransfers = 0, cutExtractions = 0;
  int installedReports = 0;
  for (; rounds < 12 && (rounds < 6 || Clock::now() < budget); ++rounds) {
    SCOPED_TRACE("round " + std::to_string(rounds) + ", seed " +
                 std::to_string(seed));
    TempDir dir;
    for (int k = 1 + static_cast<int>(rng() % 3); k > 0; --k) {
      std::vector<const StickerFiles*> toFetch;
      for (const auto& [resId, files] : stickers) {
        if (stateOf(dir.path(), files) != State::kComplete) {
          toFetch.push_back(&files);
        }
      }
      if (toFetch.empty()) break;
      KillPlan plan;
      if (const unsigned kind = rng() % 3; kind == 0) {
        const Ms at(rng() % (reference.duration.count() + 1));
        plan = [at](const HostRun&, Ms now) { return now >= at; };
      } else {
        // Once a chosen archive (a transfer) or its large entry (an
        // extraction, after one has begun in this host) is partly on disk.
        const StickerFiles* s = toFetch[rng() % toFetch.size()];
        std::string file = s->archive, content = s->archiveContent;
        for (const auto& [name, data] : s->entries) {
          if (kind == 2 && name.size() >= 8 &&
              name.compare(name.size() - 8, 8, "data.bin") == 0) {
            file = name;
            content = data;
          }
        }
        const std::string path = dir / file;
        const long long full = static_cast<long long>(content.size());
        const long long atLeast = 1 + static_cast<long long>(rng() % full);
        plan = [path, atLeast, full, kind](const HostRun& run, Ms) {
          const long long size = sizeOf(path);
          return size >= atLeast && size < full &&
                 (kind == 1 || !run.withPrefix("UNZIPPING").empty());
        };
      }
      const HostRun host = runHost(dir.path(), catalogue, plan);
      expectInstalledReportsHold(host, dir.path());
      installedReports +=
          static_cast<int>(host.withPrefix("INSTALLED ").size());
      if (!host.killed) {
        EXPECT_EQ(host.exitStatus, 0);
        continue;
      }
      ++kills;
      bool cutTransfer = false, cutExtraction = false;
      for (const auto& [resId, files] : stickers) {
        const State state = stateOf(dir.path(), files);
        cutTransfer = cutTransfer || state == State::kArchiveCut;
        cutExtraction = cutExtraction || state == State::kExtractionCut;
      }
      cutTransfers += cutTransfer;
      cutExtractions += cutExtraction;
    }
    // A fresh host to its end: a clean install, whatever the kills left.
    const HostRun last = runHost(dir.path(), catalogue);
    EXPECT_EQ(last.exitStatus, 0);
    expectInstalledReportsHold(last, dir.path());
    installedReports += static_cast<int>(last.withPrefix("INSTALLED ").size());
    EXPECT_EQ(
        last.withPrefix("INSTALLED ").size() + last.withPrefix("DONE ").size(),
        stickers.size());
    for (const auto& [resId, files] : stickers) {
      EXPECT_EQ(stateOf(dir.path(), files), State::kComplete) << resId;
    }
    EXPECT_EQ(listTree(dir.path()), cleanTree);
  }
  std::printf(
      "crash consistency: %d rounds, %d kills (%d cut a transfer, %d "
      "an extracted file), %d installed reports checked\n",
      rounds, kills, cutTransfers, cutExtractions, installedReports);
  // The kills must have met both kinds of work, or the test proved little.
  EXPECT_GT(cutTransfers, 0);
  EXPECT_GT(cutExtractions, 0);
}

// A plain sticker goes straight to its final name and counts as installed
// when it exists: a file cut by a kill is reported installed by the next
// start and not fetched again. A host that needs more must delete it.
TEST_F(CrashConsistencyTest, PlainStickerCutByAKillCountsAsInstalled) {
  const std::string body = randomBytes(200000, 7);
  writeFile(served / "p.bin", body);
  TestServer server(served.path());
  writeCatalogue({sticker("p", server.url("/slow/p.bin?bps=20000"), "p.bin")});
  TempDir dir;
  const std::string file = dir / stickers["p"].archive;
  // Every chunk is flushed as it arrives: kill once a part is on the disk.
  const HostRun first = runHost(dir.path(), catalogue, [&](const HostRun&, Ms) {
    return sizeOf(file) >= 20000;
  });
  ASSERT_TRUE(first.killed);
  const std::string cut = readFile(file);
  ASSERT_LT(cut.size(), body.size());
  EXPECT_EQ(body.compare(0, cut.size(), cut), 0);

  server.resetCounts();
  const HostRun next = runHost(dir.path(), catalogue);
  EXPECT_EQ(next.exitStatus, 0);
  EXPECT_EQ(next.withPrefix("INSTALLED "), std::vector<std::string>{"p"});
  EXPECT_TRUE(readFile(file) == cut);
  EXPECT_EQ(server.totalRequests(), 0);
}

// Two kills can leave an archive cut just after an entry that is itself a
// zip stored as it is, over the entries of the first, cut extraction. The
// end record found backwards from the end of that file is the inner
// archive's; the listing refuses a directory that does not end where its
// end record begins, so the sticker is fetched again, not taken for
// installed with a file cut.
TEST_F(CrashConsistencyTest, CutFetchEndingInAnInnerArchiveIsFetched) {
  TempDir dir;
  writeFile(work / "make.py", R"(
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
os.makedirs(sys.argv[2] + "/pk/img")
for name, data in (("img/a.png", a), ("inner.zip", inner), ("z.bin", z[:5000]),
                   ("pk.zip", whole[:whole.find(inner) + len(inner) + 1000])):
    open(sys.argv[2] + "/pk/" + name, "wb").write(data)
)");
  ASSERT_EQ(run("python3 " + shellQuote(work / "make.py") + " " +
                shellQuote(served.path()) + " " + shellQuote(dir.path())),
            0);
  TestServer server(served.path());
  writeCatalogue({sticker("pk", server.url("/files/pk.zip"), "pk", ".zip", 1)});
  const HostRun host = runHost(dir.path(), catalogue);
  EXPECT_EQ(host.exitStatus, 0);
  EXPECT_EQ(host.withPrefix("DONE "), std::vector<std::string>{"pk"});
  EXPECT_EQ(readFile(dir / "pk/z.bin"), readFile(served / "z.bin"));
}

}  // namespace
}  // namespace zrxtest
