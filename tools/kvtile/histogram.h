// How often each tone occurs in a picture.
#ifndef KVTILE_HISTOGRAM_H
#define KVTILE_HISTOGRAM_H

#include <cstdint>
#include <vector>

#include "image.h"
#include "picture.h"
#include "progress.h"
#include "tone.h"

namespace kvtile {

// What a channel shows to the eye.
enum class Light { Grey, Red, Green, Blue, Other };

struct ChannelHistogram {
  Light light = Light::Other;
  std::uint32_t channel = 0;          // the sample's number in its pixel
  std::vector<std::uint64_t> counts;  // of each tone, black first
};

// In figures: tones, and parts of all samples from 0 to 1.
struct ToneSummary {
  std::uint32_t lowest = 0;
  std::uint32_t median = 0;  // the lowest tone that at least half of the samples do not exceed
  std::uint32_t highest = 0;
  double partAtZero = 0;
  double partAtHighest = 0;
};
ToneSummary summarize(const ChannelHistogram& histogram);

struct Histogram {
  std::uint32_t bits = 8;                  // 8 or 16, of a tone
  std::vector<ChannelHistogram> channels;  // in the order of their numbers

  // What it becomes when all of its channels go through `curve`, which is for as many bits.
  Histogram through(const ToneCurve& curve) const;
};

// Counts the tones of `channels`, as they are seen: grey that counts down from white the other way round, and palettes
// by their colours, in 8 bits. `held` describes the image and is one for which requireTones() holds.
Histogram countTones(Image& image, const Picture& held, const std::vector<std::uint32_t>& channels, Progress& progress);

}  // namespace kvtile

#endif
