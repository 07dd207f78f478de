#include "resize/sampler.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>

#include "base/log.h"
#include "base/process_values.h"
#include "core/scaled_length.h"

namespace resize {
namespace {

constexpr const char* kPostInitialize = "Sampler::postInitialize";
constexpr std::uint32_t kLargestWindow = 100;
constexpr double kReachOfLargestWindow = 49.0;
constexpr double kNoWeight = std::numeric_limits<double>::epsilon();

// The whole pixels in `position`, within 0 .. `most`.
std::uint32_t wholePixels(double position, std::uint32_t most) {
  if (!(position > 0.0)) {
    return 0;
  }
  return position < most ? static_cast<std::uint32_t>(position) : most;
}

}  // namespace

std::shared_ptr<const Sampler> Sampler::create(CGenericFilter& filter, std::uint32_t sourceLength, double dScale) {
  auto sampler = std::make_shared<Sampler>();
  sampler->sourceLength_ = sourceLength;
  sampler->dScale_ = dScale;
  sampler->destinationLength_ = static_cast<std::uint32_t>(core::scaledLength(sourceLength, dScale));
  return sampler->postInitialize(filter) ? sampler : nullptr;
}

bool Sampler::postInitialize(CGenericFilter& filter) {
  const bool shrinking = dScale_ < 1.0;
  reach_ = shrinking ? filter.width() / dScale_ : filter.width();
  filterScale_ = shrinking ? dScale_ : 1.0;
  const double window = 2.0 * std::ceil(reach_) + 1.0;
  windowSize_ = kLargestWindow;
  if (window <= kLargestWindow) {
    windowSize_ = static_cast<std::uint32_t>(window);
  } else {
    reach_ = kReachOfLargestWindow;
  }
  // One colon is the full-width one, in the two bytes of a Chinese code page. Kept, as readers of logs look for it.
  base::logger().log(ember_logger::trace, "[%s] sampler windowSize:%u dWidth:%lf dFilterWidth\xA3\xBA%lf dScale:%lf!",
                     kPostInitialize, windowSize_, reach_, filter.width(), dScale_);
  if (!allocate()) {
    base::logger().log(ember_logger::error, "[%s] weightTable_ resize failed!", kPostInitialize);
    return false;
  }
  for (std::uint32_t u = 0; u < destinationLength_; ++u) {
    weightTable_[u] = weigh(filter, u / dScale_ + 0.5 / dScale_);
  }
  return true;
}

// Room for the largest windows everywhere: the weights never move while they are made.
bool Sampler::allocate() {
  const std::uint64_t weights = std::uint64_t{destinationLength_} * std::min(windowSize_, sourceLength_);
  const std::uint64_t bytes = destinationLength_ * sizeof(Record) + weights * sizeof(double);
  if (destinationLength_ == 0 || bytes > base::totalMemoryBytes()) {
    return false;
  }
  try {
    weightTable_.resize(destinationLength_);
    weights_.reserve(weights);
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

Sampler::Record Sampler::weigh(CGenericFilter& filter, double center) {
  Record record;
  record.firstWeight = weights_.size();
  record.left = wholePixels(center - reach_ + 0.5, sourceLength_ - 1);
  record.right = std::max(wholePixels(center + reach_ + 0.5, sourceLength_), record.left + 1);
  record.right = record.left + std::min(record.right - record.left, windowSize_);
  const std::uint32_t count = record.right - record.left;
  double total = 0.0;
  for (std::uint32_t i = record.left; i < record.right; ++i) {
    const double weight = filter.Filter(((i + 0.5) - center) * filterScale_) * filterScale_;
    weights_.push_back(weight);
    total += weight;
  }
  double* const weights = weights_.data() + record.firstWeight;
  if (total > 0.0 && std::fabs(total - 1.0) >= kNoWeight) {
    std::for_each(weights, weights + count, [total](double& weight) { weight /= total; });
  }
  // Every weight of 0 takes one pixel off the right end, wherever it stands, and hides the weight before it from this
  // search. Kept: the results of rescaling depend on it.
  for (std::int64_t k = std::int64_t{count} - 1; k >= 0; --k) {
    if (record.right > record.left + 1 && std::fabs(weights[k]) < kNoWeight) {
      --record.right;
      --k;
    }
  }
  return record;
}

}  // namespace resize
