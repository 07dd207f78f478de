#include "image.h"

#include <utility>
#include <vector>

#include "errors.h"
#include "samples.h"
#include "system.h"

namespace kvtile {
namespace {

constexpr std::uint64_t kMebibyte = std::uint64_t{1} << 20;
constexpr std::uint64_t kGibibyte = std::uint64_t{1} << 30;
constexpr std::uint64_t kInitialBudget = kGibibyte;        // the library's
constexpr std::uint64_t kSmallestBudget = 64 * kMebibyte;  // the library's
constexpr std::uint64_t kSmallImageBits = 8192;            // kept in memory nearly always

// The callback of the library has no place for a pointer of the caller's.
thread_local Progress* rowProgress = nullptr;

// Throws Interrupted, which the library takes as the wish to stop.
void onRowDone(std::uint32_t, std::uint32_t) { rowProgress->advance(); }

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

// Saturates at the largest number.
std::uint64_t bitsOf(const Picture& picture) {
  return pixelBits(picture.width, picture.height, picture.pixels.bitsPerPixel()).value_or(UINT64_MAX);
}

// What an image takes of the heap.
std::uint64_t heldBytes(const Picture& picture) {
  const std::uint64_t groupBytes = picture.pixels.bitsPerPixel();  // eight pixels
  return roundUp(picture.width, 8) / 8 * groupBytes * picture.height;
}

std::string roomAdvice(bool inMemory, std::uint64_t budgetForMemory) {
  if (inMemory) {
    return "close other programs, or run again with --storage file";
  }
  return "see to that folder, or run again with --storage memory --budget " + budgetText(budgetForMemory);
}

// The scale for the library, a little less than `to` by `from`. By whole odd numbers, and where a side stays, some
// weights of Catmull-Rom and Lanczos would be exactly 0; the library leaves pixels out for them, and the last two rows
// and columns would be black. The last pixel of 100,000 moves by a ten-millionth of a pixel.
double engineScale(std::uint32_t from, std::uint32_t to) {
  constexpr double kLittleLess = 1.0 - 0x1p-40;
  return static_cast<double>(to) / from * kLittleLess;
}

// The library's map of the tables; null if there is no memory.
TableMapHandle makeMap(const ChannelCurves& curves) {
  TableMapHandle map(KvTileImage_CreateLookupTableMap(curves.begin()->second->bits()));
  const ToneCurve* last = nullptr;
  TableHandle table;
  for (const auto& [channel, curve] : curves) {
    if (curve.get() != last) {
      table = curve->table();
      last = curve.get();
    }
    if (!KvTileImage_InsertLookupTable(map.get(), table.get(), channel)) {
      return nullptr;
    }
  }
  return map;
}

}  // namespace

std::uint32_t librarySampleformat(const PixelFormat& format) {
  // Floating-point numbers of 64 bits have a code of their own.
  return format.sampleFormat == SampleFormat::Float && format.bits == 64
             ? KVTI_SAMPLEFORMAT_DOUBLE
             : static_cast<std::uint32_t>(format.sampleFormat);
}

SampleFormat sampleFormatOf(std::uint32_t librarySampleformat) {
  switch (librarySampleformat) {
    case KVTI_SAMPLEFORMAT_INT:
    case KVTI_SAMPLEFORMAT_INT64:
      return SampleFormat::Signed;
    case KVTI_SAMPLEFORMAT_FLOAT:
    case KVTI_SAMPLEFORMAT_DOUBLE:
      return SampleFormat::Float;
    case static_cast<std::uint32_t>(SampleFormat::Untyped):
      return SampleFormat::Untyped;
    default:
      return SampleFormat::Unsigned;
  }
}

Storage::Storage(std::uint64_t budget, Placement placement)
    : budget_(budget == 0 ? kInitialBudget : std::max(budget, kSmallestBudget)), placement_(placement) {
  if (budget != 0) {
    KvTileImage_SetMaxMemoryStorageBytes(budget);
  }
}

std::optional<std::uint64_t> Storage::budgetFor(const Picture& picture, unsigned images) {
  // An image goes into memory while its bits are fewer than the budget less the bytes that are in use by then. Those
  // are a little more than the pixels take: each row of an image has whole groups of eight pixels.
  const std::uint64_t bits = bitsOf(picture);
  if (bits > UINT64_MAX / 4) {
    return std::nullopt;
  }
  return bits + (images - 1) * heldBytes(picture) + 1;
}

void Storage::require(const std::string& file, const Picture& picture, bool copying) const {
  const unsigned images = copying ? 2 : 1;
  const auto needed = budgetFor(picture, images);
  if (!needed) {
    throw Failure(file, "the image is larger than any memory or disk", "cut it into parts first");
  }
  if (placement_ != Placement::Memory || fitsBudget(picture, images)) {
    return;
  }
  const std::string subject = copying ? "the image and its copy need " : "the image needs ";
  throw Failure(file, subject + megabytes(bitsOf(picture) / 8 * images) + " of memory",
                "run again with --budget " + budgetText(*needed) + ", or with --storage file");
}

bool Storage::keepsInMemory(const Picture& picture) const { return !forcesFiles() && fitsBudget(picture, 1); }

bool Storage::keepsCopyInMemory(const Picture& picture, const Picture& copy) const {
  // An image in files leaves the budget to its copy.
  const auto alone = budgetFor(copy, 1);
  const std::uint64_t used = keepsInMemory(picture) ? heldBytes(picture) : 0;
  return alone && (*alone + used <= budget_ || bitsOf(copy) <= kSmallImageBits);
}

std::string Storage::adviceForImage(const Picture& picture) const {
  return roomAdvice(keepsInMemory(picture), budgetFor(picture, 1).value_or(UINT64_MAX));
}

std::string Storage::adviceForTurned(const Picture& picture) const {
  return roomAdvice(keepsCopyInMemory(picture, picture), budgetFor(picture, 2).value_or(UINT64_MAX));
}

bool Storage::fitsBudget(const Picture& picture, unsigned images) const {
  const auto needed = budgetFor(picture, images);
  return needed && (*needed <= budget_ || bitsOf(picture) <= kSmallImageBits);
}

Image::Image(const std::string& file, const Picture& picture, const Storage& storage, LibraryMessages& messages)
    : file_(file), adviceForTurned_(storage.adviceForTurned(picture)), messages_(messages) {
  messages_.forget();
  // Turning reads rows and writes columns, so that tiles for both are what suits every command.
  handle_.reset(KvTileImage_AllocEx(picture.width, picture.height, picture.pixels.samples, picture.pixels.bits,
                                    librarySampleformat(picture.pixels), storage.forcesFiles() ? 1 : 0,
                                    KVTI_SCANLINE_OPERATION_ROWCOL));
  if (handle_ == nullptr) {
    fail(storage.keepsInMemory(picture) ? "there is not enough memory for the image"
                                        : "the image cannot be kept in files",
         storage.adviceForImage(picture));
  }
  setResolution(picture);
}

Image Image::share(const std::string& identifier, const Picture& picture, LibraryMessages& messages) {
  Image image(identifier, messages);
  messages.forget();
  // The library looks for an image before it makes one. That there is none is logged as errors and no reason to fail.
  KvTileImage_InterprocessB_GetInfo(identifier.c_str(), nullptr, nullptr, nullptr, nullptr, nullptr);
  messages.expectThese();
  image.handle_.reset(KvTileImage_InterprocessA_Alloc(identifier.c_str(), picture.width, picture.height,
                                                      picture.pixels.samples, picture.pixels.bits,
                                                      librarySampleformat(picture.pixels)));
  if (image.handle_ == nullptr) {
    image.fail("the image cannot be shared", "see --verbose for more");
  }
  return image;
}

Image Image::attach(const std::string& identifier, LibraryMessages& messages) {
  Image image(identifier, messages);
  messages.forget();
  image.handle_.reset(KvTileImage_InterprocessB_Alloc(identifier.c_str()));
  if (image.handle_ == nullptr) {
    image.fail("the image cannot be attached to", "share it again");
  }
  return image;
}

PixelFormat Image::pixels() const {
  const TileImageHandle* image = handle_.get();
  return {KvTileImage_GetSamplesPerPixel(image), KvTileImage_GetBitsPerSample(image),
          sampleFormatOf(KvTileImage_GetSampleformat(image))};
}

void Image::getRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<std::uint8_t> row) {
  messages_.forget();
  if (!KvTileImage_GetRowData(handle_.get(), y, x1, x2, row.data(), row.size())) {
    fail("row " + std::to_string(y) + " cannot be taken from the image", "see --verbose for more");
  }
}

void Image::setRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<const std::uint8_t> row) {
  messages_.forget();
  if (!KvTileImage_SetRowData(handle_.get(), y, x1, x2, row.data(), row.size())) {
    fail("row " + std::to_string(y) + " cannot be put into the image", "see --verbose for more");
  }
}

void Image::turn(const Turn& turn, const Picture& upright, Progress& progress) {
  messages_.forget();
  progress.begin("turning", height());
  rowProgress = &progress;
  TileImageHandle* turned = KvTileImage_RotateAndMirror(handle_.get(), turn.rotation(), turn.mirror(), true, onRowDone);
  rowProgress = nullptr;
  if (turned == nullptr) {
    if (system::stopRequested()) {
      throw Interrupted();
    }
    fail("the image cannot be turned", adviceForTurned_);
  }
  handle_.reset(turned);
  setResolution(upright);
}

void Image::adjust(const ChannelCurves& curves, Progress& progress) {
  messages_.forget();
  const TableMapHandle map = makeMap(curves);
  if (map == nullptr) {
    fail("the tone curve cannot be made", "close other programs");
  }
  progress.begin("toning", height());
  rowProgress = &progress;
  const bool adjusted = KvTileImage_AdjustCurveOfSomeChannels(handle_.get(), map.get(), onRowDone);
  rowProgress = nullptr;
  if (!adjusted) {
    if (system::stopRequested()) {
      throw Interrupted();
    }
    fail("the tone curve cannot be applied", "see --verbose for more");
  }
}

void Image::expandPalette(const Picture& indexed, const Storage& storage, Progress& progress) {
  const Picture coloured = indexed.withoutPalette();
  const Palette palette = indexed.tiff ? indexed.palette.spread() : indexed.palette;
  Image colours(file_, coloured, storage, messages_);
  std::vector<std::uint8_t> indices(rowBytes());
  std::vector<std::uint8_t> row(coloured.rowBytes());
  progress.begin("colouring", height());
  for (std::uint32_t y = 0; y < height(); ++y) {
    getRow(y, 0, width(), indices);
    kvtile::expandPalette(indices, indexed.pixels.bits, palette, width(), coloured.pixels.samples, row);
    colours.setRow(y, 0, width(), row);
    progress.advance();
  }
  handle_ = std::move(colours.handle_);
}

void Image::setResolution(const Picture& picture) {
  const auto inches = picture.resolution ? picture.resolution->inInches() : std::nullopt;
  if (inches) {
    KvTileImage_SetDpiX(handle_.get(), static_cast<float>(inches->x));
    KvTileImage_SetDpiY(handle_.get(), static_cast<float>(inches->y));
  }
}

void Image::fail(const std::string& what, const std::string& advice) const {
  throw Failure(file_, what + messages_.reason(), advice);
}

RowScaler::RowScaler(Image& image, const Resizing& resizing) : image_(image) {
  const Area& area = resizing.area;
  image_.messages_.forget();
  engine_.reset(KvTileImage_BeginRescaleRowScanlineEx_ThreadSafe(
      image_.handle_.get(), area.x, area.y, area.x + area.width, area.y + area.height,
      engineScale(area.width, resizing.picture.width), engineScale(area.height, resizing.picture.height),
      resizing.filter));
  if (engine_ == nullptr) {
    image_.fail("the picture cannot be resized", "take a smaller size, or close other programs");
  }
}

void RowScaler::getRow(std::uint32_t y, std::span<std::uint8_t> row) {
  if (!KvTileImage_RescaleRowScanline_ThreadSafe(engine_.get(), y, row.data(), row.size())) {
    image_.fail("row " + std::to_string(y) + " of the new size cannot be made", "see --verbose for more");
  }
}

}  // namespace kvtile
