// Columns of packed pixels that are narrower than a byte.
#pragma once

#include <cstdint>

namespace core {

// One pixel in each row of a tile, read and written up to 64 bits at a time: what a column copy bit by bit would do,
// without going through memory for each pixel.
class NarrowColumn {
 public:
  static constexpr bool takes(std::uint32_t bits) { return bits >= 1 && bits <= 7; }

  // Pixels of `bits` bits, which it takes, at bit `bit` of each row; rows are `rowBytes` apart from `firstRow` on.
  NarrowColumn(std::uint8_t* firstRow, std::uint64_t rowBytes, std::uint64_t bit, std::uint32_t bits)
      : first_(firstRow + bit / 8),
        rowBytes_(rowBytes),
        phase_(static_cast<std::uint32_t>(bit % 8)),
        bits_(bits),
        mask_((1U << bits) - 1) {}

  // Pixels that a word holds.
  std::uint32_t pixelsPerWord() const { return 64 / bits_; }

  // The pixels of rows [row, row + count), at most pixelsPerWord(), from the most significant bit of the word on; its
  // other bits are 0.
  std::uint64_t read(std::uint32_t row, std::uint32_t count) const {
    std::uint64_t word = 0;
    std::uint32_t place = 64;
    const std::uint8_t* byte = first_ + row * rowBytes_;
    if (spansTwoBytes()) {
      const std::uint32_t shift = 16 - phase_ - bits_;
      for (std::uint32_t i = 0; i < count; ++i, byte += rowBytes_) {
        place -= bits_;
        word |= std::uint64_t{(static_cast<std::uint32_t>(byte[0]) << 8 | byte[1]) >> shift & mask_} << place;
      }
    } else {
      const std::uint32_t shift = 8 - phase_ - bits_;
      for (std::uint32_t i = 0; i < count; ++i, byte += rowBytes_) {
        place -= bits_;
        word |= std::uint64_t{static_cast<std::uint32_t>(*byte) >> shift & mask_} << place;
      }
    }
    return word;
  }

  // Writes rows [row, row + count) from a word as `read` gives it; the neighbours' bits stay.
  void write(std::uint32_t row, std::uint32_t count, std::uint64_t word) {
    std::uint8_t* byte = first_ + row * rowBytes_;
    const bool two = spansTwoBytes();
    const std::uint32_t shift = (two ? 16 : 8) - phase_ - bits_;
    const std::uint32_t hole = ~(mask_ << shift);
    for (std::uint32_t i = 0; i < count; ++i, byte += rowBytes_, word <<= bits_) {
      const std::uint32_t pixel = static_cast<std::uint32_t>(word >> (64 - bits_)) << shift;
      if (two) {
        const std::uint32_t window = ((static_cast<std::uint32_t>(byte[0]) << 8 | byte[1]) & hole) | pixel;
        byte[0] = static_cast<std::uint8_t>(window >> 8);
        byte[1] = static_cast<std::uint8_t>(window);
      } else {
        *byte = static_cast<std::uint8_t>((*byte & hole) | pixel);
      }
    }
  }

 private:
  bool spansTwoBytes() const { return phase_ + bits_ > 8; }

  std::uint8_t* first_;  // the byte of row 0 that the pixel begins in
  std::uint64_t rowBytes_;
  std::uint32_t phase_;  // of the pixel in that byte, 0 the most significant bit
  std::uint32_t bits_;
  std::uint32_t mask_;
};

}  // namespace core
