#include "platform/files.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <limits>

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
  constexpr int kAttempts = 100;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    // Opening a pipe would wait for its other end.
    Descriptor descriptor(open(path.c_str(), flags | O_CLOEXEC | O_NONBLOCK, kFileRights));
    struct stat opened {};
    if (!descriptor.valid() || fstat(descriptor.get(), &opened) != 0 || !S_ISREG(opened.st_mode)) {
      break;
    }
    // A reader who finds that the file system has no locks goes without.
    if (flock(descriptor.get(), lock | LOCK_NB) != 0 && (lock != LOCK_SH || errno == EWOULDBLOCK)) {
      break;
    }
    struct stat named {};
    if (stat(path.c_str(), &named) == 0 && FileIdentity(named) == FileIdentity(opened)) {
      return descriptor;
    }
  }
  return Descriptor();
}

Stream streamOf(Descriptor descriptor, const char* mode) {
  Stream stream(descriptor.valid() ? fdopen(descriptor.get(), mode) : nullptr);
  if (stream != nullptr) {
    descriptor.release();
  }
  return stream;
}

// Whether a file may grow to `bytes`: the system ends a process that goes beyond its limit.
bool withinFileSizeLimit(std::uint64_t bytes) {
  struct rlimit limit {};
  return getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY || bytes <= limit.rlim_cur;
}

bool writeAll(const Descriptor& descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = write(descriptor.get(), text.data(), text.size());
    if (written < 0 && errno != EINTR) {
      return false;
    }
    text.remove_prefix(written > 0 ? static_cast<std::size_t>(written) : 0);
  }
  return true;
}

constexpr const char* kPartExtension = ".part";

// What the calling thread calls a text that it writes until it is complete.
std::string partOf(const std::string& path) {
  return path + "." + std::to_string(getpid()) + "-" + std::to_string(gettid()) + kPartExtension;
}

// The process that gave a file such a name; nothing if it is none.
std::optional<pid_t> writerOf(const std::filesystem::path& part) {
  const std::string stem = part.stem().string();
  const std::size_t dot = stem.rfind('.');
  char* end = nullptr;
  const long process = dot == std::string::npos ? 0 : std::strtol(stem.c_str() + dot + 1, &end, 10);
  const bool named =
      part.extension() == kPartExtension && process > 0 && *end == '-' && process <= std::numeric_limits<pid_t>::max();
  return named ? std::optional(static_cast<pid_t>(process)) : std::nullopt;
}

// A new file beside `path` that takes its name only when it is complete: nobody sees a part, and a full disk leaves
// what was there.
bool replaceFile(const std::string& path, std::string_view text) {
  const std::string part = partOf(path);
  unlink(part.c_str());  // of a process that had this id
  const Descriptor descriptor(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileRights));
  if (!descriptor.valid()) {
    return false;
  }
  if (writeAll(descriptor, text) && rename(part.c_str(), path.c_str()) == 0) {
    return true;
  }
  unlink(part.c_str());
  return false;
}

// Takes the room for the file's bytes, so that no later write into a view of it finds the disk full. Step by step: a
// signal undoes the step that it meets.
std::error_code reserve(const Descriptor& descriptor, std::uint64_t bytes) {
  constexpr std::uint64_t kStep = std::uint64_t{64} << 20;
  for (std::uint64_t begin = 0; begin < bytes;) {
    const std::uint64_t length = std::min(kStep, bytes - begin);
    if (fallocate(descriptor.get(), 0, static_cast<off_t>(begin), static_cast<off_t>(length)) == 0) {
      begin += length;
    } else if (errno != EINTR) {
      return lastError();
    }
  }
  return {};
}

// Its full size at once where that takes no room: the file grows with one byte at its end.
std::error_code extend(const Descriptor& descriptor, std::uint64_t bytes) {
  const char zero = 0;
  return pwrite(descriptor.get(), &zero, 1, static_cast<off_t>(bytes - 1)) == 1 ? std::error_code() : lastError();
}

std::error_code takeRoom(const Descriptor& descriptor, std::uint64_t bytes) {
  if (!withinFileSizeLimit(bytes)) {
    return std::make_error_code(std::errc::file_too_large);
  }
  struct statvfs disk {};
  if (fstatvfs(descriptor.get(), &disk) == 0 && disk.f_blocks != 0 && bytes / disk.f_frsize > disk.f_bavail) {
    return std::make_error_code(std::errc::no_space_on_device);  // trying it would fill the disk first
  }
  const std::error_code error = reserve(descriptor, bytes);
  const bool unable = error.value() == EOPNOTSUPP || error.value() == ENOSYS;
  return unable ? extend(descriptor, bytes) : error;
}

bool isFolder(const std::filesystem::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

Stream openTextForReading(const std::wstring& path) {
  return streamOf(openLocked(narrowPath(path), O_RDONLY, LOCK_SH), "r");
}

bool writeText(const std::wstring& path, std::string_view text) {
  const std::string name = narrowPath(path);
  struct stat present {};
  const bool replaces = lstat(name.c_str(), &present) == 0;
  // Whoever denies others the file keeps it. Readers need not be kept out: they see the old text or the new one.
  const Descriptor locked = replaces ? openLocked(name, O_RDWR | O_NOFOLLOW, LOCK_SH) : Descriptor();
  return locked.valid() == replaces && withinFileSizeLimit(text.size()) && replaceFile(name, text);
}

void removeUnfinishedTexts(const std::wstring& folder) {
  std::error_code error;
  for (std::filesystem::recursive_directory_iterator entry(narrowPath(folder), error), end; !error && entry != end;
       entry.increment(error)) {
    const auto writer = writerOf(entry->path());
    if (writer && kill(*writer, 0) != 0 && errno == ESRCH) {
      unlink(entry->path().c_str());
    }
  }
}

// Emptied only once it is locked: whoever holds it keeps its contents.
Stream openLockFile(const std::wstring& path) {
  Descriptor descriptor = openLocked(narrowPath(path), O_RDWR | O_CREAT | O_NOFOLLOW, LOCK_EX);
  if (!descriptor.valid() || ftruncate(descriptor.get(), 0) != 0) {
    return nullptr;
  }
  return streamOf(std::move(descriptor), "w");
}

Stream openToKeep(const std::string& narrowPath) {
  Descriptor descriptor(open(narrowPath.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, kFileRights));
  struct stat opened {};
  const bool regular = descriptor.valid() && fstat(descriptor.get(), &opened) == 0 && S_ISREG(opened.st_mode);
  return regular ? streamOf(std::move(descriptor), "w") : nullptr;
}

std::error_code createZeroFile(const std::string& narrowPath, std::uint64_t bytes) {
  const Descriptor descriptor(open(narrowPath.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, kFileRights));
  if (!descriptor.valid()) {
    return lastError();
  }
  const std::error_code error = takeRoom(descriptor, bytes);
  if (error) {
    unlink(narrowPath.c_str());
  }
  return error;
}

bool removeFile(const std::string& narrowPath) { return unlink(narrowPath.c_str()) == 0; }

bool removeUnlessInUse(const std::wstring& path, const std::function<void()>& removeCompanions) {
  const std::string name = narrowPath(path);
  // Writable, as network file systems ask of an exclusive lock.
  const Descriptor held = openLocked(name, O_RDWR | O_NOFOLLOW, LOCK_EX);
  if (!held.valid()) {
    return false;
  }
  removeCompanions();  // first: a file that a killed process leaves behind is found by the next one
  return unlink(name.c_str()) == 0;
}

std::optional<std::uint64_t> fileBytes(const std::string& narrowPath) {
  struct stat status {};
  if (lstat(narrowPath.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  return static_cast<std::uint64_t>(status.st_size);
}

std::wstring fileKey(const std::wstring& path) {
  struct stat status {};
  if (stat(narrowPath(path).c_str(), &status) != 0) {
    return path;
  }
  return std::to_wstring(status.st_dev) + L':' + std::to_wstring(status.st_ino);
}

std::error_code createFolders(const std::wstring& folder) {
  std::filesystem::path path;
  for (const auto& component : std::filesystem::path(narrowPath(folder))) {
    path /= component;
    // A folder that is there may refuse to be made for many reasons.
    if (mkdir(path.c_str(), kFolderRights) != 0) {
      const std::error_code error = lastError();
      if (!isFolder(path)) {
        return error.value() == EEXIST ? std::make_error_code(std::errc::not_a_directory) : error;
      }
    }
  }
  return {};
}

}  // namespace platform
