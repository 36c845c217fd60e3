// The Windows side of the test helpers. The tests run under Wine, whose
// drive Z: is the Linux machine's root: temp directories lie below Z:/tmp,
// and the Linux tools the tests use (sh, python3, openssl, zip, ...) run
// through the host agent, which ctest starts (host_agent.py) and whose port
// lies beside the test executables.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <windows.h>
#include <direct.h>
#include <io.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <random>
#include <stdexcept>

#include "support/TestSupport.h"

#ifndef ZRX_TEST_EMULATOR
#define ZRX_TEST_EMULATOR ""
#endif

namespace zrxtest {

const char* const kExecutableSuffix = ".exe";
// Wine's Schannel can't match a certificate issued to an IP address.
const char* const kTlsHost = "localhost";

namespace {

// Exit status of a process ended by ChildProcess::kill.
constexpr UINT kKilledStatus = 137;

// A path of this process as the Linux side names it: Z:/x or Z:\x is /x.
std::string unixPathOf(const std::string& path) {
  if (path.size() >= 3 && (path[0] == 'Z' || path[0] == 'z') &&
      path[1] == ':' && (path[2] == '/' || path[2] == '\\')) {
    std::string out = path.substr(2);
    for (char& c : out) {
      if (c == '\\') c = '/';
    }
    return out;
  }
  return path;
}

void startWinsock() {
  static const bool started = [] {
    WSADATA data;
    return ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
  }();
  if (!started) throw std::runtime_error("winsock did not start");
}

std::string jsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out + "\"";
}

// The value of the string member `name` of the JSON object `reply`, as the
// agent writes it (ASCII, with \uXXXX for anything else).
std::string jsonMember(const std::string& reply, const std::string& name) {
  std::size_t at = reply.find("\"" + name + "\":");
  if (at == std::string::npos) return "";
  at = reply.find('"', at + name.size() + 3);
  std::string out;
  for (std::size_t i = at + 1; at != std::string::npos && i < reply.size();
       ++i) {
    char c = reply[i];
    if (c == '"') break;
    if (c == '\\' && i + 1 < reply.size()) {
      c = reply[++i];
      if (c == 'n') c = '\n';
      if (c == 't') c = '\t';
      if (c == 'r') c = '\r';
      if (c == 'u' && i + 4 < reply.size()) {
        const unsigned code =
            static_cast<unsigned>(std::stoul(reply.substr(i + 1, 4), nullptr, 16));
        i += 4;
        if (code < 0x80) {
          out += static_cast<char>(code);
        } else if (code < 0x800) {
          out += static_cast<char>(0xC0 | (code >> 6));
          out += static_cast<char>(0x80 | (code & 0x3F));
        } else {
          out += static_cast<char>(0xE0 | (code >> 12));
          out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
          out += static_cast<char>(0x80 | (code & 0x3F));
        }
        continue;
      }
    }
    out += c;
  }
  return out;
}

// Sends one request to the host agent; returns the connection (still
// open) and the reply line in `reply`.
SOCKET askAgent(const std::string& request, std::string& reply) {
  startWinsock();
  // "PORT TOKEN", written by the agent for its owner alone.
  const std::string state = readFile(executableDir() + "/host-agent.state");
  const std::size_t space = state.find(' ');
  if (state.empty() || space == std::string::npos) {
    throw std::runtime_error(
        "no host agent (host-agent.state beside the tests): run the tests "
        "with ctest, which starts it");
  }
  const SOCKET sock = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<u_short>(std::stoi(state)));
  if (sock == INVALID_SOCKET ||
      ::connect(sock, reinterpret_cast<sockaddr*>(&address),
                sizeof address) != 0) {
    if (sock != INVALID_SOCKET) ::closesocket(sock);
    throw std::runtime_error("cannot reach the host agent");
  }
  std::string token = state.substr(space + 1);
  while (!token.empty() && (token.back() == '\n' || token.back() == '\r')) {
    token.pop_back();
  }
  // The request's object gets the token as its first member.
  const std::string line =
      "{\"token\": " + jsonString(token) + ", " + request.substr(1) + "\n";
  for (std::size_t sent = 0; sent < line.size();) {
    const int n = ::send(sock, line.data() + sent,
                         static_cast<int>(line.size() - sent), 0);
    if (n <= 0) break;
    sent += static_cast<std::size_t>(n);
  }
  reply.clear();
  char c;
  while (::recv(sock, &c, 1, 0) == 1 && c != '\n') reply += c;
  return sock;
}

std::string quoteArgument(const std::string& argument) {
  // The C runtime's rules: backslashes are literal unless they precede a
  // quote.
  std::string out = "\"";
  std::size_t backslashes = 0;
  for (char c : argument) {
    if (c == '\\') {
      ++backslashes;
      continue;
    }
    out.append(c == '"' ? backslashes * 2 + 1 : backslashes, '\\');
    backslashes = 0;
    out += c;
  }
  out.append(backslashes * 2, '\\');
  return out + "\"";
}

}  // namespace

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  const std::string root =
      "Z:" + std::string(base && *base == '/' ? base : "/tmp");
  static std::mt19937 names{std::random_device{}()};
  static std::mutex namesMutex;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::string name;
    {
      std::lock_guard<std::mutex> lock(namesMutex);
      for (int i = 0; i < 8; ++i) name += "abcdefghijklmnopqrstuvwxyz"[names() % 26];
    }
    path_ = root + "/zrx2dsticker-test-" + name;
    if (::_mkdir(path_.c_str()) == 0) return;
    if (errno != EEXIST) break;
  }
  throw std::runtime_error("cannot make a temp directory below " + root);
}

TempDir::~TempDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

bool fileExists(const std::string& path) {
  return ::_access(path.c_str(), 0) == 0;
}

long long sizeOf(const std::string& path) {
  struct _stat64 info;
  if (::_stat64(path.c_str(), &info) != 0) return -1;
  return static_cast<long long>(info.st_size);
}

int run(const std::string& command) {
  std::string reply;
  ::closesocket(
      askAgent("{\"op\": \"run\", \"cmd\": " + jsonString(command) + "}",
               reply));
  const std::size_t at = reply.find("\"status\":");
  return at == std::string::npos ? -1 : std::atoi(reply.c_str() + at + 9);
}

std::string shellQuote(const std::string& text) {
  std::string out = "'";
  for (char c : unixPathOf(text))
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string programCommand(const std::string& path) {
  const std::string emulator = ZRX_TEST_EMULATOR;
  return (emulator.empty() ? "" : shellQuote(emulator) + " ") +
         shellQuote(path);
}

std::string executableDir() {
  char path[MAX_PATH] = {};
  const DWORD length = ::GetModuleFileNameA(nullptr, path, sizeof path);
  std::string name(path, length);
  for (char& c : name) {
    if (c == '\\') c = '/';
  }
  return name.substr(0, name.rfind('/'));
}

ShellProcess::ShellProcess(const std::string& command) {
  std::string reply;
  const SOCKET sock = askAgent(
      "{\"op\": \"spawn\", \"cmd\": " + jsonString(command) + "}", reply);
  agent_ = static_cast<std::intptr_t>(sock);
  if (reply.find("\"line\":") == std::string::npos) {
    end();
    throw std::runtime_error("cannot start: " + command);
  }
  firstLine_ = jsonMember(reply, "line");
}

ShellProcess::~ShellProcess() { end(); }

void ShellProcess::end() {
  // The agent ends the command's session when the connection closes.
  if (agent_ != -1) ::closesocket(static_cast<SOCKET>(agent_));
  agent_ = -1;
}

ChildProcess::ChildProcess(const std::string& program,
                           const std::vector<std::string>& arguments) {
  SECURITY_ATTRIBUTES inherit{sizeof inherit, nullptr, TRUE};
  HANDLE readEnd = nullptr, writeEnd = nullptr;
  if (!::CreatePipe(&readEnd, &writeEnd, &inherit, 0)) {
    throw std::runtime_error("pipe failed");
  }
  ::SetHandleInformation(readEnd, HANDLE_FLAG_INHERIT, 0);
  const HANDLE null = ::CreateFileA("NUL", GENERIC_READ | GENERIC_WRITE,
                                    FILE_SHARE_READ | FILE_SHARE_WRITE,
                                    &inherit, OPEN_EXISTING, 0, nullptr);
  std::string commandLine = quoteArgument(program);
  for (const std::string& argument : arguments) {
    commandLine += " " + quoteArgument(argument);
  }
  STARTUPINFOA startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = null;
  startup.hStdOutput = writeEnd;
  startup.hStdError = null;
  PROCESS_INFORMATION info{};
  const BOOL started =
      ::CreateProcessA(program.c_str(), commandLine.data(), nullptr, nullptr,
                       TRUE, 0, nullptr, nullptr, &startup, &info);
  ::CloseHandle(writeEnd);
  ::CloseHandle(null);
  if (!started) {
    ::CloseHandle(readEnd);
    throw std::runtime_error("cannot start " + program);
  }
  ::CloseHandle(info.hThread);
  process_ = reinterpret_cast<std::intptr_t>(info.hProcess);
  output_ = reinterpret_cast<std::intptr_t>(readEnd);
}

ChildProcess::~ChildProcess() {
  int ignored;
  if (!waited_) {
    kill();
    wait(ignored);
  }
  ::CloseHandle(reinterpret_cast<HANDLE>(output_));
  ::CloseHandle(reinterpret_cast<HANDLE>(process_));
}

bool ChildProcess::read(std::string& out, std::chrono::milliseconds timeout) {
  const HANDLE pipe = reinterpret_cast<HANDLE>(output_);
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    DWORD available = 0;
    if (!::PeekNamedPipe(pipe, nullptr, 0, nullptr, &available, nullptr)) {
      return false;  // the writing end is closed: the output has ended
    }
    if (available > 0) break;
    if (std::chrono::steady_clock::now() >= deadline) return true;
    ::Sleep(1);
  }
  char buffer[4096];
  DWORD got = 0;
  if (!::ReadFile(pipe, buffer, sizeof buffer, &got, nullptr) || got == 0) {
    return false;
  }
  out.append(buffer, got);
  return true;
}

void ChildProcess::kill() {
  const HANDLE process = reinterpret_cast<HANDLE>(process_);
  if (!waited_ && ::WaitForSingleObject(process, 0) == WAIT_TIMEOUT &&
      ::TerminateProcess(process, kKilledStatus)) {
    killed_ = true;
  }
}

bool ChildProcess::wait(int& exitStatus) {
  if (!waited_) {
    const HANDLE process = reinterpret_cast<HANDLE>(process_);
    ::WaitForSingleObject(process, INFINITE);
    DWORD code = 0;
    ::GetExitCodeProcess(process, &code);
    waited_ = true;
    status_ = static_cast<int>(code);
  }
  exitStatus = killed_ ? -1 : status_;
  return !killed_;
}

void copyProgram(const std::string& from, const std::string& directory,
                 const std::string& name) {
  if (!::CopyFileA(from.c_str(), (directory + "/" + name).c_str(), FALSE)) {
    throw std::runtime_error("cannot copy " + from);
  }
  const std::filesystem::path home = std::filesystem::path(from).parent_path();
  for (const auto& entry : std::filesystem::directory_iterator(home)) {
    if (entry.path().extension() != ".dll") continue;
    const std::string dll = entry.path().filename().string();
    if (!::CopyFileA((home.string() + "/" + dll).c_str(),
                     (directory + "/" + dll).c_str(), FALSE)) {
      throw std::runtime_error("cannot copy " + dll);
    }
  }
}

FileLock::FileLock(const std::string& path)
    : handle_(reinterpret_cast<std::intptr_t>(::CreateFileA(
          path.c_str(), GENERIC_READ | GENERIC_WRITE,
          FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_ALWAYS, 0,
          nullptr))) {
  OVERLAPPED whole{};
  ::LockFileEx(reinterpret_cast<HANDLE>(handle_), LOCKFILE_EXCLUSIVE_LOCK, 0,
               MAXDWORD, MAXDWORD, &whole);
}

FileLock::~FileLock() { ::CloseHandle(reinterpret_cast<HANDLE>(handle_)); }

unsigned narrowCodePage() { return ::GetACP(); }

std::string listedName(const std::string& bytes) {
  // The file system reads a narrow name in the ANSI code page; listTree
  // shows the wide name in UTF-8.
  const int length = static_cast<int>(bytes.size());
  std::wstring wide(bytes.size(), L'\0');
  wide.resize(static_cast<std::size_t>(::MultiByteToWideChar(
      CP_ACP, 0, bytes.data(), length, wide.data(), length)));
  std::string utf8(wide.size() * 3, '\0');
  utf8.resize(static_cast<std::size_t>(::WideCharToMultiByte(
      CP_UTF8, 0, wide.data(), static_cast<int>(wide.size()), utf8.data(),
      static_cast<int>(utf8.size()), nullptr, nullptr)));
  return utf8;
}

bool runningUnderWine() {
  return ::GetProcAddress(::GetModuleHandleA("ntdll.dll"),
                          "wine_get_version") != nullptr;
}

std::string captureDebugChannel(const std::function<void()>& body) {
  // The system-wide monitor of OutputDebugString: the writer waits for
  // DBWIN_BUFFER_READY, fills DBWIN_BUFFER (its pid, then the text) and
  // sets DBWIN_DATA_READY. One monitor at a time, so captures of different
  // test processes take turns on a named mutex.
  struct Buffer {
    DWORD pid;
    char text[4096 - sizeof(DWORD)];
  };
  const HANDLE turn = ::CreateMutexA(nullptr, FALSE, "zrx2dsticker-test-dbwin");
  ::WaitForSingleObject(turn, INFINITE);
  const HANDLE bufferReady =
      ::CreateEventA(nullptr, FALSE, FALSE, "DBWIN_BUFFER_READY");
  const HANDLE dataReady =
      ::CreateEventA(nullptr, FALSE, FALSE, "DBWIN_DATA_READY");
  const HANDLE mapping =
      ::CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0,
                           sizeof(Buffer), "DBWIN_BUFFER");
  const auto* buffer = static_cast<const Buffer*>(
      ::MapViewOfFile(mapping, FILE_MAP_READ, 0, 0, sizeof(Buffer)));
  if (buffer == nullptr) throw std::runtime_error("no DBWIN_BUFFER");
  // The end of the capture is a text of our own after the body's.
  const std::string sentinel =
      "zrx2dsticker-test-end-" + std::to_string(::GetCurrentProcessId());
  const DWORD self = ::GetCurrentProcessId();
  std::string captured;
  std::thread reader([&] {
    for (;;) {
      ::SetEvent(bufferReady);
      if (::WaitForSingleObject(dataReady, 60000) != WAIT_OBJECT_0) return;
      if (buffer->pid != self) continue;
      const std::string text(buffer->text,
                             ::strnlen(buffer->text, sizeof buffer->text));
      if (text == sentinel) return;
      captured += text;
    }
  });
  body();
  ::OutputDebugStringA(sentinel.c_str());
  reader.join();
  ::UnmapViewOfFile(buffer);
  ::CloseHandle(mapping);
  ::CloseHandle(dataReady);
  ::CloseHandle(bufferReady);
  ::ReleaseMutex(turn);
  ::CloseHandle(turn);
  return captured;
}

int freeLoopbackPort() {
  startWinsock();
  const SOCKET sock = ::socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int length = sizeof(address);
  const bool ok =
      sock != INVALID_SOCKET &&
      ::bind(sock, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
      ::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  if (sock != INVALID_SOCKET) ::closesocket(sock);
  if (!ok) throw std::runtime_error("no free loopback port");
  return ntohs(address.sin_port);
}

}  // namespace zrxtest
