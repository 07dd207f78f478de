// TIFF files written and read with libtiff alone.
#ifndef KVTILE_TESTS_TIFFS_H
#define KVTILE_TESTS_TIFFS_H

#include <tiffio.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "raster.h"

namespace support {

struct ColourMap {
  std::vector<std::uint16_t> red;
  std::vector<std::uint16_t> green;
  std::vector<std::uint16_t> blue;
  bool operator==(const ColourMap&) const = default;
};

// What a TIFF says about its picture; the same for writing and reading.
struct Tiff {
  Raster raster;
  std::uint16_t sampleFormat = SAMPLEFORMAT_UINT;
  std::uint16_t photometric = PHOTOMETRIC_MINISBLACK;
  std::vector<std::uint16_t> extras;
  std::uint16_t compression = COMPRESSION_NONE;
  std::uint16_t predictor = 0;  // 0: not mentioned
  std::optional<std::uint32_t> group3Options;
  std::optional<std::uint16_t> orientation;
  std::optional<std::array<float, 2>> resolution;
  std::uint16_t unit = 0;  // 0: not mentioned
  std::optional<ColourMap> colourMap;
  std::string icc;
  std::uint16_t inkSet = 0;  // 0: not mentioned
  std::string inkNames;      // each with its zero byte
  std::optional<std::array<float, 2>> whitePoint;

  // Layout.
  bool bigTiff = false;
  bool bigEndian = false;
  bool separate = false;
  bool lsbFirst = false;
  std::uint32_t tileWidth = 0;  // 0: strips
  std::uint32_t tileHeight = 0;
  std::uint32_t rowsPerStrip = 5;
  int pages = 1;
};

// Photometric and extra samples that suit the raster.
Tiff tiffOf(const Raster& raster);

// Both throw std::runtime_error where libtiff fails. Reading takes strips with whole pixels.
void writeTiff(const std::string& path, const Tiff& tiff);
Tiff readTiff(const std::string& path);

}  // namespace support

#endif
