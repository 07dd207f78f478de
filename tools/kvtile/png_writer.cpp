#include "png_writer.h"

#include <algorithm>

#include "errors.h"
#include "output_file.h"

namespace kvtile {
namespace {

int colourType(const Picture& picture) {
  if (picture.photometric == Photometric::Palette) {
    return PNG_COLOR_TYPE_PALETTE;
  }
  const int colour = picture.photometric == Photometric::Rgb ? PNG_COLOR_MASK_COLOR : 0;
  return colour | (picture.extras.empty() ? 0 : PNG_COLOR_MASK_ALPHA);
}

}  // namespace

PngWriter::PngWriter(File& file, const std::string& path, const Picture& picture, Console& console)
    : path_(path), file_(file), console_(console), handle_(file, PngHandle::Use::Write, console) {
  writeHeader(picture);
}

void PngWriter::writeHeader(const Picture& picture) {
  png_structp png = handle_.png();
  png_infop info = handle_.info();
  const bool sized = handle_.attempt([png, info, &picture] {
    png_set_IHDR(png, info, picture.width, picture.height, static_cast<int>(picture.pixels.bits), colourType(picture),
                 PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    if (picture.resolution) {
      const bool unit = picture.resolution->unit != ResolutionUnit::None;
      png_set_pHYs(png, info, static_cast<png_uint_32>(picture.resolution->x),
                   static_cast<png_uint_32>(picture.resolution->y),
                   unit ? PNG_RESOLUTION_METER : PNG_RESOLUTION_UNKNOWN);
    }
  });
  if (!sized) {
    fail();
  }
  if (picture.photometric == Photometric::Palette) {
    setPalette(picture);
  }
  setColours(picture);
  setColourKey(picture);
  const bool written = handle_.attempt([png, info] {
    png_write_info(png, info);
    png_set_swap(png);  // the file's order instead of the machine's; changes 16-bit samples only
  });
  if (!written) {
    fail();
  }
}

void PngWriter::setPalette(const Picture& picture) {
  png_structp png = handle_.png();
  png_infop info = handle_.info();
  const std::size_t count = std::min(picture.palette.entries.size(), std::size_t{1} << picture.pixels.bits);
  std::vector<png_color> colours;
  for (std::size_t i = 0; i < count; ++i) {
    const PaletteEntry& entry = picture.palette.entries[i];
    colours.push_back({narrowComponent(entry.red), narrowComponent(entry.green), narrowComponent(entry.blue)});
  }
  const std::vector<std::uint8_t>& alpha = picture.palette.alpha;
  const int alphaCount = static_cast<int>(std::min(alpha.size(), count));
  const bool set = handle_.attempt([png, info, &colours, &alpha, alphaCount] {
    png_set_PLTE(png, info, colours.data(), static_cast<int>(colours.size()));
    if (alphaCount > 0) {
      png_set_tRNS(png, info, alpha.data(), alphaCount, nullptr);
    }
  });
  if (!set) {
    fail();
  }
}

void PngWriter::setColours(const Picture& picture) {
  png_structp png = handle_.png();
  png_infop info = handle_.info();
  const PngColour& colour = picture.pngColour;
  const std::vector<std::uint8_t>& profile = picture.iccProfile;
  const bool set = handle_.attempt([png, info, &colour, &profile] {
    if (colour.gamma) {
      png_set_gAMA_fixed(png, info, *colour.gamma);
    }
    if (colour.chromaticities) {
      const auto& c = *colour.chromaticities;
      png_set_cHRM_fixed(png, info, c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]);
    }
    // A file has one of the two; the profile says more.
    if (profile.empty() && colour.srgbIntent) {
      png_set_sRGB(png, info, *colour.srgbIntent);
    } else if (!profile.empty()) {
      png_set_iCCP(png, info, "ICC profile", PNG_COMPRESSION_TYPE_BASE, profile.data(),
                   static_cast<png_uint_32>(profile.size()));
    }
  });
  if (!set) {
    fail();
  }
  if (!profile.empty() && png_get_valid(png, info, PNG_INFO_iCCP) == 0) {
    console_.note(path_ + ": the colour profile does not suit a PNG of this kind and is dropped");
  }
}

void PngWriter::setColourKey(const Picture& picture) {
  if (!picture.colourKey || !picture.extras.empty() || picture.photometric == Photometric::Palette) {
    return;
  }
  const auto& values = *picture.colourKey;
  png_color_16 key = {};
  key.red = values[0];
  key.green = values[1];
  key.blue = values[2];
  key.gray = values[0];
  png_structp png = handle_.png();
  png_infop info = handle_.info();
  if (!handle_.attempt([png, info, &key] { png_set_tRNS(png, info, nullptr, 0, &key); })) {
    fail();
  }
}

void PngWriter::writeRow(std::span<std::uint8_t> row) {
  std::uint8_t* data = row.data();
  if (!handle_.attempt([this, data] { png_write_row(handle_.png(), data); })) {
    fail();
  }
}

void PngWriter::finish() {
  if (!handle_.attempt([this] { png_write_end(handle_.png(), handle_.info()); })) {
    fail();
  }
}

void PngWriter::fail() const {
  if (file_.error() != 0) {
    failToWrite(path_, file_.error());
  }
  throw Failure(path_, "cannot be written as PNG" + handle_.reason(), "write a .tif instead");
}

}  // namespace kvtile
