#include "resize/direct_sum.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <type_traits>
#include <utility>
#include <vector>

namespace resize {
namespace {

template <typename Sample>
Sample load(const std::uint8_t* place) {
  Sample sample;
  std::memcpy(&sample, place, sizeof(Sample));
  return sample;
}

// 2^bits for the integers of as many bits: the highest value is not a double for all of them, the one above it is.
template <typename Sample>
constexpr double kAboveHighest = 2.0 * static_cast<double>(Sample{1} << (std::numeric_limits<Sample>::digits - 1));

template <typename Sample>
Sample rounded(double sum) {
  using Limits = std::numeric_limits<Sample>;
  if constexpr (std::is_floating_point_v<Sample>) {
    return static_cast<Sample>(
        std::clamp(sum, static_cast<double>(Limits::lowest()), static_cast<double>(Limits::max())));
  } else {
    const double value = sum + 0.5;
    if (value >= kAboveHighest<Sample>) {
      return Limits::max();
    }
    return value > static_cast<double>(Limits::min()) ? static_cast<Sample>(value) : Limits::min();
  }
}

// `kChannels` samples per pixel, or any number where it is 0.
template <typename Sample, std::uint32_t kChannels>
class DirectSumOf : public DirectSum {
 public:
  DirectSumOf(std::uint32_t channels, std::shared_ptr<const Sampler> horizontal, std::uint32_t sourceWidth)
      : channels_(channels),
        horizontal_(std::move(horizontal)),
        weighted_(std::size_t{sourceWidth} * channels),
        sums_(std::size_t{horizontal_->destinationLength()} * channels) {}

  void clear() override { std::fill(sums_.begin(), sums_.end(), 0.0); }

  void addRow(const std::uint8_t* row, double weight) override {
    // Each product with the row's weight is wanted by several destination pixels.
    for (std::size_t i = 0; i < weighted_.size(); ++i) {
      weighted_[i] = static_cast<double>(load<Sample>(row + i * sizeof(Sample))) * weight;
    }
    double* sums = sums_.data();
    for (std::uint32_t u = 0; u < horizontal_->destinationLength(); ++u, sums += channels()) {
      addPixels(horizontal_->contribution(u), sums);
    }
  }

  void store(std::uint8_t* row) const override {
    for (std::size_t i = 0; i < sums_.size(); ++i) {
      const Sample sample = rounded<Sample>(sums_[i]);
      std::memcpy(row + i * sizeof(Sample), &sample, sizeof(Sample));
    }
  }

 private:
  std::size_t channels() const { return kChannels != 0 ? kChannels : channels_; }

  void addPixels(const Contribution& contribution, double* sums) const {
    const double* weighted = weighted_.data() + contribution.left * channels();
    if constexpr (kChannels != 0) {
      double kept[kChannels];  // where the compiler keeps it, in registers
      std::copy_n(sums, kChannels, kept);
      for (const double weight : contribution.weights) {
        for (std::uint32_t sample = 0; sample < kChannels; ++sample) {
          kept[sample] = *weighted++ * weight + kept[sample];
        }
      }
      std::copy_n(kept, kChannels, sums);
    } else {
      for (const double weight : contribution.weights) {
        for (std::size_t sample = 0; sample < channels_; ++sample) {
          sums[sample] = *weighted++ * weight + sums[sample];
        }
      }
    }
  }

  std::size_t channels_;
  std::shared_ptr<const Sampler> horizontal_;
  std::vector<double> weighted_;  // the samples of one source row times its weight
  std::vector<double> sums_;      // for each sample of the destination row
};

template <typename Sample>
std::unique_ptr<DirectSum> createFor(std::uint32_t channels, std::shared_ptr<const Sampler> horizontal,
                                     std::uint32_t sourceWidth) {
  switch (channels) {
    case 1:
      return std::make_unique<DirectSumOf<Sample, 1>>(channels, std::move(horizontal), sourceWidth);
    case 2:
      return std::make_unique<DirectSumOf<Sample, 2>>(channels, std::move(horizontal), sourceWidth);
    case 3:
      return std::make_unique<DirectSumOf<Sample, 3>>(channels, std::move(horizontal), sourceWidth);
    case 4:
      return std::make_unique<DirectSumOf<Sample, 4>>(channels, std::move(horizontal), sourceWidth);
    default:
      return std::make_unique<DirectSumOf<Sample, 0>>(channels, std::move(horizontal), sourceWidth);
  }
}

constexpr std::uint32_t kUnsigned = 1;
constexpr std::uint32_t kSigned = 2;
constexpr std::uint32_t kFloat = 3;
constexpr std::uint32_t kSigned64 = 5;
constexpr std::uint32_t kDouble = 6;

constexpr std::uint64_t kindOf(std::uint32_t bits, std::uint32_t sampleformat) {
  return std::uint64_t{bits} << 32 | sampleformat;
}

}  // namespace

std::unique_ptr<DirectSum> DirectSum::create(const core::PixelFormat& format, std::uint32_t sampleformat,
                                             std::shared_ptr<const Sampler> horizontal, std::uint32_t sourceWidth) {
  const std::uint32_t channels = format.samplesPerPixel;
  switch (kindOf(format.bitsPerSample, sampleformat)) {
    case kindOf(8, kUnsigned):
      return createFor<std::uint8_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(8, kSigned):
      return createFor<std::int8_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(16, kUnsigned):
      return createFor<std::uint16_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(16, kSigned):
      return createFor<std::int16_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(32, kUnsigned):
      return createFor<std::uint32_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(32, kSigned):
      return createFor<std::int32_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(32, kFloat):
      return createFor<float>(channels, std::move(horizontal), sourceWidth);
    case kindOf(64, kUnsigned):
      return createFor<std::uint64_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(64, kSigned):
    case kindOf(64, kSigned64):
      return createFor<std::int64_t>(channels, std::move(horizontal), sourceWidth);
    case kindOf(64, kDouble):
      return createFor<double>(channels, std::move(horizontal), sourceWidth);
    default:
      return nullptr;
  }
}

}  // namespace resize
