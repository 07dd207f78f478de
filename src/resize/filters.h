// The kernels that source pixels are weighted with, by their distance from the middle of a destination pixel.
#pragma once

#include <cstdint>
#include <memory>

namespace resize {

class CGenericFilter {
 public:
  virtual ~CGenericFilter() = default;

  // The weight at distance `x`, in source pixels when enlarging and destination pixels when shrinking.
  virtual double Filter(double x) = 0;

  // The weight is 0 at this distance and beyond it, the box aside, which includes it.
  double width() const { return width_; }

 protected:
  explicit CGenericFilter(double width) : width_(width) {}

 private:
  double width_;
};

// The mean of the pixels.
class CBoxFilter : public CGenericFilter {
 public:
  CBoxFilter() : CGenericFilter(0.5) {}
  double Filter(double x) override;
};

// The cubic of Mitchell and Netravali (Reconstruction Filters in Computer Graphics, 1988) with B = C = 1/3.
class CBicubicFilter : public CGenericFilter {
 public:
  CBicubicFilter() : CGenericFilter(2.0) {}
  double Filter(double x) override;
};

// A straight line from the middle to either side.
class CBilinearFilter : public CGenericFilter {
 public:
  CBilinearFilter() : CGenericFilter(1.0) {}
  double Filter(double x) override;
};

// The cubic B-spline: the same family with B = 1 and C = 0.
class CBSplineFilter : public CGenericFilter {
 public:
  CBSplineFilter() : CGenericFilter(2.0) {}
  double Filter(double x) override;
};

// The cubic that goes through the pixels: B = 0 and C = 1/2.
class CCatmullRomFilter : public CGenericFilter {
 public:
  CCatmullRomFilter() : CGenericFilter(2.0) {}
  double Filter(double x) override;
};

// sinc(x) * sinc(x / 3), with sinc(t) = sin(pi * t) / (pi * t).
class CLanczos3Filter : public CGenericFilter {
 public:
  CLanczos3Filter() : CGenericFilter(3.0) {}
  double Filter(double x) override;
};

// The kernel with the code KVTI_FILTER_...; null for other codes. Throws std::bad_alloc.
std::unique_ptr<CGenericFilter> makeFilter(std::uint32_t code);

}  // namespace resize
