// Brightness, contrast and gamma in one curve.
#pragma once

#include <cstdint>

namespace curve {

// Writes one entry for each value that a sample can have: the value is spread around the middle by `contrast`,
// multiplied by `brightness` + 1 and bent by `gamma`, in this order and in double precision, cut to the range of the
// samples after each of the three, and rounded once, half up. With `invert` the bits of the entry are exchanged.
// Contrast and brightness of 0 and a gamma of 1 do nothing, nor does a gamma of 0 and below.
//
// `entriesBytes` is the size of the array; false, with a logged reason and nothing written, if it is too small for 256
// or 65536 entries.
bool _getLookupTable_BrightnessContrastGamma(double brightness, double contrast, double gamma, bool invert,
                                             std::uint8_t* entries, std::uint64_t entriesBytes);
bool _getLookupTable_BrightnessContrastGamma(double brightness, double contrast, double gamma, bool invert,
                                             std::uint16_t* entries, std::uint64_t entriesBytes);

}  // namespace curve
