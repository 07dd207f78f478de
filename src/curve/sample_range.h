// The values that a sample can have, and how computed ones become entries of a table.
#pragma once

#include <cmath>
#include <cstdint>
#include <limits>

namespace curve {

// Values of unsigned samples, std::uint8_t or std::uint16_t.
template <typename Sample>
struct SampleRange {
  static constexpr std::uint32_t kCount = std::uint32_t{std::numeric_limits<Sample>::max()} + 1;
  static constexpr std::uint32_t kMiddle = kCount / 2;
  static constexpr double kMaximum = std::numeric_limits<Sample>::max();

  // Not a number becomes 0.
  static double clamp(double value) {
    value = value > kMaximum ? kMaximum : value;
    return value > 0.0 ? value : 0.0;
  }

  // Half up; `value` is in the range.
  static Sample round(double value) { return static_cast<Sample>(std::floor(value + 0.5)); }
};

// Parameters nearer to 0 or to 1 than this count as equal to it.
constexpr double kParameterEpsilon = std::numeric_limits<double>::epsilon();

inline bool isZero(double value) { return std::fabs(value) < kParameterEpsilon; }
inline bool isOne(double value) { return std::fabs(value - 1.0) < kParameterEpsilon; }

}  // namespace curve
