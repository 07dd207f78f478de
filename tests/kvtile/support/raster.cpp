#include "raster.h"

#include <cstring>
#include <sstream>

namespace support {

Raster::Raster(std::uint32_t w, std::uint32_t h, std::uint32_t s, std::uint32_t b)
    : width(w), height(h), samples(s), bits(b), values(std::size_t{w} * h * s) {}

std::string difference(const Raster& expected, const Raster& actual) {
  std::ostringstream text;
  if (expected.width != actual.width || expected.height != actual.height || expected.samples != actual.samples ||
      expected.bits != actual.bits) {
    text << "expected " << expected.width << "x" << expected.height << " with " << expected.samples << " x "
         << expected.bits << " bits, got " << actual.width << "x" << actual.height << " with " << actual.samples
         << " x " << actual.bits << " bits";
    return text.str();
  }
  std::size_t count = 0;
  for (std::size_t i = 0; i < expected.values.size(); ++i) {
    if (expected.values[i] != actual.values[i]) {
      if (count == 0) {
        const std::size_t pixel = i / expected.samples;
        text << "sample " << i % expected.samples << " of (" << pixel % expected.width << ", " << pixel / expected.width
             << "): expected " << expected.values[i] << ", got " << actual.values[i];
      }
      ++count;
    }
  }
  if (count > 0) {
    text << "; " << count << " samples differ";
  }
  return text.str();
}

Raster pattern(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits,
               std::uint32_t seed) {
  Raster raster(width, height, samples, bits);
  std::uint64_t state = seed * 0x9E3779B97F4A7C15ULL;
  for (std::uint64_t& value : raster.values) {
    // An ordinary mixing of a counter: no row, column or sample repeats another.
    state += 0x9E3779B97F4A7C15ULL;
    std::uint64_t mixed = state;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9ULL;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EBULL;
    value = (mixed ^ (mixed >> 31)) & raster.highest();
  }
  return raster;
}

Raster floatPattern(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits) {
  Raster raster(width, height, samples, bits);
  for (std::size_t i = 0; i < raster.values.size(); ++i) {
    const double number = static_cast<double>(i) * 1.375 - 1000.0 / (1.0 + static_cast<double>(i));
    if (bits == 32) {
      const auto narrow = static_cast<float>(number);
      std::uint32_t pattern = 0;
      std::memcpy(&pattern, &narrow, sizeof pattern);
      raster.values[i] = pattern;
    } else {
      std::memcpy(&raster.values[i], &number, sizeof number);
    }
  }
  return raster;
}

namespace {

// The raster whose pixel (x, y) is `source`'s pixel at place(x, y).
template <typename Place>
Raster rearranged(const Raster& source, std::uint32_t width, std::uint32_t height, const Place& place) {
  Raster result(width, height, source.samples, source.bits);
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      const auto [fromX, fromY] = place(x, y);
      for (std::uint32_t sample = 0; sample < source.samples; ++sample) {
        result.at(x, y, sample) = source.at(fromX, fromY, sample);
      }
    }
  }
  return result;
}

struct Point {
  std::uint32_t x;
  std::uint32_t y;
};

}  // namespace

Raster rotated90(const Raster& r) {
  return rearranged(r, r.height, r.width, [&](auto x, auto y) { return Point{y, r.height - 1 - x}; });
}

Raster rotated180(const Raster& r) {
  return rearranged(r, r.width, r.height, [&](auto x, auto y) { return Point{r.width - 1 - x, r.height - 1 - y}; });
}

Raster rotated270(const Raster& r) {
  return rearranged(r, r.height, r.width, [&](auto x, auto y) { return Point{r.width - 1 - y, x}; });
}

Raster mirroredLeftRight(const Raster& r) {
  return rearranged(r, r.width, r.height, [&](auto x, auto y) { return Point{r.width - 1 - x, y}; });
}

Raster mirroredTopBottom(const Raster& r) {
  return rearranged(r, r.width, r.height, [&](auto x, auto y) { return Point{x, r.height - 1 - y}; });
}

Raster storedAs(const Raster& u, unsigned orientation) {
  // By the definition of the tag: what the stored first row and first column are in the picture.
  const std::uint32_t right = u.width - 1;
  const std::uint32_t bottom = u.height - 1;
  switch (orientation) {
    case 2:  // row 0 top, column 0 right
      return rearranged(u, u.width, u.height, [&](auto c, auto r) { return Point{right - c, r}; });
    case 3:  // row 0 bottom, column 0 right
      return rearranged(u, u.width, u.height, [&](auto c, auto r) { return Point{right - c, bottom - r}; });
    case 4:  // row 0 bottom, column 0 left
      return rearranged(u, u.width, u.height, [&](auto c, auto r) { return Point{c, bottom - r}; });
    case 5:  // row 0 left, column 0 top
      return rearranged(u, u.height, u.width, [&](auto c, auto r) { return Point{r, c}; });
    case 6:  // row 0 right, column 0 top
      return rearranged(u, u.height, u.width, [&](auto c, auto r) { return Point{right - r, c}; });
    case 7:  // row 0 right, column 0 bottom
      return rearranged(u, u.height, u.width, [&](auto c, auto r) { return Point{right - r, bottom - c}; });
    case 8:  // row 0 left, column 0 bottom
      return rearranged(u, u.height, u.width, [&](auto c, auto r) { return Point{r, bottom - c}; });
    default:
      return u;
  }
}

Raster widened(const Raster& raster, std::uint64_t scale) {
  Raster result = raster;
  result.bits = 8;
  for (std::uint64_t& value : result.values) {
    value *= scale;
  }
  return result;
}

std::vector<std::uint8_t> packRow(const Raster& raster, std::uint32_t y, std::uint32_t x1, std::uint32_t x2,
                                  int sample) {
  const std::uint32_t first = sample < 0 ? 0 : static_cast<std::uint32_t>(sample);
  const std::uint32_t end = sample < 0 ? raster.samples : first + 1;
  std::vector<std::uint8_t> row((std::size_t{x2 - x1} * (end - first) * raster.bits + 7) / 8);
  std::size_t bit = 0;
  for (std::uint32_t x = x1; x < x2; ++x) {
    for (std::uint32_t s = first; s < end; ++s) {
      const std::uint64_t value = raster.at(x, y, s);
      if (raster.bits >= 8) {
        std::memcpy(&row[bit / 8], &value, raster.bits / 8);
      } else {
        row[bit / 8] = static_cast<std::uint8_t>(row[bit / 8] | value << (8 - raster.bits - bit % 8));
      }
      bit += raster.bits;
    }
  }
  return row;
}

void unpackRow(const std::vector<std::uint8_t>& row, std::uint32_t y, Raster& raster) {
  std::size_t bit = 0;
  for (std::uint32_t x = 0; x < raster.width; ++x) {
    for (std::uint32_t s = 0; s < raster.samples; ++s) {
      std::uint64_t value = 0;
      if (raster.bits >= 8) {
        std::memcpy(&value, &row[bit / 8], raster.bits / 8);
      } else {
        value = (row[bit / 8] >> (8 - raster.bits - bit % 8)) & raster.highest();
      }
      raster.at(x, y, s) = value;
      bit += raster.bits;
    }
  }
}

}  // namespace support
