// Pictures as plain arrays of samples: the model that results are held against.
#ifndef KVTILE_TESTS_RASTER_H
#define KVTILE_TESTS_RASTER_H

#include <cstdint>
#include <string>
#include <vector>

namespace support {

// Samples as bit patterns, row by row, the samples of a pixel one after the other.
struct Raster {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t samples = 1;
  std::uint32_t bits = 8;
  std::vector<std::uint64_t> values;

  Raster() = default;
  Raster(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits);

  std::uint64_t at(std::uint32_t x, std::uint32_t y, std::uint32_t sample) const {
    return values[(std::size_t{y} * width + x) * samples + sample];
  }
  std::uint64_t& at(std::uint32_t x, std::uint32_t y, std::uint32_t sample) {
    return values[(std::size_t{y} * width + x) * samples + sample];
  }
  std::uint64_t highest() const { return bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1; }
  bool operator==(const Raster&) const = default;
};

// Where two rasters differ, for the message of an assertion; empty if they are equal.
std::string difference(const Raster& expected, const Raster& actual);

// All samples different from their neighbours', all values in use where there are enough pixels. `seed` makes others.
Raster pattern(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits,
               std::uint32_t seed = 1);

// Each sample an ordinary floating-point number of 32 or 64 bits.
Raster floatPattern(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits);

// Clockwise.
Raster rotated90(const Raster& raster);
Raster rotated180(const Raster& raster);
Raster rotated270(const Raster& raster);
Raster mirroredLeftRight(const Raster& raster);
Raster mirroredTopBottom(const Raster& raster);

// How a picture is stored whose first row and column lie as TIFF's orientation says and that shows `upright`.
Raster storedAs(const Raster& upright, unsigned orientation);

// Samples of 1, 2 or 4 bits as 8 bits, multiplied by `scale`.
Raster widened(const Raster& raster, std::uint64_t scale);

// Each row packed with the most significant bit first, or as whole bytes in the machine's order; rows start on bytes.
// `sample` picks one sample of each pixel; -1 takes all.
std::vector<std::uint8_t> packRow(const Raster& raster, std::uint32_t y, std::uint32_t x1, std::uint32_t x2,
                                  int sample = -1);

// The inverse for a whole row.
void unpackRow(const std::vector<std::uint8_t>& row, std::uint32_t y, Raster& raster);

}  // namespace support

#endif
