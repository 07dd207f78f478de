#include "curve/combined_curve.h"

#include <cmath>

#include "base/log.h"
#include "curve/sample_range.h"

namespace curve {
namespace {

template <typename Sample>
class CombinedCurve {
 public:
  CombinedCurve(double brightness, double contrast, double gamma)
      : changesContrast_(!isZero(contrast)),
        changesBrightness_(!isZero(brightness)),
        changesGamma_(gamma > 0.0 && !isOne(gamma)),
        contrastGain_(contrast + 1.0),
        brightnessGain_(brightness + 1.0),
        exponent_(1.0 / gamma),
        gammaGain_(std::pow(Range::kMaximum, -exponent_) * Range::kMaximum) {}

  double at(double value) const {
    if (changesContrast_) {
      value = Range::clamp((value - Range::kMiddle) * contrastGain_ + Range::kMiddle);
    }
    if (changesBrightness_) {
      value = Range::clamp(value * brightnessGain_);
    }
    if (changesGamma_) {
      value = Range::clamp(std::pow(value, exponent_) * gammaGain_);
    }
    return value;
  }

 private:
  using Range = SampleRange<Sample>;

  bool changesContrast_;
  bool changesBrightness_;
  bool changesGamma_;
  double contrastGain_;
  double brightnessGain_;
  double exponent_;
  double gammaGain_;
};

template <typename Sample>
bool fill(double brightness, double contrast, double gamma, bool invert, Sample* entries, std::uint64_t entriesBytes) {
  using Range = SampleRange<Sample>;
  if (entriesBytes < Range::kCount * sizeof(Sample)) {
    base::logger().log(ember_logger::error, "[%s] check your code.", "_getLookupTable_BrightnessContrastGamma");
    return false;
  }
  const CombinedCurve<Sample> curve(brightness, contrast, gamma);
  for (std::uint32_t i = 0; i < Range::kCount; ++i) {
    const Sample entry = Range::round(curve.at(i));
    entries[i] = invert ? static_cast<Sample>(~entry) : entry;
  }
  return true;
}

}  // namespace

bool _getLookupTable_BrightnessContrastGamma(double brightness, double contrast, double gamma, bool invert,
                                             std::uint8_t* entries, std::uint64_t entriesBytes) {
  return fill(brightness, contrast, gamma, invert, entries, entriesBytes);
}

bool _getLookupTable_BrightnessContrastGamma(double brightness, double contrast, double gamma, bool invert,
                                             std::uint16_t* entries, std::uint64_t entriesBytes) {
  return fill(brightness, contrast, gamma, invert, entries, entriesBytes);
}

}  // namespace curve
