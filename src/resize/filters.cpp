#include "resize/filters.h"

#include <cmath>
#include <numbers>

#include "kvtileimage/KvTileImage.h"

namespace resize {
namespace {

double sinc(double t) {
  if (t == 0.0) {
    return 1.0;
  }
  const double angle = std::numbers::pi * t;
  return std::sin(angle) / angle;
}

}  // namespace

double CBoxFilter::Filter(double x) { return std::fabs(x) <= width() ? 1.0 : 0.0; }

double CBicubicFilter::Filter(double x) {
  // (6 - 2B) / 6 and so on, for each power of the distance in the inner and in the outer half.
  constexpr double p0 = 0.8888888888888888;
  constexpr double p2 = -2.0;
  constexpr double p3 = 1.1666666666666667;
  constexpr double q0 = 1.7777777777777777;
  constexpr double q1 = -3.3333333333333335;
  constexpr double q2 = 2.0;
  constexpr double q3 = -0.3888888888888889;
  const double a = std::fabs(x);
  if (a < 1.0) {
    return (a * p3 + p2) * (a * a) + p0;
  }
  return a < 2.0 ? ((a * q3 + q2) * a + q1) * a + q0 : 0.0;
}

double CBilinearFilter::Filter(double x) {
  const double a = std::fabs(x);
  return a < width() ? width() - a : 0.0;
}

double CBSplineFilter::Filter(double x) {
  const double a = std::fabs(x);
  if (a < 1.0) {
    return ((a * a) * (3.0 * a - 6.0) + 4.0) / 6.0;
  }
  const double rest = 2.0 - a;
  return a < 2.0 ? rest * rest * rest / 6.0 : 0.0;
}

double CCatmullRomFilter::Filter(double x) {
  if (x < -2.0) {
    return 0.0;
  }
  if (x < -1.0) {
    return (((x + 5.0) * x + 8.0) * x + 4.0) * 0.5;
  }
  if (x < 0.0) {
    return ((-5.0 - 3.0 * x) * (x * x) + 2.0) * 0.5;
  }
  if (x < 1.0) {
    return ((x * x) * (3.0 * x - 5.0) + 2.0) * 0.5;
  }
  return x < 2.0 ? (((5.0 - x) * x - 8.0) * x + 4.0) * 0.5 : 0.0;
}

double CLanczos3Filter::Filter(double x) { return std::fabs(x) >= width() ? 0.0 : sinc(x) * sinc(x / width()); }

std::unique_ptr<CGenericFilter> makeFilter(std::uint32_t code) {
  switch (code) {
    case KVTI_FILTER_BOX:
      return std::make_unique<CBoxFilter>();
    case KVTI_FILTER_BICUBIC:
      return std::make_unique<CBicubicFilter>();
    case KVTI_FILTER_BILINEAR:
      return std::make_unique<CBilinearFilter>();
    case KVTI_FILTER_BSPLINE:
      return std::make_unique<CBSplineFilter>();
    case KVTI_FILTER_CATMULLROM:
      return std::make_unique<CCatmullRomFilter>();
    case KVTI_FILTER_LANCZOS3:
      return std::make_unique<CLanczos3Filter>();
    default:
      return nullptr;
  }
}

}  // namespace resize
