#include "platform/mapped_files.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include "platform/linux/descriptor.h"

// A descriptor is open only while a view is made: an image has one file per tile, and a process far fewer descriptors
// than that. A view keeps its file alive by itself.

namespace platform {
namespace {

using win_interprocess::interprocess_exception;
using win_interprocess::shared_handle;

// What a handle points to: the name to open the file by, and how to tell that it is still the same file.
struct MeantFile {
  std::string name;
  std::uint32_t mode;
  std::uint64_t size;
  std::optional<FileIdentity> identity;  // where the file system keeps it
};

// Some file systems number a file anew each time it has not been used for a while.
bool keepsNumbers(const Descriptor& descriptor) {
  constexpr std::array<std::uint32_t, 7> kThatDoNot{MSDOS_SUPER_MAGIC, EXFAT_SUPER_MAGIC, FUSE_SUPER_MAGIC,
                                                    SMB_SUPER_MAGIC,   SMB2_SUPER_MAGIC,  CIFS_SUPER_MAGIC,
                                                    V9FS_MAGIC};
  struct statfs status {};
  return fstatfs(descriptor.get(), &status) == 0 &&
         std::find(kThatDoNot.begin(), kThatDoNot.end(), static_cast<std::uint32_t>(status.f_type)) == kThatDoNot.end();
}

int openFlags(std::uint32_t mode) {
  return (mode == win_interprocess::kReadOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
}

// The file that is meant, open; an empty descriptor with errno set if it is not there any more, or has changed.
Descriptor reopen(const MeantFile& file) {
  Descriptor descriptor(open(file.name.c_str(), openFlags(file.mode)));
  struct stat status {};
  if (!descriptor.valid() || fstat(descriptor.get(), &status) != 0) {
    return Descriptor();
  }
  // The system would map bytes behind the end of a shorter file as well, and end the process when they are touched.
  if ((file.identity && FileIdentity(status) != *file.identity) || !S_ISREG(status.st_mode) ||
      static_cast<std::uint64_t>(status.st_size) < file.size) {
    errno = ESTALE;
    return Descriptor();
  }
  return descriptor;
}

// Views may take less access than the mapping has, and private ones write without touching the file.
bool allows(std::uint32_t mappingMode, std::uint32_t viewMode) {
  return viewMode != win_interprocess::kReadWrite || mappingMode == win_interprocess::kReadWrite;
}

[[noreturn]] void throwViewFailed(int error) {
  throw interprocess_exception("map_view_of_file_ex failed", static_cast<std::uint32_t>(error));
}

}  // namespace

OpenMapping openMapping(const std::string& fileName, std::uint32_t mode) {
  const auto fail = [](int error) {
    throw interprocess_exception("fileMappingHandle is invalid", static_cast<std::uint32_t>(error));
  };
  const Descriptor descriptor(open(fileName.c_str(), openFlags(mode)));
  if (!descriptor.valid()) {
    fail(errno);
  }
  struct stat status {};
  if (fstat(descriptor.get(), &status) != 0) {
    fail(errno);
  }
  if (!S_ISREG(status.st_mode) || status.st_size == 0) {
    fail(EINVAL);
  }
  MeantFile file{fileName, mode, static_cast<std::uint64_t>(status.st_size), std::nullopt};
  if (keepsNumbers(descriptor)) {
    file.identity = FileIdentity(status);
  }
  const shared_handle handle(new MeantFile(std::move(file)), win_interprocess::HandleDeleter());
  return {handle, handle, status.st_size};
}

std::uint8_t* mapView(const shared_handle& mapping, std::uint32_t mode, std::uint64_t start, std::uint64_t length) {
  const auto& file = *static_cast<const MeantFile*>(mapping.get());
  if (!allows(file.mode, mode)) {
    throwViewFailed(EACCES);
  }
  if (start > file.size || length > file.size - start) {
    throwViewFailed(EINVAL);
  }
  const Descriptor descriptor = reopen(file);
  if (!descriptor.valid()) {
    throwViewFailed(errno);
  }
  const int access = mode == win_interprocess::kReadOnly ? PROT_READ : PROT_READ | PROT_WRITE;
  const int sharing = mode == win_interprocess::kCopyOnWrite ? MAP_PRIVATE : MAP_SHARED;
  void* const view = mmap(nullptr, length, access, sharing, descriptor.get(), static_cast<off_t>(start));
  if (view == MAP_FAILED) {
    throwViewFailed(errno);
  }
  return static_cast<std::uint8_t*>(view);
}

void unmapView(std::uint8_t* view, std::uint64_t length) noexcept { munmap(view, length); }

void flushView(const shared_handle& file, std::uint8_t*, std::uint64_t start, std::uint64_t length) noexcept {
  const Descriptor descriptor = reopen(*static_cast<const MeantFile*>(file.get()));
  if (descriptor.valid()) {
    sync_file_range(descriptor.get(), static_cast<off_t>(start), static_cast<off_t>(length), SYNC_FILE_RANGE_WRITE);
  }
}

}  // namespace platform

namespace win_interprocess {

void HandleDeleter::operator()(void* handle) const noexcept { delete static_cast<platform::MeantFile*>(handle); }

}  // namespace win_interprocess
