// The model that images are compared with: one number per sample, nothing packed, nothing tiled.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

namespace support {

struct Format {
  std::uint32_t samples = 1;
  std::uint32_t bits = 8;

  std::uint32_t bitsPerPixel() const { return samples * bits; }
};

// A run of pixels, sample by sample.
using Samples = std::vector<std::uint64_t>;

inline bool isPacked(std::uint32_t bits) { return bits == 1 || bits == 2 || bits == 4; }

inline std::uint64_t runBytes(const Format& format, std::uint64_t pixels) {
  const std::uint64_t bits = pixels * format.bitsPerPixel();
  return bits / 8 + (bits % 8 == 0 ? 0 : 1);
}

// Puts a run into `buffer` as callers lay it out, one bit (packed) or one byte (whole bytes, lowest first) at a time.
// Bits behind the run keep their values.
inline void pack(const Format& format, const Samples& run, std::vector<std::uint8_t>& buffer) {
  std::uint64_t place = 0;  // bits for packed formats, bytes for the others
  for (const std::uint64_t sample : run) {
    if (isPacked(format.bits)) {
      for (std::uint32_t bit = format.bits; bit-- > 0; ++place) {
        const auto mask = static_cast<std::uint8_t>(0x80U >> place % 8);
        const bool set = (sample >> bit & 1) != 0;
        buffer[place / 8] = static_cast<std::uint8_t>(set ? buffer[place / 8] | mask : buffer[place / 8] & ~mask);
      }
    } else {
      for (std::uint32_t byte = 0; byte < format.bits / 8; ++byte, ++place) {
        buffer[place] = static_cast<std::uint8_t>(sample >> 8 * byte);
      }
    }
  }
}

inline std::vector<std::uint8_t> packed(const Format& format, const Samples& run) {
  std::vector<std::uint8_t> buffer(runBytes(format, run.size() / format.samples));
  pack(format, run, buffer);
  return buffer;
}

inline Samples randomRun(const Format& format, std::uint64_t pixels, std::mt19937_64& random) {
  const std::uint64_t mask = format.bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << format.bits) - 1;
  Samples run(pixels * format.samples);
  for (std::uint64_t& sample : run) {
    sample = random() & mask;
  }
  return run;
}

class PlainImage {
 public:
  PlainImage(std::uint32_t width, std::uint32_t height, Format format)
      : width_(width), height_(height), format_(format), values_(std::size_t{width} * height * format.samples) {}

  std::uint32_t width() const { return width_; }
  std::uint32_t height() const { return height_; }
  const Format& format() const { return format_; }

  std::uint64_t& at(std::uint32_t x, std::uint32_t y, std::uint32_t sample) {
    return values_[(std::size_t{y} * width_ + x) * format_.samples + sample];
  }
  std::uint64_t at(std::uint32_t x, std::uint32_t y, std::uint32_t sample) const {
    return const_cast<PlainImage&>(*this).at(x, y, sample);
  }

  Samples row(std::uint32_t y, std::uint32_t x1, std::uint32_t x2) const {
    Samples run;
    for (std::uint32_t x = x1; x < x2; ++x) {
      appendPixel(x, y, run);
    }
    return run;
  }

  Samples column(std::uint32_t x, std::uint32_t y1, std::uint32_t y2) const {
    Samples run;
    for (std::uint32_t y = y1; y < y2; ++y) {
      appendPixel(x, y, run);
    }
    return run;
  }

  // Writes the first `pixels` pixels of `run` into row y from x1 on, or into column x from y1 on.
  void setRow(std::uint32_t y, std::uint32_t x1, const Samples& run, std::uint32_t pixels) {
    for (std::uint32_t i = 0; i < pixels; ++i) {
      setPixel(x1 + i, y, run, i);
    }
  }
  void setColumn(std::uint32_t x, std::uint32_t y1, const Samples& run, std::uint32_t pixels) {
    for (std::uint32_t i = 0; i < pixels; ++i) {
      setPixel(x, y1 + i, run, i);
    }
  }

 private:
  void appendPixel(std::uint32_t x, std::uint32_t y, Samples& run) const {
    for (std::uint32_t sample = 0; sample < format_.samples; ++sample) {
      run.push_back(at(x, y, sample));
    }
  }
  void setPixel(std::uint32_t x, std::uint32_t y, const Samples& run, std::uint32_t index) {
    for (std::uint32_t sample = 0; sample < format_.samples; ++sample) {
      at(x, y, sample) = run[std::size_t{index} * format_.samples + sample];
    }
  }

  std::uint32_t width_;
  std::uint32_t height_;
  Format format_;
  std::vector<std::uint64_t> values_;
};

}  // namespace support
