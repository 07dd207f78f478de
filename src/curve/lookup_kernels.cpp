#include "curve/lookup_kernels.h"

#include <cstring>

#include "platform/processor.h"

namespace curve {
namespace {

std::uint16_t load16(const std::uint8_t* place) {
  std::uint16_t value = 0;
  std::memcpy(&value, place, sizeof(value));
  return value;
}

void lookUp8(std::uint8_t* samples, std::uint64_t count, const std::uint8_t* table) {
  for (std::uint64_t i = 0; i < count; ++i) {
    samples[i] = table[samples[i]];
  }
}

void lookUpChannel8(std::uint8_t* samples, std::uint64_t pixels, std::uint32_t samplesPerPixel, std::uint32_t channel,
                    const std::uint8_t* table) {
  for (std::uint64_t i = channel; i < pixels * samplesPerPixel; i += samplesPerPixel) {
    samples[i] = table[samples[i]];
  }
}

}  // namespace

const LookupKernels8& plainKernels8() {
  static constexpr LookupKernels8 kKernels{"plain", lookUp8, lookUpChannel8};
  return kKernels;
}

std::vector<const LookupKernels8*> usableKernels8() {
  std::vector<const LookupKernels8*> usable{&plainKernels8()};
  if (platform::processorHasAvx2()) {
    usable.push_back(&avx2Kernels8());
  }
  if (platform::processorHasAvx512Vbmi()) {
    usable.push_back(&avx512VbmiKernels8());
  }
  return usable;
}

const LookupKernels8& kernels8() {
  static const LookupKernels8& fastest = *usableKernels8().back();
  return fastest;
}

void lookUp16(std::uint8_t* samples, std::uint64_t count, const std::uint8_t* table) {
  lookUpChannel16(samples, count, 1, 0, table);
}

void lookUpChannel16(std::uint8_t* samples, std::uint64_t pixels, std::uint32_t samplesPerPixel, std::uint32_t channel,
                     const std::uint8_t* table) {
  for (std::uint64_t i = channel; i < pixels * samplesPerPixel; i += samplesPerPixel) {
    std::uint8_t* const sample = samples + i * sizeof(std::uint16_t);
    std::memcpy(sample, table + load16(sample) * sizeof(std::uint16_t), sizeof(std::uint16_t));
  }
}

}  // namespace curve
