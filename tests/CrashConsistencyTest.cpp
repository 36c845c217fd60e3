// What a host killed in the middle of an install leaves on the disk, and what
// the next start makes of it. A real host process (support/crash_host.cpp)
// installs a catalogue from a loopback server and is killed at once (SIGKILL,
// or TerminateProcess on Windows).
#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>
#include <tuple>

#include "support/StickerFixture.h"

namespace zrxtest {
namespace {

using Clock = std::chrono::steady_clock;

// The large entry of each archive holds 1 to 3 units of 1 MiB; under Wine,
// where each look at the disk costs more, units of 4 MiB keep an extraction
// running long enough for a kill to land in it.
#ifdef _WIN32
constexpr int kSparseShift = 22;
#else
constexpr int kSparseShift = 20;
#endif

struct HostRun {
  std::vector<std::string> lines;  // what it printed
  bool killed = false;
  int exitStatus = -1;
  std::vector<std::string> installed() const {
    std::vector<std::string> out;
    for (const std::string& line : lines)
      if (line.rfind("OK ", 0) == 0) out.push_back(line.substr(3));
    return out;
  }
};

// Runs crash_host to its end, or kills it once `killNow`, asked every few
// milliseconds with what it printed so far, holds.
HostRun runHost(const std::string& dir, const std::string& catalogue,
                const std::function<bool(const HostRun&)>& killNow = nullptr) {
  const auto deadline = Clock::now() + std::chrono::seconds(150);
  ChildProcess child(executableDir() + "/crash_host" + kExecutableSuffix,
                     {dir, catalogue});
  HostRun host;
  std::string pending;
  for (bool sent = false;;) {
    const bool hung = Clock::now() > deadline;
    if (!sent && (hung || (killNow && killNow(host)))) {
      child.kill();
      sent = true;
      if (hung) ADD_FAILURE() << "crash_host hung";
    }
    // False once the output ends: the host has ended, one way or the other.
    if (!child.read(pending, std::chrono::milliseconds(2))) break;
    for (std::size_t end; (end = pending.find('\n')) != std::string::npos;) {
      std::string line = pending.substr(0, end);
      pending.erase(0, end + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      host.lines.push_back(line);
    }
  }
  host.killed = !child.wait(host.exitStatus);
  return host;
}

// What a clean install of one sticker puts below the download directory.
struct Files {
  std::string archive, content, large;  // `large`: the slow entry
  std::map<std::string, std::string> entries;
};
enum State { kOther, kArchiveCut, kExtractionCut, kComplete };

State stateOf(const std::string& dir, const Files& s) {
  const std::string archive = readFile(dir + s.archive);
  if (!archive.empty() && archive != s.content) return kArchiveCut;
  bool cut = false, complete = !archive.empty();
  for (const auto& [name, content] : s.entries) {
    const long long size = sizeOf(dir + name);
    cut = cut || (size >= 0 && size < static_cast<long long>(content.size()));
    complete = complete && readFile(dir + name) == content;
  }
  if (complete) return kComplete;
  return cut && !archive.empty() ? kExtractionCut : kOther;
}

using CrashConsistencyTest = StickerFixture;

// Archive stickers of every unpacking type, killed in each one's transfer
// and in its extraction: each round starts empty, kills two hosts in a row
// (the second starting from what the first left) once the sticker's archive,
// or its large entry during an extraction, has passed a quarter and then
// half its size; then a host runs to its end. Every sticker a host reports
// installed must be whole at that moment, and the end is a clean install.
TEST_F(CrashConsistencyTest, KilledInstallsEndAsACleanInstall) {
  const unsigned seed = testSeed();
  std::mt19937 rng(seed);
  // Each archive: a directory, an incompressible image and a sparse file
  // that deflates to almost nothing (quick to fetch, slow to unpack), in
  // varying order.
  std::vector<std::string> elements;
  std::map<std::string, std::map<std::string, std::string>> sources;
  for (const auto& [resId, name, type] :
       std::vector<std::tuple<std::string, std::string, int>>{
           {"t0", "zero", 0}, {"t1", "one", 1}, {"t3", "three.v2", 3},
           {"t5", "", 5}}) {
    std::string sparse((1 + rng() % 3) << kSparseShift, '\0');
    for (std::size_t at = 0; at < sparse.size(); at += 4096) sparse[at] = 'x';
    sources[resId] = {{"img/a.png", randomBytes(50000 + rng() % 40000, rng())},
                      {"data.bin", sparse}, {"info.txt", resId}};
    std::vector<std::string> order = {"img", "data.bin", "info.txt"};
    std::shuffle(order.begin(), order.end(), rng);
    makeArchive(resId + ".zip", sources[resId],
                order[0] + " " + order[1] + " " + order[2]);
    elements.push_back(sticker(
        resId, server->url("/slow/" + resId + ".zip?bps=500000"), name, ".zip",
        type));
  }
  parse(elements);
  const std::string catalogue = served / "catalogue.json";
  writeFile(catalogue, json);
  std::map<std::string, Files> expected;
  const auto rel = [&](const std::string& path) {
    return path.substr(downloads.path().size());
  };
  for (const auto& [resId, files] : sources) {
    Files& f = expected[resId];
    f.archive = rel(filePath(resId));
    f.content = readFile(served / (resId + ".zip"));
    const std::string into = item(resId)->unzipType == 3
                                 ? f.archive.substr(0, f.archive.rfind('.'))
                                 : rel(stickerDir(resId));
    for (const auto& [name, content] : files) f.entries[into + "/" + name] = content;
    f.large = into + "/data.bin";
  }

  TempDir clean;
  const HostRun reference = runHost(clean.path(), catalogue);
  ASSERT_EQ(reference.exitStatus, 0);
  for (const auto& [resId, files] : expected)
    ASSERT_EQ(stateOf(clean.path(), files), kComplete) << resId;
  const std::vector<std::string> cleanTree = listTree(clean.path());

  int cutTransfers = 0, cutExtractions = 0;
  for (const auto& [resId, s] : expected) {
    for (const bool extraction : {false, true}) {
      SCOPED_TRACE(resId + (extraction ? " extraction" : " transfer"));
      TempDir dir;
      const auto checkReports = [&](const HostRun& host) {
        for (const std::string& id : host.installed())
          EXPECT_EQ(stateOf(dir.path(), expected.at(id)), kComplete)
              << id << " reported installed but is not whole";
      };
      const std::string path = dir.path() + (extraction ? s.large : s.archive);
      const long long full = static_cast<long long>(
          extraction ? s.entries.at(s.large).size() : s.content.size());
      // Both within the first half: the server sends an archive in pieces of
      // 50 KB, so its size jumps from the last piece to the whole.
      for (const long long atLeast : {full / 4, full / 2}) {
        const HostRun host = runHost(dir.path(), catalogue, [&](const HostRun& h) {
          const long long size = sizeOf(path);
          return size >= atLeast && size < full &&
                 (!extraction || std::count(h.lines.begin(), h.lines.end(),
                                            std::string("UNZIPPING")) > 0);
        });
        checkReports(host);
        if (!host.killed) {
          EXPECT_EQ(host.exitStatus, 0);
        }
        const State state = stateOf(dir.path(), s);
        cutTransfers += state == kArchiveCut;
        cutExtractions += state == kExtractionCut;
      }
      const HostRun last = runHost(dir.path(), catalogue);
      EXPECT_EQ(last.exitStatus, 0);
      EXPECT_EQ(last.installed().size(), expected.size());
      checkReports(last);
      EXPECT_EQ(listTree(dir.path()), cleanTree);
    }
  }
  std::printf("crash consistency (seed %u): %d transfers and %d extractions "
              "cut\n", seed, cutTransfers, cutExtractions);
  EXPECT_GT(cutTransfers, 0);
  EXPECT_GT(cutExtractions, 0);
}

// The check at start on what kills can leave. A plain sticker goes straight
// to its final name and counts as installed when it exists, cut or not (a
// host that needs more deletes one whose size it finds wrong). Two kills can
// leave an archive cut just after an inner zip stored as it is, over the
// entries of a first, cut extraction: the end record found backwards is the
// inner archive's, and the listing must refuse it so the sticker is fetched.
TEST_F(CrashConsistencyTest, CheckAtStartOnFilesCutByKills) {
  const std::string plain = randomBytes(200000, 1), image = randomBytes(30000, 2);
  const std::string large = randomBytes(200000, 3);
  writeFile(served / "p.bin", plain);
  makeArchive("inner.zip", {{"img/a.png", image}});
  const std::string inner = readFile(served / "inner.zip");
  makeArchive("pk.zip", {{"img/a.png", image}, {"inner.zip", inner}, {"z.bin", large}},
              "img inner.zip z.bin");
  const std::string whole = readFile(served / "pk.zip");
  ASSERT_NE(whole.find(inner), std::string::npos);  // stored as it is
  parse({sticker("p", server->url("/files/p.bin"), "p.bin"),
         sticker("pk", server->url("/files/pk.zip"), "pk", ".zip", 1)});
  writeFile(filePath("p"), plain.substr(0, 50000));
  makeDirs(stickerDir("pk") + "/img");
  writeFile(stickerDir("pk") + "/img/a.png", image);
  writeFile(stickerDir("pk") + "/inner.zip", inner);
  writeFile(stickerDir("pk") + "/z.bin", large.substr(0, 5000));
  writeFile(filePath("pk"), whole.substr(0, whole.find(inner) + inner.size() + 1000));

  manager->ZRX_start2DStickerDownloadAllSticker();
  ASSERT_TRUE(listener.waitForFinals(2));
  EXPECT_EQ(finalOf("p").kind, Kind::kSuccess);
  EXPECT_EQ(finalOf("p").thread, std::this_thread::get_id());
  EXPECT_EQ(sizeOf(filePath("p")), 50000);
  EXPECT_EQ(finalOf("pk").kind, Kind::kSuccess);
  EXPECT_EQ(server->totalRequests(), 1);
  EXPECT_TRUE(holds(stickerDir("pk") + "/z.bin", large));
}

}  // namespace
}  // namespace zrxtest
