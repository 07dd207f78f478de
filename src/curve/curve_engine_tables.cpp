// The builders of tables.
#include <cmath>
#include <cstring>

#include "base/log.h"
#include "curve/combined_curve.h"
#include "curve/curve_engine.h"
#include "curve/sample_range.h"

namespace curve {
namespace {

template <typename Sample>
constexpr std::uint32_t kBits = sizeof(Sample) * 8;

// -1 and 1 themselves are met by the second halves only, as is what is too near to tell. Not a number fails both.
bool inUnitRange(double value) {
  const bool aboveLeast = value > -1.0 || isZero(value + 1.0);
  const bool belowMost = value < 1.0 || isOne(value);
  return aboveLeast && belowMost;
}

bool checkGamma(double gamma) {
  // Written so that not a number passes.
  if (gamma < 0.0 || isZero(gamma)) {
    base::logger().log(ember_logger::error, "[%s] gamma is %lf, check your code!", "CurveEngine::checkGamma", gamma);
    return false;
  }
  return true;
}

bool checkBrightness(double brightness) {
  if (inUnitRange(brightness)) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] brightness is %lf, check your code! range: [-1.0,1.0]",
                     "CurveEngine::checkBrightness", brightness);
  return false;
}

bool checkContrast(double contrast) {
  if (inUnitRange(contrast)) {
    return true;
  }
  base::logger().log(ember_logger::error, "[%s] contrast is %lf, check your code! range: [-1.0,1.0]",
                     "CurveEngine::checkContrast", contrast);
  return false;
}

// A table with the entry `entryOf(i)`, a Sample, for each value i.
template <typename Sample, typename EntryOf>
LookupTablePointer makeTable(EntryOf entryOf) {
  const std::shared_ptr<LookupTable> table = LookupTable::create(kBits<Sample>);
  if (table != nullptr) {
    Sample* const entries = table->entries<Sample>();
    for (std::uint32_t i = 0; i < SampleRange<Sample>::kCount; ++i) {
      entries[i] = entryOf(i);
    }
  }
  return table;
}

// The same from `curve(i)`, a double that is cut to the range and rounded.
template <typename Sample, typename Curve>
LookupTablePointer makeCurve(Curve curve) {
  using Range = SampleRange<Sample>;
  return makeTable<Sample>([&curve](std::uint32_t i) { return Range::round(Range::clamp(curve(i))); });
}

template <typename Sample>
LookupTablePointer gammaTable(double gamma) {
  if (!checkGamma(gamma)) {
    return nullptr;
  }
  const double exponent = 1.0 / gamma;
  const double gain = std::pow(SampleRange<Sample>::kMaximum, -exponent) * SampleRange<Sample>::kMaximum;
  return makeCurve<Sample>([=](std::uint32_t i) { return std::pow(i, exponent) * gain; });
}

template <typename Sample>
LookupTablePointer brightnessTable(double brightness) {
  if (!checkBrightness(brightness)) {
    return nullptr;
  }
  return makeCurve<Sample>([gain = brightness + 1.0](std::uint32_t i) { return i * gain; });
}

template <typename Sample>
LookupTablePointer contrastTable(double contrast) {
  if (!checkContrast(contrast)) {
    return nullptr;
  }
  return makeCurve<Sample>([gain = contrast + 1.0](std::uint32_t i) {
    // Without a sign, so that values below the middle are far above it. Callers rely on it.
    const std::uint32_t distance = i - SampleRange<Sample>::kMiddle;
    return distance * gain + SampleRange<Sample>::kMiddle;
  });
}

template <typename Sample>
LookupTablePointer combinedTable(double brightness, double contrast, double gamma, bool invert) {
  const std::shared_ptr<LookupTable> table = LookupTable::create(kBits<Sample>);
  if (table != nullptr) {
    _getLookupTable_BrightnessContrastGamma(brightness, contrast, gamma, invert, table->entries<Sample>(),
                                            table->bufferBytes());
  }
  return table;
}

template <typename Sample>
LookupTablePointer thresholdTable(std::int32_t threshold, bool invert, const char* function) {
  constexpr auto kMost = std::numeric_limits<Sample>::max();
  if (threshold < 0 || threshold > std::int32_t{kMost}) {
    base::logger().log(ember_logger::error, "[%s] threshold:%d is out range", function, threshold);
    return nullptr;
  }
  const Sample below = invert ? kMost : Sample{0};
  const Sample above = invert ? Sample{0} : kMost;
  return makeTable<Sample>([=](std::uint32_t i) { return i < static_cast<std::uint32_t>(threshold) ? below : above; });
}

template <typename Sample>
LookupTablePointer byteStreamTable(const std::uint8_t* lookupTableBuf, std::uint64_t bytes, const char* function) {
  if (lookupTableBuf == nullptr) {
    base::logger().log(ember_logger::error, "[%s] lookupTableBuf is nullptr", function);
    return nullptr;
  }
  // For 16 bits the limit counts entries and the message is that of 8 bits. Callers rely on both.
  if (bytes < SampleRange<Sample>::kCount) {
    base::logger().log(ember_logger::error, "[%s] bytes < 256", function);
    return nullptr;
  }
  const std::shared_ptr<LookupTable> table = LookupTable::create(kBits<Sample>);
  if (table != nullptr) {
    std::memcpy(table->buffer(), lookupTableBuf, table->bufferBytes());
  }
  return table;
}

// What `build8` or `build16` returns, by the depth.
template <typename Build8, typename Build16, typename... Parameters>
LookupTablePointer buildFor(std::uint32_t bitsPerSample, Build8 build8, Build16 build16, Parameters... parameters) {
  if (bitsPerSample == 8) {
    return build8(parameters...);
  }
  return bitsPerSample == 16 ? build16(parameters...) : nullptr;
}

}  // namespace

LookupTablePointer CurveEngine::createLookupTable8_Gamma(double gamma) { return gammaTable<std::uint8_t>(gamma); }

LookupTablePointer CurveEngine::createLookupTable16_Gamma(double gamma) { return gammaTable<std::uint16_t>(gamma); }

LookupTablePointer CurveEngine::createLookupTable_Gamma(std::uint32_t bitsPerSample, double gamma) {
  return buildFor(bitsPerSample, createLookupTable8_Gamma, createLookupTable16_Gamma, gamma);
}

LookupTablePointer CurveEngine::createLookupTable8_Brightness(double brightness) {
  return brightnessTable<std::uint8_t>(brightness);
}

LookupTablePointer CurveEngine::createLookupTable16_Brightness(double brightness) {
  return brightnessTable<std::uint16_t>(brightness);
}

LookupTablePointer CurveEngine::createLookupTable_Brightness(std::uint32_t bitsPerSample, double brightness) {
  return buildFor(bitsPerSample, createLookupTable8_Brightness, createLookupTable16_Brightness, brightness);
}

LookupTablePointer CurveEngine::createLookupTable8_Contrast(double contrast) {
  return contrastTable<std::uint8_t>(contrast);
}

LookupTablePointer CurveEngine::createLookupTable16_Contrast(double contrast) {
  return contrastTable<std::uint16_t>(contrast);
}

LookupTablePointer CurveEngine::createLookupTable_Contrast(std::uint32_t bitsPerSample, double contrast) {
  return buildFor(bitsPerSample, createLookupTable8_Contrast, createLookupTable16_Contrast, contrast);
}

LookupTablePointer CurveEngine::createLookupTable8_BrightnessContrastGamma(double brightness, double contrast,
                                                                           double gamma, bool invert) {
  return combinedTable<std::uint8_t>(brightness, contrast, gamma, invert);
}

LookupTablePointer CurveEngine::createLookupTable16_BrightnessContrastGamma(double brightness, double contrast,
                                                                            double gamma, bool invert) {
  return combinedTable<std::uint16_t>(brightness, contrast, gamma, invert);
}

LookupTablePointer CurveEngine::createLookupTable_BrightnessContrastGamma(std::uint32_t bitsPerSample,
                                                                          double brightness, double contrast,
                                                                          double gamma, bool invert) {
  return buildFor(bitsPerSample, createLookupTable8_BrightnessContrastGamma,
                  createLookupTable16_BrightnessContrastGamma, brightness, contrast, gamma, invert);
}

LookupTablePointer CurveEngine::createLookupTable8_Threshold(std::int32_t threshold, bool invert) {
  return thresholdTable<std::uint8_t>(threshold, invert, "CurveEngine::createLookupTable8_Threshold");
}

LookupTablePointer CurveEngine::createLookupTable16_Threshold(std::int32_t threshold, bool invert) {
  return thresholdTable<std::uint16_t>(threshold, invert, "CurveEngine::createLookupTable16_Threshold");
}

LookupTablePointer CurveEngine::createLookupTable_Threshold(std::uint32_t bitsPerSample, std::int32_t threshold,
                                                            bool invert) {
  return buildFor(bitsPerSample, createLookupTable8_Threshold, createLookupTable16_Threshold, threshold, invert);
}

LookupTablePointer CurveEngine::createLookupTable8_ByteStream(const std::uint8_t* lookupTableBuf, std::uint64_t bytes) {
  return byteStreamTable<std::uint8_t>(lookupTableBuf, bytes, "CurveEngine::createLookupTable8_ByteStream");
}

LookupTablePointer CurveEngine::createLookupTable16_ByteStream(const std::uint8_t* lookupTableBuf,
                                                               std::uint64_t bytes) {
  return byteStreamTable<std::uint16_t>(lookupTableBuf, bytes, "CurveEngine::createLookupTable16_ByteStream");
}

LookupTablePointer CurveEngine::createLookupTable_ByteStream(std::uint32_t bitsPerSample,
                                                             const std::uint8_t* lookupTableBuf, std::uint64_t bytes) {
  return buildFor(bitsPerSample, createLookupTable8_ByteStream, createLookupTable16_ByteStream, lookupTableBuf, bytes);
}

}  // namespace curve
