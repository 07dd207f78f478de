#include "histogram.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <numeric>

#include "samples.h"
#include "toning.h"

namespace kvtile {
namespace {

Light lightOf(const Picture& picture, std::uint32_t channel) {
  constexpr std::array<Light, 3> kColours = {Light::Red, Light::Green, Light::Blue};
  switch (picture.photometric) {
    case Photometric::WhiteIsZero:
    case Photometric::BlackIsZero:
      return channel == 0 ? Light::Grey : Light::Other;
    case Photometric::Rgb:
    case Photometric::Palette:
      return channel < kColours.size() ? kColours[channel] : Light::Other;
    default:
      return Light::Other;
  }
}

// Sample `channel` of each of the row's pixels.
void countSamples(std::span<const std::uint8_t> row, std::size_t pixels, const PixelFormat& format,
                  std::uint32_t channel, std::vector<std::uint64_t>& counts) {
  const std::size_t samples = pixels * format.samples;
  for (std::size_t i = channel; i < samples; i += format.samples) {
    std::uint16_t value = 0;
    if (format.bits == 8) {
      value = row[i];
    } else if (format.bits == 16) {
      std::memcpy(&value, &row[i * sizeof value], sizeof value);
    } else {
      value = static_cast<std::uint16_t>(packedSample(row, i, format.bits));
    }
    ++counts[value];
  }
}

// Of each of these samples, and each value that it can have.
std::vector<std::vector<std::uint64_t>> countRows(Image& image, const Picture& held,
                                                  const std::vector<std::uint32_t>& channels, Progress& progress) {
  std::vector<std::vector<std::uint64_t>> counts(channels.size(),
                                                 std::vector<std::uint64_t>(std::size_t{1} << held.pixels.bits));
  std::vector<std::uint8_t> row(image.rowBytes());
  progress.begin("counting", held.height);
  for (std::uint32_t y = 0; y < held.height; ++y) {
    image.getRow(y, 0, held.width, row);
    for (std::size_t i = 0; i < channels.size(); ++i) {
      countSamples(row, held.width, held.pixels, channels[i], counts[i]);
    }
    progress.advance();
  }
  return counts;
}

// From the counts of a palette's numbers to those of one component of its colours. Numbers behind its end are black.
std::vector<std::uint64_t> countComponent(const std::vector<std::uint64_t>& numbers, const Palette& palette,
                                          std::uint32_t channel) {
  std::vector<std::uint64_t> counts(256);
  for (std::size_t i = 0; i < numbers.size(); ++i) {
    const PaletteEntry entry = i < palette.entries.size() ? palette.entries[i] : PaletteEntry{};
    const std::array<std::uint16_t, 3> components = {entry.red, entry.green, entry.blue};
    counts[narrowComponent(components[channel])] += numbers[i];
  }
  return counts;
}

}  // namespace

ToneSummary summarize(const ChannelHistogram& histogram) {
  const std::vector<std::uint64_t>& counts = histogram.counts;
  const auto total = std::accumulate(counts.begin(), counts.end(), std::uint64_t{0});
  const auto occurs = [](std::uint64_t count) { return count != 0; };
  ToneSummary summary;
  summary.lowest = static_cast<std::uint32_t>(std::find_if(counts.begin(), counts.end(), occurs) - counts.begin());
  summary.highest =
      static_cast<std::uint32_t>(counts.rend() - std::find_if(counts.rbegin(), counts.rend(), occurs) - 1);
  for (std::uint64_t sum = counts[0]; sum < total - total / 2;) {
    sum += counts[++summary.median];
  }
  summary.partAtZero = static_cast<double>(counts.front()) / static_cast<double>(total);
  summary.partAtHighest = static_cast<double>(counts.back()) / static_cast<double>(total);
  return summary;
}

Histogram Histogram::through(const ToneCurve& curve) const {
  Histogram result = *this;
  for (std::size_t i = 0; i < channels.size(); ++i) {
    std::vector<std::uint64_t>& counts = result.channels[i].counts;
    std::fill(counts.begin(), counts.end(), std::uint64_t{0});
    for (std::uint32_t tone = 0; tone <= curve.highest(); ++tone) {
      counts[curve.at(tone)] += channels[i].counts[tone];
    }
  }
  return result;
}

Histogram countTones(Image& image, const Picture& held, const std::vector<std::uint32_t>& channels,
                     Progress& progress) {
  const bool palette = held.photometric == Photometric::Palette;
  auto counts = countRows(image, held, palette ? std::vector<std::uint32_t>{0} : channels, progress);
  Histogram histogram;
  histogram.bits = toneBits(held);
  for (std::size_t i = 0; i < channels.size(); ++i) {
    ChannelHistogram channel;
    channel.channel = channels[i];
    channel.light = lightOf(held, channels[i]);
    channel.counts = palette ? countComponent(counts[0], held.palette.spread(), channels[i]) : std::move(counts[i]);
    if (countsFromWhite(held, channels[i])) {
      std::reverse(channel.counts.begin(), channel.counts.end());
    }
    histogram.channels.push_back(std::move(channel));
  }
  return histogram;
}

}  // namespace kvtile
