#include "picture.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>

namespace kvtile {
namespace {

constexpr double kMetresPerInch = 0.0254;
constexpr double kLargestPngValue = 2147483647.0;

// The whole number of dots per inch that PNG would write as `perMetre`; 0 if there is none.
double wholeInches(double perMetre) {
  const double inches = std::round(perMetre * kMetresPerInch);
  return std::round(inches / kMetresPerInch) == perMetre ? inches : 0;
}

double perMetreFactor(ResolutionUnit unit) {
  switch (unit) {
    case ResolutionUnit::Inch:
      return 1 / kMetresPerInch;
    case ResolutionUnit::Centimetre:
      return 100;
    default:
      return 1;
  }
}

bool isWhole(double value) { return std::round(value) == value; }

}  // namespace

std::optional<Resolution> Resolution::inInches() const {
  switch (unit) {
    case ResolutionUnit::Inch:
      return *this;
    case ResolutionUnit::Centimetre:
      return Resolution{x * 2.54, y * 2.54, ResolutionUnit::Inch};
    case ResolutionUnit::Metre:
      return Resolution{x * kMetresPerInch, y * kMetresPerInch, ResolutionUnit::Inch};
    default:
      return std::nullopt;
  }
}

std::optional<Resolution> Resolution::forPng() const {
  Resolution result = *this;
  if (unit == ResolutionUnit::None) {
    // A ratio keeps three more digits than whole numbers would.
    const double scale = isWhole(x) && isWhole(y) ? 1 : 1000;
    result.x = std::round(x * scale);
    result.y = std::round(y * scale);
  } else {
    result.x = std::round(x * perMetreFactor(unit));
    result.y = std::round(y * perMetreFactor(unit));
    result.unit = ResolutionUnit::Metre;
  }
  const bool fits = result.x >= 1 && result.y >= 1 && result.x <= kLargestPngValue && result.y <= kLargestPngValue;
  return fits ? std::optional(result) : std::nullopt;
}

Resolution Resolution::forTiff() const {
  if (unit != ResolutionUnit::Metre) {
    return *this;
  }
  const double inchesX = wholeInches(x);
  const double inchesY = wholeInches(y);
  if (inchesX > 0 && inchesY > 0) {
    return {inchesX, inchesY, ResolutionUnit::Inch};
  }
  return {x / 100, y / 100, ResolutionUnit::Centimetre};
}

Palette Palette::spread() const {
  const bool narrow = std::all_of(entries.begin(), entries.end(), [](const PaletteEntry& entry) {
    return entry.red < 256 && entry.green < 256 && entry.blue < 256;
  });
  Palette result = *this;
  if (narrow) {
    for (PaletteEntry& entry : result.entries) {
      entry = {wideComponent(entry.red), wideComponent(entry.green), wideComponent(entry.blue)};
    }
  }
  return result;
}

Picture Picture::assumed(std::uint32_t width, std::uint32_t height, const PixelFormat& pixels) {
  Picture picture;
  picture.width = width;
  picture.height = height;
  picture.pixels = pixels;
  picture.photometric = pixels.samples > 2 ? Photometric::Rgb : Photometric::BlackIsZero;
  const std::uint32_t others = pixels.samples - picture.colourSamples();
  picture.extras.assign(others, others == 1 ? Extra::StraightAlpha : Extra::Unspecified);
  return picture;
}

std::uint64_t Picture::rowBytes() const { return (width * pixels.bitsPerPixel() + 7) / 8; }

std::uint32_t Picture::colourSamples() const {
  switch (photometric) {
    case Photometric::Rgb:
    case Photometric::YCbCr:
    case Photometric::CieLab:
    case Photometric::IccLab:
      return std::min<std::uint32_t>(3, pixels.samples);
    case Photometric::Separated: {
      const std::uint32_t inks = tiff && tiff->numberOfInks ? *tiff->numberOfInks : 4;
      return std::min(inks, pixels.samples);
    }
    default:
      return 1;
  }
}

Picture Picture::turned(const Turn& turn) const {
  Picture result = *this;
  result.orientation = 1;
  if (turn.swapsSides()) {
    std::swap(result.width, result.height);
    if (result.resolution) {
      std::swap(result.resolution->x, result.resolution->y);
    }
  }
  return result;
}

Picture Picture::resized(std::uint32_t newWidth, std::uint32_t newHeight) const {
  Picture result = *this;
  result.width = newWidth;
  result.height = newHeight;
  return result;
}

Picture Picture::withoutPalette() const {
  if (photometric != Photometric::Palette) {
    return *this;
  }
  Picture result = *this;
  result.photometric = Photometric::Rgb;
  result.pixels = {3, 8, SampleFormat::Unsigned};
  result.extras.clear();
  if (!palette.alpha.empty()) {
    result.pixels.samples = 4;
    result.extras = {Extra::StraightAlpha};
  }
  result.palette = {};
  return result;
}

Picture Picture::widenedTo8Bit() const {
  if (!pixels.packed()) {
    return *this;
  }
  Picture result = *this;
  result.pixels.bits = 8;
  if (photometric == Photometric::Mask) {
    // Masks have one bit by definition; with more the picture is an ordinary grey one.
    result.photometric = Photometric::BlackIsZero;
  }
  if (result.colourKey && photometric != Photometric::Palette) {
    for (std::uint16_t& value : *result.colourKey) {
      value = static_cast<std::uint16_t>(value * widenedScale(pixels.bits));
    }
  }
  return result;
}

std::optional<std::uint64_t> pixelBits(std::uint32_t width, std::uint32_t height, std::uint64_t bitsPerPixel) {
  const std::uint64_t area = std::uint64_t{width} * height;
  if (area != 0 && bitsPerPixel > UINT64_MAX / area) {
    return std::nullopt;
  }
  return area * bitsPerPixel;
}

std::uint32_t widenedScale(std::uint32_t bits) { return 255 / ((1U << bits) - 1); }

std::optional<FileFormat> formatByExtension(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (extension == ".png") {
    return FileFormat::Png;
  }
  if (extension == ".tif" || extension == ".tiff") {
    return FileFormat::Tiff;
  }
  return std::nullopt;
}

}  // namespace kvtile
