// zrx-fetch's OS services on POSIX.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>

#include "Os.h"

namespace os {

namespace {

// The signal that interrupted the run, 0 while none came. Written by the
// handler (on whichever thread takes the signal), read by the main thread.
volatile std::sig_atomic_t gSignal = 0;

extern "C" void onSignal(int signal) { gSignal = signal; }

// The mask that InterruptsBlocked gives back; main thread only.
sigset_t gPreviousMask;

}  // namespace

void installInterruptHandlers() {
  struct sigaction action {};
  action.sa_handler = onSignal;
  sigemptyset(&action.sa_mask);
  // A second Ctrl-C while the stop is under way ends the process at once.
  action.sa_flags = SA_RESETHAND;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
}

int interruptSignal() { return gSignal; }

InterruptsBlocked::InterruptsBlocked() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, &gPreviousMask);
}

InterruptsBlocked::~InterruptsBlocked() {
  pthread_sigmask(SIG_SETMASK, &gPreviousMask, nullptr);
}

std::FILE* duplicateStandardError() {
  const int copy = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  if (copy < 0) return nullptr;
  std::FILE* stream = ::fdopen(copy, "w");
  if (stream == nullptr) ::close(copy);
  return stream;
}

bool redirectStandardError(const std::string& path, std::string& error) {
  const int fd =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    error = std::strerror(errno);
    return false;
  }
  ::dup2(fd, STDERR_FILENO);
  ::close(fd);
  return true;
}

bool standardOutputIsTerminal() { return ::isatty(STDOUT_FILENO) == 1; }

int terminalColumns() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0) return size.ws_col;
  return 0;
}

Socket listenOnLoopback(int port, int& boundPort, std::string& error) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    error = std::strerror(errno);
    return kNoSocket;
  }
  const int on = 1;
  ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<uint16_t>(port));
  socklen_t length = sizeof(address);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(fd, 16) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    error = std::strerror(errno);
    ::close(fd);
    return kNoSocket;
  }
  boundPort = ntohs(address.sin_port);
  return fd;
}

Socket acceptConnection(Socket listener) {
  const int fd = ::accept4(static_cast<int>(listener), nullptr, nullptr,
                           SOCK_CLOEXEC);
  return fd < 0 ? kNoSocket : fd;
}

int waitOnSocket(Socket socket, bool forWrite, int timeoutMs) {
  pollfd entry{static_cast<int>(socket),
               static_cast<short>(forWrite ? POLLOUT : POLLIN), 0};
  const int ready = ::poll(&entry, 1, timeoutMs);
  if (ready < 0) return errno == EINTR ? 0 : -1;
  return ready > 0 ? 1 : 0;
}

long receiveSome(Socket socket, char* buffer, std::size_t size) {
  for (;;) {
    const ssize_t got = ::recv(static_cast<int>(socket), buffer, size, 0);
    if (got < 0 && errno == EINTR) continue;
    return got < 0 ? -1 : static_cast<long>(got);
  }
}

long sendSome(Socket socket, const char* data, std::size_t size) {
  for (;;) {
    const ssize_t sent =
        ::send(static_cast<int>(socket), data, size, MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    return sent < 0 ? -1 : static_cast<long>(sent);
  }
}

void closeSocket(Socket socket) {
  if (socket != kNoSocket) ::close(static_cast<int>(socket));
}

std::filesystem::path nativePath(const std::string& text) { return text; }

std::string nativeToUtf8(const std::string& text) { return text; }

Utf8Console::Utf8Console() {}
Utf8Console::~Utf8Console() {}

std::string executableDirectory() {
  std::error_code error;
  const std::filesystem::path self =
      std::filesystem::read_symlink("/proc/self/exe", error);
  return error ? std::string() : self.parent_path().string();
}

}  // namespace os
