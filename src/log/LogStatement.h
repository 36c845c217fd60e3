// The one form of log statement used inside the library.
//
//   ZRX_LOG(6, "[%s:%d] index(%d) is invalid!", ZRX_AT(kFunction), index);
//
// The statement tests gLogEnabled and calls ZRXLogCallback, or else
// ZRXLogCallbackModel, with the same arguments: the level, the tag "[ZRX]",
// the format (which always begins with "[%s:%d] "), the qualified function
// name and the source line, then the message's own values. The arguments are
// worked out either way.
#ifndef ZRX2DSTICKER_LOG_LOGSTATEMENT_H_
#define ZRX2DSTICKER_LOG_LOGSTATEMENT_H_

#include <atomic>

#include "zrx2dsticker/ZRXLog.h"

// Written by ZRXEnableLog/ZRXDisableLog on any thread, read by every log
// statement on any thread; relaxed is enough, a statement in flight may see
// the old or the new value.
extern std::atomic<bool> gLogEnabled;

namespace zrx {

constexpr const char* kLogTag = "[ZRX]";

// Lets the compiler check each statement's format against its arguments;
// never called.
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
inline void checkLogFormat(const char* /*format*/, ...) {}

}  // namespace zrx

// The qualified function name and the source line, the two values that every
// format's "[%s:%d] " prefix takes.
#define ZRX_AT(function) (function), static_cast<int>(__LINE__)

#define ZRX_LOG(level, ...)                                          \
  do {                                                               \
    if (false) ::zrx::checkLogFormat(__VA_ARGS__);                   \
    if (gLogEnabled.load(std::memory_order_relaxed)) {               \
      ZRXLogCallback((level), ::zrx::kLogTag, __VA_ARGS__);          \
    } else {                                                         \
      ZRXLogCallbackModel((level), ::zrx::kLogTag, __VA_ARGS__);     \
    }                                                                \
  } while (0)

#endif  // ZRX2DSTICKER_LOG_LOGSTATEMENT_H_
