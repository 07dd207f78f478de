// Rescaling as it is defined, one sample at a time: nothing shared, nothing kept, nothing skipped.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <vector>

namespace support {

// ---- Weights

struct KernelModel {
  double reach;
  double (*at)(double);
};

// By the codes of the filters.
inline const KernelModel& kernelModel(std::uint32_t filter) {
  static const KernelModel kModels[] = {
      {0.5, [](double x) { return std::abs(x) <= 0.5 ? 1.0 : 0.0; }},
      {2.0,
       [](double x) {
         const double d = std::abs(x);
         if (d >= 2) {
           return 0.0;
         }
         const double square = d * d;
         if (d < 1) {
           return (d * 1.1666666666666667 - 2.0) * square + 0.8888888888888888;
         }
         double value = d * -0.3888888888888889 + 2.0;
         value = value * d + -3.3333333333333335;
         return value * d + 1.7777777777777777;
       }},
      {1.0, [](double x) { return std::max(1.0 - std::abs(x), 0.0); }},
      {2.0,
       [](double x) {
         const double d = std::abs(x);
         if (d < 1) {
           const double square = d * d;
           return (square * (3 * d - 6) + 4) / 6;
         }
         const double beyond = 2 - d;
         return d < 2 ? beyond * beyond * beyond / 6 : 0.0;
       }},
      {2.0,
       [](double x) {
         const double square = x * x;
         if (x < -2 || x >= 2) {
           return 0.0;
         }
         if (x < -1) {
           return 0.5 * (4 + x * (8 + x * (5 + x)));
         }
         if (x < 0) {
           return 0.5 * (2 + square * (-5 - 3 * x));
         }
         if (x < 1) {
           return 0.5 * (2 + square * (3 * x - 5));
         }
         return 0.5 * (4 + x * (-8 + x * (5 - x)));
       }},
      {3.0,
       [](double x) {
         const auto sinc = [](double t) {
           const double angle = 3.141592653589793 * t;
           return t == 0 ? 1.0 : std::sin(angle) / angle;
         };
         return std::abs(x) < 3 ? sinc(x) * sinc(x / 3) : 0.0;
       }},
  };
  return kModels[filter];
}

struct WeightsModel {
  std::int64_t left = 0;
  std::int64_t right = 0;
  std::vector<double> weights;  // those of [left, right)
};

// The weights of destination pixel `u` of an axis of `length` source pixels under `scale`.
inline WeightsModel weightsModel(std::uint32_t filter, std::int64_t length, double scale, std::uint32_t u) {
  const KernelModel& kernel = kernelModel(filter);
  double reach = scale < 1 ? kernel.reach / scale : kernel.reach;
  const double stretch = scale < 1 ? scale : 1;
  std::int64_t most = 2 * static_cast<std::int64_t>(std::ceil(reach)) + 1;
  if (most > 100) {
    most = 100;
    reach = 49;
  }
  const double middle = u / scale + 0.5 / scale;
  WeightsModel model;
  model.left = std::clamp(static_cast<std::int64_t>(middle - reach + 0.5), std::int64_t{0}, length - 1);
  model.right = std::clamp(static_cast<std::int64_t>(middle + reach + 0.5), std::int64_t{0}, length);
  model.right = std::max(model.right, model.left + 1);
  model.right = std::min(model.right, model.left + most);
  double sum = 0;
  for (std::int64_t pixel = model.left; pixel < model.right; ++pixel) {
    const double distance = (static_cast<double>(pixel) + 0.5) - middle;
    model.weights.push_back(kernel.at(distance * stretch) * stretch);
    sum += model.weights.back();
  }
  constexpr double kTiny = 2.220446049250313e-16;
  if (sum > 0 && std::abs(sum - 1) >= kTiny) {
    for (double& weight : model.weights) {
      weight /= sum;
    }
  }
  // From the right end: each weight of next to nothing costs the last pixel, and the next weight is passed over.
  std::size_t place = model.weights.size();
  std::size_t kept = model.weights.size();
  while (place > 0) {
    --place;
    if (kept > 1 && std::abs(model.weights[place]) < kTiny) {
      --kept;
      place -= place > 0 ? 1 : 0;
    }
  }
  model.weights.resize(kept);
  model.right = model.left + static_cast<std::int64_t>(kept);
  return model;
}

// ---- Samples

// From 0.5 on the next whole number, those below 0 towards 0; cut to the type's range. Real numbers stay, but infinity.
template <typename Sample>
Sample sampleModel(double sum) {
  using Limits = std::numeric_limits<Sample>;
  if constexpr (std::is_floating_point_v<Sample>) {
    const double most = Limits::max();
    return static_cast<Sample>(sum > most ? most : sum < -most ? -most : sum);
  } else {
    // In more digits than any sample has, so that the ends of the range are themselves.
    const long double whole = std::trunc(static_cast<long double>(sum + 0.5));
    const auto least = static_cast<long double>(Limits::min());
    const auto most = static_cast<long double>(Limits::max());
    return whole <= least ? Limits::min() : whole >= most ? Limits::max() : static_cast<Sample>(whole);
  }
}

// An image of samples of one type.
template <typename Sample>
struct SamplesModel {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t channels = 1;
  std::vector<Sample> samples;

  Sample at(std::int64_t x, std::int64_t y, std::uint32_t channel) const {
    return samples[static_cast<std::size_t>((y * width + x) * channels + channel)];
  }
};

// Row `row` of the rectangle [x1, x2) x [y1, y2) of `image` under the scales, `width` pixels wide.
template <typename Sample>
std::vector<Sample> rescaledRowModel(const SamplesModel<Sample>& image, std::uint32_t x1, std::uint32_t y1,
                                     std::uint32_t x2, std::uint32_t y2, double scaleX, double scaleY,
                                     std::uint32_t width, std::uint32_t row, std::uint32_t filter) {
  const WeightsModel rows = weightsModel(filter, y2 - y1, scaleY, row);
  std::vector<Sample> result;
  for (std::uint32_t u = 0; u < width; ++u) {
    const WeightsModel columns = weightsModel(filter, x2 - x1, scaleX, u);
    for (std::uint32_t channel = 0; channel < image.channels; ++channel) {
      double sum = 0;
      for (std::int64_t y = rows.left; y < rows.right; ++y) {
        for (std::int64_t x = columns.left; x < columns.right; ++x) {
          const double value = static_cast<double>(image.at(x1 + x, y1 + y, channel));
          const double inRow = value * rows.weights[static_cast<std::size_t>(y - rows.left)];
          const double term = inRow * columns.weights[static_cast<std::size_t>(x - columns.left)];
          sum = term + sum;
        }
      }
      result.push_back(sampleModel<Sample>(sum));
    }
  }
  return result;
}

}  // namespace support
