// Application of tone curves to images, in place or into a new image.
#include "api/lookup_handle.h"
#include "api/tile_image_handle.h"
#include "base/log.h"
#include "curve/curve_engine.h"
#include "curve/sample_range.h"
#include "kvtileimage/KvTileImage.h"

using core::TileImage;
using curve::CurveEngine;
using curve::LookupTablePointer;

namespace {

// Applies the table that `build(bitsPerSample)` makes for the image's depth.
template <typename Build>
bool adjustInPlace(TileImage& image, KvTileImage_ProgressCallback progress, Build build) {
  const LookupTablePointer table = build(image.format().bitsPerSample);
  return table != nullptr && CurveEngine::adjustCurveOfAllChannels(image, image, table, progress);
}

// A new image that `adjust(source, result)` has filled, or null, with `failure` logged for `function` if it returns
// false.
template <typename Adjust>
TileImageHandle* adjustCopy(TileImage& source, const char* function, const char* failure, Adjust adjust) {
  auto result = api::allocateResult(source, source.width(), source.height());
  if (result == nullptr) {
    return nullptr;
  }
  if (!adjust(source, *result)) {
    base::logger().log(ember_logger::error, failure, function);
    return nullptr;
  }
  return api::wrap(std::move(result));
}

TileImageHandle* adjustCopyOfAllChannels(TileImage& source, const LookupTablePointer& table,
                                         KvTileImage_ProgressCallback progress) {
  return adjustCopy(
      source, "KvTileImage_AdjustCurveOfAllChannelsEx", "[%s] adjustCurveOfAllChannels failed!",
      [&](TileImage& from, TileImage& to) { return CurveEngine::adjustCurveOfAllChannels(from, to, table, progress); });
}

// The same with the table that `build(bitsPerSample)` makes for the depth of the image in `handle`.
template <typename Build>
TileImageHandle* adjustCopyOf(TileImageHandle* handle, KvTileImage_ProgressCallback progress, Build build) noexcept {
  return api::withImage(handle, static_cast<TileImageHandle*>(nullptr), [&](TileImage& source) {
    const LookupTablePointer table = build(source.format().bitsPerSample);
    return table == nullptr ? nullptr : adjustCopyOfAllChannels(source, table, progress);
  });
}

}  // namespace

bool KvTileImage_AdjustCurveOfAllChannels(TileImageHandle* image, LookupTableHandle* table,
                                          KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    const LookupTablePointer used = api::tableIn(table, "KvTileImage_AdjustCurveOfAllChannels");
    return used != nullptr && CurveEngine::adjustCurveOfAllChannels(it, it, used, progress);
  });
}

TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx(TileImageHandle* image, LookupTableHandle* table,
                                                        KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, static_cast<TileImageHandle*>(nullptr), [&](TileImage& source) {
    const LookupTablePointer used = api::tableIn(table, "KvTileImage_AdjustCurveOfAllChannelsEx");
    return used == nullptr ? nullptr : adjustCopyOfAllChannels(source, used, progress);
  });
}

bool KvTileImage_AdjustCurveOfSomeChannels(TileImageHandle* image, LookupTableMapHandle* map,
                                           KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    const auto used = api::mapIn(map, "KvTileImage_AdjustCurveOfSomeChannels");
    return used != nullptr && CurveEngine::adjustCurveOfSomeChannels(it, it, used, progress);
  });
}

TileImageHandle* KvTileImage_AdjustCurveOfSomeChannelsEx(TileImageHandle* image, LookupTableMapHandle* map,
                                                         KvTileImage_ProgressCallback progress) noexcept {
  constexpr const char* kName = "KvTileImage_AdjustCurveOfSomeChannelsEx";
  return api::withImage(image, static_cast<TileImageHandle*>(nullptr), [&](TileImage& source) -> TileImageHandle* {
    const auto used = api::mapIn(map, kName);
    if (used == nullptr) {
      return nullptr;
    }
    return adjustCopy(source, kName, "[%s] adjustCurveOfSomeChannels failed!", [&](TileImage& from, TileImage& to) {
      return CurveEngine::adjustCurveOfSomeChannels(from, to, used, progress);
    });
  });
}

bool KvTileImage_AdjustCurveOfAllChannels_Gamma(TileImageHandle* image, double gamma,
                                                KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    if (curve::isOne(gamma)) {
      base::logger().log(ember_logger::debug, "[%s] no need adjust curve,because gamma is %lf",
                         "KvTileImage_AdjustCurveOfAllChannels_Gamma", gamma);
      return true;
    }
    return adjustInPlace(it, progress,
                         [&](uint32_t bits) { return CurveEngine::createLookupTable_Gamma(bits, gamma); });
  });
}

bool KvTileImage_AdjustCurveOfAllChannels_Brightness(TileImageHandle* image, double brightness,
                                                     KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    if (curve::isZero(brightness)) {
      base::logger().log(ember_logger::debug, "[%s] no need adjust curve,because brightness is %lf",
                         "KvTileImage_AdjustCurveOfAllChannels_Brightness", brightness);
      return true;
    }
    return adjustInPlace(it, progress,
                         [&](uint32_t bits) { return CurveEngine::createLookupTable_Brightness(bits, brightness); });
  });
}

bool KvTileImage_AdjustCurveOfAllChannels_Contrast(TileImageHandle* image, double contrast,
                                                   KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    if (curve::isZero(contrast)) {
      base::logger().log(ember_logger::debug, "[%s] no need adjust curve,because contrast is %lf",
                         "KvTileImage_AdjustCurveOfAllChannels_Contrast", contrast);
      return true;
    }
    return adjustInPlace(it, progress,
                         [&](uint32_t bits) { return CurveEngine::createLookupTable_Contrast(bits, contrast); });
  });
}

bool KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(TileImageHandle* image, double brightness,
                                                                  double contrast, double gamma, bool invert,
                                                                  KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    if (curve::isZero(brightness) && curve::isZero(contrast) && curve::isOne(gamma) && !invert) {
      base::logger().log(
          ember_logger::debug,
          "[%s] no need adjust curve,because brightness is %lf, contrast is %lf, gamma is %lf, invert is %s",
          "KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma", brightness, contrast, gamma, "false");
      return true;
    }
    return adjustInPlace(it, progress, [&](uint32_t bits) {
      return CurveEngine::createLookupTable_BrightnessContrastGamma(bits, brightness, contrast, gamma, invert);
    });
  });
}

bool KvTileImage_AdjustCurveOfAllChannels_BrightnessContrast(TileImageHandle* image, double brightness, double contrast,
                                                             KvTileImage_ProgressCallback progress) noexcept {
  return KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(image, brightness, contrast, 1.0, false,
                                                                      progress);
}

bool KvTileImage_AdjustCurveOfAllChannels_Threshold(TileImageHandle* image, int32_t threshold, bool invert,
                                                    KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return adjustInPlace(
        it, progress, [&](uint32_t bits) { return CurveEngine::createLookupTable_Threshold(bits, threshold, invert); });
  });
}

TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(TileImageHandle* image, double gamma,
                                                              KvTileImage_ProgressCallback progress) noexcept {
  return adjustCopyOf(image, progress,
                      [&](uint32_t bits) { return CurveEngine::createLookupTable_Gamma(bits, gamma); });
}

TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_Brightness(TileImageHandle* image, double brightness,
                                                                   KvTileImage_ProgressCallback progress) noexcept {
  return adjustCopyOf(image, progress,
                      [&](uint32_t bits) { return CurveEngine::createLookupTable_Brightness(bits, brightness); });
}

TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_Contrast(TileImageHandle* image, double contrast,
                                                                 KvTileImage_ProgressCallback progress) noexcept {
  return adjustCopyOf(image, progress,
                      [&](uint32_t bits) { return CurveEngine::createLookupTable_Contrast(bits, contrast); });
}

TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrastGamma(
    TileImageHandle* image, double brightness, double contrast, double gamma, bool invert,
    KvTileImage_ProgressCallback progress) noexcept {
  return adjustCopyOf(image, progress, [&](uint32_t bits) {
    return CurveEngine::createLookupTable_BrightnessContrastGamma(bits, brightness, contrast, gamma, invert);
  });
}

// The callback stays uncalled, unlike that of the form that works in place. Callers rely on it.
TileImageHandle* KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrast(TileImageHandle* image, double brightness,
                                                                           double contrast,
                                                                           KvTileImage_ProgressCallback) noexcept {
  return KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrastGamma(image, brightness, contrast, 1.0, false,
                                                                        nullptr);
}
