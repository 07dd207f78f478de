#include "turn.h"

#include <kvtileimage/KvTileImage.h>

namespace kvtile {

Turn Turn::uprightFrom(std::uint32_t orientation) {
  // The orientation tells where the first row and the first column of the file belong.
  switch (orientation) {
    case 2:  // top, right
      return leftRightMirror();
    case 3:  // bottom, right
      return quarterTurns(2);
    case 4:  // bottom, left
      return topBottomMirror();
    case 5:  // left, top
      return quarterTurns(1).then(leftRightMirror());
    case 6:  // right, top
      return quarterTurns(1);
    case 7:  // right, bottom
      return quarterTurns(3).then(leftRightMirror());
    case 8:  // left, bottom
      return quarterTurns(3);
    default:
      return Turn();
  }
}

std::optional<Turn> Turn::parseDegrees(const std::string& text) {
  const bool hasSign = !text.empty() && (text[0] == '-' || text[0] == '+');
  const std::string digits = text.substr(hasSign ? 1 : 0);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  std::int64_t degrees = 0;
  for (const char digit : digits) {
    degrees = (degrees * 10 + (digit - '0')) % 360;
  }
  if (degrees % 90 != 0) {
    return std::nullopt;
  }
  return quarterTurns(text[0] == '-' ? -degrees / 90 : degrees / 90);
}

bool Turn::reversesRows() const {
  switch (quarters_) {
    case 0:
      return mirrored_;
    case 2:
      return !mirrored_;
    default:
      return quarters_ == 3;
  }
}

std::int32_t Turn::rotation() const {
  // Top and bottom exchanged is a mirroring of its own; half a turn and a mirroring would be two.
  return mirrored_ && quarters_ == 2 ? 0 : static_cast<std::int32_t>(quarters_) * 90;
}

std::uint32_t Turn::mirror() const {
  if (!mirrored_) {
    return KVTI_MIRROR_NONE;
  }
  return quarters_ == 2 ? KVTI_MIRROR_VERTICAL : KVTI_MIRROR_HORIZONTAL;
}

}  // namespace kvtile
