// 8-bit lookups with AVX2, 32 samples at a time. Compiled for processors that have it: nothing here may be an inline
// function of a header, which the linker could hand to everyone.
#include <immintrin.h>

#include "curve/lookup_kernels.h"

namespace curve {
namespace {

constexpr int kParts = 16;      // of a table,
constexpr int kPartBytes = 16;  // as many as one shuffle chooses from
constexpr int kHalf = kParts / 2;

// The parts of a table, each but the first of a half combined with the one before by exclusive or: combining them up
// to a part gives that part again.
struct Differences {
  std::uint8_t parts[kParts][kPartBytes];

  explicit Differences(const std::uint8_t* table) {
    for (int part = 0; part < kParts; ++part) {
      for (int i = 0; i < kPartBytes; ++i) {
        const int entry = part * kPartBytes + i;
        const int before = part % kHalf == 0 ? 0 : table[entry - kPartBytes];
        parts[part][i] = static_cast<std::uint8_t>(table[entry] ^ before);
      }
    }
  }

  __m256i part(int index) const {
    return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(parts[index])));
  }
};

// A shuffle takes the low four bits of each sample for the place in a part, and gives 0 where the sample is negative.
// With 16 subtracted at each step a sample stays positive through just the parts up to its own; samples from 128 on
// are negative to the first half and take the second one, where they lose the highest bit.
__m256i lookUp32(__m256i samples, const Differences& differences) {
  const __m256i sixteen = _mm256_set1_epi8(kPartBytes);
  __m256i low = samples;
  __m256i high = _mm256_xor_si256(samples, _mm256_set1_epi8(-128));
  __m256i result = _mm256_setzero_si256();
  for (int part = 0; part < kHalf; ++part) {
    result = _mm256_xor_si256(result, _mm256_shuffle_epi8(differences.part(part), low));
    result = _mm256_xor_si256(result, _mm256_shuffle_epi8(differences.part(kHalf + part), high));
    low = _mm256_subs_epi8(low, sixteen);
    high = _mm256_subs_epi8(high, sixteen);
  }
  return result;
}

void lookUp(std::uint8_t* samples, std::uint64_t count, const std::uint8_t* table) {
  constexpr std::uint64_t kStep = sizeof(__m256i);
  const Differences differences(table);
  std::uint64_t i = 0;
  for (; count - i >= kStep; i += kStep) {
    auto* const place = reinterpret_cast<__m256i*>(samples + i);
    _mm256_storeu_si256(place, lookUp32(_mm256_loadu_si256(place), differences));
  }
  plainKernels8().lookUp(samples + i, count - i, table);
}

// A channel's share of the samples costs the plain loop less than all of them cost the vectors.
void lookUpChannel(std::uint8_t* samples, std::uint64_t pixels, std::uint32_t samplesPerPixel, std::uint32_t channel,
                   const std::uint8_t* table) {
  plainKernels8().lookUpChannel(samples, pixels, samplesPerPixel, channel, table);
}

}  // namespace

const LookupKernels8& avx2Kernels8() {
  static constexpr LookupKernels8 kKernels{"AVX2", lookUp, lookUpChannel};
  return kKernels;
}

}  // namespace curve
