#include "rotate/scanline_reverse_tool.h"

#include <algorithm>
#include <cstring>
#include <exception>

#include "base/log.h"
#include "core/pixel_format.h"

namespace rotate {
namespace {

using ll = long long;  // what the messages' %lld takes

constexpr const char* kUnpack = "ScanlineReverseTool::convert_1_2_4_To_8Bits";
constexpr const char* kPack = "ScanlineReverseTool::convert_8_To_1_2_4Bits";

bool checkSource(const char* function, std::uint64_t bytes, std::uint64_t suitable) {
  if (bytes >= suitable) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] srcScanlineBytes(%lld) < srcSuitableBytes(%lld)", function,
                     static_cast<ll>(bytes), static_cast<ll>(suitable));
  return false;
}

bool checkDestination(const char* function, std::uint64_t bytes, std::uint64_t suitable) {
  if (bytes >= suitable) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] destScanlineBytes(%lld) < destSuitableBytes(%lld)", function,
                     static_cast<ll>(bytes), static_cast<ll>(suitable));
  return false;
}

template <std::uint32_t kBytesPerPixel>
void reversePixelsOf(std::uint8_t* first, std::uint8_t* last) {
  for (; first < last; first += kBytesPerPixel, last -= kBytesPerPixel) {
    std::uint8_t pixel[kBytesPerPixel];
    std::memcpy(pixel, first, kBytesPerPixel);
    std::memcpy(first, last, kBytesPerPixel);
    std::memcpy(last, pixel, kBytesPerPixel);
  }
}

void reversePixels(std::uint8_t* first, std::uint8_t* last, std::uint32_t bytesPerPixel) {
  switch (bytesPerPixel) {
    case 1:
      return reversePixelsOf<1>(first, last);
    case 2:
      return reversePixelsOf<2>(first, last);
    case 3:
      return reversePixelsOf<3>(first, last);
    case 4:
      return reversePixelsOf<4>(first, last);
    case 6:
      return reversePixelsOf<6>(first, last);
    case 8:
      return reversePixelsOf<8>(first, last);
    default:
      for (; first < last; first += bytesPerPixel, last -= bytesPerPixel) {
        std::swap_ranges(first, first + bytesPerPixel, last);
      }
  }
}

template <unsigned kBits>
void unpack(const std::uint8_t* src, std::uint8_t* dst, std::uint64_t samples) {
  constexpr unsigned kPerByte = 8 / kBits;
  constexpr unsigned kMask = (1U << kBits) - 1;
  for (std::uint64_t i = 0; i < samples; ++i) {
    const auto shift = static_cast<unsigned>(8 - kBits - i % kPerByte * kBits);
    dst[i] = static_cast<std::uint8_t>(src[i / kPerByte] >> shift & kMask);
  }
}

// Adds the samples to what is in `dst`, for at most `dstBytes` bytes.
template <unsigned kBits>
void pack(const std::uint8_t* src, std::uint64_t samples, std::uint8_t* dst, std::uint64_t dstBytes) {
  constexpr unsigned kPerByte = 8 / kBits;
  constexpr unsigned kMask = (1U << kBits) - 1;
  for (std::uint64_t byte = 0; byte < dstBytes && byte * kPerByte < samples; ++byte) {
    const auto count = static_cast<unsigned>(std::min<std::uint64_t>(kPerByte, samples - byte * kPerByte));
    unsigned packed = dst[byte];
    for (unsigned k = 0; k < count; ++k) {
      packed |= (src[byte * kPerByte + k] & kMask) << (8 - kBits - k * kBits);
    }
    dst[byte] = static_cast<std::uint8_t>(packed);
  }
}

}  // namespace

bool ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample(std::uint8_t* buffer, std::uint64_t bufferBytes,
                                                                  std::uint16_t samplesPerPixel,
                                                                  std::uint16_t bitsPerSample,
                                                                  std::uint32_t pixelCount) {
  const auto bytesPerPixel = static_cast<std::uint16_t>(std::uint32_t{samplesPerPixel} * bitsPerSample / 8);
  const std::uint64_t required = std::uint64_t{pixelCount} * bytesPerPixel;
  if (bufferBytes < required) {
    base::logger().log(ember_logger::error, "[%s] scanlineBytes(%lld) < suitableBytes(%lld)",
                       "ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample", static_cast<ll>(bufferBytes),
                       static_cast<ll>(required));
    return false;
  }
  if (required != 0) {
    reversePixels(buffer, buffer + (required - bytesPerPixel), bytesPerPixel);
  }
  return true;
}

bool ScanlineReverseTool::convert_1_2_4_To_8Bits(const std::uint8_t* src, std::uint64_t srcBytes, std::uint8_t* dst,
                                                 std::uint64_t dstBytes, std::uint16_t samplesPerPixel,
                                                 std::uint16_t bitsPerSample, std::uint32_t pixelCount) {
  if (!core::isPacked(bitsPerSample)) {
    return false;
  }
  const std::uint64_t samples = std::uint64_t{pixelCount} * samplesPerPixel;
  if (!checkSource(kUnpack, srcBytes, (bitsPerSample * samples + 7) / 8) ||
      !checkDestination(kUnpack, dstBytes, samples)) {
    return false;
  }
  if (bitsPerSample == 1) {
    unpack<1>(src, dst, samples);
  } else if (bitsPerSample == 2) {
    unpack<2>(src, dst, samples);
  } else {
    unpack<4>(src, dst, samples);
  }
  return true;
}

bool ScanlineReverseTool::convert_1_2_4_To_8Bits(const std::uint8_t* src, std::uint64_t srcBytes,
                                                 std::vector<std::uint8_t>& dst, std::uint16_t samplesPerPixel,
                                                 std::uint16_t bitsPerSample, std::uint32_t pixelCount) {
  const std::uint64_t samples = std::uint64_t{pixelCount} * samplesPerPixel;
  try {
    dst.resize(std::max<std::uint64_t>(dst.size(), samples));
  } catch (const std::exception&) {
    base::logger().log(ember_logger::error, "[%s] bad_alloc exception", kUnpack);
    return false;
  }
  std::fill(dst.begin(), dst.end(), std::uint8_t{0});
  return convert_1_2_4_To_8Bits(src, srcBytes, dst.data(), dst.size(), samplesPerPixel, bitsPerSample, pixelCount);
}

bool ScanlineReverseTool::convert_8_To_1_2_4Bits(const std::uint8_t* src, std::uint64_t srcBytes, std::uint8_t* dst,
                                                 std::uint64_t dstBytes, std::uint16_t samplesPerPixel,
                                                 std::uint16_t bitsPerSample, std::uint32_t pixelCount) {
  if (!core::isPacked(bitsPerSample)) {
    return false;
  }
  const std::uint64_t samples = std::uint64_t{pixelCount} * samplesPerPixel;
  const std::uint64_t dstSuitable = (bitsPerSample * samples + 7) / 8;
  if (!checkSource(kPack, srcBytes, samples) || !checkDestination(kPack, dstBytes, dstSuitable)) {
    return false;
  }
  std::fill_n(dst, dstBytes, std::uint8_t{0});
  if (bitsPerSample == 1) {
    pack<1>(src, samples, dst, dstSuitable);
  } else if (bitsPerSample == 2) {
    pack<2>(src, samples, dst, dstSuitable);
    // Kept, as callers rely on the bytes that come out: the 4-bit pass runs over the same bytes.
    pack<4>(src, samples, dst, dstSuitable);
  } else {
    pack<4>(src, samples, dst, dstSuitable);
  }
  return true;
}

}  // namespace rotate
