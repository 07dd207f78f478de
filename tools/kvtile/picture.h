// What there is to know about a picture besides its pixels: plain values, the same for PNG and TIFF.
#ifndef KVTILE_PICTURE_H
#define KVTILE_PICTURE_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "turn.h"

namespace kvtile {

enum class FileFormat { Png, Tiff };

// Numbered as in TIFF files; other values can occur.
enum class SampleFormat : std::uint32_t { Unsigned = 1, Signed = 2, Float = 3, Untyped = 4 };

// Meaning of the samples, numbered as in TIFF files; other values can occur.
enum class Photometric : std::uint32_t {
  WhiteIsZero = 0,
  BlackIsZero = 1,
  Rgb = 2,
  Palette = 3,
  Mask = 4,
  Separated = 5,
  YCbCr = 6,
  CieLab = 8,
  IccLab = 9
};

// Meaning of a sample beyond the colour, numbered as in TIFF files.
enum class Extra : std::uint16_t { Unspecified = 0, AssociatedAlpha = 1, StraightAlpha = 2 };

struct PixelFormat {
  std::uint32_t samples = 1;
  std::uint32_t bits = 8;  // of one sample
  SampleFormat sampleFormat = SampleFormat::Unsigned;

  std::uint64_t bitsPerPixel() const { return std::uint64_t{samples} * bits; }
  bool packed() const { return bits < 8; }
  bool operator==(const PixelFormat&) const = default;
};

struct PaletteEntry {
  std::uint16_t red = 0;
  std::uint16_t green = 0;
  std::uint16_t blue = 0;
  bool operator==(const PaletteEntry&) const = default;
};

struct Palette {
  std::vector<PaletteEntry> entries;  // 16 bits a component
  std::vector<std::uint8_t> alpha;    // for the first entries; the others are opaque
  bool operator==(const Palette&) const = default;

  // Some programs store components of 8 bits in TIFF files: the palette with these spread to 16, others as they are.
  Palette spread() const;
};

enum class ResolutionUnit { None, Inch, Centimetre, Metre };

// Pixels per unit; only the ratio of the two counts where there is no unit.
struct Resolution {
  double x = 0;
  double y = 0;
  ResolutionUnit unit = ResolutionUnit::Inch;
  bool operator==(const Resolution&) const = default;

  // Dots per inch; nothing where there is no unit.
  std::optional<Resolution> inInches() const;

  // As PNG holds it: whole pixels per metre, or whole numbers in the same ratio where there is no unit. Nothing if
  // PNG's 31 bits cannot hold it.
  std::optional<Resolution> forPng() const;

  // As TIFF holds it. Metres become inches where that gives whole numbers, as the inches were rounded to whole metres
  // by whoever wrote the PNG, else centimetres.
  Resolution forTiff() const;
};

// PNG's statements about its colours, in the file's own fixed-point numbers (times 100000).
struct PngColour {
  std::optional<int> srgbIntent;
  std::optional<std::int32_t> gamma;
  std::optional<std::array<std::int32_t, 8>> chromaticities;  // x and y of white, red, green, blue
  bool operator==(const PngColour&) const = default;
};

// What only TIFF knows and a TIFF made from a TIFF keeps.
struct TiffDetails {
  std::uint16_t compression = 1;
  std::uint16_t predictor = 1;
  std::uint32_t group3Options = 0;
  std::optional<std::uint16_t> inkSet;
  std::optional<std::uint16_t> numberOfInks;
  std::string inkNames;  // each followed by a zero byte
  std::optional<std::array<float, 2>> whitePoint;
  std::optional<std::array<float, 6>> primaries;
};

struct Picture {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  PixelFormat pixels;
  Photometric photometric = Photometric::BlackIsZero;
  std::vector<Extra> extras;
  Palette palette;
  std::optional<Resolution> resolution;
  std::vector<std::uint8_t> iccProfile;
  std::uint32_t orientation = 1;                          // TIFF's numbering, 1 to 8
  std::optional<std::array<std::uint16_t, 3>> colourKey;  // the sample values that PNG shows transparent
  PngColour pngColour;
  std::optional<TiffDetails> tiff;  // where the picture came from a TIFF

  // What a picture is taken for of which only size and samples are known: grey, with more than two samples RGB; a
  // single sample beyond is straight alpha, several have no meaning.
  static Picture assumed(std::uint32_t width, std::uint32_t height, const PixelFormat& pixels);

  // The bytes of one row, the last byte filled up.
  std::uint64_t rowBytes() const;

  // The samples that carry colour; at most pixels.samples.
  std::uint32_t colourSamples() const;

  // The picture that `turn` makes of this one; upright, so the orientation becomes 1.
  Picture turned(const Turn& turn) const;

  // The picture in another size. The resolution stays: what is printed becomes larger or smaller.
  Picture resized(std::uint32_t newWidth, std::uint32_t newHeight) const;

  // The picture with the colours of its palette, 3 or, where they have alpha, 4 x 8 bits. Others come back as they are.
  Picture withoutPalette() const;

  // The picture with samples of 1, 2 and 4 bits widened to 8: the palette and the colour key follow. Other formats
  // come back as they are.
  Picture widenedTo8Bit() const;
};

// width * height * bitsPerPixel, nothing if that does not fit 64 bits.
std::optional<std::uint64_t> pixelBits(std::uint32_t width, std::uint32_t height, std::uint64_t bitsPerPixel);

// A component of a palette's colour in 8 bits, rounded, and back.
constexpr std::uint8_t narrowComponent(std::uint16_t component) {
  return static_cast<std::uint8_t>((component * 255U + 32767) / 65535);
}
constexpr std::uint16_t wideComponent(std::uint32_t byte) { return static_cast<std::uint16_t>(byte * 257); }

// What the highest value of a sample of `bits` (1, 2 or 4) bits is multiplied by to become 255.
std::uint32_t widenedScale(std::uint32_t bits);

// "in.tif": the format by the extension, in any case. Nothing for other extensions.
std::optional<FileFormat> formatByExtension(const std::string& path);

}  // namespace kvtile

#endif
