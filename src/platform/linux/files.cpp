#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include "platform/linux/descriptor.h"
#include "platform/paths.h"

namespace platform {
namespace {

constexpr mode_t kFileRights = 0600;
constexpr mode_t kFolderRights = 0700;

std::error_code lastError() { return {errno, std::generic_category()}; }

// Opens the regular file `path` and locks it as `lock` says, without waiting. What is locked is the file that has the
// name then: one that was removed between the two steps is let go and the name opened anew.
Descriptor openLocked(const std::string& path, int flags, int lock) {
  for (;;) {
    // Opening a pipe would wait for its other end.
    Descriptor descriptor(open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, kFileRights));
    struct stat opened {};
    if (!descriptor.valid() || fstat(descriptor.get(), &opened) != 0 || !S_ISREG(opened.st_mode)) {
      return Descriptor();
    }
    // A reader who finds that the file system has no locks goes without.
    if (flock(descriptor.get(), lock | LOCK_NB) != 0 && (lock != LOCK_SH || errno == EWOULDBLOCK)) {
      return Descriptor();
    }
    struct stat named {};
    if (stat(path.c_str(), &named) == 0 && FileIdentity(named) == FileIdentity(opened)) {
      return descriptor;
    }
  }
}

Stream streamOf(Descriptor descriptor, const char* mode) {
  Stream stream(descriptor.valid() ? fdopen(descriptor.get(), mode) : nullptr);
  if (stream != nullptr) {
    descriptor.release();
  }
  return stream;
}

// Emptied only once it is locked: whoever holds it keeps its contents.
Stream openEmptied(const std::wstring& path) {
  Descriptor descriptor = openLocked(narrowPath(path), O_RDWR | O_CREAT | O_NOFOLLOW, LOCK_EX);
  if (!descriptor.valid() || ftruncate(descriptor.get(), 0) != 0) {
    return nullptr;
  }
  return streamOf(std::move(descriptor), "w");
}

// Takes the room for the file's bytes, so that no later write into a view of it finds the disk full.
std::error_code reserve(const Descriptor& descriptor, std::uint64_t bytes) {
  struct rlimit limit {};
  if (getrlimit(RLIMIT_FSIZE, &limit) == 0 && limit.rlim_cur != RLIM_INFINITY && bytes > limit.rlim_cur) {
    return std::make_error_code(std::errc::file_too_large);  // trying it would end the process
  }
  int result = 0;
  do {
    result = fallocate(descriptor.get(), 0, 0, static_cast<off_t>(bytes));
  } while (result != 0 && errno == EINTR);
  if (result == 0 || (errno != EOPNOTSUPP && errno != ENOSYS)) {
    return result == 0 ? std::error_code() : lastError();
  }
  const char zero = 0;
  return pwrite(descriptor.get(), &zero, 1, static_cast<off_t>(bytes - 1)) == 1 ? std::error_code() : lastError();
}

}  // namespace

Stream openTextForReading(const std::wstring& path) {
  return streamOf(openLocked(narrowPath(path), O_RDONLY, LOCK_SH), "r");
}

Stream openTextForWriting(const std::wstring& path) { return openEmptied(path); }

Stream openLockFile(const std::wstring& path) { return openEmptied(path); }

std::error_code createZeroFile(const std::string& narrowPath, std::uint64_t bytes) {
  const Descriptor descriptor(
      open(narrowPath.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, kFileRights));
  if (!descriptor.valid()) {
    return lastError();
  }
  const std::error_code error = reserve(descriptor, bytes);
  if (error) {
    unlink(narrowPath.c_str());
  }
  return error;
}

bool removeFile(const std::string& narrowPath) { return unlink(narrowPath.c_str()) == 0; }

bool removeUnlessInUse(const std::wstring& path) {
  const std::string name = narrowPath(path);
  const Descriptor held = openLocked(name, O_RDONLY | O_NOFOLLOW, LOCK_EX);
  return held.valid() && unlink(name.c_str()) == 0;
}

std::error_code createFolders(const std::wstring& folder) {
  const std::filesystem::path whole(narrowPath(folder));
  std::filesystem::path part;
  std::error_code failure;
  for (const auto& component : whole) {
    part /= component;
    // The last failure counts: a folder that is there may refuse to be made for many reasons.
    failure = mkdir(part.c_str(), kFolderRights) == 0 ? std::error_code() : lastError();
  }
  struct stat status {};
  if (stat(whole.c_str(), &status) != 0) {
    return failure ? failure : lastError();
  }
  return S_ISDIR(status.st_mode) ? std::error_code() : std::make_error_code(std::errc::not_a_directory);
}

}  // namespace platform
