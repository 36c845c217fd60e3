// Zip archive access: list an archive's entries, extract a whole archive.
//
// Free functions on top of minizip's unzip API. They log nothing and report
// through their results alone; each opens its own handle and closes it on
// every path. Any thread may call them; the only state shared between calls
// is gUnzipStopFlag.
//
// Entry names are untrusted: a name that is absolute ("/x", "\x", "C:x"),
// has a ".." component (either separator), is 512 bytes or longer or holds
// a zero byte, or an encrypted entry, never gets anything written for it;
// extraction fails at that entry, and a listing that meets a name leading
// out of the target is empty. Only stored and deflated data is extracted:
// another method fails the entry and leaves its file empty.
#ifndef ZRX2DSTICKER_ARCHIVE_ZIPREADER_H_
#define ZRX2DSTICKER_ARCHIVE_ZIPREADER_H_

#include <unzip.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

// Entry name (bytes as stored in the archive) to its uncompressed size.
// std::string orders its bytes as unsigned chars, shorter prefix first.
using zipEntryMap = std::map<std::string, uint64_t>;

// Process-wide stop request for extractions: raised and cleared by the
// downloader on the host's thread, read by unzipToDirectory on any thread.
extern std::atomic<bool> gUnzipStopFlag;

namespace zrx {

// Size of the entry-name buffer handed to minizip; a name has at most 511
// bytes, a longer one is refused.
constexpr unsigned kZipNameBufferSize = 512;
// One copy step of an extraction: a stop is seen within one such step.
constexpr unsigned kZipCopyBufferSize = 4096;
// The stdio buffer of an extracted file (on the extracting thread's stack):
// 16 copy steps a write(2).
constexpr unsigned kZipWriteBufferSize = 16 * kZipCopyBufferSize;

}  // namespace zrx

// Extracts the entry on which `archive` stands into `targetDir`: a directory
// entry (name ending in '/' or '\') makes one directory level, a file entry
// is written (an existing file is overwritten). No parent directory is made.
// Returns false on any failure or on a stop, leaving what was written.
bool unzipCurrentEntry(unzFile archive, const char* targetDir);

// Extracts every entry of `zipPath` in archive order into `targetDir`.
// True when all entries are done (also for an archive with no entries);
// false on the first failure or when gUnzipStopFlag is seen, leaving what was
// extracted before.
bool unzipToDirectory(std::string zipPath, std::string targetDir);

// Lists the entries of `zipPath` with their uncompressed sizes (zip64 ones
// included) without inflating anything. Empty when the archive can't be
// read; a listing that meets a bad entry ends there and returns what it
// gathered. Of two entries of one name the later size wins.
zipEntryMap listZipEntries(std::string zipPath);

#endif  // ZRX2DSTICKER_ARCHIVE_ZIPREADER_H_
