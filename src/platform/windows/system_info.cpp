#include "platform/system_info.h"

#include <windows.h>

#include <algorithm>
#include <limits>

namespace platform {
namespace {

SYSTEM_INFO systemInfo() noexcept {
  SYSTEM_INFO information{};
  GetSystemInfo(&information);
  return information;
}

}  // namespace

std::uint32_t processorCount() noexcept { return std::max<std::uint32_t>(systemInfo().dwNumberOfProcessors, 1); }

std::uint64_t allocationGranularity() noexcept { return systemInfo().dwAllocationGranularity; }

std::uint64_t totalMemoryBytes() noexcept {
  MEMORYSTATUSEX status{};
  status.dwLength = sizeof(status);
  // Wine's first call on one thread can hand zeros to a second thread.
  if (GlobalMemoryStatusEx(&status) == 0 || status.ullTotalPageFile == 0) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  return status.ullTotalPageFile;
}

}  // namespace platform
