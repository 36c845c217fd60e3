// Extracts one archive with the library's extractor, as the unzip worker
// does for a sticker, and prints the wall time.
//   zrx-bench-extract ARCHIVE.zip TARGET_DIR
#include <chrono>
#include <cstdio>

#include "archive/ZipReader.h"

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: zrx-bench-extract ARCHIVE.zip TARGET_DIR\n");
    return 2;
  }
  const auto start = std::chrono::steady_clock::now();
  const bool done = unzipToDirectory(argv[1], argv[2]);
  const std::chrono::duration<double, std::milli> wall =
      std::chrono::steady_clock::now() - start;
  std::printf("wall_ms=%.3f done=%d\n", wall.count(), done ? 1 : 0);
  return done ? 0 : 1;
}
