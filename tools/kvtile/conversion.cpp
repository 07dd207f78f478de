#include "conversion.h"

#include <utility>

#include "description.h"
#include "errors.h"
#include "samples.h"

namespace kvtile {
namespace {

constexpr std::uint32_t kLargestPngSide = 0x7fffffff;

const char* const kWriteTiff = "write a .tif instead";

bool isGrey(Photometric photometric) {
  return photometric == Photometric::WhiteIsZero || photometric == Photometric::BlackIsZero ||
         photometric == Photometric::Mask;
}

void requireColoursForPng(const Picture& held, const std::string& path) {
  if (!isGrey(held.photometric) && held.photometric != Photometric::Rgb && held.photometric != Photometric::Palette) {
    throw Failure(path, "PNG cannot hold " + describePhotometric(held.photometric), kWriteTiff);
  }
  const std::uint32_t colours = held.colourSamples();
  const std::uint32_t others = held.pixels.samples - colours;
  const bool colourMissing = held.photometric == Photometric::Rgb && colours < 3;
  const std::uint32_t allowedOthers = held.photometric == Photometric::Palette ? 0 : 1;
  if (colourMissing || others > allowedOthers) {
    throw Failure(path,
                  "PNG cannot hold " + std::to_string(held.pixels.samples) + " samples per pixel of this meaning (" +
                      describeMeaning(held.photometric, held.extras) + ")",
                  kWriteTiff);
  }
}

void requireSamplesForPng(const Picture& held, const std::string& path) {
  const PixelFormat& format = held.pixels;
  const std::string what = "PNG cannot hold samples of this kind (" + describeSamples(format) + ")";
  if (format.sampleFormat != SampleFormat::Unsigned || format.bits > 16) {
    throw Failure(path, what, kWriteTiff);
  }
  if (format.packed() && format.samples > 1) {
    throw Failure(path, what, "widen them with --to-8bit, or write a .tif instead");
  }
  if (held.photometric == Photometric::Palette && format.bits > 8) {
    throw Failure(path, "PNG cannot hold a palette of " + std::to_string(format.bits) + " bits", kWriteTiff);
  }
  if (held.width > kLargestPngSide || held.height > kLargestPngSide) {
    throw Failure(path, "PNG cannot hold a picture of this size", kWriteTiff);
  }
}

void planAlphaForPng(Delivery& delivery) {
  Picture& picture = delivery.picture;
  const bool hasAlpha = picture.pixels.samples > picture.colourSamples();
  const Extra kind = picture.extras.empty() ? Extra::Unspecified : picture.extras.front();
  picture.extras.clear();
  if (!hasAlpha) {
    return;
  }
  picture.extras.push_back(Extra::StraightAlpha);
  if (kind == Extra::AssociatedAlpha) {
    delivery.straighten = true;
  } else if (kind != Extra::StraightAlpha) {
    delivery.notes.push_back("sample " + std::to_string(picture.pixels.samples) +
                             " of each pixel has no declared meaning and becomes the alpha of the PNG");
  }
}

Delivery planPng(const Picture& held, const std::string& path) {
  requireColoursForPng(held, path);
  requireSamplesForPng(held, path);
  Delivery delivery;
  delivery.picture = held;
  Picture& picture = delivery.picture;
  planAlphaForPng(delivery);
  delivery.invert = held.photometric == Photometric::WhiteIsZero;
  if (isGrey(held.photometric)) {
    picture.photometric = Photometric::BlackIsZero;
  }
  if (held.tiff && held.photometric == Photometric::Palette) {
    picture.palette = picture.palette.spread();
  }
  if (picture.resolution) {
    picture.resolution = picture.resolution->forPng();
    if (!picture.resolution) {
      delivery.notes.push_back("the resolution is outside what PNG can hold and is dropped");
    }
  }
  return delivery;
}

Delivery planTiff(const Picture& held) {
  Delivery delivery;
  delivery.picture = held;
  Picture& picture = delivery.picture;
  if (picture.resolution) {
    picture.resolution = picture.resolution->forTiff();
  }
  if (picture.colourKey) {
    picture.colourKey.reset();
    delivery.notes.push_back("TIFF has no place for the PNG's transparent colour; it is dropped");
  }
  if (picture.photometric != Photometric::Palette) {
    return delivery;
  }
  if (!picture.palette.alpha.empty()) {
    delivery.expandPalette = true;
    picture = picture.withoutPalette();
  } else {
    // A TIFF's colour map has an entry for each value that a sample can have.
    picture.palette.entries.resize(std::size_t{1} << picture.pixels.bits);
  }
  return delivery;
}

// What comes with the pixels in a file and not in a shared image.
std::string describeLosses(const Picture& held) {
  const bool white = held.tiff && (held.tiff->whitePoint || held.tiff->primaries);
  const std::pair<bool, const char*> parts[] = {
      {held.resolution.has_value(), "the resolution"},
      {!held.iccProfile.empty(), "the ICC profile"},
      {white || held.pngColour.gamma || held.pngColour.chromaticities, "the description of the colours"},
      {held.colourKey.has_value(), "the transparent colour"}};
  std::string text;
  for (const auto& [present, name] : parts) {
    if (present) {
      text += (text.empty() ? "" : ", ") + std::string(name);
    }
  }
  return text;
}

}  // namespace

Delivery planDelivery(const Picture& held, FileFormat format, const std::string& path) {
  return format == FileFormat::Png ? planPng(held, path) : planTiff(held);
}

Delivery planSharing(const Picture& held) {
  const PixelFormat& format = held.pixels;
  const bool invertible =
      format.sampleFormat == SampleFormat::Unsigned && format.bits <= 16 && (format.samples == 1 || !format.packed());
  const bool alone = format.samples == held.colourSamples() + 1;
  Delivery delivery;
  delivery.expandPalette = held.photometric == Photometric::Palette && format.samples == 1 && format.bits <= 8;
  delivery.invert = held.photometric == Photometric::WhiteIsZero && invertible;
  delivery.straighten = held.extras == std::vector{Extra::AssociatedAlpha} && alone && invertible && !format.packed();

  Picture shared = delivery.expandPalette ? held.withoutPalette() : held;
  if (delivery.invert || shared.photometric == Photometric::Mask) {
    shared.photometric = Photometric::BlackIsZero;
  }
  if (delivery.straighten) {
    shared.extras = {Extra::StraightAlpha};
  }
  delivery.picture = Picture::assumed(held.width, held.height, shared.pixels);
  const std::string meant = describeMeaning(shared.photometric, shared.extras);
  const std::string assumed = describeMeaning(delivery.picture.photometric, delivery.picture.extras);
  if (meant != assumed) {
    delivery.notes.push_back("a shared image does not tell what its samples mean: these (" + meant +
                             ") will be taken for " + assumed);
  }
  if (const std::string losses = describeLosses(held); !losses.empty()) {
    delivery.notes.push_back("not shared, as a shared image has pixels only: " + losses);
  }
  return delivery;
}

RowConverter::RowConverter(const Picture& held, const Delivery& delivery) : held_(held), delivery_(delivery) {
  if (delivery_.expandPalette) {
    palette_ = held_.tiff ? held_.palette.spread() : held_.palette;
    expanded_.resize(delivery_.picture.rowBytes());
  }
}

std::span<std::uint8_t> RowConverter::convert(std::span<std::uint8_t> row) {
  if (delivery_.expandPalette) {
    expandPalette(row, held_.pixels.bits, palette_, held_.width, delivery_.picture.pixels.samples, expanded_);
    return expanded_;
  }
  // Alpha is divided out first: it was multiplied with the samples as they are stored.
  if (delivery_.straighten) {
    unpremultiply(row, held_.pixels, held_.width);
  }
  if (delivery_.invert) {
    invertGrey(row, held_.pixels, held_.width);
  }
  return row;
}

}  // namespace kvtile
