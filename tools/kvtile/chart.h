// The picture that shows a histogram.
#ifndef KVTILE_CHART_H
#define KVTILE_CHART_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "histogram.h"
#include "picture.h"
#include "tone.h"

namespace kvtile {

// More channels cannot be told apart.
constexpr std::size_t kMostCharted = 8;

struct ChartSubject {
  std::string title;               // whose histogram it is
  std::string details;             // one line more
  Histogram histogram;             // of 1 to kMostCharted channels
  std::optional<ToneCurve> curve;  // shown with what it makes of the histogram
  std::string curveText;           // the same in words
};

// Dark on light, about 1000 pixels wide: for each histogram the number of samples of each tone, or of 256 groups of
// tones, with the colours of light added up where they overlap, and its figures. Bars that stand out alone are cut off,
// which is shown, so that the others can be seen. The same subject always gives the same pixels.
class Chart {
 public:
  // Throws std::bad_alloc if there is no memory.
  explicit Chart(const ChartSubject& subject);

  // RGB in 8 bits.
  const Picture& picture() const { return picture_; }
  std::vector<std::uint8_t> row(std::uint32_t y) const;

 private:
  Picture picture_;
  std::vector<std::uint32_t> pixels_;  // red, green and blue, each in 8 bits, the highest of 32 unused
};

// Bar heights of a chart for the counts of one channel: 256, each a part of all samples.
std::vector<double> barHeights(const ChannelHistogram& channel);

// The height that the bars of all channels are drawn up to: that of the highest one that does not stand out alone, if
// some are at least twice as high, else that of the highest one.
double heightLimit(const std::vector<std::vector<double>>& channels);

}  // namespace kvtile

#endif
