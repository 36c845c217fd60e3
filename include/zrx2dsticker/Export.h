/// @file
/// Export macro of the zrx2dsticker shared library.
///
/// The library is built with hidden visibility: only declarations marked
/// ZRX_EXPORT are part of its ABI. A host never defines anything here.
#ifndef ZRX2DSTICKER_EXPORT_H_
#define ZRX2DSTICKER_EXPORT_H_

/// @def ZRX_EXPORT
/// Marks a declaration as part of the library's ABI: exported by the library
/// and, on Windows, imported from its DLL by a host.

#if defined(_WIN32)
#if defined(ZRX2DSTICKER_BUILDING)
#define ZRX_EXPORT __declspec(dllexport)
#else
#define ZRX_EXPORT __declspec(dllimport)
#endif
#else
#define ZRX_EXPORT __attribute__((visibility("default")))
#endif

#endif  // ZRX2DSTICKER_EXPORT_H_
