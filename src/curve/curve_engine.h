// Tone curves: tables that are made from a few numbers, and their application to images.
#pragma once

#include <cstdint>
#include <memory>

#include "core/progress_callback.h"
#include "core/tile_image.h"
#include "curve/lookup_table.h"
#include "curve/lookup_table_map.h"

namespace curve {

using LookupTablePointer = std::shared_ptr<const LookupTable>;

// Below, M is the highest value of a sample, 255 or 65535, and entries are rounded half up from double precision and
// cut to 0 .. M. Every builder returns null, with a logged reason, for parameters outside its range and without memory.
// Those that take `bitsPerSample` build the table for 8 or 16 bits, and return null without a message for other depths.
class CurveEngine {
 public:
  // M * (i / M)^(1 / gamma). `gamma` above 0; not a number passes, and gives a table of zeros.
  static LookupTablePointer createLookupTable8_Gamma(double gamma);
  static LookupTablePointer createLookupTable16_Gamma(double gamma);
  static LookupTablePointer createLookupTable_Gamma(std::uint32_t bitsPerSample, double gamma);

  // i * (brightness + 1). `brightness` in [-1, 1].
  static LookupTablePointer createLookupTable8_Brightness(double brightness);
  static LookupTablePointer createLookupTable16_Brightness(double brightness);
  static LookupTablePointer createLookupTable_Brightness(std::uint32_t bitsPerSample, double brightness);

  // From the middle, 128 or 32768, upwards: (i - middle) * (contrast + 1) + middle. Below the middle M, or the middle
  // with a contrast of -1: callers rely on it. createLookupTable_BrightnessContrastGamma treats both sides alike.
  // `contrast` in [-1, 1].
  static LookupTablePointer createLookupTable8_Contrast(double contrast);
  static LookupTablePointer createLookupTable16_Contrast(double contrast);
  static LookupTablePointer createLookupTable_Contrast(std::uint32_t bitsPerSample, double contrast);

  // See _getLookupTable_BrightnessContrastGamma. Any parameters.
  static LookupTablePointer createLookupTable8_BrightnessContrastGamma(double brightness, double contrast, double gamma,
                                                                       bool invert);
  static LookupTablePointer createLookupTable16_BrightnessContrastGamma(double brightness, double contrast,
                                                                        double gamma, bool invert);
  static LookupTablePointer createLookupTable_BrightnessContrastGamma(std::uint32_t bitsPerSample, double brightness,
                                                                      double contrast, double gamma, bool invert);

  // 0 below `threshold` and M from it on; the other way round with `invert`. `threshold` in 0 .. M.
  static LookupTablePointer createLookupTable8_Threshold(std::int32_t threshold, bool invert);
  static LookupTablePointer createLookupTable16_Threshold(std::int32_t threshold, bool invert);
  static LookupTablePointer createLookupTable_Threshold(std::uint32_t bitsPerSample, std::int32_t threshold,
                                                        bool invert);

  // The caller's entries: 256 bytes, or 131072 bytes of 16-bit values in the machine's byte order. `bytes` is at least
  // 256, or 65536: what a 16-bit table reads is twice that all the same, and has to be there.
  static LookupTablePointer createLookupTable8_ByteStream(const std::uint8_t* lookupTableBuf, std::uint64_t bytes);
  static LookupTablePointer createLookupTable16_ByteStream(const std::uint8_t* lookupTableBuf, std::uint64_t bytes);
  static LookupTablePointer createLookupTable_ByteStream(std::uint32_t bitsPerSample,
                                                         const std::uint8_t* lookupTableBuf, std::uint64_t bytes);

  // Replaces every sample by its entry of `table`, row by row from the top, from `srcImage` into `dstImage`, which may
  // be the same image and otherwise has its size and format. `progress` may be null; it is called with (row, height)
  // after each row is written, and may throw to stop.
  //
  // False, with a logged reason, if the images or the table do not fit each other, for other depths than 8 and 16 bits,
  // and if a row cannot be transferred: rows before it have been written then. False without a message for a null
  // table.
  static bool adjustCurveOfAllChannels(core::TileImage& srcImage, core::TileImage& dstImage,
                                       const LookupTablePointer& table, core::ProgressCallback progress);

  // The same for the channels that have a table in `map`; the others keep their values. Tables of channels that the
  // image does not have are ignored. An empty map changes nothing, and with a single image succeeds at once.
  static bool adjustCurveOfSomeChannels(core::TileImage& srcImage, core::TileImage& dstImage,
                                        const std::shared_ptr<const LookupTableMap>& map,
                                        core::ProgressCallback progress);
};

}  // namespace curve
