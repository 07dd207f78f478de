#include "platform/system_info.h"

#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

namespace platform {

std::uint32_t processorCount() noexcept {
  const long processors = sysconf(_SC_NPROCESSORS_ONLN);
  return static_cast<std::uint32_t>(std::max(processors, 1L));
}

std::uint64_t allocationGranularity() noexcept {
  const long pageSize = sysconf(_SC_PAGESIZE);
  return pageSize > 0 ? static_cast<std::uint64_t>(pageSize) : 0;
}

std::uint64_t totalMemoryBytes() noexcept {
  struct sysinfo information {};
  if (sysinfo(&information) != 0) {
    return std::numeric_limits<std::uint64_t>::max();
  }
  return (std::uint64_t{information.totalram} + information.totalswap) * information.mem_unit;
}

}  // namespace platform
