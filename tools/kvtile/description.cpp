#include "description.h"

#include <cstdio>
#include <iterator>

namespace kvtile {
namespace {

struct Name {
  std::uint32_t code;
  const char* text;
};

constexpr Name kPhotometrics[] = {{0, "grey, white is zero"},
                                  {1, "grey, black is zero"},
                                  {2, "RGB"},
                                  {3, "palette"},
                                  {4, "transparency mask"},
                                  {5, "separated inks"},
                                  {6, "YCbCr"},
                                  {8, "CIE L*a*b*"},
                                  {9, "ICC L*a*b*"},
                                  {10, "ITU L*a*b*"},
                                  {32803, "colour filter array"},
                                  {32844, "CIE log luminance (LogL)"},
                                  {32845, "CIE log luminance and chroma (LogLuv)"},
                                  {34892, "linear raw"}};

constexpr Name kCompressions[] = {{1, "none"},
                                  {2, "CCITT RLE"},
                                  {3, "CCITT group 3 fax"},
                                  {4, "CCITT group 4 fax"},
                                  {5, "LZW"},
                                  {6, "old-style JPEG"},
                                  {7, "JPEG"},
                                  {8, "deflate"},
                                  {9, "JBIG (T.85)"},
                                  {10, "JBIG (T.43)"},
                                  {32766, "NeXT RLE"},
                                  {32771, "CCITT RLE, word aligned"},
                                  {32773, "PackBits"},
                                  {32809, "ThunderScan"},
                                  {32909, "PixarLog"},
                                  {32946, "deflate (old code)"},
                                  {34661, "JBIG"},
                                  {34676, "SGI log"},
                                  {34677, "SGI log, 24 bits"},
                                  {34712, "JPEG 2000"},
                                  {34887, "LERC"},
                                  {34925, "LZMA"},
                                  {50000, "ZSTD"},
                                  {50001, "WebP"},
                                  {50002, "JPEG XL"}};

constexpr const char* kOrientations[] = {"1 (upright)",
                                         "2 (mirrored left to right)",
                                         "3 (upside down)",
                                         "4 (mirrored top to bottom)",
                                         "5 (mirrored left to right and turned by 270 degrees)",
                                         "6 (to be turned by 90 degrees)",
                                         "7 (mirrored left to right and turned by 90 degrees)",
                                         "8 (to be turned by 270 degrees)"};

template <std::size_t N>
std::string nameOfCode(const Name (&names)[N], std::uint32_t code) {
  for (const Name& name : names) {
    if (name.code == code) {
      return name.text;
    }
  }
  return "code " + std::to_string(code);
}

// Up to six digits, no zeros at the end.
std::string number(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.6g", value);
  return text;
}

std::string describeBytes(std::uint64_t bytes) {
  constexpr const char* kUnits[] = {"KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
  std::string exact = std::to_string(bytes) + " bytes";
  if (bytes < 1024) {
    return exact;
  }
  double scaled = static_cast<double>(bytes) / 1024;
  std::size_t unit = 0;
  while (scaled >= 1024 && unit + 1 < std::size(kUnits)) {
    scaled /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, " (%.1f %s)", scaled, kUnits[unit]);
  return exact + text;
}

std::string describePixelBytes(const Picture& picture) {
  const auto bits = pixelBits(picture.width, picture.height, picture.pixels.bitsPerPixel());
  return bits ? describeBytes(*bits / 8 + (*bits % 8 != 0 ? 1 : 0)) : "more than 64 bits can count";
}

std::string describeExtra(Extra extra) {
  switch (extra) {
    case Extra::Unspecified:
      return "sample without meaning";
    case Extra::AssociatedAlpha:
      return "premultiplied alpha";
    case Extra::StraightAlpha:
      return "straight alpha";
  }
  return "sample of kind " + std::to_string(static_cast<unsigned>(extra));
}

std::string describeSampleFormat(SampleFormat format) {
  switch (format) {
    case SampleFormat::Unsigned:
      return "unsigned";
    case SampleFormat::Signed:
      return "signed";
    case SampleFormat::Float:
      return "floating point";
    case SampleFormat::Untyped:
      return "without type";
  }
  return static_cast<std::uint32_t>(format) <= 6 ? "complex" : "of unknown type";
}

}  // namespace

std::vector<Fact> describe(const FileDescription& file, const Picture& picture) {
  const std::string profile =
      picture.iccProfile.empty() ? "no" : "yes, " + std::to_string(picture.iccProfile.size()) + " bytes";
  return {{"file", file.path},
          {"format", file.format},
          {"size", std::to_string(picture.width) + " x " + std::to_string(picture.height) + " pixels"},
          {"samples", describeSamples(picture.pixels)},
          {"meaning", file.meaning},
          {"compression", file.compression},
          {"layout", file.layout},
          {"resolution", describeResolution(picture.resolution)},
          {"orientation", kOrientations[picture.orientation - 1]},
          {"ICC profile", profile},
          {"pages", std::to_string(file.pages)},
          {"pixel bytes", describePixelBytes(picture)}};
}

std::string describeSamples(const PixelFormat& format) {
  return std::to_string(format.samples) + " x " + std::to_string(format.bits) +
         (format.bits == 1 ? " bit, " : " bits, ") + describeSampleFormat(format.sampleFormat);
}

std::string describeMeaning(Photometric photometric, const std::vector<Extra>& extras) {
  std::string text = describePhotometric(photometric);
  // A file may declare thousands.
  if (extras.size() > 4) {
    return text + " + " + std::to_string(extras.size()) + " extra samples";
  }
  for (const Extra extra : extras) {
    text += " + " + describeExtra(extra);
  }
  return text;
}

std::string describePhotometric(Photometric photometric) {
  return nameOfCode(kPhotometrics, static_cast<std::uint32_t>(photometric));
}

std::string describeCompression(std::uint16_t compression) { return nameOfCode(kCompressions, compression); }

std::string describeResolution(const std::optional<Resolution>& resolution) {
  if (!resolution) {
    return "not given";
  }
  const std::string values = number(resolution->x) + " x " + number(resolution->y);
  switch (resolution->unit) {
    case ResolutionUnit::Inch:
      return values + " pixels per inch";
    case ResolutionUnit::Centimetre:
      return values + " pixels per centimetre";
    case ResolutionUnit::Metre:
      return values + " pixels per metre (" + number(resolution->inInches()->x) + " x " +
             number(resolution->inInches()->y) + " per inch)";
    case ResolutionUnit::None:
      break;
  }
  return values + " (a ratio, without unit)";
}

}  // namespace kvtile
