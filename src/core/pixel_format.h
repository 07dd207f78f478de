// What a pixel is made of, and how many bytes runs of pixels occupy.
#pragma once

#include <cstdint>

namespace core {

// Samples of 1, 2 and 4 bits are packed, most significant bit first; every other depth is moved as whole bytes.
constexpr bool isPacked(std::uint32_t bitsPerSample) {
  return bitsPerSample == 1 || bitsPerSample == 2 || bitsPerSample == 4;
}

struct PixelFormat {
  std::uint32_t samplesPerPixel = 0;
  std::uint32_t bitsPerSample = 0;
  std::uint32_t bitsPerPixel = 0;  // samplesPerPixel * bitsPerSample

  bool packed() const { return isPacked(bitsPerSample); }

  // Whole bytes of a pixel; what a whole-byte format moves for each.
  std::uint32_t bytesPerPixel() const { return bitsPerPixel / 8; }

  // Bytes that a run of `pixels` pixels occupies: ceil(bits / 8).
  std::uint64_t suitableBytes(std::uint32_t pixels) const { return (bits(pixels) + 7) / 8; }

  // The same rounded up to a multiple of 4: 4 * ceil(bits / 32).
  std::uint64_t strideBytes(std::uint32_t pixels) const { return (bits(pixels) + 31) / 8 & ~std::uint64_t{3}; }

 private:
  // In 64 bits all the way: bitsPerPixel has lost what does not fit 32.
  std::uint64_t bits(std::uint32_t pixels) const { return std::uint64_t{bitsPerSample} * samplesPerPixel * pixels; }
};

}  // namespace core
