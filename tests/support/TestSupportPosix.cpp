// The POSIX side of the test helpers: everything runs on this machine.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

#include "support/TestSupport.h"

namespace zrxtest {

const char* const kExecutableSuffix = "";
const char* const kTlsHost = "127.0.0.1";

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base && *base ? base : "/tmp") + "/zrx2dsticker-test-XXXXXX";
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  path_ = pattern;
}

TempDir::~TempDir() {
  // Make everything writable again (tests chmod directories) and remove it.
  run("chmod -R u+rwx " + shellQuote(path_) + " 2>/dev/null; rm -rf " +
      shellQuote(path_));
}

bool fileExists(const std::string& path) {
  struct stat info;
  return ::lstat(path.c_str(), &info) == 0;
}

long long sizeOf(const std::string& path) {
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return -1;
  return static_cast<long long>(info.st_size);
}

int run(const std::string& command) {
  const int status = std::system(command.c_str());
  if (status == -1 || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

std::string shellQuote(const std::string& text) {
  std::string out = "'";
  for (char c : text)
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

std::string programCommand(const std::string& path) {
  return shellQuote(path);
}

std::string executableDir() {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path();
}

ShellProcess::ShellProcess(const std::string& command) {
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  const char* const argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  pid_ = ::fork();
  if (pid_ == 0) {
    // A session of its own, so that the destructor reaches all it starts.
    ::setsid();
    ::dup2(pipeFds[1], STDOUT_FILENO);
    ::execv(argv[0], const_cast<char* const*>(argv));
    ::_exit(127);
  }
  ::close(pipeFds[1]);
  out_ = ::fdopen(pipeFds[0], "r");
  char line[512];
  if (pid_ < 0 || out_ == nullptr ||
      std::fgets(line, sizeof line, out_) == nullptr) {
    end();
    throw std::runtime_error("cannot start: " + command);
  }
  firstLine_ = line;
  if (!firstLine_.empty() && firstLine_.back() == '\n') firstLine_.pop_back();
}

ShellProcess::~ShellProcess() { end(); }

void ShellProcess::end() {
  if (pid_ > 0) {
    ::kill(-pid_, SIGTERM);
    while (::waitpid(pid_, nullptr, 0) < 0 && errno == EINTR) {
    }
    pid_ = 0;
  }
  if (out_ != nullptr) {
    std::fclose(out_);
    out_ = nullptr;
  }
}

ChildProcess::ChildProcess(const std::string& program,
                           const std::vector<std::string>& arguments) {
  std::vector<const char*> argv{program.c_str()};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  argv.push_back(nullptr);
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(pipeFds[1], STDOUT_FILENO);
    const int null = ::open("/dev/null", O_WRONLY);
    ::dup2(null, STDERR_FILENO);
    ::execv(argv[0], const_cast<char* const*>(argv.data()));
    ::_exit(127);
  }
  ::close(pipeFds[1]);
  if (pid < 0) {
    ::close(pipeFds[0]);
    throw std::runtime_error("cannot start " + program);
  }
  process_ = pid;
  output_ = pipeFds[0];
}

ChildProcess::~ChildProcess() {
  int ignored;
  if (!waited_) {
    kill();
    wait(ignored);
  }
  ::close(static_cast<int>(output_));
}

bool ChildProcess::read(std::string& out, std::chrono::milliseconds timeout) {
  pollfd entry{static_cast<int>(output_), POLLIN, 0};
  const int ready = ::poll(&entry, 1, static_cast<int>(timeout.count()));
  if (ready == 0 || (ready < 0 && errno == EINTR)) return true;
  char buffer[4096];
  for (;;) {
    const ssize_t n = ::read(static_cast<int>(output_), buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    out.append(buffer, static_cast<std::size_t>(n));
    return true;
  }
}

void ChildProcess::kill() {
  if (!waited_ && ::kill(static_cast<pid_t>(process_), SIGKILL) == 0) {
    killed_ = true;
  }
}

bool ChildProcess::wait(int& exitStatus) {
  if (!waited_) {
    int status = 0;
    while (::waitpid(static_cast<pid_t>(process_), &status, 0) < 0 &&
           errno == EINTR) {
    }
    waited_ = true;
    killed_ = WIFSIGNALED(status);
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }
  exitStatus = status_;
  return !killed_;
}

void copyProgram(const std::string& from, const std::string& directory,
                 const std::string& name) {
  const std::string to = directory + "/" + name;
  std::filesystem::copy_file(from, to,
                             std::filesystem::copy_options::overwrite_existing);
  if (::chmod(to.c_str(), 0755) != 0) {
    throw std::runtime_error("cannot make " + to + " executable");
  }
}

FileLock::FileLock(const std::string& path)
    : handle_(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644)) {
  while (::flock(static_cast<int>(handle_), LOCK_EX) != 0 && errno == EINTR) {
  }
}

FileLock::~FileLock() { ::close(static_cast<int>(handle_)); }

unsigned narrowCodePage() { return 65001; }

std::string listedName(const std::string& bytes) { return bytes; }

bool runningUnderWine() { return false; }

std::string captureDebugChannel(const std::function<void()>& body) {
  TempDir dir;
  const int saved = ::dup(STDERR_FILENO);
  const int file = ::open((dir / "fd2").c_str(), O_WRONLY | O_CREAT, 0600);
  ::dup2(file, STDERR_FILENO);
  ::close(file);
  body();
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  return readFile(dir / "fd2");
}

int freeLoopbackPort() {
  const int sock = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof(address);
  const bool ok =
      sock >= 0 &&
      ::bind(sock, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
      ::getsockname(sock, reinterpret_cast<sockaddr*>(&address), &length) == 0;
  ::close(sock);
  if (!ok) throw std::runtime_error("no free loopback port");
  return ntohs(address.sin_port);
}

}  // namespace zrxtest
