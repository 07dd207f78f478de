#include "rotate/rotate_engine.h"

#include <algorithm>
#include <exception>
#include <limits>
#include <new>
#include <vector>

#include "base/log.h"
#include "kvtileimage/KvTileImage.h"
#include "rotate/scanline_reverse_tool.h"

namespace rotate {
namespace {

using core::Direction;
using core::ProgressCallback;
using core::TileImage;

constexpr const char* kName = "RotateEngine::rotateAndMirror";

// What happens to each source row: one way of writing it, and possibly a reversal before.
enum Operation : unsigned {
  kReverse = 1,
  kRow = 2,               // to row y
  kRowFromBottom = 4,     // to row height - 1 - y
  kColumn = 8,            // to column y
  kColumnFromRight = 16,  // to column width - 1 - y
};

// The mirroring of the result that equals `mirror` of the source before it is turned.
std::uint32_t mirrorOfResult(std::uint32_t rotation, std::uint32_t mirror) {
  if (mirror != KVTI_MIRROR_HORIZONTAL && mirror != KVTI_MIRROR_VERTICAL) {
    return KVTI_MIRROR_NONE;
  }
  const bool axesSwapped = rotation % 180 != 0;
  return axesSwapped ? KVTI_MIRROR_HORIZONTAL + KVTI_MIRROR_VERTICAL - mirror : mirror;
}

// `rotation` is 0, 90, 180 or 270. No flags at all for a mirror code that does not exist: nothing is written then.
unsigned operationFlags(std::uint32_t rotation, std::uint32_t mirror) {
  constexpr unsigned kFlags[4][3] = {
      {kRow, kReverse | kRow, kRowFromBottom},
      {kColumnFromRight, kColumn, kReverse | kColumnFromRight},
      {kReverse | kRowFromBottom, kRowFromBottom, kReverse | kRow},
      {kReverse | kColumn, kReverse | kColumnFromRight, kColumn},
  };
  return mirror <= KVTI_MIRROR_VERTICAL ? kFlags[rotation / 90][mirror] : 0;
}

bool fitEachOther(const TileImage& source, const TileImage& destination, std::uint32_t rotation) {
  const bool axesSwapped = rotation % 180 != 0;
  return source.format().samplesPerPixel == destination.format().samplesPerPixel &&
         source.format().bitsPerSample == destination.format().bitsPerSample &&
         source.sampleformat() == destination.sampleformat() &&
         source.width() == (axesSwapped ? destination.height() : destination.width()) &&
         source.height() == (axesSwapped ? destination.width() : destination.height());
}

// Reverses the order of the pixels in one row of an image.
class RowReverser {
 public:
  explicit RowReverser(const TileImage& image) : format_(image.format()), pixels_(image.width()) {}

  bool reverse(std::vector<std::uint8_t>& row) {
    // The scanline operations take 16-bit formats; a wider one cut down to 16 bits would lose pixels silently.
    if (std::max(format_.samplesPerPixel, format_.bitsPerSample) > kMaximum || format_.bytesPerPixel() > kMaximum) {
      return false;
    }
    const auto samples = static_cast<std::uint16_t>(format_.samplesPerPixel);
    const auto bits = static_cast<std::uint16_t>(format_.bitsPerSample);
    if (!format_.packed()) {
      return ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample(row.data(), row.size(), samples, bits,
                                                                          pixels_);
    }
    if (!ScanlineReverseTool::convert_1_2_4_To_8Bits(row.data(), row.size(), unpacked_, samples, bits, pixels_) ||
        !ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample(unpacked_.data(), unpacked_.size(), samples, 8,
                                                                      pixels_)) {
      return false;
    }
    return ScanlineReverseTool::convert_8_To_1_2_4Bits(unpacked_.data(), unpacked_.size(), row.data(), row.size(),
                                                       samples, bits, pixels_);
  }

 private:
  static constexpr std::uint32_t kMaximum = std::numeric_limits<std::uint16_t>::max();

  const core::PixelFormat& format_;
  std::uint32_t pixels_;
  std::vector<std::uint8_t> unpacked_;  // a byte per sample, packed formats only
};

bool writeScanline(TileImage& destination, std::vector<std::uint8_t>& scanline, std::uint32_t y, unsigned flags) {
  const std::uint32_t width = destination.width();
  const std::uint32_t height = destination.height();
  const auto writeRow = [&](std::uint32_t row) {
    return destination.copyRowData(row, 0, width, scanline.data(), scanline.size(), Direction::set);
  };
  const auto writeColumn = [&](std::uint32_t column) {
    return destination.copyColData(column, 0, height, scanline.data(), scanline.size(), Direction::set);
  };
  switch (flags & ~unsigned{kReverse}) {
    case kRow:
      return writeRow(y);
    case kRowFromBottom:
      return writeRow(height - 1 - y);
    case kColumn:
      return writeColumn(y);
    case kColumnFromRight:
      return writeColumn(width - 1 - y);
    default:
      return true;
  }
}

bool transferRows(TileImage& source, TileImage& destination, unsigned flags, ProgressCallback progress) {
  std::vector<std::uint8_t> scanline(source.format().suitableBytes(source.width()));
  RowReverser reverser(source);
  for (std::uint32_t y = 0; y < source.height(); ++y) {
    // Bits behind the last pixel stay clear: a transfer of packed pixels keeps them.
    std::fill(scanline.begin(), scanline.end(), std::uint8_t{0});
    if (!source.copyRowData(y, 0, source.width(), scanline.data(), scanline.size(), Direction::get)) {
      base::logger().log(ember_logger::error, "[%s] srcImage->getRowData failed [row:%u]", kName, y);
      return false;
    }
    if ((flags & kReverse) != 0 && !reverser.reverse(scanline)) {
      base::logger().log(ember_logger::error, "[%s] ScanlineReverseTool::reverseScanline failed!", kName);
      return false;
    }
    if (!writeScanline(destination, scanline, y, flags)) {
      base::logger().log(ember_logger::error, "[%s] dstImage setRowData or setColData failed!", kName);
      return false;
    }
    if (progress != nullptr) {
      progress(y, source.height());
    }
  }
  return true;
}

}  // namespace

std::uint32_t RotateEngine::normalizeRotation(std::int32_t rotation) {
  // In 64 bits: the middle of the formula leaves 32 bits near the ends of the range.
  const std::int64_t degrees = rotation;
  return static_cast<std::uint32_t>(((1 - degrees / 360) * 360 + degrees) % 360);
}

bool RotateEngine::rotateAndMirror(TileImage& srcImage, TileImage& dstImage, std::int32_t rotation,
                                   std::uint32_t mirror, bool mirrorAfterRotation, core::ProgressCallback progress) {
  const std::uint32_t angle = normalizeRotation(rotation);
  if (angle % 90 != 0) {
    base::logger().log(ember_logger::error, "[%s] rotation:%d !", kName, static_cast<int>(angle));
    return false;
  }
  if (!fitEachOther(srcImage, dstImage, angle)) {
    base::logger().log(ember_logger::error, "[%s] check your code!", kName);
    return false;
  }
  const std::uint32_t effectiveMirror = mirrorAfterRotation ? mirror : mirrorOfResult(angle, mirror);
  try {
    return transferRows(srcImage, dstImage, operationFlags(angle, effectiveMirror), progress);
  } catch (const std::bad_alloc&) {
    base::logger().log(ember_logger::error, "[%s] bad_alloc exception", kName);
  } catch (...) {
    base::logger().log(ember_logger::error, "[%s] unknow exception", kName);
  }
  return false;
}

}  // namespace rotate
