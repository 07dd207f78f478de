#include "tiffs.h"

#include <algorithm>
#include <memory>
#include <stdexcept>

namespace support {
namespace {

struct Close {
  void operator()(TIFF* tiff) const { TIFFClose(tiff); }
};
using Handle = std::unique_ptr<TIFF, Close>;

void require(bool good, const std::string& what) {
  if (!good) {
    throw std::runtime_error("libtiff: " + what);
  }
}

void setColours(TIFF* out, const Tiff& tiff) {
  require(TIFFSetField(out, TIFFTAG_PHOTOMETRIC, tiff.photometric) != 0, "photometric");
  if (!tiff.extras.empty()) {
    require(TIFFSetField(out, TIFFTAG_EXTRASAMPLES, static_cast<int>(tiff.extras.size()), tiff.extras.data()) != 0,
            "extra samples");
  }
  if (tiff.colourMap) {
    require(TIFFSetField(out, TIFFTAG_COLORMAP, tiff.colourMap->red.data(), tiff.colourMap->green.data(),
                         tiff.colourMap->blue.data()) != 0,
            "colour map");
  }
  if (!tiff.icc.empty()) {
    require(TIFFSetField(out, TIFFTAG_ICCPROFILE, static_cast<std::uint32_t>(tiff.icc.size()), tiff.icc.data()) != 0,
            "profile");
  }
  if (tiff.inkSet != 0) {
    require(TIFFSetField(out, TIFFTAG_INKSET, tiff.inkSet) != 0, "ink set");
  }
  if (!tiff.inkNames.empty()) {
    require(TIFFSetField(out, TIFFTAG_INKNAMES, static_cast<int>(tiff.inkNames.size()), tiff.inkNames.data()) != 0,
            "ink names");
  }
  if (tiff.whitePoint) {
    require(TIFFSetField(out, TIFFTAG_WHITEPOINT, tiff.whitePoint->data()) != 0, "white point");
  }
}

void setHeader(TIFF* out, const Tiff& tiff) {
  const Raster& raster = tiff.raster;
  TIFFSetField(out, TIFFTAG_IMAGEWIDTH, raster.width);
  TIFFSetField(out, TIFFTAG_IMAGELENGTH, raster.height);
  TIFFSetField(out, TIFFTAG_BITSPERSAMPLE, raster.bits);
  TIFFSetField(out, TIFFTAG_SAMPLESPERPIXEL, raster.samples);
  TIFFSetField(out, TIFFTAG_SAMPLEFORMAT, tiff.sampleFormat);
  TIFFSetField(out, TIFFTAG_PLANARCONFIG, tiff.separate ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
  require(TIFFSetField(out, TIFFTAG_COMPRESSION, tiff.compression) != 0, "compression");
  if (tiff.predictor != 0) {
    require(TIFFSetField(out, TIFFTAG_PREDICTOR, tiff.predictor) != 0, "predictor");
  }
  if (tiff.group3Options) {
    require(TIFFSetField(out, TIFFTAG_GROUP3OPTIONS, *tiff.group3Options) != 0, "fax options");
  }
  if (tiff.lsbFirst) {
    TIFFSetField(out, TIFFTAG_FILLORDER, FILLORDER_LSB2MSB);
  }
  if (tiff.orientation) {
    TIFFSetField(out, TIFFTAG_ORIENTATION, *tiff.orientation);
  }
  if (tiff.resolution) {
    TIFFSetField(out, TIFFTAG_XRESOLUTION, (*tiff.resolution)[0]);
    TIFFSetField(out, TIFFTAG_YRESOLUTION, (*tiff.resolution)[1]);
  }
  if (tiff.unit != 0) {
    TIFFSetField(out, TIFFTAG_RESOLUTIONUNIT, tiff.unit);
  }
  if (tiff.tileWidth != 0) {
    TIFFSetField(out, TIFFTAG_TILEWIDTH, tiff.tileWidth);
    TIFFSetField(out, TIFFTAG_TILELENGTH, tiff.tileHeight);
  } else {
    TIFFSetField(out, TIFFTAG_ROWSPERSTRIP, tiff.rowsPerStrip);
  }
  setColours(out, tiff);
}

void writeStrips(TIFF* out, const Tiff& tiff, int sample) {
  for (std::uint32_t y = 0; y < tiff.raster.height; ++y) {
    std::vector<std::uint8_t> row = packRow(tiff.raster, y, 0, tiff.raster.width, sample);
    require(TIFFWriteScanline(out, row.data(), y, static_cast<std::uint16_t>(std::max(sample, 0))) == 1, "row");
  }
}

void writeTiles(TIFF* out, const Tiff& tiff, int sample) {
  const Raster& raster = tiff.raster;
  const auto rowBytes = static_cast<std::size_t>(TIFFTileRowSize(out));
  for (std::uint32_t top = 0; top < raster.height; top += tiff.tileHeight) {
    for (std::uint32_t left = 0; left < raster.width; left += tiff.tileWidth) {
      // What lies beyond the picture must not show up in it.
      std::vector<std::uint8_t> tile(static_cast<std::size_t>(TIFFTileSize(out)), 0xA5);
      for (std::uint32_t y = top; y < std::min(raster.height, top + tiff.tileHeight); ++y) {
        const auto row = packRow(raster, y, left, std::min(raster.width, left + tiff.tileWidth), sample);
        std::copy(row.begin(), row.end(), tile.begin() + static_cast<std::ptrdiff_t>((y - top) * rowBytes));
      }
      require(TIFFWriteTile(out, tile.data(), left, top, 0, static_cast<std::uint16_t>(std::max(sample, 0))) >= 0,
              "tile");
    }
  }
}

void readColours(TIFF* in, Tiff& tiff) {
  TIFFGetField(in, TIFFTAG_PHOTOMETRIC, &tiff.photometric);
  std::uint16_t count = 0;
  const std::uint16_t* kinds = nullptr;
  if (TIFFGetField(in, TIFFTAG_EXTRASAMPLES, &count, &kinds) != 0) {
    tiff.extras.assign(kinds, kinds + count);
  }
  const std::uint16_t* red = nullptr;
  const std::uint16_t* green = nullptr;
  const std::uint16_t* blue = nullptr;
  if (TIFFGetField(in, TIFFTAG_COLORMAP, &red, &green, &blue) != 0) {
    const std::size_t entries = std::size_t{1} << tiff.raster.bits;
    tiff.colourMap = ColourMap{{red, red + entries}, {green, green + entries}, {blue, blue + entries}};
  }
  std::uint32_t bytes = 0;
  const char* profile = nullptr;
  if (TIFFGetField(in, TIFFTAG_ICCPROFILE, &bytes, &profile) != 0) {
    tiff.icc.assign(profile, bytes);
  }
  TIFFGetField(in, TIFFTAG_INKSET, &tiff.inkSet);
  const char* names = nullptr;
  if (TIFFGetField(in, TIFFTAG_INKNAMES, &names) != 0) {
    for (std::uint32_t ink = 0; ink < tiff.raster.samples; ++ink) {
      const std::string name(names);
      tiff.inkNames.append(name.c_str(), name.size() + 1);
      names += name.size() + 1;
    }
  }
  const float* white = nullptr;
  if (TIFFGetField(in, TIFFTAG_WHITEPOINT, &white) != 0) {
    tiff.whitePoint = std::array<float, 2>{white[0], white[1]};
  }
}

void readHeader(TIFF* in, Tiff& tiff) {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint16_t samples = 1;
  std::uint16_t bits = 1;
  std::uint16_t planar = 0;
  require(TIFFGetField(in, TIFFTAG_IMAGEWIDTH, &width) != 0 && TIFFGetField(in, TIFFTAG_IMAGELENGTH, &height) != 0,
          "size");
  TIFFGetFieldDefaulted(in, TIFFTAG_SAMPLESPERPIXEL, &samples);
  TIFFGetFieldDefaulted(in, TIFFTAG_BITSPERSAMPLE, &bits);
  TIFFGetFieldDefaulted(in, TIFFTAG_SAMPLEFORMAT, &tiff.sampleFormat);
  TIFFGetFieldDefaulted(in, TIFFTAG_PLANARCONFIG, &planar);
  TIFFGetField(in, TIFFTAG_COMPRESSION, &tiff.compression);
  TIFFGetField(in, TIFFTAG_PREDICTOR, &tiff.predictor);
  TIFFGetField(in, TIFFTAG_ROWSPERSTRIP, &tiff.rowsPerStrip);
  std::uint32_t options = 0;
  if (TIFFGetField(in, TIFFTAG_GROUP3OPTIONS, &options) != 0) {
    tiff.group3Options = options;
  }
  std::uint16_t orientation = 0;
  if (TIFFGetField(in, TIFFTAG_ORIENTATION, &orientation) != 0) {
    tiff.orientation = orientation;
  }
  std::array<float, 2> resolution = {};
  if (TIFFGetField(in, TIFFTAG_XRESOLUTION, &resolution[0]) != 0 &&
      TIFFGetField(in, TIFFTAG_YRESOLUTION, &resolution[1]) != 0) {
    tiff.resolution = resolution;
  }
  TIFFGetField(in, TIFFTAG_RESOLUTIONUNIT, &tiff.unit);
  tiff.separate = planar == PLANARCONFIG_SEPARATE;
  tiff.bigTiff = TIFFIsBigTIFF(in) != 0;
  tiff.bigEndian = TIFFIsBigEndian(in) != 0;
  tiff.raster = Raster(width, height, samples, bits);
}

}  // namespace

Tiff tiffOf(const Raster& raster) {
  Tiff tiff;
  tiff.raster = raster;
  const std::uint32_t colours = raster.samples >= 3 ? 3 : 1;
  tiff.photometric = colours == 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
  tiff.extras.assign(raster.samples - colours, EXTRASAMPLE_UNSPECIFIED);
  return tiff;
}

void writeTiff(const std::string& path, const Tiff& tiff) {
  const std::string mode = std::string("w") + (tiff.bigTiff ? "8" : "") + (tiff.bigEndian ? "b" : "l");
  const Handle out(TIFFOpen(path.c_str(), mode.c_str()));
  require(out != nullptr, "cannot create " + path);
  for (int page = 0; page < tiff.pages; ++page) {
    setHeader(out.get(), tiff);
    const int planes = tiff.separate ? static_cast<int>(tiff.raster.samples) : 1;
    for (int plane = 0; plane < planes; ++plane) {
      const int sample = tiff.separate ? plane : -1;
      if (tiff.tileWidth != 0) {
        writeTiles(out.get(), tiff, sample);
      } else {
        writeStrips(out.get(), tiff, sample);
      }
    }
    require(TIFFWriteDirectory(out.get()) != 0, "directory");
  }
}

Tiff readTiff(const std::string& path) {
  const Handle in(TIFFOpen(path.c_str(), "r"));
  require(in != nullptr, "cannot open " + path);
  Tiff tiff;
  readHeader(in.get(), tiff);
  readColours(in.get(), tiff);
  require(!tiff.separate && TIFFIsTiled(in.get()) == 0, "not in strips of whole pixels");
  std::vector<std::uint8_t> row(static_cast<std::size_t>(TIFFScanlineSize(in.get())));
  for (std::uint32_t y = 0; y < tiff.raster.height; ++y) {
    require(TIFFReadScanline(in.get(), row.data(), y, 0) == 1, "row");
    unpackRow(row, y, tiff.raster);
  }
  tiff.pages = static_cast<int>(TIFFNumberOfDirectories(in.get()));
  return tiff;
}

}  // namespace support
