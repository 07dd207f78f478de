// 8-bit lookups with AVX-512 VBMI, 64 samples at a time. Compiled for processors that have it: nothing here may be an
// inline function of a header, which the linker could hand to everyone.
#include <immintrin.h>

#include "curve/lookup_kernels.h"

namespace curve {
namespace {

constexpr std::uint64_t kStep = sizeof(__m512i);

// A table in four registers.
struct Table {
  __m512i quarters[4];

  explicit Table(const std::uint8_t* table) {
    for (std::uint64_t i = 0; i < 4; ++i) {
      quarters[i] = _mm512_loadu_si512(table + i * kStep);
    }
  }

  // Each half is chosen from by the low seven bits of a sample, and between the halves by the highest.
  __m512i lookUp(__m512i samples) const {
    const __m512i low = _mm512_permutex2var_epi8(quarters[0], samples, quarters[1]);
    const __m512i high = _mm512_permutex2var_epi8(quarters[2], samples, quarters[3]);
    return _mm512_mask_blend_epi8(_mm512_movepi8_mask(samples), low, high);
  }
};

// Bit i for each of the first `count` bytes; `count` below 64.
__mmask64 firstBytes(std::uint64_t count) { return (__mmask64{1} << count) - 1; }

void lookUp(std::uint8_t* samples, std::uint64_t count, const std::uint8_t* table) {
  const Table registers(table);
  std::uint64_t i = 0;
  for (; count - i >= kStep; i += kStep) {
    _mm512_storeu_si512(samples + i, registers.lookUp(_mm512_loadu_si512(samples + i)));
  }
  const __mmask64 rest = firstBytes(count - i);
  _mm512_mask_storeu_epi8(samples + i, rest, registers.lookUp(_mm512_maskz_loadu_epi8(rest, samples + i)));
}

// Beyond this the plain loop, which touches the channel's samples only, is the faster one.
constexpr std::uint32_t kMostSamplesPerPixel = 16;

void lookUpChannel(std::uint8_t* samples, std::uint64_t pixels, std::uint32_t samplesPerPixel, std::uint32_t channel,
                   const std::uint8_t* table) {
  if (samplesPerPixel == 0 || samplesPerPixel > kMostSamplesPerPixel) {
    plainKernels8().lookUpChannel(samples, pixels, samplesPerPixel, channel, table);
    return;
  }
  // Where the channel's samples are in 64 bytes that begin with sample `first` of a pixel.
  __mmask64 places[kMostSamplesPerPixel];
  for (std::uint32_t first = 0; first < samplesPerPixel; ++first) {
    places[first] = 0;
    for (std::uint64_t i = (channel + samplesPerPixel - first) % samplesPerPixel; i < kStep; i += samplesPerPixel) {
      places[first] |= __mmask64{1} << i;
    }
  }
  const Table registers(table);
  const std::uint64_t count = pixels * samplesPerPixel;
  const auto firstStep = static_cast<std::uint32_t>(kStep % samplesPerPixel);
  std::uint32_t first = 0;
  std::uint64_t i = 0;
  for (; count - i >= kStep; i += kStep) {
    const __m512i before = _mm512_loadu_si512(samples + i);
    _mm512_storeu_si512(samples + i, _mm512_mask_blend_epi8(places[first], before, registers.lookUp(before)));
    first += firstStep;
    first -= first >= samplesPerPixel ? samplesPerPixel : 0;
  }
  const __mmask64 rest = firstBytes(count - i) & places[first];
  _mm512_mask_storeu_epi8(samples + i, rest, registers.lookUp(_mm512_maskz_loadu_epi8(rest, samples + i)));
}

}  // namespace

const LookupKernels8& avx512VbmiKernels8() {
  static constexpr LookupKernels8 kKernels{"AVX-512 VBMI", lookUp, lookUpChannel};
  return kKernels;
}

}  // namespace curve
