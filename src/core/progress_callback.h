// How callers follow work that goes over an image row by row.
#pragma once

#include <cstdint>

namespace core {

// Called with the row just done and the number of rows; may be null, and may throw to stop the work.
using ProgressCallback = void (*)(std::uint32_t index, std::uint32_t count);

}  // namespace core
