// The log facility's process-wide state belongs to this executable alone.
#include <gtest/gtest.h>
#ifndef _WIN32
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log/LogStatement.h"
#include "support/TestSupport.h"
#include "zrx2dsticker/ZRXLog.h"

namespace zrxtest {
namespace {

using Lines = std::vector<std::string>;
const char* const kTag = "[ZRX]";
// "level tag message" of each callback, and the last key pointer; written
// under the facility's mutex.
Lines gReceived;
const char* gKey = nullptr;

void record(int level, const char* tag, const char* message, const char* key) {
  gReceived.push_back(std::to_string(level) + " " + tag + " " + message);
  gKey = key;
}
void unexpected(int, const char*, const char*, const char*) { ADD_FAILURE(); }

bool gStateTouched = false;

class ZRXLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gStateTouched = true;
    ZRXReleaseLogBaseManager();
    ZRXRegisterLogBaseManager(record);
    ZRXSetLogLevel(1);
    ZRXSetLogBaseManagerUniqueKey(nullptr);
    ZRXEnableLog();
    gReceived.clear();
  }
  void TearDown() override { ZRXReleaseLogBaseManager(); }
};

// Needs a fresh process, so it is declared (and runs) first: logging is on,
// the threshold is 1 and there is no key. Setters before a registration take
// the same path as after a release (see below).
TEST(ZRXLogStartState, Defaults) {
  if (gStateTouched) GTEST_SKIP() << "needs a fresh process";
  EXPECT_EQ(ZRXLogIsEnabled(), 1);
  ZRXRegisterLogBaseManager(record);
  ZRXLogCallback(1, kTag, "one");
  ZRXLogCallback(0, kTag, "zero");
  EXPECT_EQ(gReceived, Lines{"1 [ZRX] one"});
  EXPECT_EQ(gKey, nullptr);
  ZRXReleaseLogBaseManager();
}

TEST_F(ZRXLogTest, ThresholdKeyAndRegistrationRules) {
  static char kKey[] = "host-key";
  ZRXSetLogLevel(4);
  ZRXSetLogBaseManagerUniqueKey(kKey);
  ZRXLogCallback(3, kTag, "3");
  ZRXLogCallback(4, kTag, "4");
  ZRXLogCallback(6, "any tag", "%s=%d %.2f %lld", "n", -7, 2.5, 1LL << 40);
  EXPECT_EQ(gReceived,
            (Lines{"4 [ZRX] 4", "6 any tag n=-7 2.50 1099511627776"}));
  EXPECT_EQ(gKey, kKey);  // the pointer itself, not a copy

  // Released: no callback, setters dropped, debug channel and threshold kept.
  ZRXReleaseLogBaseManager();
  ZRXSetLogLevel(9);
  ZRXSetLogBaseManagerUniqueKey(const_cast<char*>("second"));
  gReceived.clear();
  EXPECT_EQ(captureDebugChannel([] {
              ZRXLogCallback(4, kTag, "released");
              ZRXLogCallback(3, kTag, "filtered");
            }),
            "released\n");
  ZRXRegisterLogBaseManager(record);  // keeps level and key
  gKey = nullptr;
  ZRXLogCallback(3, kTag, "filtered");
  ZRXLogCallback(4, kTag, "passes");
  EXPECT_EQ(gReceived, Lines{"4 [ZRX] passes"});
  EXPECT_EQ(gKey, kKey);

  // A null callback is a registration: setters work, a later one is ignored.
  ZRXReleaseLogBaseManager();
  ZRXRegisterLogBaseManager(nullptr);
  ZRXRegisterLogBaseManager(unexpected);
  ZRXSetLogLevel(3);
  EXPECT_EQ(captureDebugChannel([] {
              ZRXLogCallback(2, kTag, "filtered");
              ZRXLogCallback(3, kTag, "debug only");
            }),
            "debug only\n");
}

TEST_F(ZRXLogTest, DisableSilencesOnlyTheLibrarysStatementsAndLongTextIsCut) {
  ZRXDisableLog();
  EXPECT_EQ(captureDebugChannel([] {
              ZRX_LOG(6, "[%s:%d] off", ZRX_AT("Library::statement"));
            }),
            "");
  ZRXLogCallback(3, kTag, "direct call");
  ZRXEnableLog();
  const int line = __LINE__ + 1;
  ZRX_LOG(6, "[%s:%d] on %d", ZRX_AT("Library::statement"), 2);
  EXPECT_EQ(gReceived, (Lines{"3 [ZRX] direct call",
                              "6 [ZRX] [Library::statement:" +
                                  std::to_string(line) + "] on 2"}));

  // Text beyond 1023 bytes is cut alike on both channels.
  gReceived.clear();
  const std::string fits(1023, 'a');
  const std::string cut = "x" + std::string(1022, 'y');
  EXPECT_EQ(captureDebugChannel([&] {
              ZRXLogCallback(3, kTag, "%s", fits.c_str());
              ZRXLogCallback(3, kTag, "x%s", std::string(5000, 'y').c_str());
            }),
            fits + "\n" + cut + "\n");
}

TEST_F(ZRXLogTest, LockIsHeldPerMessageAndGivenBackOnAnException) {
  ZRXReleaseLogBaseManager();
  ZRXRegisterLogBaseManager([](int, const char*, const char*, const char*) {
    throw std::runtime_error("host callback failed");
  });
  EXPECT_THROW(ZRXLogCallback(3, kTag, "throws"), std::runtime_error);
  // A mutex still held would block this for good: log on a detached thread.
  ZRXReleaseLogBaseManager();
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> logged = done->get_future();
  std::thread([done] {
    ZRXLogCallback(3, kTag, "after");
    done->set_value();
  }).detach();
  ASSERT_EQ(logged.wait_for(std::chrono::seconds(30)),
            std::future_status::ready);

  // Messages from four threads: callbacks never overlap, each comes whole.
  static int inside = 0, overlaps = 0;
  ZRXRegisterLogBaseManager(
      [](int level, const char* tag, const char* message, const char* key) {
        overlaps += inside++ != 0;
        record(level, tag, message, key);
        --inside;
      });
  const std::string text(700, 'm');
  captureDebugChannel([&] {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
      threads.emplace_back([&text] {
        for (int i = 0; i < 200; ++i) ZRXLogCallback(3, kTag, "%s", text.c_str());
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  EXPECT_EQ(overlaps, 0);
  EXPECT_EQ(gReceived, Lines(800, "3 [ZRX] " + text));
}

// A host whose standard error is a pipe nobody reads, or one that is full,
// blocking or not: logging goes on from two threads, returns promptly, and
// the host ends normally with its SIGPIPE disposition, mask and pending set
// as they were. Each case runs in a child process (this test's process has
// one thread when it forks), which an alarm ends if logging hangs.
TEST(ZRXLogDebugChannel, BrokenOrFullStandardErrorNeverHurtsTheHost) {
#ifdef _WIN32
  GTEST_SKIP() << "POSIX only: on Windows the debug channel is "
                  "OutputDebugString, which has no pipe that can break or "
                  "fill and no SIGPIPE";
#else
  enum Channel { kNoReader, kFullNonBlocking, kFullBlocking };
  for (Channel channel : {kNoReader, kFullNonBlocking, kFullBlocking}) {
    SCOPED_TRACE(channel);
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::alarm(60);
      if (channel == kNoReader) {
        ::close(ends[0]);
      } else {
        ::fcntl(ends[1], F_SETFL, O_NONBLOCK);
        const std::string block(4096, 'f');
        while (::write(ends[1], block.data(), block.size()) > 0) {
        }
        if (channel == kFullBlocking) ::fcntl(ends[1], F_SETFL, 0);
      }
      ::dup2(ends[1], STDERR_FILENO);
      auto logSome = [] {
        for (int i = 0; i < 300; ++i) ZRXLogCallback(3, kTag, "line %d", i);
      };
      std::thread other(logSome);
      logSome();
      other.join();
      struct sigaction disposition;
      sigset_t mask, pending;
      ::sigaction(SIGPIPE, nullptr, &disposition);
      ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
      ::sigpending(&pending);
      const bool intact = disposition.sa_handler == SIG_DFL &&
                          !sigismember(&mask, SIGPIPE) &&
                          !sigismember(&pending, SIGPIPE);
      ::_exit(intact ? 0 : 3);
    }
    // Without a reader in either process, the child's writes break the pipe;
    // otherwise this process holds the read end and never reads.
    ::close(ends[1]);
    if (channel == kNoReader) ::close(ends[0]);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    if (channel != kNoReader) ::close(ends[0]);
    EXPECT_TRUE(WIFEXITED(status)) << "ended by signal " << WTERMSIG(status);
    if (WIFEXITED(status)) {
      EXPECT_EQ(WEXITSTATUS(status), 0);
    }
  }
#endif
}

}  // namespace
}  // namespace zrxtest
