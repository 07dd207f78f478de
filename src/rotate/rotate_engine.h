// Rotation by multiples of 90 degrees combined with mirroring.
#pragma once

#include <cstdint>

#include "core/progress_callback.h"
#include "core/tile_image.h"

namespace rotate {

class RotateEngine {
 public:
  // `rotation` degrees brought into 0 .. 359; -90 gives 270.
  static std::uint32_t normalizeRotation(std::int32_t rotation);

  // Writes `srcImage`, turned clockwise by `rotation` degrees and mirrored by `mirror` (0 none, 1 horizontal, 2
  // vertical) after or before the turn, into `dstImage`, which has the same format and the shape of the result. Reads
  // the source a row at a time and writes each row once, as a row or a column. `progress` may be null; it is called
  // with (row, source height) after each row is written, and may throw to stop.
  //
  // False, with a logged reason, for an angle that is no multiple of 90, images that do not fit each other, or a row or
  // column that cannot be transferred; the destination is partly written then. A mirror code above 2, after the turn,
  // writes nothing and succeeds.
  static bool rotateAndMirror(core::TileImage& srcImage, core::TileImage& dstImage, std::int32_t rotation,
                              std::uint32_t mirror, bool mirrorAfterRotation, core::ProgressCallback progress);
};

}  // namespace rotate
