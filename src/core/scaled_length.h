// Lengths in pixels under a scale.
#pragma once

#include <cstdint>
#include <limits>

namespace core {

// count * scale + 0.5, truncated. Not a number and results below 0 give 0, results of 2^64 and more the largest value.
inline std::uint64_t scaledLength(std::uint64_t count, double scale) {
  constexpr double kTwoToThe64 = 18446744073709551616.0;
  const double scaled = static_cast<double>(count) * scale + 0.5;
  if (!(scaled >= 0.0)) {
    return 0;
  }
  return scaled < kTwoToThe64 ? static_cast<std::uint64_t>(scaled) : std::numeric_limits<std::uint64_t>::max();
}

}  // namespace core
