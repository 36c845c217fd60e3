/// @file
/// Process-wide log facility of zrx2dsticker.
///
/// Every diagnostic of the library goes through ZRXLogCallback. A message whose
/// level is at least the threshold (1 at load) is formatted into a 1024-byte
/// buffer, written to the platform's debug channel (stderr on POSIX) and handed
/// to the one registered callback together with the host's key text.
///
/// All functions may be called from any thread. None reports a failure.
#ifndef ZRX2DSTICKER_ZRXLOG_H_
#define ZRX2DSTICKER_ZRXLOG_H_

#include "zrx2dsticker/Export.h"

/// The host's log callback. Called on the thread that logs, with the log's
/// mutex held: it must not call ZRXLogCallback, ZRXReleaseLogBaseManager,
/// ZRXSetLogBaseManagerUniqueKey or ZRXSetLogLevel. `message` is the formatted
/// text without a line end, valid only during the call; `key` is the pointer
/// last given to ZRXSetLogBaseManagerUniqueKey, null while none was set.
typedef void (*ZRXLogBaseCallback)(int level, const char* tag,
                                   const char* message, const char* key);

/// Registers `callback` (null allowed) if no registration is in force;
/// otherwise does nothing, so the first callback stays.
ZRX_EXPORT void ZRXRegisterLogBaseManager(ZRXLogBaseCallback callback);

/// Ends the registration: no callback runs from here on. Level and key stay.
/// Does nothing while unregistered.
ZRX_EXPORT void ZRXReleaseLogBaseManager();

/// Stores the pointer `key` (not a copy: the host keeps the text alive for as
/// long as messages may be logged). The library never writes through it; the
/// parameter is a plain char pointer, so a string literal needs a cast:
/// `ZRXSetLogBaseManagerUniqueKey(const_cast<char*>("host-1"));`. Does
/// nothing while unregistered.
ZRX_EXPORT void ZRXSetLogBaseManagerUniqueKey(char* key);

/// Sets the threshold: a message passes when its level is >= `level`.
/// Does nothing while unregistered.
ZRX_EXPORT void ZRXSetLogLevel(int level);

///@{
/// Switch the library's own log statements on or off (on at load). A direct
/// call of ZRXLogCallback by the host is not affected.
ZRX_EXPORT void ZRXEnableLog();
ZRX_EXPORT void ZRXDisableLog();
///@}

/// 1 when the library's log statements are on, else 0.
ZRX_EXPORT int ZRXLogIsEnabled();

/// Logs one message: the format is the first variable argument (a printf
/// format), its arguments follow. Text past 1023 bytes is cut off.
ZRX_EXPORT void ZRXLogCallback(int level, const char* tag, ...);

/// Takes the same arguments as ZRXLogCallback and does nothing: the library's
/// statements call it while logging is switched off.
ZRX_EXPORT void ZRXLogCallbackModel(int level, const char* tag, ...);

#endif  // ZRX2DSTICKER_ZRXLOG_H_
