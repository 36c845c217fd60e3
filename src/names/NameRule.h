// The one rule for names that come from outside (the sticker list's "name"
// and "ext", which make dirName and fileName, and zip entry names) before
// they are joined below a directory of ours, and the one limit on the
// length of the paths built from them.
//
// A name that passes means the same single place on every platform the
// library runs on: it stays below its directory, and no Win32 file call
// gives it a special meaning (a device, a stream, a drive, a stripped
// ending, another separator). The rule is the same on every platform, so
// one list and one archive behave alike everywhere. Pure functions; any
// thread.
#ifndef ZRX2DSTICKER_NAMES_NAMERULE_H_
#define ZRX2DSTICKER_NAMES_NAMERULE_H_

#include <cstddef>
#include <string>

namespace zrx {

// Longest path, in bytes, that is handed to a file call: Win32's MAX_PATH
// (260) less its terminating zero. Longer paths fail there, so they are
// refused everywhere.
constexpr std::size_t kMaxPathLength = 259;

// Longest component of a name, in bytes: what NTFS and the common POSIX
// file systems store.
constexpr std::size_t kMaxNameComponentLength = 255;

// True when `name` (`length` bytes, in the bytes that reach the file
// system, read character by character as it reads them: a double-byte
// code page's trail byte is no '\\' or '|') may be joined below a
// directory. Refused:
// - an absolute name ("/x") and any backslash (a separator on Windows, a
//   plain byte elsewhere, so it can't mean one thing everywhere);
// - a ".." component;
// - a component holding a byte below 0x20 or one of < > : " | ? * (the ':'
//   also covers "C:x" and alternate data streams);
// - a component ending in '.' or ' ' (Win32 strips these, so two names
//   would meet on one file), "." itself excepted;
// - a component that names a device, alone or with an extension, in any
//   case: CON, PRN, AUX, NUL, COM1-9, LPT1-9 (also with the superscript
//   digits 1 to 3), CONIN$, CONOUT$;
// - a component longer than kMaxNameComponentLength.
// Empty components ("a//b", the end of "dir/") are harmless and pass; so
// does an empty name, which names no place of its own.
bool isSafeName(const char* name, std::size_t length);

inline bool isSafeName(const std::string& name) {
  return isSafeName(name.data(), name.size());
}

// True when `path` is short enough for every platform's file calls.
inline bool fitsPathLimit(const std::string& path) {
  return path.size() <= kMaxPathLength;
}

}  // namespace zrx

#endif  // ZRX2DSTICKER_NAMES_NAMERULE_H_
