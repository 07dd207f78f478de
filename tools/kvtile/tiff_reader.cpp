#include "tiff_reader.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "description.h"
#include "errors.h"
#include "samples.h"

namespace kvtile {
namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;

// Buffers that libtiff makes follow numbers in the file; a small file has no use for large ones.
constexpr std::uint64_t kAllocationFloor = 256 * kMebibyte;
constexpr std::uint64_t kAllocationPerFileByte = 4;

// A tile much larger than its picture holds padding only.
constexpr std::uint64_t kLargeTileBytes = 64 * kMebibyte;
constexpr std::uint64_t kTileToPicture = 4;

// Rows of uncompressed strips are read in blocks of about this size.
constexpr std::uint64_t kBlockBytes = std::uint64_t{256} << 10;

const char* const kDamaged = "the file is damaged or incomplete, get a new copy";

// The most bytes that one compressed byte can stand for, generously; 0 where there is no such bound.
std::uint64_t largestExpansion(std::uint16_t compression) {
  switch (compression) {
    case COMPRESSION_NONE:
      return 1;
    case COMPRESSION_PACKBITS:
      return 128;
    case COMPRESSION_LZW:
    case COMPRESSION_ADOBE_DEFLATE:
    case COMPRESSION_DEFLATE:
      return 4096;
    default:
      return 0;
  }
}

// Codecs that give single rows of ordinary samples.
bool isReadable(std::uint16_t compression) {
  constexpr std::uint16_t kReadable[] = {COMPRESSION_NONE,      COMPRESSION_CCITTRLE,    COMPRESSION_CCITTRLEW,
                                         COMPRESSION_CCITTFAX3, COMPRESSION_CCITTFAX4,   COMPRESSION_LZW,
                                         COMPRESSION_JPEG,      COMPRESSION_NEXT,        COMPRESSION_PACKBITS,
                                         COMPRESSION_DEFLATE,   COMPRESSION_THUNDERSCAN, COMPRESSION_ADOBE_DEFLATE,
                                         COMPRESSION_PIXARLOG,  COMPRESSION_LZMA,        COMPRESSION_ZSTD,
                                         COMPRESSION_WEBP,      COMPRESSION_LERC};
  return std::find(std::begin(kReadable), std::end(kReadable), compression) != std::end(kReadable);
}

std::uint64_t bytesOfRun(std::uint64_t pixels, std::uint64_t bitsPerPixel) { return (pixels * bitsPerPixel + 7) / 8; }

std::uint16_t shortField(TIFF* tiff, std::uint32_t tag, std::uint16_t otherwise) {
  std::uint16_t value = 0;
  return TIFFGetFieldDefaulted(tiff, tag, &value) != 0 ? value : otherwise;
}

std::uint32_t longField(TIFF* tiff, std::uint32_t tag) {
  std::uint32_t value = 0;
  return TIFFGetFieldDefaulted(tiff, tag, &value) != 0 ? value : 0;
}

std::optional<Resolution> readResolution(TIFF* tiff) {
  float x = 0;
  float y = 0;
  const bool hasX = TIFFGetField(tiff, TIFFTAG_XRESOLUTION, &x) != 0 && std::isfinite(x) && x > 0;
  const bool hasY = TIFFGetField(tiff, TIFFTAG_YRESOLUTION, &y) != 0 && std::isfinite(y) && y > 0;
  if (!hasX && !hasY) {
    return std::nullopt;
  }
  Resolution resolution{hasX ? x : y, hasY ? y : x, ResolutionUnit::Inch};
  switch (shortField(tiff, TIFFTAG_RESOLUTIONUNIT, RESUNIT_INCH)) {
    case RESUNIT_NONE:
      resolution.unit = ResolutionUnit::None;
      break;
    case RESUNIT_CENTIMETER:
      resolution.unit = ResolutionUnit::Centimetre;
      break;
    default:
      break;
  }
  return resolution;
}

// What files that leave the tag out mean.
Photometric guessPhotometric(std::uint16_t compression, const PixelFormat& pixels) {
  const bool fax = compression >= COMPRESSION_CCITTRLE && compression <= COMPRESSION_CCITTFAX4;
  if (fax || compression == COMPRESSION_CCITTRLEW) {
    return Photometric::WhiteIsZero;
  }
  return pixels.samples >= 3 ? Photometric::Rgb : Photometric::BlackIsZero;
}

std::string inkNames(TIFF* tiff, std::uint16_t numberOfInks) {
  const char* names = nullptr;
  std::string result;
  if (TIFFGetField(tiff, TIFFTAG_INKNAMES, &names) != 0 && names != nullptr) {
    for (std::uint16_t ink = 0; ink < numberOfInks; ++ink) {
      const std::size_t length = std::strlen(names) + 1;
      result.append(names, length);
      names += length;
    }
  }
  return result;
}

template <std::size_t N>
std::optional<std::array<float, N>> floats(TIFF* tiff, std::uint32_t tag) {
  const float* values = nullptr;
  if (TIFFGetField(tiff, tag, &values) == 0 || values == nullptr) {
    return std::nullopt;
  }
  std::array<float, N> result;
  std::copy_n(values, N, result.begin());
  return result;
}

}  // namespace

class TiffReader::RowSink {
 public:
  RowSink(Image& image, const Picture& stored, bool widened, bool separate)
      : image_(image),
        stored_(stored.pixels),
        held_(widened ? stored.widenedTo8Bit().pixels : stored.pixels),
        separate_(separate),
        scale_(stored.photometric == Photometric::Palette || !stored.pixels.packed()
                   ? 1
                   : widenedScale(stored.pixels.bits)) {
    const std::uint64_t samples = std::uint64_t{image.width()} * (separate ? 1 : stored_.samples);
    if (stored_.bits != held_.bits) {
      widened_.resize(samples);
    }
    if (separate) {
      row_.resize(bytesOfRun(image.width(), held_.bitsPerPixel()));
    }
  }

  void setPlane(std::uint16_t plane) { plane_ = plane; }

  // Pixels [x1, x2) of row y, of the plane or of all samples.
  void put(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<const std::uint8_t> samples) {
    const std::size_t pixels = x2 - x1;
    if (!widened_.empty()) {
      widen(samples, stored_.bits, scale_, pixels * (separate_ ? 1 : stored_.samples), widened_);
      samples = widened_;
    }
    if (!separate_) {
      image_.setRow(y, x1, x2, samples);
      return;
    }
    image_.getRow(y, x1, x2, row_);
    insertPlane(samples, held_, plane_, pixels, row_);
    image_.setRow(y, x1, x2, row_);
  }

 private:
  Image& image_;
  PixelFormat stored_;
  PixelFormat held_;
  bool separate_;
  std::uint32_t scale_;
  std::uint16_t plane_ = 0;
  std::vector<std::uint8_t> widened_;
  std::vector<std::uint8_t> row_;
};

// 'c' leaves large strips in one piece in what libtiff says of them; they are read in pieces here.
TiffReader::TiffReader(const std::string& path, File file, Console& console)
    : path_(path),
      file_(std::move(file)),
      fileBytes_(file_.size()),
      tiff_(file_, path_, "rc", kAllocationFloor + kAllocationPerFileByte * fileBytes_, console) {
  if (tiff_.get() == nullptr) {
    throw Failure(path_, "its TIFF header cannot be understood" + tiff_.reason(), kDamaged);
  }
  readHeader();
  readColours();
  readDetails();
}

void TiffReader::readHeader() {
  TIFF* tiff = tiff_.get();
  picture_.width = longField(tiff, TIFFTAG_IMAGEWIDTH);
  picture_.height = longField(tiff, TIFFTAG_IMAGELENGTH);
  picture_.pixels.samples = shortField(tiff, TIFFTAG_SAMPLESPERPIXEL, 1);
  picture_.pixels.bits = shortField(tiff, TIFFTAG_BITSPERSAMPLE, 1);
  picture_.pixels.sampleFormat = static_cast<SampleFormat>(shortField(tiff, TIFFTAG_SAMPLEFORMAT, 1));
  planar_ = shortField(tiff, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  fillOrder_ = shortField(tiff, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB);
  picture_.resolution = readResolution(tiff);
  const std::uint16_t orientation = shortField(tiff, TIFFTAG_ORIENTATION, 1);
  picture_.orientation = orientation >= 1 && orientation <= 8 ? orientation : 1;
  if (picture_.width == 0 || picture_.height == 0 || picture_.pixels.samples == 0 || picture_.pixels.bits == 0) {
    throw Failure(path_, "its TIFF header describes a picture without pixels", kDamaged);
  }
}

void TiffReader::readColours() {
  TIFF* tiff = tiff_.get();
  const std::uint16_t compression = shortField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  std::uint16_t photometric = 0;
  storedPhotometric_ = TIFFGetField(tiff, TIFFTAG_PHOTOMETRIC, &photometric) != 0
                           ? static_cast<Photometric>(photometric)
                           : guessPhotometric(compression, picture_.pixels);
  picture_.photometric = storedPhotometric_;
  if (storedPhotometric_ == Photometric::YCbCr && compression == COMPRESSION_JPEG && !separatePlanes()) {
    TIFFSetField(tiff, TIFFTAG_JPEGCOLORMODE, JPEGCOLORMODE_RGB);
    picture_.photometric = Photometric::Rgb;
  }
  std::uint16_t extras = 0;
  const std::uint16_t* kinds = nullptr;
  if (TIFFGetField(tiff, TIFFTAG_EXTRASAMPLES, &extras, &kinds) != 0 && kinds != nullptr) {
    for (std::uint16_t i = 0; i < extras; ++i) {
      picture_.extras.push_back(static_cast<Extra>(kinds[i]));
    }
  }
  const std::uint16_t* red = nullptr;
  const std::uint16_t* green = nullptr;
  const std::uint16_t* blue = nullptr;
  // libtiff's tables have an entry for each value of a sample.
  if (storedPhotometric_ == Photometric::Palette && picture_.pixels.bits <= 16 &&
      TIFFGetField(tiff, TIFFTAG_COLORMAP, &red, &green, &blue) != 0) {
    for (std::size_t i = 0; i < std::size_t{1} << picture_.pixels.bits; ++i) {
      picture_.palette.entries.push_back({red[i], green[i], blue[i]});
    }
  }
}

void TiffReader::readDetails() {
  TIFF* tiff = tiff_.get();
  TiffDetails details;
  details.compression = shortField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
  std::uint16_t value = 0;
  if (TIFFGetField(tiff, TIFFTAG_PREDICTOR, &value) != 0) {
    details.predictor = value;
  }
  if (details.compression == COMPRESSION_CCITTFAX3) {
    TIFFGetField(tiff, TIFFTAG_GROUP3OPTIONS, &details.group3Options);
  }
  if (storedPhotometric_ == Photometric::Separated) {
    if (TIFFGetField(tiff, TIFFTAG_INKSET, &value) != 0) {
      details.inkSet = value;
    }
    if (TIFFGetField(tiff, TIFFTAG_NUMBEROFINKS, &value) != 0) {
      details.numberOfInks = value;
      details.inkNames = inkNames(tiff, value);
    }
  }
  details.whitePoint = floats<2>(tiff, TIFFTAG_WHITEPOINT);
  details.primaries = floats<6>(tiff, TIFFTAG_PRIMARYCHROMATICITIES);
  picture_.tiff = details;
  std::uint32_t profileBytes = 0;
  const std::uint8_t* profile = nullptr;
  if (TIFFGetField(tiff, TIFFTAG_ICCPROFILE, &profileBytes, &profile) != 0 && profile != nullptr) {
    picture_.iccProfile.assign(profile, profile + profileBytes);
  }
}

std::vector<Fact> TiffReader::facts() {
  TIFF* tiff = tiff_.get();
  FileDescription file;
  file.path = path_;
  file.format = std::string(TIFFIsBigTIFF(tiff) != 0 ? "BigTIFF" : "TIFF") +
                (TIFFIsBigEndian(tiff) != 0 ? ", big-endian" : ", little-endian");
  file.meaning = describeMeaning(storedPhotometric_, picture_.extras);
  file.compression = describeCompression(picture_.tiff->compression);
  if (picture_.tiff->predictor == PREDICTOR_HORIZONTAL) {
    file.compression += ", horizontal predictor";
  } else if (picture_.tiff->predictor == PREDICTOR_FLOATINGPOINT) {
    file.compression += ", floating-point predictor";
  }
  if (tiled()) {
    file.layout = "tiles of " + std::to_string(longField(tiff, TIFFTAG_TILEWIDTH)) + " x " +
                  std::to_string(longField(tiff, TIFFTAG_TILELENGTH)) + " pixels";
  } else {
    const std::uint32_t rows = std::min(longField(tiff, TIFFTAG_ROWSPERSTRIP), picture_.height);
    file.layout = "strips of " + std::to_string(rows) + (rows == 1 ? " row" : " rows");
  }
  file.layout += separatePlanes() ? ", one plane per sample" : "";
  file.pages = pages();
  return describe(file, picture_);
}

std::uint64_t TiffReader::pages() {
  const std::uint64_t count = TIFFNumberOfDirectories(tiff_.get());
  // Damage behind the first page does not matter to it.
  tiff_.forget();
  return std::max<std::uint64_t>(count, 1);
}

void TiffReader::checkReadable() {
  checkMeaning();
  checkCompression();
  checkSizes();
  checkStoredBytes();
}

void TiffReader::checkMeaning() const {
  constexpr std::uint32_t kDepths[] = {1, 2, 4, 8, 16, 24, 32, 64};
  const PixelFormat& format = picture_.pixels;
  if (std::find(std::begin(kDepths), std::end(kDepths), format.bits) == std::end(kDepths)) {
    throw Failure(path_, "samples of " + std::to_string(format.bits) + " bits cannot be read",
                  "convert it to 8 or 16 bits first");
  }
  if (format.sampleFormat < SampleFormat::Unsigned || format.sampleFormat > SampleFormat::Untyped) {
    throw Failure(path_, "samples of its type (" + describeSamples(format) + ") cannot be read",
                  "convert it to real numbers first");
  }
  switch (picture_.photometric) {
    case Photometric::WhiteIsZero:
    case Photometric::BlackIsZero:
    case Photometric::Rgb:
    case Photometric::Mask:
    case Photometric::Separated:
    case Photometric::CieLab:
    case Photometric::IccLab:
      return;
    case Photometric::Palette:
      if (!picture_.palette.entries.empty()) {
        return;
      }
      throw Failure(path_, "its colour map is missing", kDamaged);
    default:
      throw Failure(path_, "pixels stored as " + describePhotometric(storedPhotometric_) + " cannot be read",
                    "convert it to RGB or grey first");
  }
}

void TiffReader::checkCompression() const {
  const std::uint16_t compression = picture_.tiff->compression;
  if (!isReadable(compression) || TIFFIsCODECConfigured(compression) == 0) {
    throw Failure(path_, "its compression (" + describeCompression(compression) + ") cannot be read",
                  "save it with another compression first");
  }
}

// What libtiff fills has to be as large as what is made for it.
void TiffReader::checkSizes() const {
  TIFF* tiff = tiff_.get();
  const std::uint64_t bits = separatePlanes() ? picture_.pixels.bits : picture_.pixels.bitsPerPixel();
  const auto pictureBits = pixelBits(picture_.width, picture_.height, picture_.pixels.bitsPerPixel());
  if (!pictureBits) {
    throw Failure(path_, "its TIFF header describes a picture larger than any memory", kDamaged);
  }
  if (!tiled()) {
    if (longField(tiff, TIFFTAG_ROWSPERSTRIP) == 0 || TIFFScanlineSize64(tiff) != bytesOfRun(picture_.width, bits)) {
      throw Failure(path_, "its rows are laid out in a way that cannot be read", kDamaged);
    }
    return;
  }
  const std::uint64_t tileWidth = longField(tiff, TIFFTAG_TILEWIDTH);
  const std::uint64_t tileHeight = longField(tiff, TIFFTAG_TILELENGTH);
  const std::uint64_t tileBytes = TIFFTileSize64(tiff);
  const bool fits = tileWidth != 0 && tileHeight != 0 && TIFFTileRowSize64(tiff) == bytesOfRun(tileWidth, bits) &&
                    tileBytes / tileHeight == bytesOfRun(tileWidth, bits) && tileBytes % tileHeight == 0;
  const bool sensible = tileBytes <= kLargeTileBytes || tileBytes / kTileToPicture <= *pictureBits / 8;
  if (!fits || !sensible) {
    throw Failure(
        path_,
        "its tiles of " + std::to_string(tileWidth) + " x " + std::to_string(tileHeight) + " pixels cannot be read",
        kDamaged);
  }
}

// Lets files that promise more than they hold fail before memory is spent on them.
void TiffReader::checkStoredBytes() const {
  TIFF* tiff = tiff_.get();
  const std::uint32_t parts = tiled() ? TIFFNumberOfTiles(tiff) : TIFFNumberOfStrips(tiff);
  const std::string partName = tiled() ? "tile " : "strip ";
  std::uint64_t stored = 0;
  for (std::uint32_t part = 0; part < parts; ++part) {
    const std::uint64_t offset = TIFFGetStrileOffset(tiff, part);
    const std::uint64_t bytes = TIFFGetStrileByteCount(tiff, part);
    if (offset == 0 || bytes == 0) {
      throw Failure(path_, "the pixels of " + partName + std::to_string(part) + " are missing" + tiff_.reason(),
                    kDamaged);
    }
    if (offset > fileBytes_ || bytes > fileBytes_ - offset) {
      throw Failure(path_, "the file ends before " + partName + std::to_string(part) + " does", kDamaged);
    }
    stored += bytes;
  }
  const std::uint64_t pixelBytes =
      pixelBits(picture_.width, picture_.height, picture_.pixels.bitsPerPixel()).value_or(UINT64_MAX) / 8;
  const std::uint64_t expansion = largestExpansion(picture_.tiff->compression);
  if (parts == 0 || (expansion != 0 && pixelBytes / expansion > stored)) {
    throw Failure(path_,
                  "the file is too short for " + std::to_string(picture_.width) + " x " +
                      std::to_string(picture_.height) + " pixels",
                  kDamaged);
  }
}

void TiffReader::read(Image& image, bool widen, Progress& progress) {
  tiff_.forget();
  RowSink sink(image, picture_, widen, separatePlanes());
  const auto planes = static_cast<std::uint16_t>(separatePlanes() ? picture_.pixels.samples : 1);
  std::uint64_t steps = picture_.height;
  if (tiled()) {
    // At least 1: tiles without height were refused when the file was opened.
    const std::uint64_t tileHeight = std::max(longField(tiff_.get(), TIFFTAG_TILELENGTH), 1U);
    steps = (picture_.height + tileHeight - 1) / tileHeight;
  }
  progress.begin("reading", steps * planes);
  for (std::uint16_t plane = 0; plane < planes; ++plane) {
    sink.setPlane(plane);
    if (tiled()) {
      readTiles(sink, plane, progress);
    } else if (picture_.tiff->compression == COMPRESSION_NONE) {
      readPlainStrips(sink, plane, progress);
    } else {
      readStrips(sink, plane, progress);
    }
  }
}

void TiffReader::readStrips(RowSink& sink, std::uint16_t plane, Progress& progress) {
  std::vector<std::uint8_t> row(TIFFScanlineSize64(tiff_.get()));
  for (std::uint32_t y = 0; y < picture_.height; ++y) {
    if (TIFFReadScanline(tiff_.get(), row.data(), y, plane) < 0 || tiff_.failed()) {
      failReading();
    }
    sink.put(y, 0, picture_.width, row);
    progress.advance();
  }
}

// libtiff would take a strip into memory whole, and a strip may be the whole picture.
void TiffReader::readPlainStrips(RowSink& sink, std::uint16_t plane, Progress& progress) {
  TIFF* tiff = tiff_.get();
  const std::uint64_t rowBytes = TIFFScanlineSize64(tiff);
  const std::uint32_t rowsPerStrip = std::min(longField(tiff, TIFFTAG_ROWSPERSTRIP), picture_.height);
  const auto blockRows = static_cast<std::uint32_t>(
      std::clamp<std::uint64_t>(kBlockBytes / rowBytes, 1, std::min(rowsPerStrip, picture_.height)));
  std::vector<std::uint8_t> block(blockRows * rowBytes);
  for (std::uint32_t y = 0; y < picture_.height;) {
    const std::uint32_t strip = TIFFComputeStrip(tiff, y, plane);
    const std::uint64_t rowInStrip = y % rowsPerStrip;
    const std::uint32_t rows = std::min({blockRows, rowsPerStrip - y % rowsPerStrip, picture_.height - y});
    const std::uint64_t bytes = rows * rowBytes;
    if ((rowInStrip + rows) * rowBytes > TIFFGetStrileByteCount(tiff, strip) ||
        file_.readAt(TIFFGetStrileOffset(tiff, strip) + rowInStrip * rowBytes, block.data(), bytes) != bytes) {
      failReading();
    }
    toMachineOrder({block.data(), bytes});
    for (std::uint32_t row = 0; row < rows; ++row, ++y) {
      sink.put(y, 0, picture_.width, std::span(block).subspan(row * rowBytes, rowBytes));
      progress.advance();
    }
  }
}

void TiffReader::readTiles(RowSink& sink, std::uint16_t plane, Progress& progress) {
  TIFF* tiff = tiff_.get();
  const std::uint32_t tileWidth = longField(tiff, TIFFTAG_TILEWIDTH);
  const std::uint32_t tileHeight = longField(tiff, TIFFTAG_TILELENGTH);
  const std::uint64_t tileRowBytes = TIFFTileRowSize64(tiff);
  std::vector<std::uint8_t> tile(TIFFTileSize64(tiff));
  const auto tileBytes = static_cast<tmsize_t>(tile.size());
  for (std::uint64_t top = 0; top < picture_.height; top += tileHeight) {
    const auto y = static_cast<std::uint32_t>(top);
    const std::uint32_t rows = std::min(tileHeight, picture_.height - y);
    for (std::uint64_t left = 0; left < picture_.width; left += tileWidth) {
      const auto x = static_cast<std::uint32_t>(left);
      const std::uint32_t columns = std::min(tileWidth, picture_.width - x);
      if (TIFFReadEncodedTile(tiff, TIFFComputeTile(tiff, x, y, 0, plane), tile.data(), tileBytes) != tileBytes ||
          tiff_.failed()) {
        failReading();
      }
      for (std::uint32_t row = 0; row < rows; ++row) {
        sink.put(y + row, x, x + columns, std::span(tile).subspan(row * tileRowBytes, tileRowBytes));
      }
      progress.check();
    }
    progress.advance();
  }
}

void TiffReader::toMachineOrder(std::span<std::uint8_t> bytes) const {
  const auto count = static_cast<tmsize_t>(bytes.size());
  if (fillOrder_ == FILLORDER_LSB2MSB) {
    TIFFReverseBits(bytes.data(), count);
  }
  if (TIFFIsByteSwapped(tiff_.get()) == 0) {
    return;
  }
  const std::size_t sampleBytes = picture_.pixels.bits / 8;
  if (sampleBytes < 2) {
    return;
  }
  for (auto sample = bytes.begin(); sample != bytes.end(); sample += static_cast<std::ptrdiff_t>(sampleBytes)) {
    std::reverse(sample, sample + static_cast<std::ptrdiff_t>(sampleBytes));
  }
}

void TiffReader::failReading() const {
  if (file_.error() != 0) {
    throw Failure(path_, std::string("cannot be read (") + std::strerror(file_.error()) + ")", "check the disk");
  }
  throw Failure(path_, "the pixels cannot be read" + tiff_.reason(), kDamaged);
}

}  // namespace kvtile
