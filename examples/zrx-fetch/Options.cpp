#include "Options.h"

#include <cerrno>
#include <cstdlib>
#include <limits>

namespace {

// A whole decimal number in [low, high]; false for anything else.
bool parseNumber(const std::string& text, int64_t low, int64_t high,
                 int64_t& value) {
  if (text.empty()) return false;
  char* end = nullptr;
  errno = 0;
  const long long parsed = std::strtoll(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || parsed < low || parsed > high) {
    return false;
  }
  value = parsed;
  return true;
}

}  // namespace

std::string usageText() {
  return R"(Usage: zrx-fetch [options] [LIST]

Installs the stickers of LIST into a download directory with zrx2dsticker,
showing each sticker's progress and outcome, then a summary.

LIST is a JSON sticker list: a file, "-" for standard input, or an http(s)
URL. Without LIST, zrx-fetch installs its sample catalogue, served by its
built-in server on 127.0.0.1.

Options:
  --dir DIR         download directory, made if missing (default ./stickers);
                    the library's log goes to DIR.log beside it
  --only RESID      fetch only the first sticker whose resId is RESID, even
                    if it is installed already (a forced refresh)
  --timeout S       give up a sticker whose transfer takes longer than S
                    seconds; also its connect time-out (default 0: no limit)
  --log-level N     also show the library's log lines of level N and above
                    on standard error (3 progress, 4 outcomes, 6 failures)
  -q, --quiet       show only failures and errors
  --serve DIR       serve the files below DIR on 127.0.0.1 and put the
                    server's address in place of "{base}" in LIST's URLs
  --serve-port N    port of that server (default 28730, 0: any free port)
  --serve-rate B    pace that server to B bytes per second (default: no
                    pacing; for the sample catalogue 49152, to show progress)
  -h, --help        show this text
  --version         show the versions of zrx-fetch, zrx2dsticker and libcurl

Names: a sticker's "name" and "ext", and every entry of its archive, must
name a plain place below the download directory. Refused on every system
alike: an absolute name, "..", a backslash, a control character or one of
< > : " | ? *, a name ending in "." or a blank, a Windows device name (con,
NUL.png, com1.zip, aux, lpt9, conin$), a name over 255 bytes or a path over
259. Such a sticker fails with -10001 or -10003, such an archive with -10004.

HTTPS: the library trusts only the CA bundle cacerts/ca-certificates.crt
beside the zrx-fetch executable (on Windows cacerts\ca-certificates.crt
beside zrx-fetch.exe, where the install puts one); without it every https
sticker fails.

Windows: names lie on the disk in the ANSI code page (1252 on Western
systems, 932 on Japanese ones, ...), and so does the download directory. A
character that the code page lacks becomes a look-alike or '?': such a name
may then be refused ('?', or a separator such as the '\' that the yen sign
becomes at 932), fail to open, or meet another sticker's name.

Exit status: 0 nothing failed, 1 a sticker failed, 2 usage error or an
unreadable or invalid list, 130 interrupted (Ctrl-C).
)";
}

bool parseOptions(int argc, char** argv, Options& options, std::string& error) {
  bool listGiven = false;
  bool optionsEnded = false;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if (optionsEnded || argument == "-" || argument.empty() ||
        argument[0] != '-') {
      if (listGiven) {
        error = "more than one LIST given: '" + argument + "'";
        return false;
      }
      options.list = argument;
      listGiven = true;
      continue;
    }
    if (argument == "--") {
      optionsEnded = true;
      continue;
    }
    if (argument == "-h" || argument == "--help") {
      options.help = true;
      continue;
    }
    if (argument == "--version") {
      options.version = true;
      continue;
    }
    if (argument == "-q" || argument == "--quiet") {
      options.quiet = true;
      continue;
    }

    // Options with a value: "--name VALUE" or "--name=VALUE".
    std::string value;
    const std::size_t equals = argument.find('=');
    const std::string name = argument.substr(0, equals);
    if (equals != std::string::npos) {
      value = argument.substr(equals + 1);
    } else if (name == "--dir" || name == "--only" || name == "--timeout" ||
               name == "--log-level" || name == "--serve" ||
               name == "--serve-port" || name == "--serve-rate") {
      if (i + 1 >= argc) {
        error = name + " needs a value";
        return false;
      }
      value = argv[++i];
    } else {
      error = "unknown option '" + argument + "'";
      return false;
    }

    int64_t number = 0;
    constexpr int64_t kIntMax = std::numeric_limits<int>::max();
    if (name == "--dir") {
      if (value.empty()) {
        error = "--dir needs a directory";
        return false;
      }
      options.dir = value;
    } else if (name == "--only") {
      options.only = value;
      options.onlyGiven = true;
    } else if (name == "--timeout") {
      if (!parseNumber(value, 0, kIntMax, number)) {
        error = "--timeout takes whole seconds, 0 or more: '" + value + "'";
        return false;
      }
      options.timeoutSeconds = static_cast<int>(number);
    } else if (name == "--log-level") {
      if (!parseNumber(value, std::numeric_limits<int>::min(), kIntMax,
                       number)) {
        error = "--log-level takes a whole number: '" + value + "'";
        return false;
      }
      options.logLevel = static_cast<int>(number);
      options.logLevelGiven = true;
    } else if (name == "--serve") {
      if (value.empty()) {
        error = "--serve needs a directory";
        return false;
      }
      options.serveDir = value;
    } else if (name == "--serve-port") {
      if (!parseNumber(value, 0, 65535, number)) {
        error = "--serve-port takes a port from 0 to 65535: '" + value + "'";
        return false;
      }
      options.servePort = static_cast<int>(number);
    } else if (name == "--serve-rate") {
      if (!parseNumber(value, 0, std::numeric_limits<int64_t>::max(), number)) {
        error =
            "--serve-rate takes bytes per second, 0 or more: '" + value + "'";
        return false;
      }
      options.serveRate = number;
    } else {
      error = "unknown option '" + name + "'";
      return false;
    }
  }
  return true;
}
