#include "toning.h"

#include <algorithm>
#include <array>

#include "description.h"
#include "errors.h"

namespace kvtile {
namespace {

constexpr std::uint32_t kPaletteChannels = 3;

bool hasPalette(const Picture& picture) { return picture.photometric == Photometric::Palette; }

std::string describeChannels(std::uint32_t count) {
  return count == 1 ? "only channel 0" : "channels 0 to " + std::to_string(count - 1);
}

// The part of a colour key's entry that counts: programs may leave bits beyond the depth in it.
std::uint32_t keyValue(const Picture& picture, std::uint32_t channel) {
  return (*picture.colourKey)[channel] & ((1U << picture.pixels.bits) - 1);
}

// The channels that a colour key has values for; grey pictures hold the same value three times.
std::uint32_t keyChannels(const Picture& picture) { return picture.colourSamples(); }

void toneColourKey(Toning& toning, const Picture& before) {
  for (std::uint32_t channel = 0; channel < keyChannels(before); ++channel) {
    const auto curve = toning.curves.find(channel);
    if (curve != toning.curves.end()) {
      (*toning.picture.colourKey)[channel] = curve->second->at(keyValue(before, channel));
    }
  }
  if (keyChannels(before) == 1) {
    toning.picture.colourKey->fill(toning.picture.colourKey->front());
  }
}

// The components are spread to 16 bits whether they are changed or not: a palette has to be of one kind.
Palette tonedPalette(const Palette& before, const ToneCurve& curve, const std::vector<std::uint32_t>& channels) {
  constexpr std::array<std::uint16_t PaletteEntry::*, kPaletteChannels> kComponents = {
      &PaletteEntry::red, &PaletteEntry::green, &PaletteEntry::blue};
  Palette result = before.spread();
  for (PaletteEntry& entry : result.entries) {
    for (const std::uint32_t channel : channels) {
      std::uint16_t& component = entry.*kComponents[channel];
      component = wideComponent(curve.at(narrowComponent(component)));
    }
  }
  return result;
}

ChannelCurves curvesFor(const Picture& picture, const ToneCurve& curve, const std::vector<std::uint32_t>& channels) {
  const auto asSeen = std::make_shared<const ToneCurve>(curve);
  const auto fromWhite = std::make_shared<const ToneCurve>(curve.forWhiteIsZero());
  ChannelCurves curves;
  for (const std::uint32_t channel : channels) {
    curves[channel] = countsFromWhite(picture, channel) ? fromWhite : asSeen;
  }
  return curves;
}

bool worksOnProducts(const Picture& picture, const ChannelCurves& curves) {
  const bool premultiplied =
      std::find(picture.extras.begin(), picture.extras.end(), Extra::AssociatedAlpha) != picture.extras.end();
  return premultiplied && !curves.empty() && curves.begin()->first < picture.colourSamples();
}

}  // namespace

void requireTones(const std::string& input, const Picture& picture) {
  if (hasPalette(picture)) {
    return;
  }
  const std::string what = "its samples (" + describeSamples(picture.pixels) + ") are not of 8 or 16 bits";
  if (picture.pixels.sampleFormat != SampleFormat::Unsigned) {
    throw Failure(input, "its samples (" + describeSamples(picture.pixels) + ") are no whole numbers from zero",
                  "convert it to unsigned samples of 8 or 16 bits first");
  }
  if (picture.pixels.packed()) {
    throw Failure(input, what, "run again with --to-8bit to widen them");
  }
  if (picture.pixels.bits != 8 && picture.pixels.bits != 16) {
    throw Failure(input, what, "convert it to 8 or 16 bits first");
  }
}

std::uint32_t toneBits(const Picture& picture) { return hasPalette(picture) ? 8 : picture.pixels.bits; }

bool countsFromWhite(const Picture& picture, std::uint32_t channel) {
  return picture.photometric == Photometric::WhiteIsZero && channel < picture.colourSamples();
}

std::vector<std::uint32_t> chosenChannels(const std::string& input, const Picture& picture,
                                          const ToneRequest& request) {
  const std::uint32_t count = hasPalette(picture) ? kPaletteChannels : picture.pixels.samples;
  std::vector<std::uint32_t> channels = request.channels;
  if (channels.empty()) {
    const std::uint32_t colours = hasPalette(picture) ? kPaletteChannels : picture.colourSamples();
    for (std::uint32_t channel = 0; channel < colours; ++channel) {
      channels.push_back(channel);
    }
  }
  std::sort(channels.begin(), channels.end());
  channels.erase(std::unique(channels.begin(), channels.end()), channels.end());
  if (channels.back() >= count) {
    throw Failure(input,
                  "it has no channel " + std::to_string(channels.back()) + ": there " + (count == 1 ? "is " : "are ") +
                      describeChannels(count),
                  "give another --channel");
  }
  return channels;
}

void requireMeaning(const std::string& input, const Picture& picture, const ToneRequest& request) {
  constexpr std::array<Photometric, 5> kTones = {Photometric::WhiteIsZero, Photometric::BlackIsZero, Photometric::Rgb,
                                                 Photometric::Palette, Photometric::Separated};
  const bool meant = std::find(kTones.begin(), kTones.end(), picture.photometric) != kTones.end();
  if (request.changes() && request.channels.empty() && !meant) {
    throw Failure(input, "not all of its samples (" + describePhotometric(picture.photometric) + ") are tones",
                  "say with --channel which of them to change");
  }
}

Toning planToning(const std::string& input, const Picture& picture, const ToneRequest& request,
                  LibraryMessages& messages) {
  requireTones(input, picture);
  requireMeaning(input, picture, request);
  const std::vector<std::uint32_t> channels = chosenChannels(input, picture, request);
  const ToneCurve curve = ToneCurve::fromSteps(request.steps, toneBits(picture), input, messages);
  Toning toning;
  toning.picture = picture;
  if (hasPalette(picture)) {
    toning.picture.palette = tonedPalette(picture.palette, curve, channels);
    return toning;
  }
  toning.curves = curvesFor(picture, curve, channels);
  if (picture.colourKey) {
    toneColourKey(toning, picture);
  }
  if (worksOnProducts(picture, toning.curves)) {
    toning.notes.push_back("its colours are multiplied by their alpha, and the curve works on the products");
  }
  return toning;
}

bool widensColourKey(const Picture& before, const Toning& toning) {
  if (!before.colourKey) {
    return false;
  }
  for (const auto& [channel, curve] : toning.curves) {
    if (channel >= keyChannels(before)) {
      continue;
    }
    const std::uint32_t key = keyValue(before, channel);
    for (std::uint32_t value = 0; value <= curve->highest(); ++value) {
      if (value != key && curve->at(value) == curve->at(key)) {
        return true;
      }
    }
  }
  return false;
}

}  // namespace kvtile
