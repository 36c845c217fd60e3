// POSIX implementation of the platform seam (Linux first).
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "platform/Platform.h"

namespace zrx {
namespace platform {

namespace {

constexpr char16_t kReplacement = 0xFFFD;

// Length of a well-formed UTF-8 sequence that starts at `s` (at most `n`
// bytes available), with its code point in `cp`; 0 when the bytes there are
// ill-formed. `consumed` then tells how many bytes form the maximal subpart
// that one U+FFFD replaces (at least 1).
int decodeUtf8(const unsigned char* s, int n, char32_t& cp, int& consumed) {
  const unsigned char b0 = s[0];
  if (b0 < 0x80) {
    cp = b0;
    return consumed = 1;
  }
  int need;
  unsigned char lo = 0x80, hi = 0xBF;
  if (b0 >= 0xC2 && b0 <= 0xDF) {
    need = 1;
    cp = b0 & 0x1F;
  } else if (b0 >= 0xE0 && b0 <= 0xEF) {
    need = 2;
    cp = b0 & 0x0F;
    if (b0 == 0xE0) lo = 0xA0;
    if (b0 == 0xED) hi = 0x9F;  // no surrogates
  } else if (b0 >= 0xF0 && b0 <= 0xF4) {
    need = 3;
    cp = b0 & 0x07;
    if (b0 == 0xF0) lo = 0x90;
    if (b0 == 0xF4) hi = 0x8F;  // nothing above U+10FFFF
  } else {
    consumed = 1;
    return 0;
  }
  int i = 1;
  for (; i <= need; ++i) {
    if (i >= n) break;
    const unsigned char b = s[i];
    const unsigned char low = (i == 1) ? lo : 0x80;
    const unsigned char high = (i == 1) ? hi : 0xBF;
    if (b < low || b > high) break;
    cp = (cp << 6) | (b & 0x3F);
  }
  if (i <= need) {
    consumed = i;  // the lead byte and the continuation bytes that fit
    return 0;
  }
  return consumed = need + 1;
}

}  // namespace

void moduleFileName(char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) return;
  buffer[0] = '\0';
  // readlink doesn't terminate and reports the full length even when cut.
  char path[4096];
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof(path));
  if (n <= 0) return;
  std::size_t len = static_cast<std::size_t>(n);
  if (len > sizeof(path)) len = sizeof(path);
  if (len > size - 1) len = size - 1;
  std::memcpy(buffer, path, len);
  buffer[len] = '\0';
}

int multiByteToWide(const char* source, int sourceLength, char16_t* target,
                    int targetSize) {
  if (source == nullptr || sourceLength <= 0 || target == nullptr) return 0;
  const auto* s = reinterpret_cast<const unsigned char*>(source);
  int out = 0;
  int pos = 0;
  while (pos < sourceLength) {
    char32_t cp = 0;
    int consumed = 1;
    const int len = decodeUtf8(s + pos, sourceLength - pos, cp, consumed);
    if (len == 0) cp = kReplacement;
    const int units = cp >= 0x10000 ? 2 : 1;
    if (out + units > targetSize) return 0;
    if (units == 2) {
      const char32_t v = cp - 0x10000;
      target[out++] = static_cast<char16_t>(0xD800 + (v >> 10));
      target[out++] = static_cast<char16_t>(0xDC00 + (v & 0x3FF));
    } else {
      target[out++] = static_cast<char16_t>(cp);
    }
    pos += consumed;
  }
  return out;
}

int wideToMultiByte(const char16_t* source, int sourceLength, char* target,
                    int targetSize) {
  if (source == nullptr || sourceLength <= 0 || target == nullptr) return 0;
  int out = 0;
  for (int i = 0; i < sourceLength; ++i) {
    char32_t cp = source[i];
    if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < sourceLength &&
        source[i + 1] >= 0xDC00 && source[i + 1] <= 0xDFFF) {
      cp = 0x10000 + ((cp - 0xD800) << 10) + (source[i + 1] - 0xDC00);
      ++i;
    } else if (cp >= 0xD800 && cp <= 0xDFFF) {
      cp = kReplacement;
    }
    unsigned char bytes[4];
    int n;
    if (cp < 0x80) {
      bytes[0] = static_cast<unsigned char>(cp);
      n = 1;
    } else if (cp < 0x800) {
      bytes[0] = static_cast<unsigned char>(0xC0 | (cp >> 6));
      bytes[1] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
      n = 2;
    } else if (cp < 0x10000) {
      bytes[0] = static_cast<unsigned char>(0xE0 | (cp >> 12));
      bytes[1] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
      bytes[2] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
      n = 3;
    } else {
      bytes[0] = static_cast<unsigned char>(0xF0 | (cp >> 18));
      bytes[1] = static_cast<unsigned char>(0x80 | ((cp >> 12) & 0x3F));
      bytes[2] = static_cast<unsigned char>(0x80 | ((cp >> 6) & 0x3F));
      bytes[3] = static_cast<unsigned char>(0x80 | (cp & 0x3F));
      n = 4;
    }
    if (out + n > targetSize) return 0;
    std::memcpy(target + out, bytes, static_cast<std::size_t>(n));
    out += n;
  }
  return out;
}

namespace {

// How long a message waits for room on a standard error that is a full pipe
// or socket: a reader that is behind gets this long to catch up.
constexpr int kDebugChannelWaitMilliseconds = 50;

// Set when the debug channel had no room within the wait, cleared by the
// next message that finds room: a reader that has stopped reading costs one
// wait, not one per message. Any thread; relaxed, it only picks a time-out.
std::atomic<bool> gDebugChannelStalled{false};

// Writes to standard error without ever raising SIGPIPE in the host: the
// signal is blocked on this thread for the write, and one that the write
// raised (and only that one) is taken off the thread before the old mask
// comes back. The host's disposition of SIGPIPE is never touched.
void writeWithoutSigpipe(const char* text, std::size_t len) {
  sigset_t pipeOnly;
  sigset_t oldMask;
  sigemptyset(&pipeOnly);
  sigaddset(&pipeOnly, SIGPIPE);
  if (::pthread_sigmask(SIG_BLOCK, &pipeOnly, &oldMask) != 0) return;
  sigset_t pending;
  sigemptyset(&pending);
  ::sigpending(&pending);
  const bool pendingBefore = sigismember(&pending, SIGPIPE) == 1;
  ssize_t written;
  do {
    written = ::write(STDERR_FILENO, text, len);
  } while (written < 0 && errno == EINTR);
  if (written < 0 && errno == EPIPE && !pendingBefore) {
    const struct timespec noWait = {0, 0};
    while (::sigtimedwait(&pipeOnly, nullptr, &noWait) < 0 && errno == EINTR) {
    }
  }
  ::pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
}

}  // namespace

std::size_t narrowCharacterLength(const char* /*text*/,
                                  std::size_t /*remaining*/) {
  return 1;
}

void outputDebugString(const char* text) {
  if (text == nullptr) return;
  const std::size_t len = std::strlen(text);
  if (len == 0) return;
  // The channel is best effort and must never hold up or end the host: a
  // closed or broken standard error drops the message, and one that has no
  // room (a full pipe, blocking or not) gets a bounded wait. A message of up
  // to PIPE_BUF bytes fits once poll reports room.
  const int savedErrno = errno;
  struct pollfd channel = {STDERR_FILENO, POLLOUT, 0};
  const int wait = gDebugChannelStalled.load(std::memory_order_relaxed)
                       ? 0
                       : kDebugChannelWaitMilliseconds;
  int ready;
  do {
    ready = ::poll(&channel, 1, wait);
  } while (ready < 0 && errno == EINTR);
  if (ready == 0) gDebugChannelStalled.store(true, std::memory_order_relaxed);
  if (ready == 1 && (channel.revents & (POLLERR | POLLHUP | POLLNVAL)) == 0 &&
      (channel.revents & POLLOUT) != 0) {
    gDebugChannelStalled.store(false, std::memory_order_relaxed);
    // One write(2): concurrent writers never interleave inside a text.
    writeWithoutSigpipe(text, len);
  }
  errno = savedErrno;
}

void sleepMilliseconds(unsigned milliseconds) {
  struct timespec request;
  request.tv_sec = static_cast<time_t>(milliseconds / 1000);
  request.tv_nsec = static_cast<long>(milliseconds % 1000) * 1000000L;
  while (::nanosleep(&request, &request) == -1 && errno == EINTR) {
  }
}

DescriptorSets::DescriptorSets() {
  FD_ZERO(&read);
  FD_ZERO(&write);
  FD_ZERO(&except);
}

int waitOnDescriptors(int highest, DescriptorSets& sets, long microseconds) {
  struct timeval wait;
  wait.tv_sec = microseconds / 1000000;
  wait.tv_usec = microseconds % 1000000;
  const int result =
      ::select(highest + 1, &sets.read, &sets.write, &sets.except, &wait);
  return result < 0 ? -1 : result;
}

int64_t wallClockMilliseconds() {
  struct timespec now;
  ::clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

int pathAccess(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0 ? 0 : -1;
}

int makeDirectory(const std::string& path) {
  return ::mkdir(path.c_str(), 0777) == 0 ? 0 : -1;
}

int64_t fileSize(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<int64_t>(info.st_size);
}

int removeFile(const std::string& path) {
  // unlink, not remove(3): a directory that stands at `path` is never taken.
  return ::unlink(path.c_str()) == 0 ? 0 : -1;
}

std::FILE* openFile(const std::string& path, const char* mode) {
  // "e" is glibc's O_CLOEXEC: a host that forks and execs while a transfer
  // runs doesn't inherit our half-written file.
  std::string withCloexec(mode);
  withCloexec += 'e';
  return std::fopen(path.c_str(), withCloexec.c_str());
}

int seekFile(std::FILE* file, int64_t offset, int origin) {
  return ::fseeko(file, static_cast<off_t>(offset), origin) == 0 ? 0 : -1;
}

int64_t tellFile(std::FILE* file) {
  const off_t position = ::ftello(file);
  return position < 0 ? -1 : static_cast<int64_t>(position);
}

const void* findLastByte(const void* bytes, unsigned char value,
                         std::size_t length) {
  return ::memrchr(bytes, value, length);
}

const char kEntryJoinSeparator = '/';

}  // namespace platform
}  // namespace zrx
