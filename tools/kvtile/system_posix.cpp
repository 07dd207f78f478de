#include <fcntl.h>
#include <poll.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <thread>
#include <vector>

#include "system.h"

namespace kvtile::system {
namespace {

volatile std::sig_atomic_t stopFlag = 0;

extern "C" void onStopRequest(int) { stopFlag = 1; }

void catchUnlessIgnored(int signal) {
  struct sigaction now = {};
  sigaction(signal, nullptr, &now);
  // nohup and shells that start a job in the background ignore signals on the job's behalf.
  if (now.sa_handler == SIG_IGN) {
    return;
  }
  struct sigaction wanted = {};
  wanted.sa_handler = onStopRequest;
  sigemptyset(&wanted.sa_mask);
  sigaction(signal, &wanted, nullptr);
}

struct CloseFile {
  void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};

// The process's peak in KiB as Linux shows it; 0 on systems that have no such file.
std::uint64_t peakInProcessFile() {
  const std::unique_ptr<std::FILE, CloseFile> file(std::fopen("/proc/self/status", "r"));
  std::array<char, 256> line = {};
  unsigned long long kilobytes = 0;
  while (file != nullptr && std::fgets(line.data(), line.size(), file.get()) != nullptr) {
    if (std::sscanf(line.data(), "VmHWM: %llu", &kilobytes) == 1) {
      return kilobytes;
    }
  }
  return 0;
}

// True where standard input is a terminal that another job has the use of: reading it would stop the program.
bool inputBelongsToOthers() {
  const pid_t foreground = tcgetpgrp(STDIN_FILENO);
  return foreground >= 0 && foreground != getpgrp();
}

// Waits for something to read, for `time` at most; true also at the end of the input and where there is none.
bool inputIsReady(std::chrono::milliseconds time) {
  struct pollfd input = {};
  input.fd = STDIN_FILENO;
  input.events = POLLIN;
  return poll(&input, 1, static_cast<int>(time.count())) > 0;
}

// The path in the variable; empty unless it is absolute, as another one would depend on where the program is started.
std::string absolutePathFrom(const char* variable) {
  const char* value = secure_getenv(variable);
  return value != nullptr && *value == '/' ? value : "";
}

std::string homeOfAccount() {
  struct passwd account = {};
  struct passwd* found = nullptr;
  std::vector<char> texts(16384);
  const bool known = getpwuid_r(getuid(), &account, texts.data(), texts.size(), &found) == 0 && found != nullptr;
  return known && found->pw_dir != nullptr && *found->pw_dir == '/' ? found->pw_dir : "";
}

std::string withSlash(const std::string& folder) { return folder.ends_with('/') ? folder : folder + '/'; }

// For locking; nothing is made. Writable, as network file systems want it for an exclusive lock. -1 with errno set.
int openLockFile(const std::string& path) {
  // Opening a pipe would wait for its other end.
  return open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
}

// 0 or an errno value.
int tryLock(int descriptor, int operation) {
  while (flock(descriptor, operation | LOCK_NB) != 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

LockUse lockUseOf(int descriptor) {
  const int error = tryLock(descriptor, LOCK_EX);
  if (error == 0) {
    return LockUse::None;
  }
  if (error != EWOULDBLOCK) {
    return LockUse::Unknown;
  }
  return tryLock(descriptor, LOCK_SH) == 0 ? LockUse::Shared : LockUse::Exclusive;
}

}  // namespace

bool stderrIsTerminal() { return isatty(STDERR_FILENO) != 0; }

int terminalColumns() {
  struct winsize size = {};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0) {
    return 80;
  }
  return size.ws_col;
}

void catchStopRequests() {
  catchUnlessIgnored(SIGINT);
  catchUnlessIgnored(SIGTERM);
  catchUnlessIgnored(SIGHUP);
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN);
}

bool stopRequested() noexcept { return stopFlag != 0; }

Input waitForInput(bool readsInput) {
  // A request to stop that comes just before the waiting begins does not end it.
  constexpr std::chrono::milliseconds kLook(100);
  while (!stopRequested()) {
    if (!readsInput || inputBelongsToOthers()) {
      pause(kLook);
      continue;
    }
    char byte = 0;
    // By single bytes: what follows the line is for whoever reads next.
    const bool ready = inputIsReady(kLook);
    const ssize_t got = ready ? read(STDIN_FILENO, &byte, 1) : 0;
    if (ready && (got == 0 || (got < 0 && errno != EINTR && errno != EAGAIN))) {
      return Input::End;
    }
    if (got > 0 && byte == '\n') {
      return Input::Line;
    }
  }
  return Input::StopRequest;
}

bool stdinIsTerminal() { return isatty(STDIN_FILENO) != 0; }

void pause(std::chrono::milliseconds time) { std::this_thread::sleep_for(time); }

unsigned long processId() { return static_cast<unsigned long>(getpid()); }

std::uint64_t peakMemoryBytes() {
  constexpr std::uint64_t kKilobyte = 1024;
  // getrusage counts on from the program that started this one, which may have been the larger of the two.
  const std::uint64_t kilobytes = peakInProcessFile();
  if (kilobytes != 0) {
    return kilobytes * kKilobyte;
  }
  struct rusage usage = {};
  return getrusage(RUSAGE_SELF, &usage) == 0 ? static_cast<std::uint64_t>(usage.ru_maxrss) * kKilobyte : 0;
}

FileKind kindOf(const std::string& path, int& error) {
  error = 0;
  struct stat status = {};
  if (stat(path.c_str(), &status) != 0) {
    error = errno;
    return FileKind::Missing;
  }
  if (S_ISREG(status.st_mode)) {
    return FileKind::Regular;
  }
  return S_ISDIR(status.st_mode) ? FileKind::Folder : FileKind::Other;
}

bool nameExists(const std::string& path) {
  struct stat status = {};
  return lstat(path.c_str(), &status) == 0;
}

bool sameFile(const std::string& a, const std::string& b) {
  struct stat first = {};
  struct stat second = {};
  return stat(a.c_str(), &first) == 0 && stat(b.c_str(), &second) == 0 && first.st_dev == second.st_dev &&
         first.st_ino == second.st_ino;
}

std::string folderOf(const std::string& path) {
  const std::string folder = std::filesystem::path(path).parent_path().string();
  return folder.empty() ? "." : folder;
}

std::string nameOf(const std::string& path) { return std::filesystem::path(path).filename().string(); }

std::string userDataFolder() {
  if (const std::string data = absolutePathFrom("XDG_DATA_HOME"); !data.empty()) {
    return withSlash(data);
  }
  std::string home = absolutePathFrom("HOME");
  if (home.empty()) {
    home = homeOfAccount();
  }
  return home.empty() ? "/var/tmp/" : withSlash(home) + ".local/share/";
}

LockUse lockUseOf(const std::string& path) {
  const int descriptor = openLockFile(path);
  if (descriptor < 0) {
    return errno == ENOENT || errno == ENOTDIR ? LockUse::NoFile : LockUse::Unknown;
  }
  const LockUse use = lockUseOf(descriptor);
  close(descriptor);
  return use;
}

FileLock::~FileLock() {
  if (descriptor_ >= 0) {
    close(descriptor_);
  }
}

FileLock::Outcome FileLock::tryTake(const std::string& path, int& error) {
  error = 0;
  if (descriptor_ < 0) {
    descriptor_ = openLockFile(path);
  }
  if (descriptor_ < 0) {
    error = errno;
    return error == ENOENT || error == ENOTDIR ? Outcome::NoFile : Outcome::Failed;
  }
  error = tryLock(descriptor_, LOCK_EX);
  if (error == 0) {
    return Outcome::Taken;
  }
  return error == EWOULDBLOCK ? Outcome::InUse : Outcome::Failed;
}

std::FILE* openForReading(const std::string& path) { return std::fopen(path.c_str(), "rb"); }

std::FILE* createExclusively(const std::string& path) { return std::fopen(path.c_str(), "w+bx"); }

bool seek(std::FILE* stream, std::int64_t offset, int whence) { return fseeko(stream, offset, whence) == 0; }

std::int64_t tell(std::FILE* stream) { return ftello(stream); }

int waitForDisk(std::FILE* stream) {
  if (fsync(fileno(stream)) == 0 || errno == EINVAL) {
    return 0;
  }
  return errno;
}

void copyPermissions(const std::string& path, std::FILE* stream) {
  struct stat status = {};
  if (stat(path.c_str(), &status) == 0) {
    // A file system without access rights refuses this; the picture is no worse for it.
    [[maybe_unused]] const int ignored = fchmod(fileno(stream), status.st_mode & 0777);
  }
}

int renameToFreeName(const std::string& from, const std::string& to) {
#ifdef RENAME_NOREPLACE
  if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
    return 0;
  }
  if (errno != EINVAL && errno != ENOSYS) {
    return errno;
  }
#endif
  if (link(from.c_str(), to.c_str()) == 0) {
    unlink(from.c_str());
    return 0;
  }
  if (errno != EPERM && errno != EOPNOTSUPP && errno != ENOSYS) {
    return errno;
  }
  // Neither way exists on this file system. Taking the name first keeps others from being overwritten; what the rename
  // then replaces is this empty file.
  const int placeholder = open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  if (placeholder < 0) {
    return errno;
  }
  close(placeholder);
  const int error = renameOver(from, to);
  if (error != 0) {
    unlink(to.c_str());
  }
  return error;
}

int renameOver(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0 ? 0 : errno;
}

}  // namespace kvtile::system
