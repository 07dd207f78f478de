// From one size to another by repeating pixels and leaving pixels out.
#ifndef KVTILE_SAMPLING_H
#define KVTILE_SAMPLING_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "image.h"
#include "picture.h"

namespace kvtile {

// The length that `other` pixels get where `from` pixels become `to` and the aspect ratio stays: rounded to nearest, at
// least 1. No argument may be 0.
std::uint64_t proportionalLength(std::uint32_t other, std::uint32_t from, std::uint32_t to);

// Walks along `results` pixels that take the place of `sources` pixels, starting with the first. Each one takes the
// source pixel under its middle: number i takes floor((2 * i + 1) * sources / (2 * results)).
class SampledPositions {
 public:
  SampledPositions(std::uint32_t sources, std::uint32_t results);

  // The source pixel; to be asked for the `results` pixels only.
  std::uint32_t position() const { return static_cast<std::uint32_t>(position_); }

  void advance();

 private:
  std::uint64_t results_;
  std::uint64_t wholeStep_;
  std::uint64_t partOfStep_;  // in parts of 1 / results_
  std::uint64_t position_;
  std::uint64_t part_;  // behind position_, in parts of 1 / results_
};

// Makes a row of `width` pixels in `row` from a row of `sourceWidth` pixels, both packed as in memory. Bits behind the
// last pixel become 0, or stay those of a source of the same width.
void sampleRow(std::span<const std::uint8_t> source, std::uint32_t sourceWidth, const PixelFormat& format,
               std::uint32_t width, std::span<std::uint8_t> row);

// The rows of an image in another size, from the top.
class SampledRows {
 public:
  // `result` has the image's pixels and the size that is wanted. `image` has to outlive the object.
  SampledRows(Image& image, const Picture& result);

  // Moves on to the next row, at first to the first one. False if it is the same as the row before.
  bool advance();

  // May be changed, but not where the next row is the same.
  std::span<std::uint8_t> row() { return row_; }

 private:
  Image& image_;
  PixelFormat format_;
  std::uint32_t width_;
  SampledPositions positions_;
  std::optional<std::uint32_t> fetched_;  // the row of the image that row_ was made from
  std::vector<std::uint8_t> source_;
  std::vector<std::uint8_t> row_;
};

}  // namespace kvtile

#endif
