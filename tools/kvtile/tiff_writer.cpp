#include "tiff_writer.h"

#include <algorithm>

#include "errors.h"
#include "output_file.h"

namespace kvtile {
namespace {

// Of 1 to 9. A photograph, enlarged, takes 8 % more room than with libtiff's own choice, 6, and a quarter of the time.
constexpr int kDeflateLevel = 3;

constexpr std::uint64_t kStripBytes = std::uint64_t{256} << 10;
constexpr std::uint64_t kClassicLimit = std::uint64_t{1} << 32;
constexpr std::uint64_t kClassicMargin = std::uint64_t{16} << 20;  // for whatever the bound overlooks
constexpr std::uint64_t kHeaderBytes = std::uint64_t{64} << 10;    // tags and short values, generously

bool isFax(std::uint16_t compression) {
  return compression == COMPRESSION_CCITTRLE || compression == COMPRESSION_CCITTRLEW ||
         compression == COMPRESSION_CCITTFAX3 || compression == COMPRESSION_CCITTFAX4;
}

bool takesPredictor(std::uint16_t compression) {
  return compression == COMPRESSION_LZW || compression == COMPRESSION_DEFLATE ||
         compression == COMPRESSION_ADOBE_DEFLATE || compression == COMPRESSION_ZSTD || compression == COMPRESSION_LZMA;
}

bool predictorSuits(std::uint16_t predictor, const PixelFormat& format) {
  switch (predictor) {
    case PREDICTOR_HORIZONTAL:
      return format.bits == 8 || format.bits == 16 || format.bits == 32 || format.bits == 64;
    case PREDICTOR_FLOATINGPOINT:
      return format.sampleFormat == SampleFormat::Float &&
             (format.bits == 16 || format.bits == 24 || format.bits == 32 || format.bits == 64);
    default:
      return true;
  }
}

// The predictor for pixels that have none to keep. Neighbours in a palette are not alike.
std::uint16_t choosePredictor(const Picture& picture) {
  if (predictorSuits(PREDICTOR_FLOATINGPOINT, picture.pixels)) {
    return PREDICTOR_FLOATINGPOINT;
  }
  const bool horizontal =
      picture.photometric != Photometric::Palette && predictorSuits(PREDICTOR_HORIZONTAL, picture.pixels);
  return horizontal ? PREDICTOR_HORIZONTAL : PREDICTOR_NONE;
}

bool canKeep(std::uint16_t compression, const Picture& picture) {
  switch (compression) {
    case COMPRESSION_NONE:
    case COMPRESSION_LZW:
    case COMPRESSION_DEFLATE:
    case COMPRESSION_ADOBE_DEFLATE:
    case COMPRESSION_PACKBITS:
    case COMPRESSION_ZSTD:
    case COMPRESSION_LZMA:
      return TIFFIsCODECConfigured(compression) != 0;
    default:
      // What libtiff writes in the word-aligned variant it cannot read again.
      return isFax(compression) && compression != COMPRESSION_CCITTRLEW && picture.pixels.bits == 1 &&
             picture.pixels.samples == 1 && TIFFIsCODECConfigured(compression) != 0;
  }
}

std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b) {
  return a != 0 && b > UINT64_MAX / a ? UINT64_MAX : a * b;
}

std::uint64_t saturatingSum(std::uint64_t a, std::uint64_t b) { return b > UINT64_MAX - a ? UINT64_MAX : a + b; }

// The most that `bytes` bytes of pixels become, in percent and a few bytes for each row.
struct Growth {
  std::uint64_t percent;
  std::uint64_t bytesPerRow;
};

Growth largestGrowth(std::uint16_t compression) {
  if (isFax(compression)) {
    // Alternating pixels: twelve bits for two in the worst mode, and an end-of-line code with filling.
    return {600, 16};
  }
  switch (compression) {
    case COMPRESSION_NONE:
      return {100, 0};
    case COMPRESSION_LZW:
      return {160, 16};  // codes of up to twelve bits for eight, and the codes that clear the table
    default:
      return {102, 64};
  }
}

}  // namespace

TiffCoding chooseCoding(const Picture& picture) {
  TiffCoding coding;
  if (picture.tiff && canKeep(picture.tiff->compression, picture)) {
    coding.compression = picture.tiff->compression;
    coding.group3Options = picture.tiff->group3Options;
    if (takesPredictor(coding.compression) && predictorSuits(picture.tiff->predictor, picture.pixels)) {
      coding.predictor = picture.tiff->predictor;
    }
    return coding;
  }
  coding.compression = COMPRESSION_ADOBE_DEFLATE;
  coding.predictor = choosePredictor(picture);
  return coding;
}

std::uint32_t chooseRowsPerStrip(const Picture& picture) {
  const std::uint64_t rows = kStripBytes / std::max<std::uint64_t>(picture.rowBytes(), 1);
  return static_cast<std::uint32_t>(std::clamp<std::uint64_t>(rows, 1, picture.height));
}

std::uint64_t worstCaseBytes(const Picture& picture, const TiffCoding& coding) {
  constexpr std::uint64_t kBytesPerStripEntry = 16;  // a position and a size in BigTIFF
  constexpr std::uint64_t kBytesPerPaletteEntry = 6;
  const Growth growth = largestGrowth(coding.compression);
  const std::uint64_t rowBytes = picture.rowBytes();
  const std::uint64_t grownRow =
      saturatingSum(saturatingProduct(rowBytes, growth.percent) / 100 + 1, growth.bytesPerRow);
  const std::uint64_t strips = picture.height / chooseRowsPerStrip(picture) + 1;
  const std::uint64_t pixels =
      saturatingProduct(coding.compression == COMPRESSION_NONE ? rowBytes : grownRow, picture.height);
  const std::uint64_t others = kHeaderBytes + strips * kBytesPerStripEntry + picture.iccProfile.size() +
                               picture.palette.entries.size() * kBytesPerPaletteEntry;
  return saturatingSum(pixels, others);
}

bool needsBigTiff(std::uint64_t worstCaseBytes) { return worstCaseBytes > kClassicLimit - kClassicMargin; }

TiffWriter::TiffWriter(File& file, const std::string& path, const Picture& picture, Console& console)
    : path_(path),
      file_(file),
      tiff_(file, path, needsBigTiff(worstCaseBytes(picture, chooseCoding(picture))) ? "w8" : "w", 0, console),
      height_(picture.height),
      rowsPerStrip_(chooseRowsPerStrip(picture)) {
  if (tiff_.get() == nullptr) {
    fail();
  }
  setHeader(picture, chooseCoding(picture));
  setColours(picture);
  setInks(picture);
  setMeasures(picture);
}

void TiffWriter::setHeader(const Picture& picture, const TiffCoding& coding) {
  set(TIFFTAG_IMAGEWIDTH, picture.width);
  set(TIFFTAG_IMAGELENGTH, picture.height);
  set(TIFFTAG_BITSPERSAMPLE, picture.pixels.bits);
  set(TIFFTAG_SAMPLESPERPIXEL, picture.pixels.samples);
  set(TIFFTAG_SAMPLEFORMAT, static_cast<std::uint32_t>(picture.pixels.sampleFormat));
  set(TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  set(TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  set(TIFFTAG_COMPRESSION, static_cast<std::uint32_t>(coding.compression));
  if (coding.compression == COMPRESSION_CCITTFAX3) {
    set(TIFFTAG_GROUP3OPTIONS, coding.group3Options);
  }
  if (coding.predictor != PREDICTOR_NONE) {
    set(TIFFTAG_PREDICTOR, static_cast<std::uint32_t>(coding.predictor));
  }
  if (coding.compression == COMPRESSION_ADOBE_DEFLATE || coding.compression == COMPRESSION_DEFLATE) {
    set(TIFFTAG_ZIPQUALITY, kDeflateLevel);
  }
  set(TIFFTAG_ROWSPERSTRIP, rowsPerStrip_);
}

void TiffWriter::setColours(const Picture& picture) {
  set(TIFFTAG_PHOTOMETRIC, static_cast<std::uint32_t>(picture.photometric));
  if (!picture.extras.empty()) {
    std::vector<std::uint16_t> kinds;
    for (const Extra extra : picture.extras) {
      kinds.push_back(static_cast<std::uint16_t>(extra));
    }
    set(TIFFTAG_EXTRASAMPLES, static_cast<std::uint32_t>(kinds.size()), kinds.data());
  }
  if (picture.photometric == Photometric::Palette) {
    std::vector<std::uint16_t> red;
    std::vector<std::uint16_t> green;
    std::vector<std::uint16_t> blue;
    for (const PaletteEntry& entry : picture.palette.entries) {
      red.push_back(entry.red);
      green.push_back(entry.green);
      blue.push_back(entry.blue);
    }
    set(TIFFTAG_COLORMAP, red.data(), green.data(), blue.data());
  }
  if (!picture.iccProfile.empty()) {
    set(TIFFTAG_ICCPROFILE, static_cast<std::uint32_t>(picture.iccProfile.size()), picture.iccProfile.data());
  }
}

void TiffWriter::setInks(const Picture& picture) {
  if (!picture.tiff) {
    return;
  }
  const TiffDetails& details = *picture.tiff;
  TIFF* tiff = tiff_.get();
  // A source may count and name its inks in ways that contradict each other, which libtiff reports and lets pass.
  if (details.inkSet) {
    TIFFSetField(tiff, TIFFTAG_INKSET, static_cast<std::uint32_t>(*details.inkSet));
  }
  if (!details.inkNames.empty()) {
    TIFFSetField(tiff, TIFFTAG_INKNAMES, static_cast<std::uint32_t>(details.inkNames.size()), details.inkNames.data());
  } else if (details.numberOfInks) {
    TIFFSetField(tiff, TIFFTAG_NUMBEROFINKS, static_cast<std::uint32_t>(*details.numberOfInks));
  }
  tiff_.forget();
  if (details.whitePoint) {
    set(TIFFTAG_WHITEPOINT, details.whitePoint->data());
  }
  if (details.primaries) {
    set(TIFFTAG_PRIMARYCHROMATICITIES, details.primaries->data());
  }
}

void TiffWriter::setMeasures(const Picture& picture) {
  if (!picture.resolution) {
    return;
  }
  set(TIFFTAG_XRESOLUTION, picture.resolution->x);
  set(TIFFTAG_YRESOLUTION, picture.resolution->y);
  switch (picture.resolution->unit) {
    case ResolutionUnit::None:
      set(TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
      break;
    case ResolutionUnit::Centimetre:
      set(TIFFTAG_RESOLUTIONUNIT, RESUNIT_CENTIMETER);
      break;
    default:
      set(TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH);
      break;
  }
}

void TiffWriter::writeRow(std::span<std::uint8_t> row) {
  strip_.insert(strip_.end(), row.begin(), row.end());
  ++rowsTaken_;
  if (rowsTaken_ % rowsPerStrip_ == 0 || rowsTaken_ == height_) {
    writeStrip();
  }
}

// A whole strip at a time: libtiff compresses it several times as fast as row by row.
void TiffWriter::writeStrip() {
  const std::uint32_t strip = (rowsTaken_ - 1) / rowsPerStrip_;
  if (TIFFWriteEncodedStrip(tiff_.get(), strip, strip_.data(), static_cast<tmsize_t>(strip_.size())) < 0 ||
      tiff_.failed()) {
    fail();
  }
  strip_.clear();
}

void TiffWriter::finish() {
  if (!tiff_.close()) {
    fail();
  }
}

void TiffWriter::fail() const {
  if (file_.error() != 0) {
    failToWrite(path_, file_.error());
  }
  throw Failure(path_, "cannot be written as TIFF" + tiff_.reason(), "see --verbose for the reason");
}

}  // namespace kvtile
