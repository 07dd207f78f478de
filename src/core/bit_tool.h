// Copies of bit ranges between byte buffers. Bit i of a buffer is in byte i / 8 at bit position 7 - i % 8, counted from
// the least significant bit: most significant bit first.
#pragma once

#include <cstdint>

namespace core {

// Both copies move `bitCount` bits from bit `srcBitBegin` of `src` to bit `dstBitBegin` of `dst` and keep the other
// bits of `dst`. The buffers do not overlap. False, with a logged reason and nothing copied, if a range does not lie
// in its buffer; a range that begins at the buffer's end does not, even if it is empty.
class BitTool {
 public:
  // Any two bit positions.
  static bool fillBitsEx(std::uint8_t* dst, std::uint64_t dstBytes, std::uint64_t dstBitBegin, const std::uint8_t* src,
                         std::uint64_t srcBytes, std::uint64_t srcBitBegin, std::uint64_t bitCount);

  // The copy that the tiles use. As fillBitsEx, but ranges of 8 bits and more that begin at the same place inside their
  // bytes, the first place aside, must begin in the first byte of their buffers, else the copy fails.
  static bool fillBits(std::uint8_t* dst, std::uint64_t dstBytes, std::uint64_t dstBitBegin, const std::uint8_t* src,
                       std::uint64_t srcBytes, std::uint64_t srcBitBegin, std::uint64_t bitCount);
};

}  // namespace core
