#include "archive/ZipReader.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "archive/ArchiveStream.h"
#include "names/NameRule.h"
#include "platform/Platform.h"

// Written by the downloader on the host's thread, read here on any thread
// without a lock. It guards no other data, so any memory order would do.
std::atomic<bool> gUnzipStopFlag{false};

namespace {

using zrx::FileOwner;
using zrx::kEndRecordSize;
using zrx::kMaxCommentSize;
using zrx::openArchive;
using zrx::readLittleEndian;
using zrx::readLittleEndian64;

// General-purpose flag bit 0: the entry's data is encrypted.
constexpr uLong kEncryptedFlag = 1;
// The two compression methods minizip decodes here: stored and deflated.
// It opens a bzip2 entry too, when built without bzip2, but then hands over
// the still-compressed bytes, so every other method is refused.
constexpr uLong kStoredMethod = 0;
constexpr uLong kDeflatedMethod = Z_DEFLATED;
// A 32-bit size field holding this says the size stands in the zip64 field.
constexpr uint64_t kZip64Marker = 0xFFFFFFFFu;
// Header id of the zip64 extended-information extra field.
constexpr unsigned kZip64ExtraId = 0x0001;
// An extra field's length is a 16-bit count, so this buffer holds any.
constexpr std::size_t kZipExtraBufferSize = 0xFFFF;

struct ArchiveCloser {
  void operator()(std::remove_pointer_t<unzFile>* archive) const {
    unzClose(archive);
  }
};
// Owns a handle from openArchive; unzClose's result is of no use to us.
using ArchiveOwner =
    std::unique_ptr<std::remove_pointer_t<unzFile>, ArchiveCloser>;

// Closes the entry opened by unzOpenCurrentFile. Its result is not read: a
// checksum mismatch that minizip reports here doesn't fail the entry.
class OpenEntry {
 public:
  explicit OpenEntry(unzFile archive) : archive_(archive) {}
  ~OpenEntry() { unzCloseCurrentFile(archive_); }
  OpenEntry(const OpenEntry&) = delete;
  OpenEntry& operator=(const OpenEntry&) = delete;

 private:
  unzFile archive_;
};

enum class EntryName {
  kUsable,      // the name is whole, non-empty and stays below the target
  kUnreadable,  // no info, or a name we can't know or write as stored
  kUnsafe,      // refused by the name rule (see names/NameRule.h)
};

// Reads the info of the entry on which `archive` stands and its name, which
// is set only when the result is kUsable. Never reads past the name buffer.
[[nodiscard]] EntryName readEntryName(unzFile archive, unz_file_info64& info,
                                      std::string& name) {
  char buffer[zrx::kZipNameBufferSize] = {};
  if (unzGetCurrentFileInfo64(archive, &info, buffer, sizeof buffer, nullptr, 0,
                              nullptr, 0) != UNZ_OK) {
    return EntryName::kUnreadable;
  }
  // A name that doesn't fit arrives cut and without a terminating zero: we
  // never learn what it really is.
  if (info.size_filename >= zrx::kZipNameBufferSize) {
    return EntryName::kUnreadable;
  }
  const std::size_t length = info.size_filename;
  // A zero byte inside the stored name would cut the path handed to the OS,
  // so the file written would not be the entry listed; such a name is
  // refused like an empty one.
  for (std::size_t i = 0; i < length; ++i) {
    if (buffer[i] == '\0') return EntryName::kUnreadable;
  }
  if (length == 0) return EntryName::kUnreadable;
  if (!zrx::isSafeName(buffer, length)) return EntryName::kUnsafe;
  name.assign(buffer, length);
  return EntryName::kUsable;
}

// The uncompressed size of the entry on which `archive` stands, of which
// `info` is the info. minizip 1.1 as built for 64 bits never takes a size
// from the zip64 extra field and hands over the 32-bit marker instead, so
// that field is read here; the marker stays when the entry has no such field
// (an entry of exactly 4 GiB - 1 bytes).
uint64_t uncompressedSize(unzFile archive, const unz_file_info64& info) {
  if (info.uncompressed_size != kZip64Marker) return info.uncompressed_size;
  std::vector<unsigned char> extra(kZipExtraBufferSize);
  unz_file_info64 again;
  if (unzGetCurrentFileInfo64(archive, &again, nullptr, 0, extra.data(),
                              extra.size(), nullptr, 0) != UNZ_OK) {
    return info.uncompressed_size;
  }
  const std::size_t length = std::min<std::size_t>(
      static_cast<std::size_t>(again.size_file_extra), extra.size());
  std::size_t at = 0;
  while (at + 4 <= length) {
    const unsigned id = readLittleEndian(&extra[at], 2);
    const std::size_t size = readLittleEndian(&extra[at + 2], 2);
    if (size > length - at - 4) break;
    // The sizes come first in the field, the uncompressed one leading when
    // its 32-bit field holds the marker, as here.
    if (id == kZip64ExtraId && size >= 8) {
      return readLittleEndian64(&extra[at + 4]);
    }
    at += 4 + size;
  }
  return info.uncompressed_size;
}

// minizip 1.1 never looks for the end record at the very start of a file,
// so it can't open an archive that is that record alone, which is to say
// any valid archive with no entries. Such a file is recognised here.
[[nodiscard]] bool isEmptyArchive(const std::string& path) {
  const int64_t size = zrx::platform::fileSize(path);
  const int64_t minimum = static_cast<int64_t>(kEndRecordSize);
  if (size < minimum || size > minimum + kMaxCommentSize) return false;
  const FileOwner file(zrx::platform::openFile(path, "rb"));
  if (!file) return false;
  unsigned char record[kEndRecordSize];
  if (std::fread(record, 1, sizeof record, file.get()) != sizeof record) {
    return false;
  }
  // Signature; disk numbers, entry counts, directory size and offset all
  // zero; then the comment's length, which fills the rest of the file.
  static const unsigned char kSignature[] = {'P', 'K', 5, 6};
  if (std::memcmp(record, kSignature, sizeof kSignature) != 0) return false;
  for (std::size_t i = sizeof kSignature; i < kEndRecordSize - 2; ++i) {
    if (record[i] != 0) return false;
  }
  return readLittleEndian(&record[kEndRecordSize - 2], 2) == size - minimum;
}

bool isDirectoryEntry(const std::string& name) {
  const char last = name.back();
  return last == '/' || last == '\\';
}

}  // namespace

bool unzipCurrentEntry(unzFile archive, const char* targetDir) {
  unz_file_info64 info;
  std::string name;
  if (readEntryName(archive, info, name) != EntryName::kUsable) return false;

  // The joint between target directory and entry name is the system's
  // separator (a backslash on Windows, '/' on POSIX). The name keeps its
  // bytes: on POSIX a backslash inside it stays part of a name.
  const std::string path =
      std::string(targetDir) + zrx::platform::kEntryJoinSeparator + name;
  // A path too long for some platform's file calls is refused everywhere.
  if (!zrx::fitsPathLimit(path)) return false;

  if (isDirectoryEntry(name)) {
    // One level only. A failure (it exists, or its parent is missing) leaves
    // the entry done; a file below a missing directory fails instead.
    (void)zrx::platform::makeDirectory(path);
    return true;
  }

  // Without a password minizip would hand over undecrypted bytes of the
  // listed size, which no later check could tell from the real content.
  if ((info.flag & kEncryptedFlag) != 0) return false;

  // The stream's buffer, declared before the stream so that it outlives the
  // fclose. The copy step stays at 4096 bytes; the stream gathers 16 steps
  // into one write(2), where its default 4 KiB buffer made one write(2) of
  // each.
  char writeBuffer[zrx::kZipWriteBufferSize];
  FileOwner file(zrx::platform::openFile(path, "wb"));
  if (!file) return false;
  std::setvbuf(file.get(), writeBuffer, _IOFBF, sizeof writeBuffer);
  // An entry that can't be opened leaves the empty file behind.
  const bool decodable = info.compression_method == kStoredMethod ||
                         info.compression_method == kDeflatedMethod;
  if (!decodable || unzOpenCurrentFile(archive) != UNZ_OK) return false;
  // Declared after `file`, so the entry is closed before the file.
  const OpenEntry entry(archive);

  char buffer[zrx::kZipCopyBufferSize];
  // The stop flag is tested before the first read and after each write, so
  // a stop takes effect within one copy step. A part written stays.
  while (!gUnzipStopFlag.load()) {
    const int got = unzReadCurrentFile(archive, buffer, sizeof buffer);
    if (got < 0) return false;
    // A write that failed while the buffer emptied shows in fwrite's result;
    // the last buffer's write is checked here, because fclose's result is
    // not read: a failed write is seen by the end of its entry at the
    // latest.
    if (got == 0) return std::fflush(file.get()) == 0;
    const std::size_t count = static_cast<std::size_t>(got);
    if (std::fwrite(buffer, 1, count, file.get()) != count) return false;
  }
  return false;
}

bool unzipToDirectory(std::string zipPath, std::string targetDir) {
  const ArchiveOwner archive(openArchive(zipPath));
  // An archive with no entries is done, even when a stop is asked for.
  if (!archive) return isEmptyArchive(zipPath);
  unz_global_info64 global;
  if (unzGetGlobalInfo64(archive.get(), &global) != UNZ_OK) return false;

  for (uint64_t index = 0; index < global.number_entry; ++index) {
    if (gUnzipStopFlag.load()) return false;
    if (!unzipCurrentEntry(archive.get(), targetDir.c_str())) return false;
    // The last entry gets no step forward, so minizip's end-of-list result
    // never arises and any failure to step is a fault of the archive.
    if (index + 1 < global.number_entry &&
        unzGoToNextFile(archive.get()) != UNZ_OK) {
      return false;
    }
  }
  return true;
}

zipEntryMap listZipEntries(std::string zipPath) {
  zipEntryMap entries;
  const ArchiveOwner archive(openArchive(zipPath));
  if (!archive) return entries;
  unz_global_info64 global;
  if (unzGetGlobalInfo64(archive.get(), &global) != UNZ_OK) return entries;

  for (uint64_t index = 0; index < global.number_entry; ++index) {
    unz_file_info64 info;
    std::string name;
    const EntryName read = readEntryName(archive.get(), info, name);
    // An archive that names a place outside its target is not trusted at
    // all: what was gathered before that entry is dropped too.
    if (read == EntryName::kUnsafe) return zipEntryMap();
    if (read != EntryName::kUsable) break;
    // Of two entries of one name the later size wins; the key stays.
    entries[name] = uncompressedSize(archive.get(), info);
    if (index + 1 < global.number_entry &&
        unzGoToNextFile(archive.get()) != UNZ_OK) {
      break;
    }
  }
  return entries;
}
