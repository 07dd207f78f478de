// The eight ways to lay a rectangle on itself.
#ifndef KVTILE_TURN_H
#define KVTILE_TURN_H

#include <cstdint>
#include <optional>
#include <string>

namespace kvtile {

// A value: quarter turns clockwise, then, if mirrored, left and right exchanged. Every combination of turns, mirrorings
// and TIFF orientations is one of the eight values.
class Turn {
 public:
  // Leaves everything in its place.
  constexpr Turn() = default;

  // Clockwise by `quarters` times 90 degrees; any sign and size.
  static constexpr Turn quarterTurns(std::int64_t quarters) {
    return Turn(static_cast<std::uint32_t>((quarters % 4 + 4) % 4), false);
  }
  static constexpr Turn leftRightMirror() { return Turn(0, true); }
  static constexpr Turn topBottomMirror() { return Turn(2, true); }

  // What makes a picture that is stored with TIFF's `orientation` upright. Values outside 1 to 8 count as 1.
  static Turn uprightFrom(std::uint32_t orientation);

  // The turn by an angle in degrees as people write it ("90", "-270", "+180", "00"); nothing unless it is a whole
  // multiple of 90. Any number of digits.
  static std::optional<Turn> parseDegrees(const std::string& text);

  // This turn first, `next` after it.
  constexpr Turn then(const Turn& next) const {
    // Turning what is mirrored is mirroring what was turned the other way.
    const std::uint32_t quarters = mirrored_ ? 4 - next.quarters_ : next.quarters_;
    return Turn((quarters_ + quarters) % 4, mirrored_ != next.mirrored_);
  }

  constexpr bool operator==(const Turn&) const = default;

  bool isIdentity() const { return quarters_ == 0 && !mirrored_; }

  // Width and height change places.
  bool swapsSides() const { return quarters_ % 2 != 0; }

  // The pixels of each row of the source come to lie in the opposite order, be it in a row or in a column.
  bool reversesRows() const;

  // The same as one call of KvTileImage_RotateAndMirror with the mirroring after the rotation.
  std::int32_t rotation() const;
  std::uint32_t mirror() const;

 private:
  constexpr Turn(std::uint32_t quarters, bool mirrored) : quarters_(quarters), mirrored_(mirrored) {}

  std::uint32_t quarters_ = 0;  // 0 to 3
  bool mirrored_ = false;
};

}  // namespace kvtile

#endif
