// What win_interprocess asks of the operating system. All throw win_interprocess::interprocess_exception.
#pragma once

#include <cstdint>
#include <string>

#include "platform/win_interprocess.h"

namespace platform {

struct OpenMapping {
  win_interprocess::shared_handle file;
  win_interprocess::shared_handle mapping;
  std::int64_t size = 0;  // bytes of the file
};

// `mode` is one of the three of win_interprocess.
OpenMapping openMapping(const std::string& fileName, std::uint32_t mode);

// The address of a new view of bytes [start, start + length) of the file; `start` is a multiple of
// allocationGranularity().
std::uint8_t* mapView(const win_interprocess::shared_handle& mapping, std::uint32_t mode, std::uint64_t start,
                      std::uint64_t length);

// The whole view of `length` bytes at `view` goes.
void unmapView(std::uint8_t* view, std::uint64_t length) noexcept;

// Begins to write the changed bytes of a view to its file, from `start` on in the file.
void flushView(const win_interprocess::shared_handle& file, std::uint8_t* view, std::uint64_t start,
               std::uint64_t length) noexcept;

}  // namespace platform
