// What the operating system says of the machine.
#pragma once

#include <cstdint>

namespace platform {

// Processors that the system schedules threads on; at least 1.
std::uint32_t processorCount() noexcept;

// Bytes that the address of a mapped file view is a multiple of; a power of two, or 0 if the system does not say.
std::uint64_t allocationGranularity() noexcept;

// Bytes of memory that all processes together can use, physical memory and swap space; the largest value if the system
// does not say.
std::uint64_t totalMemoryBytes() noexcept;

}  // namespace platform
