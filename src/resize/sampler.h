// Which source pixels each destination pixel of one axis is made of, and with which weights.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "resize/filters.h"

namespace resize {

// The source pixels [left, right) and their weights, one each; never empty.
struct Contribution {
  std::uint32_t left = 0;
  std::uint32_t right = 0;
  std::span<const double> weights;

  std::uint32_t count() const { return right - left; }
};

class Sampler {
 public:
  // The table for an axis of `sourceLength` pixels, 1 or more, that becomes trunc(sourceLength * dScale + 0.5) pixels.
  // `dScale` is finite and above 0. Null, with a logged reason, if that is no pixel or there is no memory.
  static std::shared_ptr<const Sampler> create(CGenericFilter& filter, std::uint32_t sourceLength, double dScale);

  std::uint32_t destinationLength() const { return destinationLength_; }

  // The most source pixels that a destination pixel is made of; never more than 100.
  std::uint32_t windowSize() const { return windowSize_; }

  // For destination pixel `index`, below destinationLength().
  Contribution contribution(std::uint64_t index) const {
    const Record& record = weightTable_[index];
    return {record.left, record.right, {weights_.data() + record.firstWeight, record.right - record.left}};
  }

 private:
  struct Record {
    std::uint32_t left = 0;
    std::uint32_t right = 0;
    std::uint64_t firstWeight = 0;  // its place in weights_
  };

  bool postInitialize(CGenericFilter& filter);
  bool allocate();
  Record weigh(CGenericFilter& filter, double center);

  std::uint32_t sourceLength_ = 0;
  std::uint32_t destinationLength_ = 0;
  double dScale_ = 1.0;
  std::uint32_t windowSize_ = 0;
  double reach_ = 0.0;        // of the filter to either side, in source pixels
  double filterScale_ = 1.0;  // of source pixels to what the filter counts in
  std::vector<Record> weightTable_;
  std::vector<double> weights_;  // of all records
};

}  // namespace resize
