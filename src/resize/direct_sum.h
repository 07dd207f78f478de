// The sum that every rescaled sample is, computed in the order in which it is defined.
#pragma once

#include <cstdint>
#include <memory>

#include "core/pixel_format.h"
#include "resize/sampler.h"

namespace resize {

// One destination row, summed up source row by source row in double precision. The sum of a sample starts at +0 and
// takes value * wv * wh, multiplied in this order, for each source row of weight wv from the top and each of its pixels
// of weight wh from the left; never with a fused multiply-add. Other orders give other last bits.
class DirectSum {
 public:
  // Null if samples of this depth and sample format cannot be read: they are unsigned (1) or signed (2) integers of 8,
  // 16, 32 and 64 bits, signed integers of 64 bits (5), and floating-point numbers of 32 (3) and 64 (6) bits. Throws
  // std::bad_alloc.
  static std::unique_ptr<DirectSum> create(const core::PixelFormat& format, std::uint32_t sampleformat,
                                           std::shared_ptr<const Sampler> horizontal, std::uint32_t sourceWidth);

  virtual ~DirectSum() = default;

  // Begins a row.
  virtual void clear() = 0;

  // Takes one source row of the weight `weight`; `row` is its first pixel.
  virtual void addRow(const std::uint8_t* row, double weight) = 0;

  // Writes the samples of the row: integers rounded by adding 0.5 and cutting off the fraction, then cut to the range
  // of their type; floating-point numbers cut to the largest finite values.
  virtual void store(std::uint8_t* row) const = 0;
};

}  // namespace resize
