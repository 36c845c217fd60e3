// The log facility's rules. This executable is a process of its own, so the
// facility's process-wide state belongs to these tests alone.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <future>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "log/LogStatement.h"
#include "zrx2dsticker/ZRXLog.h"

namespace {

const char* const kTag = "[ZRX]";

// One call of the host's callback.
struct Received {
  int level;
  std::string tag;
  std::string message;
  const char* key;
};

// Written by the callbacks, which run under the facility's mutex; read by
// the test thread after the logging threads are done.
std::vector<Received> gReceived;
int gOtherCalls = 0;

void recordingCallback(int level, const char* tag, const char* message,
                       const char* key) {
  gReceived.push_back({level, tag, message, key});
}

void otherCallback(int, const char*, const char*, const char*) {
  ++gOtherCalls;
}

std::vector<int> receivedLevels() {
  std::vector<int> levels;
  for (const Received& r : gReceived) levels.push_back(r.level);
  return levels;
}

// Sends file descriptor 2, the debug channel, into a temporary file from
// construction until text() or destruction.
class StderrCapture {
 public:
  StderrCapture() : file_(std::tmpfile()) {
    if (file_ == nullptr) throw std::runtime_error("tmpfile failed");
    std::fflush(stderr);
    saved_ = ::dup(STDERR_FILENO);
    ::dup2(::fileno(file_), STDERR_FILENO);
  }
  ~StderrCapture() {
    restore();
    std::fclose(file_);
  }
  StderrCapture(const StderrCapture&) = delete;
  StderrCapture& operator=(const StderrCapture&) = delete;

  // Ends the capture and returns all that was written meanwhile.
  std::string text() {
    restore();
    std::string out;
    std::rewind(file_);
    char chunk[4096];
    std::size_t n;
    while ((n = std::fread(chunk, 1, sizeof(chunk), file_)) > 0) {
      out.append(chunk, n);
    }
    return out;
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    ::dup2(saved_, STDERR_FILENO);
    ::close(saved_);
    saved_ = -1;
  }

  std::FILE* file_;
  int saved_ = -1;
};

// Set once any test has changed the facility's state in this process.
bool gStateTouched = false;

// Every test but the first starts registered with recordingCallback, the
// threshold 1, no key and the library's statements on.
class ZRXLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    gStateTouched = true;
    ZRXReleaseLogBaseManager();
    ZRXRegisterLogBaseManager(recordingCallback);
    ZRXSetLogLevel(1);
    ZRXSetLogBaseManagerUniqueKey(nullptr);
    ZRXEnableLog();
    gReceived.clear();
    gOtherCalls = 0;
  }
  void TearDown() override { ZRXReleaseLogBaseManager(); }
};

}  // namespace

// Needs the state of a fresh process: it runs first in this file.
TEST(ZRXLogStartState, DebugChannelOnlyAndSettersIgnoredUntilRegistered) {
  if (gStateTouched) GTEST_SKIP() << "needs a fresh process";
  gStateTouched = true;
  EXPECT_EQ(ZRXLogIsEnabled(), 1);

  static const char kKey[] = "early key";
  ZRXSetLogLevel(5);
  ZRXSetLogBaseManagerUniqueKey(kKey);
  StderrCapture capture;
  ZRXLogCallback(3, kTag, "level %d of %s", 3, "start");
  ZRXLogCallback(1, kTag, "at the threshold");
  ZRXLogCallback(0, kTag, "below the threshold");
  EXPECT_EQ(capture.text(), "level 3 of start\nat the threshold\n");

  // The dropped setters left the threshold at 1 and the key null.
  ZRXRegisterLogBaseManager(recordingCallback);
  ZRXLogCallback(1, kTag, "one");
  ZRXLogCallback(0, kTag, "zero");
  ZRXLogCallback(-5, kTag, "negative");
  ASSERT_EQ(gReceived.size(), 1u);
  EXPECT_EQ(gReceived[0].message, "one");
  EXPECT_EQ(gReceived[0].key, nullptr);
  ZRXReleaseLogBaseManager();
}

TEST_F(ZRXLogTest, ThresholdPassesLevelsAtOrAboveIt) {
  ZRXSetLogLevel(4);
  for (int level = 2; level <= 7; ++level) ZRXLogCallback(level, kTag, "m");
  EXPECT_EQ(receivedLevels(), (std::vector<int>{4, 5, 6, 7}));

  gReceived.clear();
  ZRXSetLogLevel(7);
  ZRXLogCallback(6, kTag, "m");
  ZRXLogCallback(7, kTag, "m");
  ZRXSetLogLevel(-3);  // unchecked: negative levels pass from here on
  ZRXLogCallback(-3, kTag, "m");
  ZRXLogCallback(-4, kTag, "m");
  EXPECT_EQ(receivedLevels(), (std::vector<int>{7, -3}));

  // What the callback gets: level, the tag as given, the text, the key.
  gReceived.clear();
  static const char kKey[] = "host-key";
  ZRXSetLogBaseManagerUniqueKey(kKey);
  ZRXLogCallback(6, "any tag", "%s=%d %.2f %lld", "n", -7, 2.5, 1LL << 40);
  ASSERT_EQ(gReceived.size(), 1u);
  EXPECT_EQ(gReceived[0].level, 6);
  EXPECT_EQ(gReceived[0].tag, "any tag");
  EXPECT_EQ(gReceived[0].message, "n=-7 2.50 1099511627776");
  EXPECT_EQ(gReceived[0].key, kKey);  // the pointer itself, not a copy
}

TEST_F(ZRXLogTest, RegistrationRules) {
  static const char kFirstKey[] = "first";
  static const char kSecondKey[] = "second";

  // A second registration changes nothing, not even the callback.
  ZRXRegisterLogBaseManager(otherCallback);
  ZRXSetLogLevel(2);
  ZRXSetLogBaseManagerUniqueKey(kFirstKey);
  ZRXLogCallback(2, kTag, "registered");
  EXPECT_EQ(gReceived.size(), 1u);
  EXPECT_EQ(gOtherCalls, 0);

  // Released: no callback, setters dropped, the debug channel still served
  // and the threshold still in force.
  ZRXReleaseLogBaseManager();
  ZRXReleaseLogBaseManager();  // a second release does nothing
  ZRXSetLogLevel(9);
  ZRXSetLogBaseManagerUniqueKey(kSecondKey);
  {
    StderrCapture capture;
    ZRXLogCallback(2, kTag, "released");
    ZRXLogCallback(1, kTag, "filtered");
    EXPECT_EQ(capture.text(), "released\n");
  }
  EXPECT_EQ(gReceived.size(), 1u);
  EXPECT_EQ(gOtherCalls, 0);

  // A new registration takes its own callback and keeps level and key.
  ZRXRegisterLogBaseManager(otherCallback);
  ZRXLogCallback(1, kTag, "filtered");
  ZRXLogCallback(2, kTag, "passes");
  EXPECT_EQ(gOtherCalls, 1);
  ZRXReleaseLogBaseManager();
  ZRXRegisterLogBaseManager(recordingCallback);
  gReceived.clear();
  ZRXLogCallback(2, kTag, "passes");
  ASSERT_EQ(gReceived.size(), 1u);
  EXPECT_EQ(gReceived[0].key, kFirstKey);

  // A null callback is a registration: setters work, messages reach only
  // the debug channel, and a later registration is ignored.
  ZRXReleaseLogBaseManager();
  ZRXRegisterLogBaseManager(nullptr);
  ZRXRegisterLogBaseManager(recordingCallback);
  ZRXSetLogLevel(3);
  gReceived.clear();
  {
    StderrCapture capture;
    ZRXLogCallback(2, kTag, "filtered");
    ZRXLogCallback(3, kTag, "debug only");
    EXPECT_EQ(capture.text(), "debug only\n");
  }
  EXPECT_TRUE(gReceived.empty());
}

TEST_F(ZRXLogTest, DisableSilencesOnlyTheLibrarysStatements) {
  ZRXDisableLog();
  EXPECT_EQ(ZRXLogIsEnabled(), 0);
  {
    StderrCapture capture;
    ZRX_LOG(6, "[%s:%d] while off %d", ZRX_AT("Library::statement"), 1);
    EXPECT_EQ(capture.text(), "");
  }
  EXPECT_TRUE(gReceived.empty());
  ZRXLogCallback(3, kTag, "direct call");  // the host's own call
  ASSERT_EQ(gReceived.size(), 1u);
  EXPECT_EQ(gReceived[0].message, "direct call");

  ZRXEnableLog();
  EXPECT_EQ(ZRXLogIsEnabled(), 1);
  gReceived.clear();
  const int line = __LINE__ + 1;
  ZRX_LOG(6, "[%s:%d] while on %d", ZRX_AT("Library::statement"), 2);
  ASSERT_EQ(gReceived.size(), 1u);
  EXPECT_EQ(gReceived[0].level, 6);
  EXPECT_EQ(gReceived[0].tag, "[ZRX]");
  EXPECT_EQ(gReceived[0].message,
            "[Library::statement:" + std::to_string(line) + "] while on 2");

  // The stand-in for switched-off statements never does anything.
  gReceived.clear();
  {
    StderrCapture capture;
    ZRXLogCallbackModel(6, kTag, "model %d", 1);
    EXPECT_EQ(capture.text(), "");
  }
  EXPECT_TRUE(gReceived.empty());
}

TEST_F(ZRXLogTest, TextBeyond1023BytesIsCutAlikeOnBothChannels) {
  const std::string fits(1023, 'a');
  const std::string longer = std::string(1023, 'b') + "cdef";
  {
    StderrCapture capture;
    ZRXLogCallback(3, kTag, "%s", fits.c_str());
    ZRXLogCallback(3, kTag, "%s", longer.c_str());
    ZRXLogCallback(3, kTag, "%s%s", "x", std::string(5000, 'y').c_str());
    EXPECT_EQ(capture.text(), fits + "\n" + longer.substr(0, 1023) + "\n" +
                                  "x" + std::string(1022, 'y') + "\n");
  }
  ASSERT_EQ(gReceived.size(), 3u);
  EXPECT_EQ(gReceived[0].message, fits);
  EXPECT_EQ(gReceived[1].message, longer.substr(0, 1023));
  EXPECT_EQ(gReceived[2].message, "x" + std::string(1022, 'y'));
}

TEST_F(ZRXLogTest, CallbackExceptionGivesTheLockBack) {
  ZRXReleaseLogBaseManager();
  ZRXRegisterLogBaseManager([](int, const char*, const char*, const char*) {
    throw std::runtime_error("host callback failed");
  });
  EXPECT_THROW(ZRXLogCallback(3, kTag, "throws"), std::runtime_error);

  // Were the mutex still held, this message would block for good: log it on
  // another thread and wait with a deadline.
  ZRXReleaseLogBaseManager();
  auto done = std::make_shared<std::promise<void>>();
  std::future<void> logged = done->get_future();
  std::thread([done] {
    ZRXLogCallback(3, kTag, "after the exception");
    done->set_value();
  }).detach();
  ASSERT_EQ(logged.wait_for(std::chrono::seconds(30)),
            std::future_status::ready);
}

TEST_F(ZRXLogTest, ConcurrentMessagesNeverInterleave) {
  constexpr int kThreads = 4;
  constexpr int kMessages = 200;
  // Long texts, so that a missing lock shows up as torn lines.
  auto expected = [](int thread, int index) {
    return "thread " + std::to_string(thread) + " message " +
           std::to_string(index) + " " +
           std::string(700, static_cast<char>('a' + thread));
  };

  // Plain counters: under the facility's mutex they are race-free, and
  // without it ThreadSanitizer and the overlap count would both object.
  static int inside = 0;
  static int overlaps = 0;
  ZRXReleaseLogBaseManager();
  ZRXRegisterLogBaseManager(
      [](int level, const char* tag, const char* message, const char* key) {
        if (inside++ != 0) ++overlaps;
        recordingCallback(level, tag, message, key);
        --inside;
      });

  StderrCapture capture;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      const std::string filler(700, static_cast<char>('a' + t));
      for (int i = 0; i < kMessages; ++i) {
        ZRXLogCallback(3, kTag, "thread %d message %d %s", t, i,
                       filler.c_str());
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::string written = capture.text();

  EXPECT_EQ(overlaps, 0);
  ASSERT_EQ(gReceived.size(), static_cast<std::size_t>(kThreads * kMessages));
  // Each thread's messages arrive whole and in its own order.
  std::vector<int> next(kThreads, 0);
  for (const Received& r : gReceived) {
    const int t = r.message.size() > 7 ? r.message[7] - '0' : -1;
    ASSERT_TRUE(t >= 0 && t < kThreads) << r.message;
    EXPECT_EQ(r.message, expected(t, next[t]++));
  }
  // The debug channel got the same messages, each followed by its own line
  // end, in the same order as the callback.
  std::istringstream lines(written);
  std::string line;
  std::size_t count = 0;
  while (std::getline(lines, line)) {
    ASSERT_LT(count, gReceived.size());
    EXPECT_EQ(line, gReceived[count].message);
    ++count;
  }
  EXPECT_EQ(count, gReceived.size());
  EXPECT_EQ(written.back(), '\n');
}
