/* The floors that the library's extraction and installed check are held
 * against: the least that the same minizip calls and the same file-system
 * questions cost, with nothing of the library around them.
 *
 *   zrx-bench-floor inflate ARCHIVE.zip [BUFFER_SIZE]
 *     Inflates every entry through unzReadCurrentFile with a 4096-byte
 *     buffer (or BUFFER_SIZE bytes) and writes nothing.
 *   zrx-bench-floor list-stat ROOT NAMES.txt
 *     For each sticker NAME (one a line): lists ROOT/NAME/NAME.zip with
 *     minizip and stats ROOT/NAME/ENTRY for every entry, comparing sizes.
 *   zrx-bench-floor stat PATHS.txt
 *     Stats every path (one a line).
 * Each prints what it counted; exits 1 when something didn't match. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unzip.h>

enum { kCopyBufferSize = 4096, kNameBufferSize = 512, kPathSize = 4096 };

static int inflateAll(const char* path, unsigned size) {
  unzFile archive = unzOpen64(path);
  if (archive == NULL) return 1;
  char* buffer = malloc(size);
  if (buffer == NULL) return 1;
  unsigned long long total = 0, entries = 0;
  int status = unzGoToFirstFile(archive);
  while (status == UNZ_OK) {
    if (unzOpenCurrentFile(archive) != UNZ_OK) break;
    int got;
    while ((got = unzReadCurrentFile(archive, buffer, size)) > 0) {
      total += (unsigned long long)got;
    }
    unzCloseCurrentFile(archive);
    if (got < 0) break;
    ++entries;
    status = unzGoToNextFile(archive);
  }
  unzClose(archive);
  free(buffer);
  printf("entries=%llu inflated_bytes=%llu\n", entries, total);
  return status == UNZ_END_OF_LIST_OF_FILE ? 0 : 1;
}

/* Reads the next line into `line` without its line end; 0 at the end. */
static int nextLine(FILE* file, char* line, size_t size) {
  if (fgets(line, (int)size, file) == NULL) return 0;
  line[strcspn(line, "\r\n")] = '\0';
  return 1;
}

static int listAndStat(const char* root, const char* namesPath) {
  FILE* names = fopen(namesPath, "r");
  if (names == NULL) return 1;
  char name[kPathSize], path[kPathSize], entry[kNameBufferSize];
  unsigned long long stickers = 0, checked = 0, mismatched = 0;
  while (nextLine(names, name, sizeof name)) {
    const int made =
        snprintf(path, sizeof path, "%s/%s/%s.zip", root, name, name);
    unzFile archive =
        made > 0 && (size_t)made < sizeof path ? unzOpen64(path) : NULL;
    if (archive == NULL) {
      ++mismatched;
      continue;
    }
    int status = unzGoToFirstFile(archive);
    while (status == UNZ_OK) {
      unz_file_info64 info;
      if (unzGetCurrentFileInfo64(archive, &info, entry, sizeof entry, NULL, 0,
                                  NULL, 0) != UNZ_OK) {
        break;
      }
      const int made =
          snprintf(path, sizeof path, "%s/%s/%s", root, name, entry);
      struct stat st;
      const size_t length = strlen(entry);
      if (made < 0 || (size_t)made >= sizeof path || stat(path, &st) != 0 ||
          (length > 0 && entry[length - 1] != '/' &&
           (unsigned long long)st.st_size != info.uncompressed_size)) {
        ++mismatched;
      }
      ++checked;
      status = unzGoToNextFile(archive);
    }
    unzClose(archive);
    ++stickers;
  }
  fclose(names);
  printf("stickers=%llu entries=%llu mismatched=%llu\n", stickers, checked,
         mismatched);
  return mismatched == 0 ? 0 : 1;
}

static int statAll(const char* pathsPath) {
  FILE* paths = fopen(pathsPath, "r");
  if (paths == NULL) return 1;
  char path[kPathSize];
  unsigned long long checked = 0, missing = 0;
  while (nextLine(paths, path, sizeof path)) {
    struct stat st;
    if (stat(path, &st) != 0) ++missing;
    ++checked;
  }
  fclose(paths);
  printf("paths=%llu missing=%llu\n", checked, missing);
  return missing == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
  if ((argc == 3 || argc == 4) && strcmp(argv[1], "inflate") == 0) {
    const long size = argc == 4 ? atol(argv[3]) : kCopyBufferSize;
    return size > 0 ? inflateAll(argv[2], (unsigned)size) : 2;
  }
  if (argc == 4 && strcmp(argv[1], "list-stat") == 0) {
    return listAndStat(argv[2], argv[3]);
  }
  if (argc == 3 && strcmp(argv[1], "stat") == 0) return statAll(argv[2]);
  fprintf(stderr,
          "usage: zrx-bench-floor inflate ARCHIVE.zip [BUFFER_SIZE]\n"
          "       zrx-bench-floor list-stat ROOT NAMES.txt\n"
          "       zrx-bench-floor stat PATHS.txt\n");
  return 2;
}
