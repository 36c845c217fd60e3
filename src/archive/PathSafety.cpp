#include "archive/PathSafety.h"

namespace zrx {

namespace {
bool isSeparator(char c) { return c == '/' || c == '\\'; }
bool isDriveLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}
}  // namespace

bool staysInside(const char* name, std::size_t length) {
  if (length == 0) return true;
  if (isSeparator(name[0])) return false;
  if (length >= 2 && isDriveLetter(name[0]) && name[1] == ':') return false;
  std::size_t start = 0;
  for (std::size_t i = 0; i <= length; ++i) {
    if (i == length || isSeparator(name[i])) {
      if (i - start == 2 && name[start] == '.' && name[start + 1] == '.') {
        return false;
      }
      start = i + 1;
    }
  }
  return true;
}

}  // namespace zrx
