// The process-wide log facility: six variables with their values from load
// on (no initialisation call; every one is constant-initialised) and the nine
// exported functions.
#include "zrx2dsticker/ZRXLog.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "log/LogStatement.h"
#include "platform/Platform.h"

// Written by ZRXEnableLog/ZRXDisableLog, read by every log statement; any
// thread, no lock (see LogStatement.h).
std::atomic<bool> gLogEnabled{true};

namespace {

// Size of one message's buffer: at most 1023 bytes of text and the zero.
constexpr std::size_t kLogBufferSize = 1024;

// A registration is in force. Written by register (without a lock) and by
// release (under gLogMutex), read by the setters before they lock; any
// thread. Relaxed: it orders nothing, the values it gates are read and
// written under the mutex.
std::atomic<bool> gLogRegistered{false};

// The host's callback; null: messages reach only the debug channel. Stored
// by register without a lock, by release under gLogMutex; read by messages
// under gLogMutex. Atomic because of that one unlocked store: a message in
// flight sees the old or the new pointer, never a torn one.
std::atomic<ZRXLogBaseCallback> gLogCallback{nullptr};

// Makes whole messages one at a time: held from before the level test to
// after the callback, so formatting, both debug writes and the callback of
// one message never interleave with another's. Not recursive: a callback
// must not log or change the level, key or registration.
std::mutex gLogMutex;

// Guarded by gLogMutex.
// Threshold: a message passes when its level is >= this value.
int gLogLevel = 1;
// The host's key text, not a copy: the host keeps it alive. Never written
// through.
char* gLogUniqueKey = nullptr;

}  // namespace

void ZRXRegisterLogBaseManager(ZRXLogBaseCallback callback) {
  // Takes no lock. The first registration wins, also when two threads
  // register at once: only the one that turns the flag on stores.
  if (gLogRegistered.exchange(true, std::memory_order_relaxed)) return;
  gLogCallback.store(callback, std::memory_order_relaxed);
}

void ZRXReleaseLogBaseManager() {
  if (!gLogRegistered.load(std::memory_order_relaxed)) return;
  std::lock_guard<std::mutex> lock(gLogMutex);
  gLogCallback.store(nullptr, std::memory_order_relaxed);
  gLogRegistered.store(false, std::memory_order_relaxed);
}

void ZRXSetLogBaseManagerUniqueKey(char* key) {
  if (!gLogRegistered.load(std::memory_order_relaxed)) return;
  std::lock_guard<std::mutex> lock(gLogMutex);
  gLogUniqueKey = key;
}

void ZRXSetLogLevel(int level) {
  if (!gLogRegistered.load(std::memory_order_relaxed)) return;
  std::lock_guard<std::mutex> lock(gLogMutex);
  gLogLevel = level;
}

void ZRXEnableLog() { gLogEnabled.store(true, std::memory_order_relaxed); }

void ZRXDisableLog() { gLogEnabled.store(false, std::memory_order_relaxed); }

int ZRXLogIsEnabled() {
  return gLogEnabled.load(std::memory_order_relaxed) ? 1 : 0;
}

void ZRXLogCallback(int level, const char* tag, ...) {
  // The lock comes first, for filtered messages too, and is scoped: a
  // callback that throws still gives it back.
  std::lock_guard<std::mutex> lock(gLogMutex);
  if (level < gLogLevel) return;

  // Local and fixed: the log path allocates nothing.
  char buffer[kLogBufferSize];
  std::memset(buffer, 0, sizeof(buffer));
  std::va_list args;
  va_start(args, tag);
  const char* format = va_arg(args, const char*);
  if (format != nullptr) {
    // Bounded by the full size: always terminated, cut at 1023 bytes. The
    // count it returns is of no use here.
    std::vsnprintf(buffer, sizeof(buffer), format, args);
  }
  // Ended before the callback runs, so an exception can't skip it.
  va_end(args);

  // The line end is a write of its own and never part of the message the
  // callback gets.
  zrx::platform::outputDebugString(buffer);
  zrx::platform::outputDebugString("\n");
  const ZRXLogBaseCallback callback =
      gLogCallback.load(std::memory_order_relaxed);
  if (callback != nullptr) callback(level, tag, buffer, gLogUniqueKey);
}

void ZRXLogCallbackModel(int /*level*/, const char* /*tag*/, ...) {}
