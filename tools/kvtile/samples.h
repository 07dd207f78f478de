// Rows of samples in memory: 1, 2 and 4 bits packed with the most significant bit first, wider ones as whole bytes in
// the machine's order, the samples of a pixel one after the other.
#ifndef KVTILE_SAMPLES_H
#define KVTILE_SAMPLES_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "picture.h"

namespace kvtile {

// Sample `index` of a packed row; `bits` 1, 2 or 4.
inline std::uint32_t packedSample(std::span<const std::uint8_t> row, std::size_t index, std::uint32_t bits) {
  const std::size_t position = index * bits;
  return (row[position / 8] >> (8 - bits - position % 8)) & ((1U << bits) - 1);
}

// Writes `count` samples of `bits` (1, 2 or 4) bits as bytes, each multiplied by `scale`. `packed` and `bytes` must not
// overlap.
void widen(std::span<const std::uint8_t> packed, std::uint32_t bits, std::uint32_t scale, std::size_t count,
           std::span<std::uint8_t> bytes);

// Puts `count` samples of one plane into `row` as sample `index` of each pixel; both in `format`'s bits. The other
// samples keep their values.
void insertPlane(std::span<const std::uint8_t> plane, const PixelFormat& format, std::uint32_t index, std::size_t count,
                 std::span<std::uint8_t> row);

// Replaces the first sample of each pixel by the highest value minus it: black and white change places. Unsigned
// samples of 1 to 16 bits; packed formats with one sample only.
void invertGrey(std::span<std::uint8_t> row, const PixelFormat& format, std::size_t pixels);

// Divides the samples of each pixel by the last one, its alpha, and rounds; fully transparent pixels become 0.
// Unsigned samples of 8 or 16 bits.
void unpremultiply(std::span<std::uint8_t> row, const PixelFormat& format, std::size_t pixels);

// Writes the colour of each index and, where a pixel has 4 samples instead of 3, its alpha, a byte each. Indices of 1
// to 8 bits; those behind the palette's end give opaque black.
void expandPalette(std::span<const std::uint8_t> indices, std::uint32_t bits, const Palette& palette,
                   std::size_t pixels, std::uint32_t samples, std::span<std::uint8_t> colours);

}  // namespace kvtile

#endif
