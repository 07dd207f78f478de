// Reversal and repacking of one scanline in a caller's buffer.
#pragma once

#include <cstdint>
#include <vector>

namespace rotate {

// A scanline holds its pixels one after another, as the buffers of the exported functions do. All operations check
// before they write and return false, with a logged reason unless said otherwise, if they cannot go on. Nothing is
// thrown.
class ScanlineReverseTool {
 public:
  // Reverses the order of the first `pixelCount` pixels in place; the bytes of a pixel keep their order. For pixels of
  // whole bytes, at most 65,535 bytes each. False if `bufferBytes` is less than the pixels take.
  static bool reverseScanline_8multiple_BitsPerSample(std::uint8_t* buffer, std::uint64_t bufferBytes,
                                                      std::uint16_t samplesPerPixel, std::uint16_t bitsPerSample,
                                                      std::uint32_t pixelCount);

  // Unpacks samples of 1, 2 or 4 bits into a byte each, values unchanged. False if a buffer is too small, and without a
  // message for other depths.
  static bool convert_1_2_4_To_8Bits(const std::uint8_t* src, std::uint64_t srcBytes, std::uint8_t* dst,
                                     std::uint64_t dstBytes, std::uint16_t samplesPerPixel, std::uint16_t bitsPerSample,
                                     std::uint32_t pixelCount);

  // The same into `dst`, which grows to a byte per sample if it is smaller and is cleared first.
  static bool convert_1_2_4_To_8Bits(const std::uint8_t* src, std::uint64_t srcBytes, std::vector<std::uint8_t>& dst,
                                     std::uint16_t samplesPerPixel, std::uint16_t bitsPerSample,
                                     std::uint32_t pixelCount);

  // Packs bytes into samples of 1, 2 or 4 bits, dropping their higher bits, and clears the rest of `dst`. Packing to 2
  // bits is followed by a 4-bit pass over the same bytes, which changes samples that are not 0. False if a buffer is
  // too small, and without a message for other depths.
  static bool convert_8_To_1_2_4Bits(const std::uint8_t* src, std::uint64_t srcBytes, std::uint8_t* dst,
                                     std::uint64_t dstBytes, std::uint16_t samplesPerPixel, std::uint16_t bitsPerSample,
                                     std::uint32_t pixelCount);
};

}  // namespace rotate
