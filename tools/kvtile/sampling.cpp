#include "sampling.h"

#include <algorithm>
#include <cstring>

#include "samples.h"

namespace kvtile {
namespace {

// `Bytes` is known to the compiler where it is not 0, and each copy a move or two.
template <std::size_t Bytes>
void sampleBytes(const std::uint8_t* source, SampledPositions positions, std::size_t pixelBytes, std::uint32_t width,
                 std::uint8_t* row) {
  const std::size_t bytes = Bytes != 0 ? Bytes : pixelBytes;
  for (std::uint32_t x = 0; x < width; ++x) {
    std::memcpy(row + x * bytes, source + positions.position() * bytes, bytes);
    positions.advance();
  }
}

void sampleWholeBytes(const std::uint8_t* source, const SampledPositions& positions, std::size_t pixelBytes,
                      std::uint32_t width, std::uint8_t* row) {
  switch (pixelBytes) {
    case 1:
      return sampleBytes<1>(source, positions, pixelBytes, width, row);
    case 2:
      return sampleBytes<2>(source, positions, pixelBytes, width, row);
    case 3:
      return sampleBytes<3>(source, positions, pixelBytes, width, row);
    case 4:
      return sampleBytes<4>(source, positions, pixelBytes, width, row);
    case 6:
      return sampleBytes<6>(source, positions, pixelBytes, width, row);
    case 8:
      return sampleBytes<8>(source, positions, pixelBytes, width, row);
    default:
      return sampleBytes<0>(source, positions, pixelBytes, width, row);
  }
}

void samplePacked(std::span<const std::uint8_t> source, SampledPositions positions, const PixelFormat& format,
                  std::uint32_t width, std::span<std::uint8_t> row) {
  const std::size_t bits = format.bits;
  std::fill(row.begin(), row.end(), std::uint8_t{0});
  std::size_t place = 0;  // in bits
  for (std::uint32_t x = 0; x < width; ++x) {
    const std::size_t first = std::size_t{positions.position()} * format.samples;
    for (std::uint32_t sample = 0; sample < format.samples; ++sample) {
      const std::uint32_t value = packedSample(source, first + sample, format.bits);
      row[place / 8] = static_cast<std::uint8_t>(row[place / 8] | value << (8 - bits - place % 8));
      place += bits;
    }
    positions.advance();
  }
}

}  // namespace

std::uint64_t proportionalLength(std::uint32_t other, std::uint32_t from, std::uint32_t to) {
  const std::uint64_t product = std::uint64_t{other} * to;
  const std::uint64_t remainder = product % from;
  // Half and more is rounded up, without twice the remainder where that would be a bit too many.
  const std::uint64_t rounded = product / from + (remainder >= from - remainder ? 1 : 0);
  return std::max<std::uint64_t>(rounded, 1);
}

// The middle of pixel i lies at (i + 1/2) * sources / results. The half may lose its fraction: what is left out is less
// than one part, and only whole parts make whole positions.
SampledPositions::SampledPositions(std::uint32_t sources, std::uint32_t results)
    : results_(results),
      wholeStep_(sources / results),
      partOfStep_(sources % results),
      position_(sources / 2 / results),
      part_(sources / 2 % results) {}

void SampledPositions::advance() {
  position_ += wholeStep_;
  part_ += partOfStep_;
  if (part_ >= results_) {
    part_ -= results_;
    ++position_;
  }
}

void sampleRow(std::span<const std::uint8_t> source, std::uint32_t sourceWidth, const PixelFormat& format,
               std::uint32_t width, std::span<std::uint8_t> row) {
  if (width == sourceWidth) {
    std::copy(source.begin(), source.end(), row.begin());
    return;
  }
  const SampledPositions positions(sourceWidth, width);
  if (format.bitsPerPixel() % 8 == 0) {
    sampleWholeBytes(source.data(), positions, format.bitsPerPixel() / 8, width, row.data());
  } else {
    samplePacked(source, positions, format, width, row);
  }
}

SampledRows::SampledRows(Image& image, const Picture& result)
    : image_(image),
      format_(result.pixels),
      width_(result.width),
      positions_(image.height(), result.height),
      source_(image.rowBytes()),
      row_(result.rowBytes()) {}

bool SampledRows::advance() {
  const std::uint32_t wanted = positions_.position();
  positions_.advance();
  if (fetched_ == wanted) {
    return false;
  }
  image_.getRow(wanted, 0, image_.width(), source_);
  sampleRow(source_, image_.width(), format_, width_, row_);
  fetched_ = wanted;
  return true;
}

}  // namespace kvtile
