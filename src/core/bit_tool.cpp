#include "core/bit_tool.h"

#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "core/big_endian.h"

namespace core {
namespace {

// Byte counts come from callers and may be as large as the type: compared without multiplying them.
bool rangeFits(std::uint64_t bytes, std::uint64_t bitBegin, std::uint64_t bitCount) {
  if (bitBegin / 8 >= bytes) {
    return false;
  }
  const std::uint64_t bytesBehindBegin = bytes - bitBegin / 8;
  const std::uint64_t bitsToMove = bitBegin % 8 + std::min(bitCount, ~std::uint64_t{7});
  return bitsToMove / 8 + (bitsToMove % 8 != 0 ? 1 : 0) <= bytesBehindBegin;
}

bool checkRanges(const char* function, std::uint64_t dstBytes, std::uint64_t dstBitBegin, std::uint64_t srcBytes,
                 std::uint64_t srcBitBegin, std::uint64_t bitCount) {
  if (!rangeFits(dstBytes, dstBitBegin, bitCount)) {
    base::logger().log(ember_logger::error, "[%s] dstBitBeginIndex or dstBitEndIndex out range!", function);
    return false;
  }
  if (!rangeFits(srcBytes, srcBitBegin, bitCount)) {
    base::logger().log(ember_logger::error, "[%s] srcBitBeginIndex or srcBitEndIndex out range!", function);
    return false;
  }
  return true;
}

// The `count` bits (1 to 8) from bit `bit` of `src` on, in the low bits. Reads only bytes that hold some of them.
unsigned peekBits(const std::uint8_t* src, std::uint64_t bit, unsigned count) {
  const std::uint8_t* const byte = src + bit / 8;
  const auto phase = static_cast<unsigned>(bit % 8);
  unsigned window = static_cast<unsigned>(byte[0]) << 8;
  if (phase + count > 8) {
    window |= byte[1];
  }
  return window >> (16 - phase - count) & ((1U << count) - 1);
}

// Writes the low `count` bits of `bits` into `byte`, from bit `phase` (0 the most significant) on; phase + count <= 8.
void pokeBits(std::uint8_t& byte, unsigned phase, unsigned bits, unsigned count) {
  const unsigned shift = 8 - phase - count;
  const unsigned mask = ((1U << count) - 1) << shift;
  byte = static_cast<std::uint8_t>((byte & ~mask) | (bits << shift & mask));
}

// Fills `dst`, a whole byte on, with `words` times 64 bits from bit `phase` (1 to 7) of `src` on.
void shiftWords(std::uint8_t* dst, const std::uint8_t* src, unsigned phase, std::uint64_t words) {
  for (std::uint64_t word = 0; word < words; ++word, dst += 8, src += 8) {
    // The last of the 64 bits is in the ninth byte, as phase is not 0.
    storeBigEndian(dst, loadBigEndian(src) << phase | static_cast<std::uint64_t>(src[8] >> (8 - phase)));
  }
}

// The copy itself; the ranges have been checked.
void moveBits(std::uint8_t* dst, std::uint64_t dstBit, const std::uint8_t* src, std::uint64_t srcBit,
              std::uint64_t count) {
  dst += dstBit / 8;
  src += srcBit / 8;
  srcBit %= 8;
  const auto dstPhase = static_cast<unsigned>(dstBit % 8);
  if (dstPhase != 0 && count != 0) {
    const auto head = static_cast<unsigned>(std::min<std::uint64_t>(8 - dstPhase, count));
    pokeBits(*dst++, dstPhase, peekBits(src, srcBit, head), head);
    srcBit += head;
    count -= head;
  }
  if (srcBit % 8 == 0) {
    std::memcpy(dst, src + srcBit / 8, count / 8);
    dst += count / 8;
    srcBit += count / 8 * 8;
  } else {
    const std::uint64_t words = count / 64;
    shiftWords(dst, src + srcBit / 8, static_cast<unsigned>(srcBit % 8), words);
    dst += words * 8;
    srcBit += words * 64;
    for (std::uint64_t byte = 0; byte < count % 64 / 8; ++byte, srcBit += 8) {
      *dst++ = static_cast<std::uint8_t>(peekBits(src, srcBit, 8));
    }
  }
  if (const auto tail = static_cast<unsigned>(count % 8); tail != 0) {
    pokeBits(*dst, 0, peekBits(src, srcBit, tail), tail);
  }
}

}  // namespace

bool BitTool::fillBitsEx(std::uint8_t* dst, std::uint64_t dstBytes, std::uint64_t dstBitBegin, const std::uint8_t* src,
                         std::uint64_t srcBytes, std::uint64_t srcBitBegin, std::uint64_t bitCount) {
  if (!checkRanges("BitTool::fillBitsEx", dstBytes, dstBitBegin, srcBytes, srcBitBegin, bitCount)) {
    return false;
  }
  moveBits(dst, dstBitBegin, src, srcBitBegin, bitCount);
  return true;
}

bool BitTool::fillBits(std::uint8_t* dst, std::uint64_t dstBytes, std::uint64_t dstBitBegin, const std::uint8_t* src,
                       std::uint64_t srcBytes, std::uint64_t srcBitBegin, std::uint64_t bitCount) {
  const std::uint64_t phase = srcBitBegin % 8;
  if (phase != dstBitBegin % 8 || bitCount < 8) {
    return fillBitsEx(dst, dstBytes, dstBitBegin, src, srcBytes, srcBitBegin, bitCount);
  }
  if (!checkRanges("BitTool::fillBits", dstBytes, dstBitBegin, srcBytes, srcBitBegin, bitCount)) {
    return false;
  }
  const std::uint64_t head = phase == 0 ? 0 : 8 - phase;
  // The head goes to the first byte of each buffer, with the begins exchanged, and so succeeds only where both begin
  // there. Kept: callers rely on which column runs can be moved.
  if (head > 0 && !fillBitsEx(dst, 1, srcBitBegin, src, 1, dstBitBegin, head)) {
    return false;
  }
  moveBits(dst, dstBitBegin + head, src, srcBitBegin + head, bitCount - head);
  return true;
}

}  // namespace core
