// The bytes of a zip archive as minizip reads them, and the opener of an
// archive on top of them.
//
// minizip's own file access (what unzOpen64 uses) is a stdio stream with a
// 4 KiB buffer on which it seeks before nearly every read: it searches the
// end of the directory backwards 1 KiB at a time, twice, and seeks again for
// each entry, so the listing of a 20-entry archive cost some 60 lseek(2) and
// read(2) calls. ArchiveStream serves minizip's reads from one window of the
// file, read in one piece: the listing of a small archive costs one read(2),
// and an extraction one read(2) per window. It is created by openArchive and
// destroyed by minizip's close (closeStream), on the thread that uses the
// handle.
#ifndef ZRX2DSTICKER_ARCHIVE_ARCHIVESTREAM_H_
#define ZRX2DSTICKER_ARCHIVE_ARCHIVESTREAM_H_

#include <unzip.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace zrx {

// The end-of-central-directory record without its comment.
constexpr std::size_t kEndRecordSize = 22;
// A zip comment's length is a 16-bit count.
constexpr int64_t kMaxCommentSize = 0xFFFF;

// The `count` (at most 4) little-endian bytes at `bytes` as a number.
inline unsigned readLittleEndian(const unsigned char* bytes,
                                 std::size_t count) {
  unsigned value = 0;
  for (std::size_t i = count; i > 0; --i) value = (value << 8) | bytes[i - 1];
  return value;
}

inline uint64_t readLittleEndian64(const unsigned char* bytes) {
  return (uint64_t{readLittleEndian(bytes + 4, 4)} << 32) |
         readLittleEndian(bytes, 4);
}

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using FileOwner = std::unique_ptr<std::FILE, FileCloser>;

class ArchiveStream {
 public:
  // One read(2) of a window; bigger than minizip's largest read (an extra
  // field of up to 64 KiB - 1, or its 16 KiB inflate input).
  static constexpr std::size_t kWindowSize = 64 * 1024;

  ArchiveStream(const ArchiveStream&) = delete;
  ArchiveStream& operator=(const ArchiveStream&) = delete;

  // Whether the archive's directory ends where its end record (the zip64
  // one, where there is one) begins, as in every archive that starts at the
  // start of its file. minizip accepts bytes before an archive and reads the
  // archive at the file's end as if they were not there; the end of a file
  // cut just after a stored inner archive is such a case, and its listing
  // must not pass for the outer archive's. The records are looked for as
  // minizip looks for them: the last signature within the file's last
  // 64 KiB - 1 bytes.
  bool directoryEndsAtItsRecord();

  // minizip's access table (zlib_filefunc64_def). For openStream, `opened`
  // (the table's opaque pointer) is an ArchiveStream** that receives the
  // stream, so that its opener can look at the archive once minizip has
  // accepted it.
  static voidpf ZCALLBACK openStream(voidpf opened, const void* path, int mode);
  static uLong ZCALLBACK readStream(voidpf, voidpf stream, void* buffer,
                                    uLong size);
  static uLong ZCALLBACK writeStream(voidpf, voidpf, const void*, uLong);
  static ZPOS64_T ZCALLBACK tellStream(voidpf, voidpf stream);
  static long ZCALLBACK seekStream(voidpf, voidpf stream, ZPOS64_T offset,
                                   int origin);
  static int ZCALLBACK closeStream(voidpf, voidpf stream);
  static int ZCALLBACK errorStream(voidpf, voidpf stream);

 private:
  // The stream stands at the end, where measuring the size left it.
  ArchiveStream(FileOwner file, uint64_t size);

  uLong readAt(void* buffer, uLong size);
  bool covers(uint64_t offset, uint64_t length) const;
  // Reads the window from `offset` on. Near the end the window ends with
  // the file: minizip's backward searches for the directory's end all fall
  // into one window.
  void refill(uint64_t offset);
  // The bytes [offset, offset + length) of the file, in the window until it
  // moves; null when the file doesn't give them. `length` is at most
  // kWindowSize.
  const char* view(uint64_t offset, std::size_t length);
  // Reads exactly `length` bytes at `offset` through the window, leaving
  // minizip's position as it was.
  bool copyAt(uint64_t offset, void* target, std::size_t length);
  // Reads `length` bytes at `offset` into `target`; seeks only when the
  // stream isn't already there. Returns the count read.
  std::size_t fill(char* target, uint64_t offset, std::size_t length);

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
unzFile openArchive(const std::string& path);

}  // namespace zrx

#endif  // ZRX2DSTICKER_ARCHIVE_ARCHIVESTREAM_H_
