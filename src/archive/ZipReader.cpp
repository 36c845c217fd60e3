#include "archive/ZipReader.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <memory>
#include <type_traits>
#include <utility>
#include <vector>

#include "names/NameRule.h"
#include "platform/Platform.h"

// Written by the downloader on the host's thread, read here on any thread
// without a lock. It guards no other data, so any memory order would do.
std::atomic<bool> gUnzipStopFlag{false};

namespace {

// General-purpose flag bit 0: the entry's data is encrypted.
constexpr uLong kEncryptedFlag = 1;
// The two compression methods minizip decodes here: stored and deflated.
// It opens a bzip2 entry too, when built without bzip2, but then hands over
// the still-compressed bytes, so every other method is refused.
constexpr uLong kStoredMethod = 0;
constexpr uLong kDeflatedMethod = Z_DEFLATED;
// The end-of-central-directory record without its comment.
constexpr std::size_t kEndRecordSize = 22;
// A zip comment's length is a 16-bit count.
constexpr int64_t kMaxCommentSize = 0xFFFF;
// A 32-bit size field holding this says the size stands in the zip64 field.
constexpr uint64_t kZip64Marker = 0xFFFFFFFFu;
// Header id of the zip64 extended-information extra field.
constexpr unsigned kZip64ExtraId = 0x0001;
// An extra field's length is a 16-bit count, so this buffer holds any.
constexpr std::size_t kZipExtraBufferSize = 0xFFFF;

// The zip64 end locator and the zip64 end record up to the directory's
// offset, its last field read here.
constexpr std::size_t kZip64LocatorSize = 20;
constexpr std::size_t kZip64RecordSize = 56;

unsigned readLittleEndian(const unsigned char* bytes, std::size_t count) {
  unsigned value = 0;
  for (std::size_t i = count; i > 0; --i) value = (value << 8) | bytes[i - 1];
  return value;
}

uint64_t readLittleEndian64(const unsigned char* bytes) {
  return (uint64_t{readLittleEndian(bytes + 4, 4)} << 32) |
         readLittleEndian(bytes, 4);
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileOwner = std::unique_ptr<std::FILE, FileCloser>;

// The archive's bytes as minizip reads them. minizip's own file access
// (what unzOpen64 uses) is a stdio stream with a 4 KiB buffer on which it
// seeks before nearly every read: it searches the end of the directory
// backwards 1 KiB at a time, twice, and seeks again for each entry, so the
// listing of a 20-entry archive cost some 60 lseek(2) and read(2) calls.
// This reader serves minizip's reads from one window of the file, read in
// one piece: the listing of a small archive costs one read(2), and an
// extraction one read(2) per window. Created by openArchive, destroyed by
// minizip's close (closeStream), on the thread that uses the handle.
class ArchiveStream {
 public:
  // One read(2) of a window; bigger than minizip's largest read (an extra
  // field of up to 64 KiB - 1, or its 16 KiB inflate input).
  static constexpr std::size_t kWindowSize = 64 * 1024;

  // `opened` (the access table's opaque pointer) is an ArchiveStream**
  // that receives the stream, so that its opener can look at the archive
  // once minizip has accepted it.
  static voidpf ZCALLBACK openStream(voidpf opened, const void* path,
                                     int mode) {
    if ((mode & ZLIB_FILEFUNC_MODE_READWRITEFILTER) !=
        ZLIB_FILEFUNC_MODE_READ) {
      return nullptr;
    }
    FileOwner file(
        zrx::platform::openFile(static_cast<const char*>(path), "rb"));
    if (!file) return nullptr;
    // Reads go straight into the window; the size comes from one lseek(2).
    std::setvbuf(file.get(), nullptr, _IONBF, 0);
    if (fseeko(file.get(), 0, SEEK_END) != 0) return nullptr;
    const off_t size = ftello(file.get());
    if (size < 0) return nullptr;
    auto* stream =
        new ArchiveStream(std::move(file), static_cast<uint64_t>(size));
    *static_cast<ArchiveStream**>(opened) = stream;
    return stream;
  }

  // Whether the archive's directory ends where its end record (the zip64
  // one, where there is one) begins, as in every archive that starts at the
  // start of its file. minizip accepts bytes before an archive and reads the
  // archive at the file's end as if they were not there; the end of a file
  // cut just after a stored inner archive is such a case, and its listing
  // must not pass for the outer archive's. The records are looked for as
  // minizip looks for them: the last signature within the file's last
  // 64 KiB - 1 bytes.
  bool directoryEndsAtItsRecord() {
    const std::size_t back =
        static_cast<std::size_t>(std::min<uint64_t>(size_, kMaxCommentSize));
    const uint64_t from = size_ - back;
    const char* tail = view(from, back);
    if (tail == nullptr) return false;
    // Offset of the last "PK" `third` `fourth` that lies whole in the tail,
    // or -1.
    const auto lastSignature = [&](char third, char fourth) -> int64_t {
      for (std::size_t end = back; end >= 4;) {  // searches [0, end - 3)
        const void* p = memrchr(tail, 'P', end - 3);
        if (p == nullptr) break;
        const std::size_t at =
            static_cast<std::size_t>(static_cast<const char*>(p) - tail);
        if (tail[at + 1] == 'K' && tail[at + 2] == third &&
            tail[at + 3] == fourth) {
          return static_cast<int64_t>(from + at);
        }
        end = at + 3;
      }
      return -1;
    };
    // Both searches before any read below moves the window.
    const int64_t locator = lastSignature(6, 7);
    const int64_t end = lastSignature(5, 6);
    unsigned char field[kZip64RecordSize];
    if (locator >= 0 &&
        copyAt(static_cast<uint64_t>(locator), field, kZip64LocatorSize) &&
        readLittleEndian(&field[4], 4) == 0 &&
        readLittleEndian(&field[16], 4) == 1) {
      const uint64_t record = readLittleEndian64(&field[8]);
      if (copyAt(record, field, kZip64RecordSize) && field[0] == 'P' &&
          field[1] == 'K' && field[2] == 6 && field[3] == 6) {
        return readLittleEndian64(&field[48]) +
                   readLittleEndian64(&field[40]) ==
               record;
      }
    }
    if (end < 0 || !copyAt(static_cast<uint64_t>(end), field, kEndRecordSize)) {
      return false;
    }
    return uint64_t{readLittleEndian(&field[16], 4)} +
               readLittleEndian(&field[12], 4) ==
           static_cast<uint64_t>(end);
  }

  static uLong ZCALLBACK readStream(voidpf, voidpf stream, void* buffer,
                                    uLong size) {
    return static_cast<ArchiveStream*>(stream)->readAt(buffer, size);
  }

  static uLong ZCALLBACK writeStream(voidpf, voidpf, const void*, uLong) {
    return 0;
  }

  static ZPOS64_T ZCALLBACK tellStream(voidpf, voidpf stream) {
    return static_cast<ArchiveStream*>(stream)->position_;
  }

  static long ZCALLBACK seekStream(voidpf, voidpf stream, ZPOS64_T offset,
                                   int origin) {
    auto* self = static_cast<ArchiveStream*>(stream);
    uint64_t base = 0;
    if (origin == ZLIB_FILEFUNC_SEEK_CUR) base = self->position_;
    if (origin == ZLIB_FILEFUNC_SEEK_END) base = self->size_;
    self->position_ = base + offset;
    return 0;
  }

  static int ZCALLBACK closeStream(voidpf, voidpf stream) {
    delete static_cast<ArchiveStream*>(stream);
    return 0;
  }

  static int ZCALLBACK errorStream(voidpf, voidpf stream) {
    return static_cast<ArchiveStream*>(stream)->failed_ ? 1 : 0;
  }

 private:
  // The stream stands at the end, where measuring the size left it.
  ArchiveStream(FileOwner file, uint64_t size)
      : file_(std::move(file)),
        size_(size),
        filePosition_(size),
        window_(new char[kWindowSize]) {}

  uLong readAt(void* buffer, uLong size) {
    // minizip reads most header fields a byte at a time: those come from
    // the window without a call.
    if (size == 1 && position_ >= windowStart_ &&
        position_ < windowStart_ + windowLength_) {
      *static_cast<char*>(buffer) = window_[position_++ - windowStart_];
      return 1;
    }
    if (position_ >= size_ || size == 0) return 0;
    const uint64_t wanted = std::min<uint64_t>(size, size_ - position_);
    if (wanted > kWindowSize) {
      const uLong got =
          static_cast<uLong>(fill(static_cast<char*>(buffer), position_,
                                  static_cast<std::size_t>(wanted)));
      position_ += got;
      return got;
    }
    if (!covers(position_, wanted)) refill(position_);
    // A read that failed or came short hands over what there is.
    const uint64_t have = std::min<uint64_t>(
        wanted, windowStart_ + windowLength_ > position_
                    ? windowStart_ + windowLength_ - position_
                    : 0);
    if (have == 0) return 0;
    std::memcpy(buffer, window_.get() + (position_ - windowStart_),
                static_cast<std::size_t>(have));
    position_ += have;
    return static_cast<uLong>(have);
  }

  bool covers(uint64_t offset, uint64_t length) const {
    return offset >= windowStart_ &&
           offset + length <= windowStart_ + windowLength_;
  }

  // Reads the window from `offset` on. Near the end the window ends with
  // the file: minizip's backward searches for the directory's end all fall
  // into one window.
  void refill(uint64_t offset) {
    uint64_t start = offset;
    if (start + kWindowSize > size_) {
      start = size_ > kWindowSize ? size_ - kWindowSize : 0;
    }
    windowStart_ = start;
    windowLength_ = fill(window_.get(), start,
                         static_cast<std::size_t>(
                             std::min<uint64_t>(kWindowSize, size_ - start)));
  }

  // The bytes [offset, offset + length) of the file, in the window until it
  // moves; null when the file doesn't give them. `length` is at most
  // kWindowSize.
  const char* view(uint64_t offset, std::size_t length) {
    if (!covers(offset, length)) refill(offset);
    return covers(offset, length) ? window_.get() + (offset - windowStart_)
                                  : nullptr;
  }

  // Reads exactly `length` bytes at `offset` through the window, leaving
  // minizip's position as it was.
  bool copyAt(uint64_t offset, void* target, std::size_t length) {
    const uint64_t saved = position_;
    position_ = offset;
    std::size_t done = 0;
    while (done < length) {
      const uLong got = readAt(static_cast<char*>(target) + done,
                               static_cast<uLong>(length - done));
      if (got == 0) break;
      done += got;
    }
    position_ = saved;
    return done == length;
  }

  // Reads `length` bytes at `offset` into `target`; seeks only when the
  // stream isn't already there. Returns the count read.
  std::size_t fill(char* target, uint64_t offset, std::size_t length) {
    if (offset != filePosition_) {
      if (fseeko(file_.get(), static_cast<off_t>(offset), SEEK_SET) != 0) {
        failed_ = true;
        return 0;
      }
      filePosition_ = offset;
    }
    const std::size_t got = std::fread(target, 1, length, file_.get());
    filePosition_ += got;
    if (got != length && std::ferror(file_.get())) failed_ = true;
    return got;
  }

  FileOwner file_;
  uint64_t size_;
  uint64_t position_ = 0;  // where minizip stands
  uint64_t filePosition_;  // where the stream stands
  std::unique_ptr<char[]> window_;
  uint64_t windowStart_ = 0;
  uint64_t windowLength_ = 0;
  bool failed_ = false;
};

// unzOpen64 on top of ArchiveStream, for an archive that starts at the
// start of its file; null for any other.
unzFile openArchive(const std::string& path) {
  ArchiveStream* stream = nullptr;
  zlib_filefunc64_def access = {};
  access.opaque = &stream;
  access.zopen64_file = &ArchiveStream::openStream;
  access.zread_file = &ArchiveStream::readStream;
  access.zwrite_file = &ArchiveStream::writeStream;
  access.ztell64_file = &ArchiveStream::tellStream;
  access.zseek64_file = &ArchiveStream::seekStream;
  access.zclose_file = &ArchiveStream::closeStream;
  access.zerror_file = &ArchiveStream::errorStream;
  unzFile archive = unzOpen2_64(path.c_str(), &access);
  if (archive != nullptr && !stream->directoryEndsAtItsRecord()) {
    unzClose(archive);
    return nullptr;
  }
  return archive;
}

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
  // separator: '/' on POSIX, where a backslash is an ordinary file-name byte.
  // The name keeps its bytes, so a backslash inside it stays part of a name.
  const std::string path = std::string(targetDir) + "/" + name;
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
