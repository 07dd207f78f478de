// Values of the system that are read once, when the library is loaded.
#pragma once

#include <cstdint>

namespace base {

// Processors of the machine; at least 1.
std::uint32_t processorCount() noexcept;

// Bytes that the size of a file-mapped tile is rounded up to. Asked of the system again while it has not said.
std::uint64_t allocationGranularity() noexcept;

// Bytes of memory, swap space included, that the machine had at load; the largest value if the system did not say.
std::uint64_t totalMemoryBytes() noexcept;

}  // namespace base
