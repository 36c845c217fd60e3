// The operating-system services that zrx2dsticker needs, behind one seam.
//
// Nothing else in src/ calls these OS services directly: each function here
// has one meaning on every OS and returns our own results (errno never leaks
// out). One source per OS implements it and CMake picks it: PlatformPosix.cpp
// or PlatformWin32.cpp. All functions are thread-safe and may be called from
// any thread.
#ifndef ZRX2DSTICKER_PLATFORM_PLATFORM_H_
#define ZRX2DSTICKER_PLATFORM_PLATFORM_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

// fd_set is what libcurl fills for a wait: winsock's on Windows (a count
// and an array of sockets), the C library's bit mask elsewhere.
#if defined(_WIN32)
#include <winsock2.h>
#else
#include <sys/select.h>
#endif

namespace zrx {
namespace platform {

// Size of the buffer that receives the executable's file name, terminating
// zero included; a longer name arrives cut.
constexpr std::size_t kModuleFileNameSize = 260;

// Writes the full file name of the process's main executable (the host, not
// this library) into `buffer` as zero-terminated text of at most size-1
// bytes. Writes an empty text when the name can't be had.
void moduleFileName(char* buffer, std::size_t size);

// Converts `sourceLength` bytes of UTF-8 into UTF-16 code units. Never strict:
// every ill-formed subsequence becomes one U+FFFD, NUL bytes pass through.
// Returns the number of units written, or 0 when `sourceLength` is not
// positive or the target (`targetSize` units) is too small.
int multiByteToWide(const char* source, int sourceLength, char16_t* target,
                    int targetSize);

// Converts `sourceLength` UTF-16 units into the system's narrow code page
// (UTF-8 on POSIX). An unpaired surrogate becomes U+FFFD. Returns the number
// of bytes written, or 0 when `sourceLength` is not positive or the target
// (`targetSize` bytes) is too small.
int wideToMultiByte(const char16_t* source, int sourceLength, char* target,
                    int targetSize);

// The lowest trail byte of any double-byte code page (932, 936, 949, 950):
// the bytes below it, separators, dots and control characters among them,
// are always characters of their own.
constexpr unsigned char kLowestTrailByte = 0x40;

// Bytes of the character that begins at `text` (`remaining` > 0 bytes left)
// as the file system reads a narrow name: 2 for a lead byte of the ANSI
// code page followed by a trail byte (kLowestTrailByte or above), else 1.
// Always 1 on POSIX, where no byte of a UTF-8 sequence is ASCII. Lets a
// scan for '\\' or '|' skip the trail bytes of code page 932 that equal
// them ("表" is 95 5C).
std::size_t narrowCharacterLength(const char* text, std::size_t remaining);

// Writes zero-terminated `text` to the platform's debug channel (stderr on
// POSIX) in one system call, without allocating. Best effort, and harmless
// to the host: a closed or broken channel drops the text without a signal
// (SIGPIPE is never raised, its disposition never touched), a full one is
// waited on for a bounded time, and errno is left as it was.
void outputDebugString(const char* text);

// Sleeps for `milliseconds`.
void sleepMilliseconds(unsigned milliseconds);

// The read, write and exception sets of one wait on libcurl's sockets, as
// curl_multi_fdset fills them; all three start cleared.
struct DescriptorSets {
  DescriptorSets();
  fd_set read;
  fd_set write;
  fd_set except;
};

// Waits until a socket of `sets` is ready or `microseconds` have passed.
// `highest` is the highest descriptor in the sets, as curl_multi_fdset
// reports it (not -1). Returns the number of ready sockets, 0 on time-out,
// -1 on error.
int waitOnDescriptors(int highest, DescriptorSets& sets, long microseconds);

// The system's wall clock (not a monotonic clock), in whole milliseconds.
int64_t wallClockMilliseconds();

// 0 when `path` exists (file or directory), -1 otherwise.
int pathAccess(const std::string& path);

// Makes one directory level (no parents). 0 on success, -1 otherwise, also
// when something already stands at `path`.
int makeDirectory(const std::string& path);

// Size in bytes of what stands at `path`, or -1 when it can't be read.
int64_t fileSize(const std::string& path);

// Deletes the file at `path` (never a directory). 0 on success, -1
// otherwise.
int removeFile(const std::string& path);

// Opens `path` with a stdio `mode` ("wb", "wb+", "rb", ...). The stream is
// not inherited by child processes. Null on failure.
std::FILE* openFile(const std::string& path, const char* mode);

// Moves the stream of `file` to `offset` (64 bits, also past 2 GiB) from
// `origin` (SEEK_SET, SEEK_CUR or SEEK_END). 0 on success, -1 otherwise.
int seekFile(std::FILE* file, int64_t offset, int origin);

// Position of the stream of `file`, or -1 when it can't be had.
int64_t tellFile(std::FILE* file);

// The last byte equal to `value` among the `length` bytes at `bytes`, or
// null when there is none.
const void* findLastByte(const void* bytes, unsigned char value,
                         std::size_t length);

// The one separator between the target directory of an extraction and the
// name of a zip entry: a backslash on Windows, '/' on POSIX (where a
// backslash is an ordinary byte of a file name).
extern const char kEntryJoinSeparator;

}  // namespace platform
}  // namespace zrx

#endif  // ZRX2DSTICKER_PLATFORM_PLATFORM_H_
