#include "platform/lock_files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <system_error>

#include "platform/linux/descriptor.h"
#include "platform/win_interprocess.h"

namespace platform {
namespace {

constexpr mode_t kFileRights = 0600;

// Opening a pipe would wait for its other end.
constexpr int kFlags = O_RDWR | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;

[[noreturn]] void fail(const std::string& path, const char* what, int error) {
  throw win_interprocess::interprocess_exception(
      path + what + std::error_code(error, std::generic_category()).message(), static_cast<std::uint32_t>(error));
}

bool isRegular(const Descriptor& descriptor) {
  struct stat status {};
  return descriptor.valid() && fstat(descriptor.get(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

struct FileLock::File {
  std::string path;
  Descriptor descriptor;
  pid_t maker = getpid();

  bool tryLock(int operation) const {
    int result = 0;
    do {
      result = flock(descriptor.get(), operation | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result != 0 && errno != EWOULDBLOCK) {
      fail(path, " cannot be locked: ", errno);
    }
    return result == 0;
  }
};

FileLock::FileLock(const std::string& narrowPath, IfMissing ifMissing) : file_(std::make_unique<File>()) {
  const int creation = ifMissing == IfMissing::make ? O_CREAT : 0;
  file_->path = narrowPath;
  file_->descriptor = Descriptor(open(narrowPath.c_str(), kFlags | creation, kFileRights));
  if (!file_->descriptor.valid()) {
    fail(narrowPath, " cannot be opened: ", errno);
  }
  if (!isRegular(file_->descriptor)) {
    fail(narrowPath, " is no file: ", EINVAL);
  }
}

// A process that was forked meanwhile has the file open, too: closing it would leave it locked.
FileLock::~FileLock() {
  if (file_->maker == getpid()) {
    flock(file_->descriptor.get(), LOCK_UN);
  }
}

bool FileLock::tryShared() { return file_->tryLock(LOCK_SH); }

bool FileLock::tryExclusive() { return file_->tryLock(LOCK_EX); }

void FileLock::unlock() { file_->tryLock(LOCK_UN); }

bool FileLock::isNamed(const std::string& narrowPath) const {
  struct stat opened {};
  struct stat named {};
  return fstat(file_->descriptor.get(), &opened) == 0 && lstat(narrowPath.c_str(), &named) == 0 &&
         FileIdentity(opened) == FileIdentity(named);
}

}  // namespace platform
