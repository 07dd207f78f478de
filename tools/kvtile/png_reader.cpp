#include "png_reader.h"

#include <array>
#include <cstring>
#include <memory>

#include "description.h"
#include "errors.h"

namespace kvtile {
namespace {

const char* const kDamaged = "the file is damaged or incomplete, get a new copy";

// The most bytes that one byte of a deflate stream can stand for, rounded up.
constexpr std::uint64_t kLargestExpansion = 1040;

constexpr std::uint64_t kSignatureBytes = 8;
constexpr std::uint64_t kChunkFrameBytes = 12;  // length, type and checksum
constexpr int kPasses = 7;                      // of an interlaced file

// Four letters of a chunk's name against its bytes.
bool isChunk(const std::uint8_t* type, const char* name) { return std::memcmp(type, name, 4) == 0; }

}  // namespace

PngReader::PngReader(const std::string& path, File file, Console& console)
    : path_(path), file_(std::move(file)), fileBytes_(file_.size()), handle_(file_, PngHandle::Use::Read, console) {
  const ColourChunks chunks = scanChunks();
  if (!handle_.attempt([this] { png_read_info(handle_.png(), handle_.info()); })) {
    throw Failure(path_, "its PNG header cannot be read" + handle_.reason(), kDamaged);
  }
  readHeader();
  readPaletteAndKey();
  readColours();
  // What libpng derived is not the file's own and must not find its way into another file.
  if (!chunks.gamma) {
    picture_.pngColour.gamma.reset();
  }
  if (!chunks.chromaticities) {
    picture_.pngColour.chromaticities.reset();
  }
  if (!chunks.srgb) {
    picture_.pngColour.srgbIntent.reset();
  }
}

PngReader::ColourChunks PngReader::scanChunks() {
  ColourChunks found;
  std::array<std::uint8_t, 8> head = {};
  std::uint64_t position = kSignatureBytes;
  while (file_.readAt(position, head.data(), head.size()) == head.size()) {
    const std::uint8_t* type = head.data() + 4;
    if (isChunk(type, "IDAT") || isChunk(type, "IEND")) {
      break;
    }
    found.gamma = found.gamma || isChunk(type, "gAMA");
    found.chromaticities = found.chromaticities || isChunk(type, "cHRM");
    found.srgb = found.srgb || isChunk(type, "sRGB");
    position += kChunkFrameBytes + png_get_uint_32(head.data());
  }
  file_.seek(0, SEEK_SET);
  return found;
}

void PngReader::readHeader() {
  png_structp png = handle_.png();
  png_infop info = handle_.info();
  picture_.width = png_get_image_width(png, info);
  picture_.height = png_get_image_height(png, info);
  picture_.pixels.samples = png_get_channels(png, info);
  picture_.pixels.bits = png_get_bit_depth(png, info);
  switch (png_get_color_type(png, info)) {
    case PNG_COLOR_TYPE_PALETTE:
      picture_.photometric = Photometric::Palette;
      break;
    case PNG_COLOR_TYPE_RGB_ALPHA:
      picture_.extras = {Extra::StraightAlpha};
      picture_.photometric = Photometric::Rgb;
      break;
    case PNG_COLOR_TYPE_RGB:
      picture_.photometric = Photometric::Rgb;
      break;
    case PNG_COLOR_TYPE_GRAY_ALPHA:
      picture_.extras = {Extra::StraightAlpha};
      break;
    default:
      break;
  }
  png_uint_32 x = 0;
  png_uint_32 y = 0;
  int unit = PNG_RESOLUTION_UNKNOWN;
  if (png_get_pHYs(png, info, &x, &y, &unit) != 0 && x > 0 && y > 0) {
    const bool metre = unit == PNG_RESOLUTION_METER;
    picture_.resolution = Resolution{static_cast<double>(x), static_cast<double>(y),
                                     metre ? ResolutionUnit::Metre : ResolutionUnit::None};
  }
}

void PngReader::readPaletteAndKey() {
  png_structp png = handle_.png();
  png_infop info = handle_.info();
  const bool palette = picture_.photometric == Photometric::Palette;
  png_colorp colours = nullptr;
  int count = 0;
  if (palette && png_get_PLTE(png, info, &colours, &count) != 0) {
    for (int i = 0; i < count; ++i) {
      picture_.palette.entries.push_back(
          {wideComponent(colours[i].red), wideComponent(colours[i].green), wideComponent(colours[i].blue)});
    }
  }
  png_bytep alpha = nullptr;
  png_color_16p key = nullptr;
  if (png_get_tRNS(png, info, &alpha, &count, &key) == 0) {
    return;
  }
  if (palette && alpha != nullptr) {
    picture_.palette.alpha.assign(alpha, alpha + count);
  } else if (!palette && key != nullptr) {
    picture_.colourKey = picture_.photometric == Photometric::Rgb
                             ? std::array<std::uint16_t, 3>{key->red, key->green, key->blue}
                             : std::array<std::uint16_t, 3>{key->gray, key->gray, key->gray};
  }
}

void PngReader::readColours() {
  png_structp png = handle_.png();
  png_infop info = handle_.info();
  PngColour& colour = picture_.pngColour;
  int intent = 0;
  if (png_get_sRGB(png, info, &intent) != 0) {
    colour.srgbIntent = intent;
  }
  png_fixed_point gamma = 0;
  if (png_get_gAMA_fixed(png, info, &gamma) != 0) {
    colour.gamma = gamma;
  }
  std::array<png_fixed_point, 8> c = {};
  if (png_get_cHRM_fixed(png, info, &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6], &c[7]) != 0) {
    colour.chromaticities = c;
  }
  png_charp name = nullptr;
  int compression = 0;
  png_bytep profile = nullptr;
  png_uint_32 bytes = 0;
  if (png_get_iCCP(png, info, &name, &compression, &profile, &bytes) != 0) {
    picture_.iccProfile.assign(profile, profile + bytes);
  }
}

std::vector<Fact> PngReader::facts() {
  FileDescription file;
  file.path = path_;
  file.format = "PNG";
  file.meaning = describeMeaning(picture_.photometric, picture_.extras);
  if (picture_.photometric == Photometric::Palette) {
    file.meaning += " of " + std::to_string(picture_.palette.entries.size()) + " colours";
  }
  if (picture_.colourKey) {
    file.meaning += ", one colour transparent";
  } else if (!picture_.palette.alpha.empty()) {
    file.meaning += ", with transparency";
  }
  file.compression = "deflate";
  file.layout = interlaced() ? "interlaced (Adam7)" : "rows";
  return describe(file, picture_);
}

bool PngReader::interlaced() const {
  return png_get_interlace_type(handle_.png(), handle_.info()) == PNG_INTERLACE_ADAM7;
}

// Lets files that promise more than they hold fail before memory is spent on them.
void PngReader::checkReadable() {
  const auto bits = pixelBits(picture_.width, picture_.height, picture_.pixels.bitsPerPixel());
  if (!bits || *bits / 8 / kLargestExpansion > fileBytes_) {
    throw Failure(path_,
                  "the file is too short for " + std::to_string(picture_.width) + " x " +
                      std::to_string(picture_.height) + " pixels",
                  kDamaged);
  }
}

void PngReader::read(Image& image, bool widen, Progress& progress) {
  startPixels(widen);
  if (interlaced()) {
    readPasses(image, progress);
  } else {
    readRows(image, progress);
  }
  if (!handle_.attempt([this] { png_read_end(handle_.png(), nullptr); })) {
    failReading();
  }
}

void PngReader::startPixels(bool widen) {
  png_structp png = handle_.png();
  const bool widening = widen && picture_.pixels.packed();
  const bool palette = picture_.photometric == Photometric::Palette;
  const bool started = handle_.attempt([this, png, widening, palette] {
    png_set_swap(png);  // the machine's order instead of the file's; changes 16-bit samples only
    if (widening && palette) {
      png_set_packing(png);
    } else if (widening) {
      png_set_expand_gray_1_2_4_to_8(png);
    }
    if (interlaced()) {
      png_set_interlace_handling(png);
    }
    png_start_read_image(png);
  });
  if (!started) {
    failReading();
  }
}

void PngReader::readRows(Image& image, Progress& progress) {
  std::vector<std::uint8_t> buffer(image.rowBytes());
  std::uint8_t* row = buffer.data();
  progress.begin("reading", picture_.height);
  for (std::uint32_t y = 0; y < picture_.height; ++y) {
    if (!handle_.attempt([this, row] { png_read_row(handle_.png(), row, nullptr); })) {
      failReading();
    }
    image.setRow(y, 0, picture_.width, buffer);
    progress.advance();
  }
}

// libpng puts each pass's pixels between those of the passes before it, which are in the image by then.
void PngReader::readPasses(Image& image, Progress& progress) {
  std::vector<std::uint8_t> buffer(image.rowBytes());
  std::uint8_t* row = buffer.data();
  progress.begin("reading", std::uint64_t{picture_.height} * kPasses);
  for (int pass = 0; pass < kPasses; ++pass) {
    for (std::uint32_t y = 0; y < picture_.height; ++y) {
      const bool changes = PNG_ROW_IN_INTERLACE_PASS(y, pass) && PNG_PASS_COLS(picture_.width, pass) > 0;
      if (changes) {
        image.getRow(y, 0, picture_.width, buffer);
      }
      if (!handle_.attempt([this, row] { png_read_row(handle_.png(), row, nullptr); })) {
        failReading();
      }
      if (changes) {
        image.setRow(y, 0, picture_.width, buffer);
      }
      progress.advance();
    }
  }
}

void PngReader::failReading() const {
  if (file_.error() != 0) {
    throw Failure(path_, std::string("cannot be read (") + std::strerror(file_.error()) + ")", "check the disk");
  }
  throw Failure(path_, "the pixels cannot be read" + handle_.reason(), kDamaged);
}

}  // namespace kvtile
