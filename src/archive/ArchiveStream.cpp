#include "archive/ArchiveStream.h"

#include <algorithm>
#include <cstring>
#include <utility>

#include "platform/Platform.h"

namespace zrx {

namespace {

// The zip64 end locator and the zip64 end record up to the directory's
// offset, its last field read here.
constexpr std::size_t kZip64LocatorSize = 20;
constexpr std::size_t kZip64RecordSize = 56;

}  // namespace

voidpf ZCALLBACK ArchiveStream::openStream(voidpf opened, const void* path,
                                           int mode) {
  if ((mode & ZLIB_FILEFUNC_MODE_READWRITEFILTER) != ZLIB_FILEFUNC_MODE_READ) {
    return nullptr;
  }
  FileOwner file(platform::openFile(static_cast<const char*>(path), "rb"));
  if (!file) return nullptr;
  // Reads go straight into the window; the size comes from one lseek(2).
  std::setvbuf(file.get(), nullptr, _IONBF, 0);
  if (platform::seekFile(file.get(), 0, SEEK_END) != 0) return nullptr;
  const int64_t size = platform::tellFile(file.get());
  if (size < 0) return nullptr;
  auto* stream =
      new ArchiveStream(std::move(file), static_cast<uint64_t>(size));
  *static_cast<ArchiveStream**>(opened) = stream;
  return stream;
}

bool ArchiveStream::directoryEndsAtItsRecord() {
  const std::size_t back =
      static_cast<std::size_t>(std::min<uint64_t>(size_, kMaxCommentSize));
  const uint64_t from = size_ - back;
  const char* tail = view(from, back);
  if (tail == nullptr) return false;
  // Offset of the last "PK" `third` `fourth` that lies whole in the tail,
  // or -1.
  const auto lastSignature = [&](char third, char fourth) -> int64_t {
    for (std::size_t end = back; end >= 4;) {  // searches [0, end - 3)
      const void* p = platform::findLastByte(tail, 'P', end - 3);
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
      return readLittleEndian64(&field[48]) + readLittleEndian64(&field[40]) ==
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

uLong ZCALLBACK ArchiveStream::readStream(voidpf, voidpf stream, void* buffer,
                                          uLong size) {
  return static_cast<ArchiveStream*>(stream)->readAt(buffer, size);
}

uLong ZCALLBACK ArchiveStream::writeStream(voidpf, voidpf, const void*, uLong) {
  return 0;
}

ZPOS64_T ZCALLBACK ArchiveStream::tellStream(voidpf, voidpf stream) {
  return static_cast<ArchiveStream*>(stream)->position_;
}

long ZCALLBACK ArchiveStream::seekStream(voidpf, voidpf stream, ZPOS64_T offset,
                                         int origin) {
  auto* self = static_cast<ArchiveStream*>(stream);
  uint64_t base = 0;
  if (origin == ZLIB_FILEFUNC_SEEK_CUR) base = self->position_;
  if (origin == ZLIB_FILEFUNC_SEEK_END) base = self->size_;
  self->position_ = base + offset;
  return 0;
}

int ZCALLBACK ArchiveStream::closeStream(voidpf, voidpf stream) {
  delete static_cast<ArchiveStream*>(stream);
  return 0;
}

int ZCALLBACK ArchiveStream::errorStream(voidpf, voidpf stream) {
  return static_cast<ArchiveStream*>(stream)->failed_ ? 1 : 0;
}

ArchiveStream::ArchiveStream(FileOwner file, uint64_t size)
    : file_(std::move(file)),
      size_(size),
      filePosition_(size),
      window_(new char[kWindowSize]) {}

uLong ArchiveStream::readAt(void* buffer, uLong size) {
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
  const uint64_t have =
      std::min<uint64_t>(wanted, windowStart_ + windowLength_ > position_
                                     ? windowStart_ + windowLength_ - position_
                                     : 0);
  if (have == 0) return 0;
  std::memcpy(buffer, window_.get() + (position_ - windowStart_),
              static_cast<std::size_t>(have));
  position_ += have;
  return static_cast<uLong>(have);
}

bool ArchiveStream::covers(uint64_t offset, uint64_t length) const {
  return offset >= windowStart_ &&
         offset + length <= windowStart_ + windowLength_;
}

void ArchiveStream::refill(uint64_t offset) {
  uint64_t start = offset;
  if (start + kWindowSize > size_) {
    start = size_ > kWindowSize ? size_ - kWindowSize : 0;
  }
  windowStart_ = start;
  windowLength_ = fill(
      window_.get(), start,
      static_cast<std::size_t>(std::min<uint64_t>(kWindowSize, size_ - start)));
}

const char* ArchiveStream::view(uint64_t offset, std::size_t length) {
  if (!covers(offset, length)) refill(offset);
  return covers(offset, length) ? window_.get() + (offset - windowStart_)
                                : nullptr;
}

bool ArchiveStream::copyAt(uint64_t offset, void* target, std::size_t length) {
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

std::size_t ArchiveStream::fill(char* target, uint64_t offset,
                                std::size_t length) {
  if (offset != filePosition_) {
    if (platform::seekFile(file_.get(), static_cast<int64_t>(offset),
                           SEEK_SET) != 0) {
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

}  // namespace zrx
