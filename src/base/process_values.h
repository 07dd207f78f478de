// Values of the system that are read once, when the library is loaded.
#pragma once

#include <cstdint>

namespace base {

// Processors of the machine; at least 1.
std::uint32_t processorCount() noexcept;

// Bytes that the size of a file-mapped tile is rounded up to. Asked of the system again while it has not said.
std::uint64_t allocationGranularity() noexcept;

}  // namespace base
