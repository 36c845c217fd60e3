// Fuzzes the zip reader: the input bytes are an archive file, listed with
// listZipEntries and extracted with unzipToDirectory into a directory of a
// per-process temp tree. Checked on every input:
// - nothing in the temp tree outside the target is created, written,
//   removed or renamed while the reader runs (inotify watches the root and
//   every level), and the target holds only files and directories. The
//   target sits deep enough (climbLevels) that no path the reader may write
//   (at most zrx::kMaxPathLength bytes) climbs out of the watched tree with
//   "..";
// - every listed name is safe (non-empty, shorter than the name buffer, no
//   NUL, not absolute, no ".." component);
// - an archive holding an unsafe name among the entries the listing reads
//   lists empty and fails to extract;
// - every regular file the extraction writes is a listed name, and an
//   extraction that succeeds writes every listed file entry; when the
//   listing is empty for want of entries, nothing is written at all;
// - the listing agrees with a walk of the central directory done here
//   (order of reading, later duplicate wins, end at the first bad entry),
//   and an archive with bytes in front of it (its directory does not end
//   where its end record begins) lists empty and fails to extract;
// - no descriptor outlives a call, no memory leaks (LeakSanitizer).
// A violation prints what broke and traps.
//
// To keep each run short and the disk safe, inputs over kMaxInputSize are
// skipped, extraction is skipped when the entries could yield more than
// kMaxExtractedBytes or number more than kMaxExtractedEntries, and every
// file is capped at kFileSizeLimit by RLIMIT_FSIZE (a write past it fails
// with EFBIG, so the extraction fails, instead of raising SIGXFSZ).
#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unzip.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <type_traits>
#include <vector>

#include "archive/ZipReader.h"
#include "names/NameRule.h"

namespace {

constexpr std::size_t kMaxInputSize = std::size_t{1} << 20;
constexpr uint64_t kMaxExtractedBytes = uint64_t{64} << 20;
constexpr uint64_t kMaxExtractedEntries = 4096;
constexpr rlim_t kFileSizeLimit = rlim_t{64} << 20;
// Deflate expands a byte into at most 1032.
constexpr uint64_t kMaxInflateRatio = 1032;
// Levels of "d" below `root` for the target: the reader writes no path past
// kMaxPathLength bytes, so a name climbs at most (kMaxPathLength - length of
// target - 1) / 3 levels ("../" a level); this many levels cover that, and
// leave room for names of over a hundred bytes to be extracted.
unsigned climbLevels(const std::string& root) {
  // target = root + 2 bytes a level + "/out"; need 3 * levels >= rest.
  const std::size_t fixed = root.size() + 4 + 1;
  if (fixed >= zrx::kMaxPathLength) return 1;
  return static_cast<unsigned>((zrx::kMaxPathLength - fixed) / 5 + 1);
}

void require(bool condition, const char* what, const std::string& detail) {
  if (condition) return;
  std::fprintf(stderr, "ZipReaderFuzzer: invariant broken: %s [%s]\n", what,
               detail.c_str());
  __builtin_trap();
}

void require(bool condition, const char* what) { require(condition, what, ""); }

// The temp tree of this process: root/input.zip and the target
// root/d/d/.../d/out, climbLevels(root) "d" levels deep.
constexpr char kArchiveName[] = "input.zip";
constexpr char kLevelName[] = "d";
constexpr char kTargetName[] = "out";
struct Tree {
  std::string root, archive, target;
  // Open from start to exit: the walks after each input start here, not
  // from a path through every level.
  int targetFd = -1;
};
Tree gTree;

// The tree is walked with descriptors relative to their parent: a deep path
// resolved from the root on every step would cost time quadratic in depth.
int openDirectoryAt(int dirFd, const std::string& name) {
  const int fd = ::openat(dirFd, name.c_str(),
                          O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  require(fd >= 0, "a directory of the temp tree opens", name);
  return fd;
}

// Names in the directory open at `dirFd`, without "." and "..".
std::set<std::string> namesIn(int dirFd) {
  DIR* dir = ::fdopendir(openDirectoryAt(dirFd, "."));
  require(dir != nullptr, "a directory of the temp tree is read");
  std::set<std::string> names;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name(entry->d_name);
    if (name != "." && name != "..") names.insert(name);
  }
  ::closedir(dir);
  return names;
}

mode_t typeAt(int dirFd, const std::string& name) {
  struct stat info;
  require(::fstatat(dirFd, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0,
          "an entry of the temp tree can be read", name);
  return info.st_mode & S_IFMT;
}

// What the extraction left in the target.
struct TargetContents {
  std::set<std::string> files;  // regular files, relative to the target
  std::size_t directories = 0;
};

void walkTarget(int dirFd, const std::string& prefix,
                TargetContents& contents) {
  for (const std::string& name : namesIn(dirFd)) {
    const std::string path = prefix + name;
    const mode_t type = typeAt(dirFd, name);
    if (type == S_IFREG) {
      contents.files.insert(path);
    } else if (type == S_IFDIR) {
      ++contents.directories;
      const int fd = openDirectoryAt(dirFd, name);
      walkTarget(fd, path + "/", contents);
      ::close(fd);
    } else {
      require(false, "only files and directories are made", path);
    }
  }
}

// Walks the target; what it holds, by a path relative to it.
TargetContents walkTarget() {
  TargetContents contents;
  walkTarget(gTree.targetFd, "", contents);
  return contents;
}

void emptyDirectory(int dirFd) {
  for (const std::string& name : namesIn(dirFd)) {
    int flags = 0;
    if (typeAt(dirFd, name) == S_IFDIR) {
      const int fd = openDirectoryAt(dirFd, name);
      emptyDirectory(fd);
      ::close(fd);
      flags = AT_REMOVEDIR;
    }
    require(::unlinkat(dirFd, name.c_str(), flags) == 0,
            "the temp tree can be removed", name);
  }
}

void removeTree(const std::string& path) {
  const int fd = openDirectoryAt(AT_FDCWD, path);
  emptyDirectory(fd);
  ::close(fd);
  require(::rmdir(path.c_str()) == 0, "the temp tree can be removed", path);
}

// Every change made in the root and in each level is queued here, so one
// read after a call tells whether anything outside the target was created,
// written, removed or renamed. (Reads of the archive are not changes.)
constexpr uint32_t kChangeEvents = IN_CREATE | IN_DELETE | IN_MODIFY |
                                   IN_ATTRIB | IN_CLOSE_WRITE | IN_MOVED_FROM |
                                   IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
int gWatch = -1;
// Watch descriptor to its directory, "<root>/d{N}" for level N.
std::map<int, std::string> gWatched;

void watch(const std::string& dir, unsigned level) {
  const int wd = ::inotify_add_watch(gWatch, dir.c_str(), kChangeEvents);
  require(wd >= 0, "a level of the temp tree can be watched", dir);
  gWatched[wd] = "<root>" + (level == 0 ? std::string()
                                        : "/d{" + std::to_string(level) + "}");
}

// The changes queued since the last call, as "directory/name mask".
std::vector<std::string> takeChanges() {
  std::vector<std::string> changes;
  alignas(inotify_event) char buffer[16 * 1024];
  for (;;) {
    const ssize_t n = ::read(gWatch, buffer, sizeof buffer);
    if (n <= 0) {
      require(n < 0 && errno == EAGAIN, "the watch can be read");
      return changes;
    }
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      if ((event->mask & IN_Q_OVERFLOW) != 0) {
        changes.push_back("(changes lost: queue overflow)");
      } else {
        char mask[16];
        std::snprintf(mask, sizeof mask, " 0x%x", event->mask);
        changes.push_back(gWatched[event->wd] + "/" +
                          (event->len != 0 ? event->name : "") + mask);
      }
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
    }
  }
}

void removeTempTree() {
  ::close(gWatch);
  ::close(gTree.targetFd);
  removeTree(gTree.root);
}

// The lowest free descriptor: equal before and after a call when the call
// closed all it opened.
int lowestFreeDescriptor() {
  const int fd = ::fcntl(gWatch, F_DUPFD_CLOEXEC, 0);
  require(fd >= 0, "a descriptor can be duplicated");
  ::close(fd);
  return fd;
}

// Safe by the rules the reader promises, written apart from its own test:
// not absolute, no backslash, and no component that is "..", holds a byte
// below 0x20 or one of <>:"|?*, ends in '.' or ' ' (but for "."), is longer
// than 255 bytes, or names a Win32 device (with or without an extension).
bool isDeviceComponent(std::string component) {
  component = component.substr(0, component.find('.'));
  while (!component.empty() && component.back() == ' ') component.pop_back();
  for (char& c : component) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  static const std::set<std::string> kDevices = [] {
    std::set<std::string> devices = {"CON", "PRN",    "AUX",
                                     "NUL", "CONIN$", "CONOUT$"};
    for (const char* stem : {"COM", "LPT"}) {
      for (char d = '1'; d <= '9'; ++d) devices.insert(std::string(stem) + d);
      for (const char* sup :
           {"\xB9", "\xB2", "\xB3", "\xC2\xB9", "\xC2\xB2", "\xC2\xB3"}) {
        devices.insert(std::string(stem) + sup);
      }
    }
    return devices;
  }();
  return kDevices.count(component) != 0;
}

bool isSafeName(const std::string& name) {
  if (name.empty() || name.size() >= zrx::kZipNameBufferSize) return false;
  if (name.find('\0') != std::string::npos) return false;
  if (name[0] == '/' || name.find('\\') != std::string::npos) return false;
  std::size_t start = 0;
  while (start <= name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    const std::string component = name.substr(start, end - start);
    start = end + 1;
    if (component.empty() || component == ".") continue;
    if (component == ".." || component.size() > 255) return false;
    for (unsigned char c : component) {
      if (c < 0x20 || std::string("<>:\"|?*").find(static_cast<char>(c)) !=
                          std::string::npos) {
        return false;
      }
    }
    if (component.back() == '.' || component.back() == ' ') return false;
    if (isDeviceComponent(component)) return false;
  }
  return true;
}

bool isDirectoryName(const std::string& name) {
  return name.back() == '/' || name.back() == '\\';
}

// The path a name is written at, relative to the target, as the walk sees
// it: "/" separates, empty and "." components vanish.
std::string normalized(const std::string& name) {
  std::string out, component;
  for (std::size_t i = 0; i <= name.size(); ++i) {
    if (i == name.size() || name[i] == '/') {
      if (!component.empty() && component != ".") {
        if (!out.empty()) out += '/';
        out += component;
      }
      component.clear();
    } else {
      component += name[i];
    }
  }
  return out;
}

uint64_t littleEndian(const uint8_t* bytes, unsigned count) {
  uint64_t value = 0;
  while (count-- > 0) value = (value << 8) | bytes[count];
  return value;
}

// Whether bytes stand in front of the archive, judged from the records
// minizip takes: the last "PK\5\6", or the zip64 record that the last
// "PK\6\7" points to where its disk fields are 0 and 1, both signatures
// searched in the last 64 KiB - 1 bytes. The directory of an archive
// without a prefix ends where that record begins.
bool hasPrefix(const uint8_t* data, std::size_t size) {
  const std::size_t from = size > 0xFFFF ? size - 0xFFFF : 0;
  auto last = [&](uint8_t third, uint8_t fourth) -> std::size_t {
    for (std::size_t end = size; end >= 4 && end - 4 >= from; --end) {
      const uint8_t* at = data + end - 4;
      if (at[0] == 'P' && at[1] == 'K' && at[2] == third && at[3] == fourth) {
        return end - 4;
      }
    }
    return SIZE_MAX;
  };
  const std::size_t locator = last(6, 7);
  if (locator != SIZE_MAX && locator + 20 <= size &&
      littleEndian(data + locator + 4, 4) == 0 &&
      littleEndian(data + locator + 16, 4) == 1) {
    const uint64_t record = littleEndian(data + locator + 8, 8);
    if (size >= 56 && record <= size - 56 &&
        std::memcmp(data + record, "PK\6\6", 4) == 0) {
      return littleEndian(data + record + 48, 8) +
                 littleEndian(data + record + 40, 8) !=
             record;
    }
  }
  const std::size_t end = last(5, 6);
  return end == SIZE_MAX || end + 22 > size ||
         littleEndian(data + end + 16, 4) + littleEndian(data + end + 12, 4) !=
             end;
}

// What a walk of the central directory, done here with minizip, tells.
struct CentralDirectory {
  // Names and sizes up to the first entry the listing can't read.
  std::map<std::string, uint64_t> readable;
  // Whether the listing, before it stops, meets an unsafe name.
  bool unsafe = false;
  // Whether minizip reads the archive behind bytes in front of it.
  bool prefixed = false;
  // Upper bound of what extracting all entries can write, and their count.
  uint64_t bytes = 0;
  uint64_t entries = 0;
};

// The input as a file to minizip, read from memory: the walk below makes
// no system call, where minizip's own stdio access costs several per field
// read past the end (an extra field that lies past it is read 2 bytes a
// step). Reads, seeks and errors follow stdio's rules: a seek may pass the
// end, a read there gets nothing, and only a position beyond off_t fails.
// Left out of the coverage feedback: its branches tell nothing about the
// reader, and minizip calls it for every byte of a header.
#define ZRX_NO_COVERAGE __attribute__((no_sanitize("coverage")))
class MemoryFile {
 public:
  MemoryFile(const uint8_t* data, std::size_t size)
      : data_(data), size_(size) {}

  zlib_filefunc64_def access() {
    zlib_filefunc64_def functions = {};
    functions.opaque = this;
    functions.zopen64_file = &open;
    functions.zread_file = &read;
    functions.zwrite_file = &write;
    functions.ztell64_file = &tell;
    functions.zseek64_file = &seek;
    functions.zclose_file = &close;
    functions.zerror_file = &close;  // never an error: 0
    return functions;
  }

 private:
  ZRX_NO_COVERAGE static voidpf ZCALLBACK open(voidpf self, const void*, int) {
    return self;
  }

  ZRX_NO_COVERAGE static uLong ZCALLBACK read(voidpf, voidpf stream,
                                              void* buffer, uLong size) {
    auto* self = static_cast<MemoryFile*>(stream);
    if (self->position_ >= self->size_) return 0;
    const uint64_t count =
        std::min<uint64_t>(size, self->size_ - self->position_);
    std::memcpy(buffer, self->data_ + self->position_,
                static_cast<std::size_t>(count));
    self->position_ += count;
    return static_cast<uLong>(count);
  }

  ZRX_NO_COVERAGE static uLong ZCALLBACK write(voidpf, voidpf, const void*,
                                               uLong) {
    return 0;
  }

  ZRX_NO_COVERAGE static ZPOS64_T ZCALLBACK tell(voidpf, voidpf stream) {
    return static_cast<MemoryFile*>(stream)->position_;
  }

  ZRX_NO_COVERAGE static long ZCALLBACK seek(voidpf, voidpf stream,
                                             ZPOS64_T offset, int origin) {
    auto* self = static_cast<MemoryFile*>(stream);
    const uint64_t base = origin == ZLIB_FILEFUNC_SEEK_SET   ? 0
                          : origin == ZLIB_FILEFUNC_SEEK_CUR ? self->position_
                                                             : self->size_;
    constexpr uint64_t kMaxOffset = INT64_MAX;
    if (offset > kMaxOffset || base > kMaxOffset - offset) return -1;
    self->position_ = base + offset;
    return 0;
  }

  ZRX_NO_COVERAGE static int ZCALLBACK close(voidpf, voidpf) { return 0; }

  const uint8_t* data_;
  uint64_t size_;
  uint64_t position_ = 0;
};

CentralDirectory walkCentralDirectory(const uint8_t* data,
                                      std::size_t fileSize) {
  CentralDirectory result;
  MemoryFile file(data, fileSize);
  zlib_filefunc64_def access = file.access();
  const std::unique_ptr<std::remove_pointer_t<unzFile>, int (*)(unzFile)> owner(
      unzOpen2_64("input", &access), unzClose);
  unzFile archive = owner.get();
  if (archive == nullptr) return result;
  unz_global_info64 global;
  if (unzGetGlobalInfo64(archive, &global) != UNZ_OK) return result;
  result.prefixed = hasPrefix(data, fileSize);
  bool listing = true;  // the listing still reads entries
  for (uint64_t index = 0; index < global.number_entry; ++index) {
    unz_file_info64 info;
    char buffer[zrx::kZipNameBufferSize];
    if (unzGetCurrentFileInfo64(archive, &info, buffer, sizeof buffer, nullptr,
                                0, nullptr, 0) != UNZ_OK) {
      break;
    }
    ++result.entries;
    // minizip stops every entry at its listed size, and what it reads of
    // the archive bounds what it can inflate.
    const uint64_t readBound =
        kMaxInflateRatio * std::min<uint64_t>(info.compressed_size, fileSize) +
        zrx::kZipCopyBufferSize;
    result.bytes += std::min<uint64_t>(info.uncompressed_size, readBound);
    if (listing) {
      const std::size_t length = info.size_filename;
      const std::string name(buffer,
                             std::min<std::size_t>(length, sizeof buffer));
      if (length >= sizeof buffer || name.empty() ||
          name.find('\0') != std::string::npos) {
        listing = false;
      } else if (!isSafeName(name)) {
        result.unsafe = true;
        listing = false;
      } else {
        result.readable[name] = info.uncompressed_size;
      }
    }
    if (index + 1 < global.number_entry && unzGoToNextFile(archive) != UNZ_OK) {
      break;
    }
  }
  return result;
}

void writeArchive(const uint8_t* data, std::size_t size) {
  // A new file each run: ext4 flushes a file that is truncated and written
  // again on its close, which would cost milliseconds per run.
  ::unlink(gTree.archive.c_str());
  const int fd = ::open(gTree.archive.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  require(fd >= 0, "the archive can be written", gTree.archive);
  for (std::size_t done = 0; done < size;) {
    const ssize_t n = ::write(fd, data + done, size - done);
    require(n > 0, "the archive is written");
    done += static_cast<std::size_t>(n);
  }
  require(::close(fd) == 0, "the archive is closed");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  const char* tmp = std::getenv("TMPDIR");
  std::string pattern = std::string(tmp != nullptr && *tmp ? tmp : "/tmp") +
                        "/zrx-zipfuzz-XXXXXX";
  require(::mkdtemp(&pattern[0]) != nullptr, "a temp directory is made",
          pattern);
  gTree.root = pattern;
  gTree.archive = gTree.root + "/" + kArchiveName;
  gWatch = ::inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  require(gWatch >= 0, "inotify is available");
  std::string dir = gTree.root;
  watch(dir, 0);
  const unsigned levels = climbLevels(gTree.root);
  for (unsigned level = 1; level <= levels; ++level) {
    dir += std::string("/") + kLevelName;
    require(::mkdir(dir.c_str(), 0700) == 0, "the levels are made", dir);
    watch(dir, level);
  }
  gTree.target = dir + "/" + kTargetName;
  require(::mkdir(gTree.target.c_str(), 0700) == 0, "the target is made");
  gTree.targetFd = openDirectoryAt(AT_FDCWD, gTree.target);
  std::atexit(removeTempTree);

  struct rlimit limit;
  require(::getrlimit(RLIMIT_FSIZE, &limit) == 0, "RLIMIT_FSIZE is read");
  if (limit.rlim_cur == RLIM_INFINITY || limit.rlim_cur > kFileSizeLimit) {
    limit.rlim_cur = kFileSizeLimit;
    require(::setrlimit(RLIMIT_FSIZE, &limit) == 0, "RLIMIT_FSIZE is set");
  }
  std::signal(SIGXFSZ, SIG_IGN);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  if (size > kMaxInputSize) return 0;
  writeArchive(data, size);
  // Our own change (the archive) is not the reader's.
  static_cast<void>(takeChanges());
  const int freeDescriptor = lowestFreeDescriptor();

  const CentralDirectory central = walkCentralDirectory(data, size);
  const zipEntryMap listed = listZipEntries(gTree.archive);
  require(lowestFreeDescriptor() == freeDescriptor,
          "listing closes what it opens");

  std::set<std::string> listedFiles;
  for (const auto& entry : listed) {
    require(isSafeName(entry.first), "every listed name is safe", entry.first);
    if (!isDirectoryName(entry.first)) {
      listedFiles.insert(normalized(entry.first));
    }
  }
  if (central.unsafe || central.prefixed) {
    require(listed.empty(),
            "an archive with an unsafe name or a prefix lists empty");
  } else {
    require(listed.size() == central.readable.size(),
            "the listing holds every readable entry");
    for (const auto& entry : central.readable) {
      const auto it = listed.find(entry.first);
      require(it != listed.end(), "a readable entry is listed", entry.first);
      // minizip 1.1 leaves the zip64 marker in place of a large size; the
      // listing reads the zip64 field itself then.
      require(entry.second == 0xFFFFFFFFu || it->second == entry.second,
              "a listed size is the entry's last size", entry.first);
    }
  }

  bool extracted = false;
  const bool attempted = central.bytes <= kMaxExtractedBytes &&
                         central.entries <= kMaxExtractedEntries;
  if (attempted) {
    extracted = unzipToDirectory(gTree.archive, gTree.target);
    require(lowestFreeDescriptor() == freeDescriptor,
            "extraction closes what it opens");
  }

  const std::vector<std::string> changes = takeChanges();
  std::string allChanges;
  for (const std::string& change : changes) allChanges += change + "; ";
  require(changes.empty(), "nothing changes outside the target", allChanges);
  const TargetContents walk = walkTarget();

  if (central.unsafe || central.prefixed) {
    require(!extracted, "an unsafe name or a prefix fails extraction");
  }
  if (listed.empty() && !central.unsafe) {
    require(walk.files.empty() && walk.directories == 0,
            "an archive that lists nothing writes nothing");
  }
  if (!listed.empty() || extracted) {
    for (const std::string& file : walk.files) {
      require(listedFiles.count(file) != 0, "every file written is listed",
              file);
    }
  }
  if (extracted) {
    for (const std::string& file : listedFiles) {
      require(walk.files.count(file) != 0,
              "a successful extraction writes every listed file", file);
    }
  }

  if (!walk.files.empty() || walk.directories != 0) {
    emptyDirectory(gTree.targetFd);
  }
  return 0;
}
