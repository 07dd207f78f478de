#include "resizing.h"

#include <algorithm>
#include <cmath>

#include "description.h"
#include "errors.h"

namespace kvtile {
namespace {

constexpr std::uint64_t kLongestSide = UINT32_MAX;

std::string describeSides(std::uint64_t width, std::uint64_t height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

// The part that is wanted, or all.
Area chosenArea(const std::string& input, const Picture& picture, const ResizeRequest& request) {
  const Area area = request.crop.value_or(Area{0, 0, picture.width, picture.height});
  if (std::uint64_t{area.x} + area.width > picture.width || std::uint64_t{area.y} + area.height > picture.height) {
    throw Failure(input,
                  "the area of " + describeSides(area.width, area.height) + " pixels at " + std::to_string(area.x) +
                      "," + std::to_string(area.y) + " reaches beyond the picture",
                  "it has " + describeSides(picture.width, picture.height) + " pixels");
  }
  return area;
}

std::uint32_t checkedSide(const std::string& output, const char* name, std::uint64_t length, const char* advice) {
  if (length > kLongestSide) {
    throw Failure(output,
                  std::string("the ") + name + " would be " + std::to_string(length) + " pixels, more than " +
                      std::to_string(kLongestSide),
                  advice);
  }
  return static_cast<std::uint32_t>(length);
}

std::uint32_t scaledSide(const std::string& output, const char* name, std::uint32_t length, double scale) {
  const double scaled = std::min(std::round(length * scale), 1e18);
  return checkedSide(output, name, std::max<std::uint64_t>(static_cast<std::uint64_t>(scaled), 1),
                     "take a smaller --scale");
}

Picture inWantedSize(const std::string& output, const Picture& picture, const ResizeRequest& request) {
  if (request.scale) {
    const std::uint32_t width = scaledSide(output, "width", picture.width, *request.scale);
    return picture.resized(width, scaledSide(output, "height", picture.height, *request.scale));
  }
  if (request.width == 0 && request.height == 0) {
    return picture;
  }
  if (request.height == 0) {
    const std::uint64_t height = proportionalLength(picture.height, picture.width, request.width);
    return picture.resized(request.width, checkedSide(output, "height", height, "give --height too"));
  }
  if (request.width == 0) {
    const std::uint64_t width = proportionalLength(picture.width, picture.height, request.height);
    return picture.resized(checkedSide(output, "width", width, "give --width too"), request.height);
  }
  return picture.resized(request.width, request.height);
}

// Throws a Failure unless the samples can be added up with weights.
void requireBlendable(const std::string& input, const Picture& picture) {
  const PixelFormat& format = picture.pixels;
  const std::string what = "its samples (" + describeSamples(format) + ") cannot be blended";
  if (picture.photometric == Photometric::Palette) {
    if (format.samples > 1 || format.bits > 8) {
      throw Failure(input, what + ", as they are numbers of colours", "convert it to RGB first");
    }
    return;
  }
  if (picture.photometric == Photometric::CieLab) {
    throw Failure(input, "the colours of CIE L*a*b* cannot be blended, as only two of three samples have signs",
                  "convert it to RGB first");
  }
  if (format.packed()) {
    throw Failure(input, what, "run again with --to-8bit to widen them");
  }
  const bool integers = format.sampleFormat == SampleFormat::Unsigned || format.sampleFormat == SampleFormat::Signed;
  const bool wholeNumbers = integers && (format.bits == 8 || format.bits == 16);
  const bool numbers =
      (integers || format.sampleFormat == SampleFormat::Float) && (format.bits == 32 || format.bits == 64);
  if (!wholeNumbers && !numbers) {
    throw Failure(input, what, "convert it to 8, 16, 32 or 64 bits first");
  }
}

}  // namespace

Resizing planResizing(const std::string& input, const std::string& output, const Picture& picture,
                      const ResizeRequest& request) {
  Resizing resizing;
  resizing.area = chosenArea(input, picture, request);
  resizing.filter = request.filter;
  resizing.threads = request.threads;
  const Picture part = picture.resized(resizing.area.width, resizing.area.height);
  resizing.picture = inWantedSize(output, part, request);
  resizing.scales = resizing.picture.width != part.width || resizing.picture.height != part.height;
  if (resizing.scales) {
    requireBlendable(input, picture);
    resizing.expandsPalette = picture.photometric == Photometric::Palette;
    resizing.picture = resizing.picture.withoutPalette();
  }
  return resizing;
}

std::uint64_t proportionalLength(std::uint32_t other, std::uint32_t from, std::uint32_t to) {
  const std::uint64_t product = std::uint64_t{other} * to;
  const std::uint64_t remainder = product % from;
  // Half and more is rounded up, without twice the remainder where that would be a bit too many.
  const std::uint64_t rounded = product / from + (remainder >= from - remainder ? 1 : 0);
  return std::max<std::uint64_t>(rounded, 1);
}

}  // namespace kvtile
