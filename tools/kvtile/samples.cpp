#include "samples.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace kvtile {
namespace {

void insertPackedPlane(std::span<const std::uint8_t> plane, const PixelFormat& format, std::uint32_t index,
                       std::size_t count, std::span<std::uint8_t> row) {
  const std::uint32_t bits = format.bits;
  for (std::size_t pixel = 0; pixel < count; ++pixel) {
    const std::size_t position = (pixel * format.samples + index) * bits;
    const std::size_t shift = 8 - bits - position % 8;
    const std::uint32_t mask = ((1U << bits) - 1) << shift;
    const std::uint32_t kept = row[position / 8] & ~mask;
    row[position / 8] = static_cast<std::uint8_t>(kept | packedSample(plane, pixel, bits) << shift);
  }
}

template <typename Sample>
Sample load(const std::uint8_t* from) {
  Sample value;
  std::memcpy(&value, from, sizeof value);
  return value;
}

template <typename Sample>
void store(std::uint8_t* to, Sample value) {
  std::memcpy(to, &value, sizeof value);
}

template <typename Sample>
void unpremultiplyAs(std::span<std::uint8_t> row, std::uint32_t samples, std::size_t pixels) {
  constexpr std::uint64_t kOpaque = static_cast<Sample>(~Sample{0});
  for (std::size_t pixel = 0; pixel < pixels; ++pixel) {
    std::uint8_t* first = &row[pixel * samples * sizeof(Sample)];
    const std::uint64_t alpha = load<Sample>(first + (samples - 1) * sizeof(Sample));
    for (std::uint32_t sample = 0; sample + 1 < samples; ++sample) {
      std::uint8_t* place = first + sample * sizeof(Sample);
      const std::uint64_t value = load<Sample>(place);
      const std::uint64_t straight = alpha == 0 ? 0 : std::min(kOpaque, (value * kOpaque + alpha / 2) / alpha);
      store(place, static_cast<Sample>(straight));
    }
  }
}

}  // namespace

void widen(std::span<const std::uint8_t> packed, std::uint32_t bits, std::uint32_t scale, std::size_t count,
           std::span<std::uint8_t> bytes) {
  for (std::size_t i = 0; i < count; ++i) {
    bytes[i] = static_cast<std::uint8_t>(packedSample(packed, i, bits) * scale);
  }
}

void insertPlane(std::span<const std::uint8_t> plane, const PixelFormat& format, std::uint32_t index, std::size_t count,
                 std::span<std::uint8_t> row) {
  if (format.packed()) {
    insertPackedPlane(plane, format, index, count, row);
    return;
  }
  const std::size_t bytes = format.bits / 8;
  std::uint8_t* to = row.data() + index * bytes;
  for (std::size_t pixel = 0; pixel < count; ++pixel) {
    std::memcpy(to + pixel * format.samples * bytes, plane.data() + pixel * bytes, bytes);
  }
}

void invertGrey(std::span<std::uint8_t> row, const PixelFormat& format, std::size_t pixels) {
  if (format.samples == 1) {
    for (std::uint8_t& byte : row) {
      byte = static_cast<std::uint8_t>(~byte);
    }
    return;
  }
  const std::size_t sampleBytes = format.bits / 8;
  for (std::size_t pixel = 0; pixel < pixels; ++pixel) {
    for (std::size_t byte = 0; byte < sampleBytes; ++byte) {
      std::uint8_t& value = row[pixel * format.samples * sampleBytes + byte];
      value = static_cast<std::uint8_t>(~value);
    }
  }
}

void unpremultiply(std::span<std::uint8_t> row, const PixelFormat& format, std::size_t pixels) {
  if (format.bits == 8) {
    unpremultiplyAs<std::uint8_t>(row, format.samples, pixels);
  } else {
    unpremultiplyAs<std::uint16_t>(row, format.samples, pixels);
  }
}

void expandPalette(std::span<const std::uint8_t> indices, std::uint32_t bits, const Palette& palette,
                   std::size_t pixels, std::uint32_t samples, std::span<std::uint8_t> colours) {
  std::array<std::array<std::uint8_t, 4>, 256> table;
  table.fill({0, 0, 0, 255});
  for (std::size_t i = 0; i < std::min(palette.entries.size(), table.size()); ++i) {
    const PaletteEntry& entry = palette.entries[i];
    const std::uint8_t alpha = i < palette.alpha.size() ? palette.alpha[i] : std::uint8_t{255};
    table[i] = {narrowComponent(entry.red), narrowComponent(entry.green), narrowComponent(entry.blue), alpha};
  }
  for (std::size_t pixel = 0; pixel < pixels; ++pixel) {
    const std::uint32_t index = bits == 8 ? indices[pixel] : packedSample(indices, pixel, bits);
    std::memcpy(&colours[pixel * samples], table[index].data(), samples);
  }
}

}  // namespace kvtile
