#include "image.h"

#include "errors.h"
#include "system.h"

namespace kvtile {
namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;
constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;
constexpr std::uint64_t kInitialBudget = kGibibyte;        // the library's
constexpr std::uint64_t kSmallestBudget = 64 * kMebibyte;  // the library's
constexpr std::uint64_t kSmallImageBits = 8192;            // kept in memory nearly always

// The callback of the library has no place for a pointer of the caller's.
thread_local Progress* turningProgress = nullptr;

// Throws Interrupted, which the library takes as the wish to stop.
void onRowTurned(std::uint32_t, std::uint32_t) { turningProgress->advance(); }

std::uint64_t roundUp(std::uint64_t value, std::uint64_t multiple) {
  return (value / multiple + (value % multiple != 0 ? 1 : 0)) * multiple;
}

std::string megabytes(std::uint64_t bytes) { return std::to_string(roundUp(bytes, 1000000) / 1000000) + " MB"; }

// A budget that is easy to type: whole multiples of 64M, from 2G on whole gibibytes.
std::string budgetText(std::uint64_t bytes) {
  if (bytes <= 2 * kGibibyte) {
    return std::to_string(roundUp(bytes, kSmallestBudget) / kMebibyte) + "M";
  }
  return std::to_string(roundUp(bytes, kGibibyte) / kGibibyte) + "G";
}

}  // namespace

Storage::Storage(std::uint64_t budget) : budget_(budget == 0 ? kInitialBudget : std::max(budget, kSmallestBudget)) {
  if (budget != 0) {
    KvTileImage_SetMaxMemoryStorageBytes(budget);
  }
}

std::uint64_t Storage::budgetFor(std::uint64_t bits, unsigned images) {
  // An image goes into memory while its bits are fewer than the budget less the bytes that are in use by then. The
  // bytes in use can be a little more than the pixels take, as tiles are whole.
  const std::uint64_t others = (images - 1) * (bits / 8 + bits / 64 + kMebibyte);
  return bits + others + 1;
}

void Storage::require(const std::string& file, const Picture& picture, bool turning) const {
  const auto bits = pixelBits(picture.width, picture.height, picture.pixels.bitsPerPixel());
  if (!bits || *bits > UINT64_MAX / 4) {
    throw Failure(file, "the image is larger than any memory", "cut it into parts first");
  }
  const unsigned images = turning ? 2 : 1;
  if (*bits <= kSmallImageBits || budgetFor(*bits, images) <= budget_) {
    return;
  }
  const std::string subject = turning ? "the image and its turned copy need " : "the image needs ";
  throw Failure(file, subject + megabytes(*bits / 8 * images) + " of memory",
                "run again with --budget " + budgetText(budgetFor(*bits, images)));
}

Image::Image(const std::string& file, const Picture& picture)
    : file_(file),
      handle_(KvTileImage_AllocEx(picture.width, picture.height, picture.pixels.samples, picture.pixels.bits,
                                  static_cast<std::uint32_t>(picture.pixels.sampleFormat), 0,
                                  KVTI_SCANLINE_OPERATION_ROW)) {
  if (handle_ == nullptr) {
    throw Failure(file_, "there is not enough memory for the image",
                  "close other programs or use a machine with more memory");
  }
  setResolution(picture);
}

void Image::getRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<std::uint8_t> row) {
  if (!KvTileImage_GetRowData(handle_.get(), y, x1, x2, row.data(), row.size())) {
    throw Failure(file_, "row " + std::to_string(y) + " cannot be taken from the image",
                  "see --verbose for the reason");
  }
}

void Image::setRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<const std::uint8_t> row) {
  if (!KvTileImage_SetRowData(handle_.get(), y, x1, x2, row.data(), row.size())) {
    throw Failure(file_, "row " + std::to_string(y) + " cannot be put into the image", "see --verbose for the reason");
  }
}

void Image::turn(const Turn& turn, const Picture& upright, Progress& progress) {
  progress.begin("turning", height());
  turningProgress = &progress;
  TileImageHandle* turned =
      KvTileImage_RotateAndMirror(handle_.get(), turn.rotation(), turn.mirror(), true, onRowTurned);
  turningProgress = nullptr;
  if (turned == nullptr) {
    if (system::stopRequested()) {
      throw Interrupted();
    }
    throw Failure(file_, "the image cannot be turned, most likely for lack of memory", "see --verbose for the reason");
  }
  handle_.reset(turned);
  setResolution(upright);
}

void Image::setResolution(const Picture& picture) {
  const auto inches = picture.resolution ? picture.resolution->inInches() : std::nullopt;
  if (inches) {
    KvTileImage_SetDpiX(handle_.get(), static_cast<float>(inches->x));
    KvTileImage_SetDpiY(handle_.get(), static_cast<float>(inches->y));
  }
}

}  // namespace kvtile
