#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <utility>

#include "support/mapping_calls.h"

namespace {

std::mutex mutex;
std::vector<support::FlushCall> calls;

std::filesystem::path hidingPlace(const std::filesystem::path& path) {
  return path.parent_path() / ("hidden_" + path.filename().string());
}

}  // namespace

// Stands in for the C library's.
int sync_file_range(int descriptor, off64_t offset, off64_t bytes, unsigned flags) {
  std::error_code unknown;
  const auto path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(descriptor), unknown);
  {
    const std::lock_guard lock(mutex);
    calls.push_back({path.filename().string(), static_cast<std::uint64_t>(bytes)});
  }
  return static_cast<int>(syscall(SYS_sync_file_range, descriptor, offset, bytes, flags));
}

namespace support {

std::vector<FlushCall> takeFlushCalls() {
  const std::lock_guard lock(mutex);
  return std::exchange(calls, {});
}

// Away and back again it is the same file, which is what the library looks at.
Unmappable::Unmappable(std::filesystem::path path) : path_(std::move(path)) {
  std::filesystem::rename(path_, hidingPlace(path_));
}

Unmappable::~Unmappable() {
  std::error_code ignored;
  std::filesystem::rename(hidingPlace(path_), path_, ignored);
}

}  // namespace support
