// Tests on untrusted relative names (zip entry names, names from the sticker
// list) before they are joined to a directory of ours.
#ifndef ZRX2DSTICKER_ARCHIVE_PATHSAFETY_H_
#define ZRX2DSTICKER_ARCHIVE_PATHSAFETY_H_

#include <cstddef>
#include <string>

namespace zrx {

// True when `name` (`length` bytes) stays below the directory it is joined
// to: it is not absolute ("/x", "\x", "C:x", "C:\x") and no component, split
// on both '/' and '\', is "..". An empty name counts as contained.
bool staysInside(const char* name, std::size_t length);

inline bool staysInside(const std::string& name) {
  return staysInside(name.data(), name.size());
}

}  // namespace zrx

#endif  // ZRX2DSTICKER_ARCHIVE_PATHSAFETY_H_
