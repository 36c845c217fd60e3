#include "download/StickerPaths.h"

#include "platform/Platform.h"
#include "zrx2dsticker/ZRResourceDownloadManager.h"

namespace zrx {

StickerPaths StickerPaths::of(const std::string& downloadPath,
                              const ZRX2DStickerResItem& item) {
  StickerPaths paths;
  paths.stickerDir.reserve(downloadPath.size() + item.dirName.size() + 1);
  paths.stickerDir = downloadPath;
  if (!item.dirName.empty()) {
    paths.stickerDir += '/';
    paths.stickerDir += item.dirName;
  }
  paths.stickerFilePath.reserve(paths.stickerDir.size() +
                                item.fileName.size() + 1);
  paths.stickerFilePath = paths.stickerDir;
  paths.stickerFilePath += '/';
  paths.stickerFilePath += item.fileName;
  return paths;
}

std::string fileStemOf(const std::string& fileName) {
  const std::string::size_type dot = fileName.rfind('.');
  return dot == std::string::npos ? fileName : fileName.substr(0, dot);
}

std::string extractDirFor(int unzipType, const std::string& stickerDir,
                          const std::string& fileName) {
  if (unzipType != 3) return stickerDir;
  return stickerDir + "/" + fileStemOf(fileName);
}

std::string executableDirectory() {
  char buffer[platform::kModuleFileNameSize] = {};
  platform::moduleFileName(buffer, sizeof(buffer));
  std::string name(buffer);
  // The last separator character; in a double-byte code page a trail byte
  // may equal '\\' (the name comes in the ANSI code page).
  std::string::size_type cut = std::string::npos;
  for (std::size_t i = 0; i < name.size();) {
    const std::size_t size =
        platform::narrowCharacterLength(name.data() + i, name.size() - i);
    if (size == 1 && (name[i] == '\\' || name[i] == '/')) cut = i;
    i += size;
  }
  if (cut != std::string::npos) name.resize(cut);
  return name;
}

}  // namespace zrx
