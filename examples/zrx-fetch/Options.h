// zrx-fetch's command line.
#ifndef ZRX_FETCH_OPTIONS_H_
#define ZRX_FETCH_OPTIONS_H_

#include <cstdint>
#include <string>

// The built-in server's port when none is given: fixed, so that the URLs of
// a served list, and with them the directories named after their digests,
// stay the same from one run to the next. It lies below the range the
// system hands out for port 0, so no other program gets it by chance.
constexpr int kDefaultServePort = 28730;
// The sample catalogue is paced to this rate so that its progress can be
// watched; it is a few dozen KiB.
constexpr int64_t kCatalogueRate = 48 * 1024;

struct Options {
  std::string list;  // path, "-" or URL; empty: the sample catalogue
  std::string dir = "./stickers";
  std::string only;  // resId for --only; empty: all
  bool onlyGiven = false;
  int timeoutSeconds = 0;  // 0: no limit
  bool logLevelGiven = false;
  int logLevel = 1;
  bool quiet = false;
  std::string serveDir;  // --serve; empty: none (but see the catalogue)
  int servePort = kDefaultServePort;
  int64_t serveRate = -1;  // -1: not given
  bool help = false;
  bool version = false;
};

// Fills `options` from the arguments. On a usage error returns false with
// the reason in `error`.
bool parseOptions(int argc, char** argv, Options& options, std::string& error);

// The text of --help.
std::string usageText();

#endif  // ZRX_FETCH_OPTIONS_H_
