#include "platform/lock_files.h"

#include <windows.h>

#include "platform/win_interprocess.h"

namespace platform {
namespace {

using win_interprocess::interprocess_exception;

constexpr DWORD kWholeFile = MAXDWORD;  // in both halves of the length
constexpr int kAttempts = 3;
constexpr DWORD kPauseMilliseconds = 250;

HANDLE openShared(const std::string& path, DWORD disposition) {
  constexpr DWORD kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  for (int attempt = 1;; ++attempt) {
    const HANDLE handle =
        CreateFileA(path.c_str(), GENERIC_READ | GENERIC_WRITE, kShareAll, nullptr, disposition, 0, nullptr);
    if (handle != INVALID_HANDLE_VALUE) {
      return handle;
    }
    const DWORD error = GetLastError();
    if (error != ERROR_SHARING_VIOLATION || attempt == kAttempts) {
      throw interprocess_exception(path + " cannot be opened: error " + std::to_string(error), error);
    }
    Sleep(kPauseMilliseconds);
  }
}

}  // namespace

struct FileLock::File {
  std::string path;
  HANDLE handle = INVALID_HANDLE_VALUE;

  File() = default;
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() {
    if (handle != INVALID_HANDLE_VALUE) {
      CloseHandle(handle);
    }
  }

  bool tryLock(DWORD kind) const {
    OVERLAPPED fromStart{};
    if (LockFileEx(handle, kind | LOCKFILE_FAIL_IMMEDIATELY, 0, kWholeFile, kWholeFile, &fromStart) != 0) {
      return true;
    }
    const DWORD error = GetLastError();
    if (error != ERROR_LOCK_VIOLATION && error != ERROR_IO_PENDING) {
      throw interprocess_exception(path + " cannot be locked: error " + std::to_string(error), error);
    }
    return false;
  }
};

FileLock::FileLock(const std::string& narrowPath, IfMissing ifMissing) : file_(std::make_unique<File>()) {
  file_->path = narrowPath;
  file_->handle = openShared(narrowPath, ifMissing == IfMissing::make ? OPEN_ALWAYS : OPEN_EXISTING);
}

FileLock::~FileLock() = default;

bool FileLock::tryShared() { return file_->tryLock(0); }

bool FileLock::tryExclusive() { return file_->tryLock(LOCKFILE_EXCLUSIVE_LOCK); }

void FileLock::unlock() {
  OVERLAPPED fromStart{};
  if (UnlockFileEx(file_->handle, 0, kWholeFile, kWholeFile, &fromStart) == 0) {
    const DWORD error = GetLastError();
    throw interprocess_exception(file_->path + " cannot be unlocked: error " + std::to_string(error), error);
  }
}

// An open file keeps its name until it is removed, and one that is being removed has none.
bool FileLock::isNamed(const std::string& narrowPath) const {
  return GetFileAttributesA(narrowPath.c_str()) != INVALID_FILE_ATTRIBUTES;
}

}  // namespace platform
