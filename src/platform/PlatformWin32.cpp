// Windows implementation of the platform seam: the Win32 and C runtime
// calls themselves, with paths in the process's ANSI code page.
#include "platform/Platform.h"

#include <direct.h>
#include <io.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <windows.h>

#include <cstring>

namespace zrx {
namespace platform {

namespace {

// UTF-8, for MultiByteToWideChar.
constexpr UINT kUtf8CodePage = 65001;
// The process's ANSI code page, whatever it is, for WideCharToMultiByte.
constexpr UINT kAnsiCodePage = 0;
// From FILETIME's 100-nanosecond ticks to milliseconds.
constexpr int64_t kTicksPerMillisecond = 10000;

static_assert(sizeof(wchar_t) == sizeof(char16_t),
              "UTF-16 units are wchar_t on Windows");

}  // namespace

void moduleFileName(char* buffer, std::size_t size) {
  if (buffer == nullptr || size == 0) return;
  buffer[0] = '\0';
  // A name that doesn't fit arrives cut and terminated; 0 is a failure.
  const DWORD length =
      ::GetModuleFileNameA(nullptr, buffer, static_cast<DWORD>(size));
  if (length == 0) buffer[0] = '\0';
  buffer[size - 1] = '\0';
}

int multiByteToWide(const char* source, int sourceLength, char16_t* target,
                    int targetSize) {
  if (source == nullptr || sourceLength <= 0 || target == nullptr) return 0;
  // Flags 0: ill-formed input becomes U+FFFD rather than an error.
  return ::MultiByteToWideChar(kUtf8CodePage, 0, source, sourceLength,
                               reinterpret_cast<wchar_t*>(target),
                               targetSize);
}

int wideToMultiByte(const char16_t* source, int sourceLength, char* target,
                    int targetSize) {
  if (source == nullptr || sourceLength <= 0 || target == nullptr) return 0;
  // Flags 0 and no default character: a character the code page lacks
  // becomes what the system substitutes (a best-fit letter or '?').
  return ::WideCharToMultiByte(kAnsiCodePage, 0,
                               reinterpret_cast<const wchar_t*>(source),
                               sourceLength, target, targetSize, nullptr,
                               nullptr);
}

std::size_t narrowCharacterLength(const char* text, std::size_t remaining) {
  if (remaining >= 2 && ::IsDBCSLeadByte(static_cast<BYTE>(text[0])) &&
      static_cast<unsigned char>(text[1]) >= kLowestTrailByte) {
    return 2;
  }
  return 1;
}

void outputDebugString(const char* text) {
  if (text == nullptr || *text == '\0') return;
  ::OutputDebugStringA(text);
}

void sleepMilliseconds(unsigned milliseconds) {
  ::Sleep(static_cast<DWORD>(milliseconds));
}

DescriptorSets::DescriptorSets() {
  FD_ZERO(&read);
  FD_ZERO(&write);
  FD_ZERO(&except);
}

int waitOnDescriptors(int highest, DescriptorSets& sets, long microseconds) {
  // winsock ignores the count (its sets carry their own) and takes sockets
  // of any value, so `highest` only keeps the call's shape.
  TIMEVAL wait;
  wait.tv_sec = microseconds / 1000000;
  wait.tv_usec = microseconds % 1000000;
  const int result =
      ::select(highest + 1, &sets.read, &sets.write, &sets.except, &wait);
  return result == SOCKET_ERROR ? -1 : result;
}

int64_t wallClockMilliseconds() {
  FILETIME now;
  ::GetSystemTimeAsFileTime(&now);
  const uint64_t ticks =
      (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
  return static_cast<int64_t>(ticks) / kTicksPerMillisecond;
}

int pathAccess(const std::string& path) {
  return ::_access(path.c_str(), 0) == 0 ? 0 : -1;
}

int makeDirectory(const std::string& path) {
  return ::_mkdir(path.c_str()) == 0 ? 0 : -1;
}

int64_t fileSize(const std::string& path) {
  struct _stat64 info;
  if (::_stat64(path.c_str(), &info) != 0) return -1;
  return static_cast<int64_t>(info.st_size);
}

int removeFile(const std::string& path) {
  // remove() deletes files only: a directory at `path` fails it.
  return std::remove(path.c_str()) == 0 ? 0 : -1;
}

std::FILE* openFile(const std::string& path, const char* mode) {
  // "N" keeps the handle from being inherited: a host that starts a child
  // process while a transfer runs doesn't hand it our half-written file.
  std::string noInherit(mode);
  noInherit += 'N';
  std::FILE* file = nullptr;
  if (::fopen_s(&file, path.c_str(), noInherit.c_str()) != 0) return nullptr;
  return file;
}

int seekFile(std::FILE* file, int64_t offset, int origin) {
  return ::_fseeki64(file, offset, origin) == 0 ? 0 : -1;
}

int64_t tellFile(std::FILE* file) {
  const int64_t position = ::_ftelli64(file);
  return position < 0 ? -1 : position;
}

const void* findLastByte(const void* bytes, unsigned char value,
                         std::size_t length) {
  const auto* begin = static_cast<const unsigned char*>(bytes);
  for (const unsigned char* p = begin + length; p != begin;) {
    if (*--p == value) return p;
  }
  return nullptr;
}

const char kEntryJoinSeparator = '\\';

}  // namespace platform
}  // namespace zrx
