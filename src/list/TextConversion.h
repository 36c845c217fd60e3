// The two conversions that bring UTF-8 text into the system's narrow code
// page, always used as a pair. Stateless; any thread.
#ifndef ZRX2DSTICKER_LIST_TEXTCONVERSION_H_
#define ZRX2DSTICKER_LIST_TEXTCONVERSION_H_

#include <string>

// UTF-8 to 16-bit wide text. 0 on success (an empty source gives an empty
// target), -1 on failure with `target` unchanged. Not strict: ill-formed
// input becomes U+FFFD. The result ends at its first NUL character.
[[nodiscard]] int utf8ToWide(const std::string& source, std::u16string& target);

// Wide text to the narrow code page (UTF-8 on POSIX). 0 on success, -1 on
// failure with `target` unchanged. The result ends at its first NUL byte.
[[nodiscard]] int wideToAnsi(const std::u16string& source, std::string& target);

#endif  // ZRX2DSTICKER_LIST_TEXTCONVERSION_H_
