#include "names/NameRule.h"

#include <cstring>

#include "platform/Platform.h"

namespace zrx {

namespace {

char upper(char c) { return (c >= 'a' && c <= 'z') ? c - 'a' + 'A' : c; }

bool equalsIgnoringCase(const char* text, std::size_t length,
                        const char* word) {
  if (std::strlen(word) != length) return false;
  for (std::size_t i = 0; i < length; ++i) {
    if (upper(text[i]) != word[i]) return false;
  }
  return true;
}

// A superscript one, two or three, in UTF-8 or as the single byte that the
// Western code pages give it: Win32 treats COM and LPT with these as
// devices too.
bool isSuperscriptDigit(const char* text, std::size_t length) {
  const auto* b = reinterpret_cast<const unsigned char*>(text);
  const auto superscript = [](unsigned char c) {
    return c == 0xB9 || c == 0xB2 || c == 0xB3;
  };
  return (length == 1 && superscript(b[0])) ||
         (length == 2 && b[0] == 0xC2 && superscript(b[1]));
}

// Whether the component names a device: its part before the first '.',
// with trailing blanks dropped as Win32 drops them, is a device name.
bool isDeviceName(const char* component, std::size_t length) {
  const void* dot = std::memchr(component, '.', length);
  std::size_t base =
      dot != nullptr ? static_cast<const char*>(dot) - component : length;
  while (base > 0 && component[base - 1] == ' ') --base;
  static const char* const kDevices[] = {"CON", "PRN",    "AUX",
                                         "NUL", "CONIN$", "CONOUT$"};
  for (const char* device : kDevices) {
    if (equalsIgnoringCase(component, base, device)) return true;
  }
  if (base < 4) return false;
  if (!equalsIgnoringCase(component, 3, "COM") &&
      !equalsIgnoringCase(component, 3, "LPT")) {
    return false;
  }
  const char* digit = component + 3;
  const std::size_t digitLength = base - 3;
  return (digitLength == 1 && digit[0] >= '1' && digit[0] <= '9') ||
         isSuperscriptDigit(digit, digitLength);
}

bool isSafeComponent(const char* component, std::size_t length) {
  if (length == 0) return true;
  if (length > kMaxNameComponentLength) return false;
  if (length == 1 && component[0] == '.') return true;
  if (length == 2 && component[0] == '.' && component[1] == '.') return false;
  // Character by character as the file system reads the name: the trail
  // byte of a double-byte character may equal '\\' or '|' and is neither.
  // Every other byte refused here lies below any trail byte.
  for (std::size_t i = 0; i < length;) {
    const std::size_t size =
        platform::narrowCharacterLength(component + i, length - i);
    const unsigned char c = static_cast<unsigned char>(component[i]);
    if (size == 1 && (c < 0x20 || std::strchr("<>:\"|?*\\", c) != nullptr)) {
      return false;
    }
    i += size;
  }
  const char last = component[length - 1];
  if (last == '.' || last == ' ') return false;
  return !isDeviceName(component, length);
}

}  // namespace

bool isSafeName(const char* name, std::size_t length) {
  if (length == 0) return true;
  if (name[0] == '/') return false;
  // '/' is never a trail byte, so components split byte by byte.
  std::size_t start = 0;
  for (std::size_t i = 0; i <= length; ++i) {
    if (i == length || name[i] == '/') {
      if (!isSafeComponent(name + start, i - start)) return false;
      start = i + 1;
    }
  }
  return true;
}

}  // namespace zrx
