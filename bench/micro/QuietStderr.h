// Sends stderr, the library's debug channel, to /dev/null for the life of
// the object, so that a benchmark times the write and not a terminal.
#ifndef ZRX2DSTICKER_BENCH_MICRO_QUIETSTDERR_H_
#define ZRX2DSTICKER_BENCH_MICRO_QUIETSTDERR_H_

#include <fcntl.h>
#include <unistd.h>

class QuietStderr {
 public:
  QuietStderr() : saved_(dup(STDERR_FILENO)) {
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDERR_FILENO);
    close(null);
  }
  ~QuietStderr() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
  }
  QuietStderr(const QuietStderr&) = delete;
  QuietStderr& operator=(const QuietStderr&) = delete;

 private:
  int saved_;
};

#endif  // ZRX2DSTICKER_BENCH_MICRO_QUIETSTDERR_H_
