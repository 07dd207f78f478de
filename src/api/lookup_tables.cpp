// Lookup tables and maps of them: creation, insertion and release.
#include <new>
#include <utility>

#include "api/lookup_handle.h"
#include "curve/curve_engine.h"
#include "kvtileimage/KvTileImage.h"

using curve::CurveEngine;
using curve::LookupTableMap;
using curve::LookupTablePointer;

namespace {

// A new handle that owns `reference`. Null if that is null or there is no memory for the cell.
template <typename Reference>
LookupHandle* wrap(Reference reference) {
  return reference == nullptr ? nullptr : new (std::nothrow) LookupHandle{std::move(reference)};
}

}  // namespace

LookupTableHandle* KvTileImage_CreateLookupTable_Gamma(uint32_t bitsPerSample, double gamma) noexcept {
  return wrap(CurveEngine::createLookupTable_Gamma(bitsPerSample, gamma));
}

LookupTableHandle* KvTileImage_CreateLookupTable_Brightness(uint32_t bitsPerSample, double brightness) noexcept {
  return wrap(CurveEngine::createLookupTable_Brightness(bitsPerSample, brightness));
}

LookupTableHandle* KvTileImage_CreateLookupTable_Contrast(uint32_t bitsPerSample, double contrast) noexcept {
  return wrap(CurveEngine::createLookupTable_Contrast(bitsPerSample, contrast));
}

LookupTableHandle* KvTileImage_CreateLookupTable_BrightnessContrastGamma(uint32_t bitsPerSample, double brightness,
                                                                         double contrast, double gamma,
                                                                         bool invert) noexcept {
  return wrap(
      CurveEngine::createLookupTable_BrightnessContrastGamma(bitsPerSample, brightness, contrast, gamma, invert));
}

LookupTableHandle* KvTileImage_CreateLookupTable_BrightnessContrast(uint32_t bitsPerSample, double brightness,
                                                                    double contrast) noexcept {
  return KvTileImage_CreateLookupTable_BrightnessContrastGamma(bitsPerSample, brightness, contrast, 1.0, false);
}

LookupTableHandle* KvTileImage_CreateLookupTable_Threshold(uint32_t bitsPerSample, int32_t threshold,
                                                           bool invert) noexcept {
  return wrap(CurveEngine::createLookupTable_Threshold(bitsPerSample, threshold, invert));
}

LookupTableHandle* KvTileImage_CreateLookupTable_ByteStream(uint32_t bitsPerSample, const uint8_t* bytes,
                                                            uint64_t byteCount) noexcept {
  return wrap(CurveEngine::createLookupTable_ByteStream(bitsPerSample, bytes, byteCount));
}

LookupTableHandle* KvTileImage_CreateLookupTable8_Gamma(double gamma) noexcept {
  return wrap(CurveEngine::createLookupTable8_Gamma(gamma));
}

LookupTableHandle* KvTileImage_CreateLookupTable8_Brightness(double brightness) noexcept {
  return wrap(CurveEngine::createLookupTable8_Brightness(brightness));
}

LookupTableHandle* KvTileImage_CreateLookupTable8_Contrast(double contrast) noexcept {
  return wrap(CurveEngine::createLookupTable8_Contrast(contrast));
}

LookupTableHandle* KvTileImage_CreateLookupTable8_BrightnessContrastGamma(double brightness, double contrast,
                                                                          double gamma, bool invert) noexcept {
  return wrap(CurveEngine::createLookupTable8_BrightnessContrastGamma(brightness, contrast, gamma, invert));
}

LookupTableHandle* KvTileImage_CreateLookupTable8_BrightnessContras(double brightness, double contrast) noexcept {
  return KvTileImage_CreateLookupTable8_BrightnessContrastGamma(brightness, contrast, 1.0, false);
}

LookupTableHandle* KvTileImage_CreateLookupTable8_Threshold(int32_t threshold, bool invert) noexcept {
  return wrap(CurveEngine::createLookupTable8_Threshold(threshold, invert));
}

LookupTableHandle* KvTileImage_CreateLookupTable8_ByteStream(const uint8_t* bytes, uint64_t byteCount) noexcept {
  return wrap(CurveEngine::createLookupTable8_ByteStream(bytes, byteCount));
}

LookupTableHandle* KvTileImage_CreateLookupTable16_Gamma(double gamma) noexcept {
  return wrap(CurveEngine::createLookupTable16_Gamma(gamma));
}

LookupTableHandle* KvTileImage_CreateLookupTable16_Brightness(double brightness) noexcept {
  return wrap(CurveEngine::createLookupTable16_Brightness(brightness));
}

LookupTableHandle* KvTileImage_CreateLookupTable16_Contrast(double contrast) noexcept {
  return wrap(CurveEngine::createLookupTable16_Contrast(contrast));
}

LookupTableHandle* KvTileImage_CreateLookupTable16_BrightnessContrastGamma(double brightness, double contrast,
                                                                           double gamma, bool invert) noexcept {
  return wrap(CurveEngine::createLookupTable16_BrightnessContrastGamma(brightness, contrast, gamma, invert));
}

LookupTableHandle* KvTileImage_CreateLookupTable16_BrightnessContrast(double brightness, double contrast) noexcept {
  return KvTileImage_CreateLookupTable16_BrightnessContrastGamma(brightness, contrast, 1.0, false);
}

LookupTableHandle* KvTileImage_CreateLookupTable16_Threshold(int32_t threshold, bool invert) noexcept {
  return wrap(CurveEngine::createLookupTable16_Threshold(threshold, invert));
}

LookupTableHandle* KvTileImage_CreateLookupTable16_ByteStream(const uint8_t* bytes, uint64_t byteCount) noexcept {
  return wrap(CurveEngine::createLookupTable16_ByteStream(bytes, byteCount));
}

LookupTableMapHandle* KvTileImage_CreateLookupTableMap(uint32_t bitsPerSample) noexcept {
  return wrap(LookupTableMap::create(bitsPerSample));
}

LookupTableMapHandle* KvTileImage_CreateLookupTableMap8() noexcept { return KvTileImage_CreateLookupTableMap(8); }

LookupTableMapHandle* KvTileImage_CreateLookupTableMap16() noexcept { return KvTileImage_CreateLookupTableMap(16); }

bool KvTileImage_InsertLookupTable(LookupTableMapHandle* map, LookupTableHandle* table, uint32_t channel) noexcept {
  constexpr const char* kName = "KvTileImage_InsertLookupTable";
  const auto tables = api::mapIn(map, kName);
  const LookupTablePointer inserted = api::tableIn(table, kName);
  if (tables == nullptr || inserted == nullptr) {
    return false;
  }
  if (tables->bitsPerSample() != inserted->bitsPerSample()) {
    base::logger().log(ember_logger::error, "[%s] lookupTableMap->bitsPerSample() != lookupTable->bitsPerSample()",
                       kName);
    return false;
  }
  return tables->insert(channel, inserted);
}

// The linker gives this function its second name, KvTileImage_DestroyLookupTableMap; see exports.txt.
void KvTileImage_DestroyLookupTable(LookupHandle* tableOrMap) noexcept { delete tableOrMap; }
