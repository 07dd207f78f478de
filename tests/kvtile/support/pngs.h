// PNG files written and read with libpng alone.
#ifndef KVTILE_TESTS_PNGS_H
#define KVTILE_TESTS_PNGS_H

#include <png.h>

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "raster.h"

namespace support {

struct PngPhysical {
  std::uint32_t x;
  std::uint32_t y;
  int unit;
  bool operator==(const PngPhysical&) const = default;
};

// What a PNG says about its picture; the same for writing and reading.
struct Png {
  Raster raster;
  int colourType = PNG_COLOR_TYPE_GRAY;
  bool interlaced = false;
  std::vector<std::array<std::uint8_t, 3>> palette;
  std::vector<std::uint8_t> paletteAlpha;
  std::optional<std::array<std::uint16_t, 3>> colourKey;  // grey: three times the same
  std::optional<PngPhysical> physical;
  std::string icc;
  std::optional<int> srgbIntent;
  std::optional<int> gamma;  // times 100000
  std::optional<std::array<int, 8>> chromaticities;
};

// The colour type that suits the number of samples.
Png pngOf(const Raster& raster);

// A palette of as many colours as the raster's samples can count.
Png palettePng(const Raster& indices);

// Both throw std::runtime_error where libpng fails.
void writePng(const std::string& path, const Png& png);
Png readPng(const std::string& path);

// Gives the chunk that begins at byte `chunk` of the contents of a file the checksum of what it holds now.
void fixChecksum(std::string& file, std::size_t chunk);

// The names of the file's chunks, in their order.
std::vector<std::string> chunkNames(const std::string& path);

}  // namespace support

#endif
