#include "platform/mapped_files.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cerrno>

#include "platform/linux/descriptor.h"
#include "platform/paths.h"
#include "platform/system_info.h"

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
  FileIdentity identity;
};

int openFlags(std::uint32_t mode) {
  return (mode == win_interprocess::kReadOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
}

// The file that is meant, open; an empty descriptor with errno set if it is not there any more.
Descriptor reopen(const MeantFile& file) {
  Descriptor descriptor(open(file.name.c_str(), openFlags(file.mode)));
  if (descriptor.valid() && identityOf(descriptor) != file.identity) {
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
  const shared_handle handle(new MeantFile{fileName, mode, FileIdentity(status)}, win_interprocess::HandleDeleter());
  return {handle, handle, status.st_size};
}

std::uint8_t* mapView(const shared_handle& mapping, std::uint32_t mode, std::uint64_t start, std::uint64_t length) {
  const auto& file = *static_cast<const MeantFile*>(mapping.get());
  if (!allows(file.mode, mode)) {
    throwViewFailed(EACCES);
  }
  const Descriptor descriptor = reopen(file);
  struct stat status {};
  if (!descriptor.valid() || fstat(descriptor.get(), &status) != 0) {
    throwViewFailed(errno);
  }
  // The system would map bytes behind the end as well and end the process when they are touched.
  const auto size = static_cast<std::uint64_t>(status.st_size);
  if (start > size || length > size - start) {
    throwViewFailed(EINVAL);
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
