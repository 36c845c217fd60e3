// Where a sticker lies on disk. Worked out anew wherever needed, never
// stored; only bytes are joined, always with '/'.
#ifndef ZRX2DSTICKER_DOWNLOAD_STICKERPATHS_H_
#define ZRX2DSTICKER_DOWNLOAD_STICKERPATHS_H_

#include <string>

class ZRX2DStickerResItem;

namespace zrx {

struct StickerPaths {
  // downloadPath, plus "/" and dirName when dirName is not empty.
  std::string stickerDir;
  // stickerDir, "/", fileName: the fetched file, and for an archive the
  // stored archive that the installed check lists.
  std::string stickerFilePath;

  static StickerPaths of(const std::string& downloadPath,
                         const ZRX2DStickerResItem& item);
};

// fileName up to (not including) its last '.', or all of it without one.
std::string fileStemOf(const std::string& fileName);

// Directory that receives an archive's entries: for unzipType 3 a directory
// of its own, stickerDir + "/" + the file's stem; else stickerDir itself.
std::string extractDirFor(int unzipType, const std::string& stickerDir,
                          const std::string& fileName);

// Directory of the host's executable (the process's main program, not this
// library): the name cut before its last '/' or '\', without the separator;
// a name with neither stays whole. The default download path, and the
// place below which the CA bundle lies.
std::string executableDirectory();

}  // namespace zrx

#endif  // ZRX2DSTICKER_DOWNLOAD_STICKERPATHS_H_
