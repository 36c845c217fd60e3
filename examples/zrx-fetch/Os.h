// What zrx-fetch needs of the operating system beyond the C++ library:
// interrupts, standard streams, the terminal, loopback sockets and its own
// file name. One source per OS implements it (OsPosix.cpp, OsWin32.cpp),
// picked by CMake, so the rest of zrx-fetch has no OS #ifdef.
#ifndef ZRX_FETCH_OS_H_
#define ZRX_FETCH_OS_H_

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>

namespace os {

// --- interrupts ------------------------------------------------------------

// Makes Ctrl-C (and a termination request) set interruptSignal() instead of
// ending the process; a second Ctrl-C while the stop is under way ends it.
void installInterruptHandlers();
// The signal number (2 for Ctrl-C) of the interrupt that came, 0 while none
// came. Any thread.
int interruptSignal();

// Keeps interrupts away from the threads started in its scope, so that the
// main thread takes them (a no-op where interrupts arrive on a thread of
// their own). Main thread only.
class InterruptsBlocked {
 public:
  InterruptsBlocked();
  ~InterruptsBlocked();
  InterruptsBlocked(const InterruptsBlocked&) = delete;
  InterruptsBlocked& operator=(const InterruptsBlocked&) = delete;
};

// --- standard streams and the terminal -------------------------------------

// A stream on a copy of standard error that stays with the original when
// standard error is redirected; null when no copy can be made.
std::FILE* duplicateStandardError();
// Points standard error (the descriptor, so also what libcurl writes there)
// at the file `path`, made anew. False with a reason in `error`.
bool redirectStandardError(const std::string& path, std::string& error);
// Whether standard output is a terminal that takes the escape sequences of
// a live progress line and colours.
bool standardOutputIsTerminal();
// The terminal's width in columns, 0 when unknown.
int terminalColumns();

// --- loopback sockets ------------------------------------------------------

// A socket (a descriptor on POSIX, a SOCKET on Windows); kNoSocket is none.
using Socket = std::intptr_t;
constexpr Socket kNoSocket = -1;

// Listens on 127.0.0.1:`port` (0: a free port). Returns the socket and the
// port bound in `boundPort`, or kNoSocket with a reason in `error`.
Socket listenOnLoopback(int port, int& boundPort, std::string& error);
// Accepts one waiting connection, kNoSocket when there is none.
Socket acceptConnection(Socket listener);
// Waits up to `timeoutMs` until `socket` can be read (or written, with
// `forWrite`): 1 ready, 0 time-out, -1 error.
int waitOnSocket(Socket socket, bool forWrite, int timeoutMs);
// Receives up to `size` bytes: the count, 0 at the end, -1 on error.
long receiveSome(Socket socket, char* buffer, std::size_t size);
// Sends up to `size` bytes without ever raising a signal: the count sent,
// -1 on error (a peer that left included).
long sendSome(Socket socket, const char* data, std::size_t size);
void closeSocket(Socket socket);

// --- text and paths --------------------------------------------------------

// zrx-fetch keeps the text of the command line and of executableDirectory()
// as the OS's narrow calls give it: in the ANSI code page on Windows (the
// code page the library's paths on the disk are in too), UTF-8 on POSIX.

// A path for std::filesystem and the file streams from such text (on
// Windows their own reading of a narrow string is neither code page).
std::filesystem::path nativePath(const std::string& text);
// Such text in UTF-8: what the library takes as a download path, and what
// zrx-fetch prints.
std::string nativeToUtf8(const std::string& text);

// For its life, a console on standard output shows the UTF-8 that zrx-fetch
// writes (its code page set to UTF-8, and set back after). Nothing happens
// where standard output is no console, or where a terminal reads UTF-8
// anyway.
class Utf8Console {
 public:
  Utf8Console();
  ~Utf8Console();
  Utf8Console(const Utf8Console&) = delete;
  Utf8Console& operator=(const Utf8Console&) = delete;

 private:
  unsigned saved_ = 0;  // the console's code page before, 0: left alone
};

// --- the program -----------------------------------------------------------

// The directory of the running executable, "" when unknown.
std::string executableDirectory();

}  // namespace os

#endif  // ZRX_FETCH_OS_H_
