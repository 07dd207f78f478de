// The loops that replace samples by their entries of a table.
#pragma once

#include <cstdint>
#include <vector>

namespace curve {

// The loops for 8-bit samples, one set for each kind of processor. All sets do the same, byte for byte. `table` has 256
// entries.
struct LookupKernels8 {
  const char* name;

  // Replaces each of `count` samples.
  void (*lookUp)(std::uint8_t* samples, std::uint64_t count, const std::uint8_t* table);

  // Replaces sample `channel` of each of `pixels` pixels of `samplesPerPixel` samples, the first of which is at
  // `samples`; `channel` is below samplesPerPixel. The other samples keep their values.
  void (*lookUpChannel)(std::uint8_t* samples, std::uint64_t pixels, std::uint32_t samplesPerPixel,
                        std::uint32_t channel, const std::uint8_t* table);
};

// One lookup after the other, on every processor; what the other sets are held against.
const LookupKernels8& plainKernels8();

// Sets in `x86/`, for processors that have the instructions only.
const LookupKernels8& avx2Kernels8();
const LookupKernels8& avx512VbmiKernels8();

// The sets that this processor can run, slowest first; the first is the plain one.
std::vector<const LookupKernels8*> usableKernels8();

// The fastest of them; chosen once in the life of the process.
const LookupKernels8& kernels8();

// The same for 16-bit samples in the machine's byte order, with 65536 entries, and with channels as above. A table of
// 128 KiB is in no register: there is one set only.
void lookUp16(std::uint8_t* samples, std::uint64_t count, const std::uint8_t* table);
void lookUpChannel16(std::uint8_t* samples, std::uint64_t pixels, std::uint32_t samplesPerPixel, std::uint32_t channel,
                     const std::uint8_t* table);

}  // namespace curve
