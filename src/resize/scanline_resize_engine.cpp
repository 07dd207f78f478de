#include "resize/scanline_resize_engine.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <utility>

#include "base/log.h"
#include "base/process_values.h"
#include "core/scaled_length.h"

namespace resize {

using base::ull;
using core::TileImage;

constexpr const char* kCreate = "ScanlineResizeEngine::__create";
constexpr const char* kPostInitialize = "ScanlineResizeEngine::postInitialize";
constexpr const char* kScaleRow = "ScanlineResizeEngine::scaleRow";
constexpr std::uint64_t kLongestSide = std::numeric_limits<std::uint32_t>::max();
constexpr std::uint32_t kRowsPerMessage = 100;

ScanlineResizeEngine::ScanlineResizeEngine(TileImage& tileImage, const Rectangle& source, std::uint64_t dstWidth,
                                           std::uint64_t dstHeight, double scaleX, double scaleY, std::uint32_t filter)
    : tileImage_(tileImage),
      source_(source),
      dstWidth_(dstWidth),
      dstHeight_(dstHeight),
      scaleX_(scaleX),
      scaleY_(scaleY),
      filter_(filter) {}

std::shared_ptr<ScanlineResizeEngine> ScanlineResizeEngine::__create(TileImage& tileImage, const Rectangle& source,
                                                                     std::uint32_t dstWidth, std::uint32_t dstHeight,
                                                                     std::uint32_t filter) {
  const double scaleX = static_cast<double>(dstWidth) / source.width();
  const double scaleY = static_cast<double>(dstHeight) / source.height();
  return createInitialized(tileImage, source, dstWidth, dstHeight, scaleX, scaleY, filter, kCreate);
}

std::shared_ptr<ScanlineResizeEngine> ScanlineResizeEngine::__create(TileImage& tileImage, const Rectangle& source,
                                                                     double scaleX, double scaleY,
                                                                     std::uint32_t filter) {
  return createInitialized(tileImage, source, core::scaledLength(source.width(), scaleX),
                           core::scaledLength(source.height(), scaleY), scaleX, scaleY, filter, kCreate);
}

std::shared_ptr<ScanlineResizeEngine> ScanlineResizeEngine::clone() const {
  return createInitialized(tileImage_, source_, dstWidth_, dstHeight_, scaleX_, scaleY_, filter_,
                           "ScanlineResizeEngine::clone");
}

std::shared_ptr<ScanlineResizeEngine> ScanlineResizeEngine::createInitialized(
    TileImage& tileImage, const Rectangle& source, std::uint64_t dstWidth, std::uint64_t dstHeight, double scaleX,
    double scaleY, std::uint32_t filter, const char* function) {
  try {
    const std::shared_ptr<ScanlineResizeEngine> engine(
        new ScanlineResizeEngine(tileImage, source, dstWidth, dstHeight, scaleX, scaleY, filter));
    return engine->postInitialize() ? engine : nullptr;
  } catch (const std::exception&) {
    base::logger().log(ember_logger::error, "[%s] bad_alloc!", function);
    return nullptr;
  }
}

std::shared_ptr<ScanlineResizeEngine> ScanlineResizeEngine::loggedBegin(std::shared_ptr<ScanlineResizeEngine> engine) {
  if (engine == nullptr) {
    base::logger().log(ember_logger::error, "[%s] __create ScanlineResizeEngine failed!",
                       "ScanlineResizeEngine::begin_threadsafe");
  }
  return engine;
}

std::unique_ptr<CGenericFilter> ScanlineResizeEngine::createFilter(std::uint32_t code) {
  auto filter = makeFilter(code);
  if (filter == nullptr) {
    base::logger().log(ember_logger::error, "[%s] createFilter failed!", "ScanlineResizeEngine::createFilter");
  }
  return filter;
}

bool ScanlineResizeEngine::checkArguments() const {
  const std::uint32_t bits = tileImage_.format().bitsPerSample;
  if (bits != 8 && bits != 16 && bits != 32 && bits != 64) {
    base::logger().log(ember_logger::error, "[%s] not support bitsPerSample:%u!", kPostInitialize, bits);
    return false;
  }
  if (source_.x1 >= source_.x2 || source_.y1 >= source_.y2) {
    base::logger().log(ember_logger::error, "[%s] the source rectangle is empty [x1:%u x2:%u y1:%u y2:%u]",
                       kPostInitialize, source_.x1, source_.x2, source_.y1, source_.y2);
    return false;
  }
  // A scale of 0 gives a size of 0, which the samplers refuse.
  const auto usable = [](double scale) { return std::isfinite(scale) && scale >= 0.0; };
  if (!usable(scaleX_) || !usable(scaleY_)) {
    base::logger().log(ember_logger::error, "[%s] a scale is not finite and above 0 [scaleX:%lf scaleY:%lf]",
                       kPostInitialize, scaleX_, scaleY_);
    return false;
  }
  return true;
}

// What is allocated here must not be asked of the system when it cannot be there: some systems promise it all the same.
bool ScanlineResizeEngine::fitsMemory() const {
  if (dstWidth_ > kLongestSide || dstHeight_ > kLongestSide) {
    base::logger().log(ember_logger::error, "[%s] the result is too large [width:%llu height:%llu]", kPostInitialize,
                       ull{dstWidth_}, ull{dstHeight_});
    return false;
  }
  const core::PixelFormat& format = tileImage_.format();
  // A destination row, its sums, and a source row times its weight.
  const double pixels = static_cast<double>(dstWidth_) + source_.width();
  const std::uint32_t bytesPerSample = sizeof(double) + format.bitsPerSample / 8;
  const double bytes = pixels * format.samplesPerPixel * bytesPerSample;
  if (bytes > static_cast<double>(base::totalMemoryBytes())) {
    base::logger().log(ember_logger::error, "[%s] a row of the result needs more memory than there is",
                       kPostInitialize);
    return false;
  }
  return true;
}

bool ScanlineResizeEngine::postInitialize() {
  if (!checkArguments() || !fitsMemory()) {
    return false;
  }
  const auto fail = [](const char* message) {
    base::logger().log(ember_logger::error, message, kPostInitialize);
    return false;
  };
  const auto horFilter = createFilter(filter_);
  if (horFilter == nullptr) {
    return fail("[%s] horFilter create failed!");
  }
  const auto verFilter = createFilter(filter_);
  if (verFilter == nullptr) {
    return fail("[%s] verFilter create failed!");
  }
  horSampler_ = Sampler::create(*horFilter, source_.width(), scaleX_);
  if (horSampler_ == nullptr) {
    return fail("[%s] sampler create failed!");
  }
  verSampler_ = Sampler::create(*verFilter, source_.height(), scaleY_);
  if (verSampler_ == nullptr) {
    return fail("[%s] sampler create failed!");
  }
  srcRowScanlinesCache_ = ScanlinesCache::createRowScanlinesCache(tileImage_, source_.x1, source_.x2);
  if (srcRowScanlinesCache_ == nullptr) {
    return fail("[%s] srcRowScanlinesCache_ create failed!");
  }
  dstRow_.resize(tileImage_.format().suitableBytes(static_cast<std::uint32_t>(dstWidth_)));
  sum_ = DirectSum::create(tileImage_.format(), tileImage_.sampleformat(), horSampler_, source_.width());
  return true;
}

bool ScanlineResizeEngine::scaleRow(std::uint64_t row) {
  if (row >= dstHeight_) {
    base::logger().log(ember_logger::error, "[%s] there is no row %llu, the result has %llu rows", kScaleRow, ull{row},
                       ull{dstHeight_});
    return false;
  }
  const auto index = static_cast<std::uint32_t>(row);
  if (index % kRowsPerMessage == 0) {
    base::logger().log(ember_logger::trace, "[%s] scale Row index:%u", kScaleRow, index);
  }
  std::fill(dstRow_.begin(), dstRow_.end(), std::uint8_t{0});
  try {
    const bool sameSize = source_.width() == dstWidth_ && source_.height() == dstHeight_;
    return sameSize ? copyRow(index) : sumRow(index);
  } catch (const std::exception&) {
    base::logger().log(ember_logger::error, "[%s] bad_alloc!", kScaleRow);
    return false;
  }
}

bool ScanlineResizeEngine::scaleRow_threadsafe(std::uint64_t row) {
  if (scaleRow(row)) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] scaleRow failed!", "ScanlineResizeEngine::scaleRow_threadsafe");
  return false;
}

// Succeeds whatever happens, with the row left clear where something does: callers rely on it.
bool ScanlineResizeEngine::copyRow(std::uint32_t row) {
  const std::uint32_t y = source_.y1 + row;
  if (srcRowScanlinesCache_->load(y, y + 1)) {
    srcRowScanlinesCache_->row(y).copy(source_.x1, source_.x2, dstRow_.data(), dstRow_.size());
  }
  return true;
}

bool ScanlineResizeEngine::sumRow(std::uint32_t row) {
  if (sum_ == nullptr) {
    base::logger().log(ember_logger::error, "[%s] not support bitsPerSample:%u sampleformat:%u!", kScaleRow,
                       tileImage_.format().bitsPerSample, tileImage_.sampleformat());
    return false;
  }
  const Contribution rows = verSampler_->contribution(row);
  if (!srcRowScanlinesCache_->load(source_.y1 + rows.left, source_.y1 + rows.right)) {
    base::logger().log(ember_logger::error, "[%s] horSrcScanlinesCache_ load failed!", kScaleRow);
    return false;
  }
  sum_->clear();
  for (std::uint32_t i = 0; i < rows.count(); ++i) {
    const Scanline& scanline = srcRowScanlinesCache_->row(source_.y1 + rows.left + i);
    sum_->addRow(scanline.pixelAddress(scanline.offset0()), rows.weights[i]);
  }
  sum_->store(dstRow_.data());
  return true;
}

}  // namespace resize
