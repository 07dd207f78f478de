#include "file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "errors.h"
#include "system.h"

namespace kvtile {
namespace {

// Long transfers look for a request to stop this often.
constexpr std::size_t kTransferBytes = std::size_t{1} << 20;

[[noreturn]] void failToOpen(const std::string& path, int error) {
  if (error == ENOENT) {
    throw Failure(path, "there is no such file", "check the name");
  }
  const char* advice = error == EACCES ? "ask for the right to read it" : "check the name and the disk";
  throw Failure(path, std::string("cannot be opened (") + std::strerror(error) + ")", advice);
}

}  // namespace

File File::openForReading(const std::string& path) {
  int error = 0;
  switch (system::kindOf(path, error)) {
    case system::FileKind::Missing:
      failToOpen(path, error);
    case system::FileKind::Folder:
      throw Failure(path, "is a folder", "name a file in it");
    case system::FileKind::Other:
      throw Failure(path, "is not an ordinary file", "copy its contents to a file first");
    case system::FileKind::Regular:
      break;
  }
  std::FILE* stream = system::openForReading(path);
  if (stream == nullptr) {
    failToOpen(path, errno);
  }
  return File(stream);
}

File File::createExclusively(const std::string& path, const std::string& shownAs) {
  std::FILE* stream = system::createExclusively(path);
  if (stream == nullptr) {
    throw Failure(shownAs, std::string("cannot be created (") + std::strerror(errno) + ")",
                  errno == ENOSPC ? "free some space" : "choose another folder or name");
  }
  return File(stream);
}

std::size_t File::read(void* data, std::size_t bytes) noexcept {
  if (!prepareFor(LastUse::Read)) {
    return 0;
  }
  std::size_t done = 0;
  while (done < bytes) {
    if (system::stopRequested()) {
      errno = EINTR;
      keepError();
      break;
    }
    const std::size_t wanted = std::min(bytes - done, kTransferBytes);
    const std::size_t got = std::fread(static_cast<char*>(data) + done, 1, wanted, stream_.get());
    done += got;
    if (got < wanted) {
      if (std::ferror(stream_.get()) != 0) {
        keepError();
      }
      std::clearerr(stream_.get());
      break;
    }
  }
  return done;
}

std::size_t File::readAt(std::uint64_t offset, void* data, std::size_t bytes) noexcept {
  if (offset > INT64_MAX || seek(static_cast<std::int64_t>(offset), SEEK_SET) < 0) {
    return 0;
  }
  return read(data, bytes);
}

bool File::write(const void* data, std::size_t bytes) noexcept {
  if (!prepareFor(LastUse::Write)) {
    return false;
  }
  if (std::fwrite(data, 1, bytes, stream_.get()) != bytes) {
    keepError();
    return false;
  }
  return true;
}

std::int64_t File::seek(std::int64_t offset, int whence) noexcept {
  lastUse_ = LastUse::None;
  if (!system::seek(stream_.get(), offset, whence)) {
    // Positions that a damaged file invents are no failure of the disk; data that could not be put there is.
    if (errno != EINVAL) {
      keepError();
    }
    return -1;
  }
  return system::tell(stream_.get());
}

std::uint64_t File::size() noexcept {
  const std::int64_t position = system::tell(stream_.get());
  const std::int64_t end = seek(0, SEEK_END);
  if (position < 0 || end < 0 || seek(position, SEEK_SET) < 0) {
    return 0;
  }
  return static_cast<std::uint64_t>(end);
}

bool File::flush() noexcept {
  if (std::fflush(stream_.get()) != 0) {
    keepError();
    return false;
  }
  return true;
}

bool File::sync() noexcept {
  if (!flush()) {
    return false;
  }
  const int error = system::waitForDisk(stream_.get());
  if (error != 0) {
    errno = error;
    keepError();
    return false;
  }
  return true;
}

bool File::close() noexcept {
  if (std::fclose(stream_.release()) != 0) {
    keepError();
    return false;
  }
  return error_ == 0;
}

bool File::prepareFor(LastUse use) noexcept {
  if (lastUse_ != LastUse::None && lastUse_ != use && !system::seek(stream_.get(), 0, SEEK_CUR)) {
    keepError();
    return false;
  }
  lastUse_ = use;
  return true;
}

void File::keepError() noexcept {
  if (error_ == 0) {
    error_ = errno;
  }
}

}  // namespace kvtile
