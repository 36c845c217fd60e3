// zrx-fetch's OS services on Windows: console control events for Ctrl-C,
// the C runtime's descriptors for standard error, winsock for the built-in
// server.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstring>

#include "Os.h"

namespace os {

namespace {

// The signal number that a console control event stands for (Ctrl-C and
// Ctrl-Break are SIGINT, closing the console SIGTERM); 0 while none came.
// Written by the handler thread that Windows starts, read by the main
// thread.
std::atomic<int> gSignal{0};
constexpr int kInterruptSignal = 2;
constexpr int kTerminateSignal = 15;

BOOL WINAPI onConsoleEvent(DWORD event) {
  // A second event while the stop is under way ends the process at once,
  // as the default handler would.
  if (gSignal.load() != 0) return FALSE;
  const bool interrupt = event == CTRL_C_EVENT || event == CTRL_BREAK_EVENT;
  gSignal = interrupt ? kInterruptSignal : kTerminateSignal;
  return TRUE;
}

std::string lastErrorText(int code) {
  char text[256] = {};
  if (::FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                       nullptr, static_cast<DWORD>(code), 0, text,
                       sizeof(text), nullptr) == 0) {
    return "error " + std::to_string(code);
  }
  std::string message(text);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r' ||
                              message.back() == ' ')) {
    message.pop_back();
  }
  return message;
}

// winsock stays started for the life of the process.
bool startWinsock() {
  static const bool started = [] {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  return started;
}

// `text` in the ANSI code page, as UTF-16.
std::wstring ansiToWide(const std::string& text) {
  if (text.empty()) return std::wstring();
  const int size = static_cast<int>(text.size());
  const int length =
      ::MultiByteToWideChar(CP_ACP, 0, text.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(length > 0 ? length : 0), L'\0');
  if (length > 0) {
    ::MultiByteToWideChar(CP_ACP, 0, text.data(), size, wide.data(), length);
  }
  return wide;
}

}  // namespace

std::filesystem::path nativePath(const std::string& text) {
  return std::filesystem::path(ansiToWide(text));
}

std::string nativeToUtf8(const std::string& text) {
  const std::wstring wide = ansiToWide(text);
  if (wide.empty()) return std::string();
  const int size = static_cast<int>(wide.size());
  const int length = ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size,
                                           nullptr, 0, nullptr, nullptr);
  std::string utf8(static_cast<std::size_t>(length > 0 ? length : 0), '\0');
  if (length > 0) {
    ::WideCharToMultiByte(CP_UTF8, 0, wide.data(), size, utf8.data(), length,
                          nullptr, nullptr);
  }
  return utf8;
}

Utf8Console::Utf8Console() {
  DWORD mode = 0;
  if (!::GetConsoleMode(::GetStdHandle(STD_OUTPUT_HANDLE), &mode)) return;
  const UINT before = ::GetConsoleOutputCP();
  if (before != CP_UTF8 && ::SetConsoleOutputCP(CP_UTF8)) saved_ = before;
}

Utf8Console::~Utf8Console() {
  if (saved_ != 0) ::SetConsoleOutputCP(saved_);
}

void installInterruptHandlers() {
  ::SetConsoleCtrlHandler(onConsoleEvent, TRUE);
}

int interruptSignal() { return gSignal.load(); }

// Console control events arrive on a thread of their own, never on ours.
InterruptsBlocked::InterruptsBlocked() {}
InterruptsBlocked::~InterruptsBlocked() {}

std::FILE* duplicateStandardError() {
  const int copy = ::_dup(2);
  if (copy < 0) return nullptr;
  std::FILE* stream = ::_fdopen(copy, "w");
  if (stream == nullptr) ::_close(copy);
  return stream;
}

bool redirectStandardError(const std::string& path, std::string& error) {
  const int fd = ::_open(path.c_str(),
                         _O_WRONLY | _O_CREAT | _O_TRUNC | _O_NOINHERIT,
                         _S_IREAD | _S_IWRITE);
  if (fd < 0) {
    error = std::strerror(errno);
    return false;
  }
  ::_dup2(fd, 2);
  ::_close(fd);
  return true;
}

bool standardOutputIsTerminal() {
  // Only a console that takes escape sequences gets the live line; any
  // other gets plain lines.
  const HANDLE out = ::GetStdHandle(STD_OUTPUT_HANDLE);
  DWORD mode = 0;
  if (out == INVALID_HANDLE_VALUE || !::GetConsoleMode(out, &mode)) {
    return false;
  }
  return ::SetConsoleMode(out, mode | ENABLE_VIRTUAL_TERMINAL_PROCESSING) != 0;
}

int terminalColumns() {
  CONSOLE_SCREEN_BUFFER_INFO info;
  if (!::GetConsoleScreenBufferInfo(::GetStdHandle(STD_OUTPUT_HANDLE), &info)) {
    return 0;
  }
  return info.srWindow.Right - info.srWindow.Left + 1;
}

Socket listenOnLoopback(int port, int& boundPort, std::string& error) {
  if (!startWinsock()) {
    error = "winsock did not start";
    return kNoSocket;
  }
  const SOCKET fd = ::WSASocketW(AF_INET, SOCK_STREAM, IPPROTO_TCP, nullptr, 0,
                                 WSA_FLAG_NO_HANDLE_INHERIT);
  if (fd == INVALID_SOCKET) {
    error = lastErrorText(::WSAGetLastError());
    return kNoSocket;
  }
  // Exclusive: another program can't take over the port while it is ours.
  const BOOL on = TRUE;
  ::setsockopt(fd, SOL_SOCKET, SO_EXCLUSIVEADDRUSE,
               reinterpret_cast<const char*>(&on), sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<u_short>(port));
  int length = sizeof(address);
  if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(fd, 16) != 0 ||
      ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    error = lastErrorText(::WSAGetLastError());
    ::closesocket(fd);
    return kNoSocket;
  }
  boundPort = ntohs(address.sin_port);
  return static_cast<Socket>(fd);
}

Socket acceptConnection(Socket listener) {
  const SOCKET fd = ::accept(static_cast<SOCKET>(listener), nullptr, nullptr);
  return fd == INVALID_SOCKET ? kNoSocket : static_cast<Socket>(fd);
}

int waitOnSocket(Socket socket, bool forWrite, int timeoutMs) {
  WSAPOLLFD entry{};
  entry.fd = static_cast<SOCKET>(socket);
  entry.events = forWrite ? POLLWRNORM : POLLRDNORM;
  const int ready = ::WSAPoll(&entry, 1, timeoutMs);
  if (ready == SOCKET_ERROR) return -1;
  return ready > 0 ? 1 : 0;
}

long receiveSome(Socket socket, char* buffer, std::size_t size) {
  const int got = ::recv(static_cast<SOCKET>(socket), buffer,
                         static_cast<int>(size > 65536 ? 65536 : size), 0);
  return got == SOCKET_ERROR ? -1 : got;
}

long sendSome(Socket socket, const char* data, std::size_t size) {
  const int sent = ::send(static_cast<SOCKET>(socket), data,
                          static_cast<int>(size > 65536 ? 65536 : size), 0);
  return sent == SOCKET_ERROR ? -1 : sent;
}

void closeSocket(Socket socket) {
  if (socket != kNoSocket) ::closesocket(static_cast<SOCKET>(socket));
}

std::string executableDirectory() {
  char path[MAX_PATH] = {};
  const DWORD length = ::GetModuleFileNameA(nullptr, path, sizeof(path));
  if (length == 0 || length >= sizeof(path)) return "";
  std::string name(path, length);
  const std::size_t cut = name.find_last_of("\\/");
  return cut == std::string::npos ? std::string() : name.substr(0, cut);
}

}  // namespace os
