// A part of a picture, and another size: what is asked for and what comes of it.
#ifndef KVTILE_RESIZING_H
#define KVTILE_RESIZING_H

#include <kvtileimage/KvTileImage.h>

#include <cstdint>
#include <optional>
#include <string>

#include "picture.h"

namespace kvtile {

// In pixels of the upright picture.
struct Area {
  std::uint32_t x = 0;
  std::uint32_t y = 0;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  bool operator==(const Area&) const = default;
};

// A size is one or both sides, or a scale; without any of them it stays. A side of 0 follows from the other one.
struct ResizeRequest {
  std::optional<Area> crop;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::optional<double> scale;  // finite and above 0
  std::uint32_t filter = KVTI_FILTER_LANCZOS3;
  std::uint32_t threads = 1;
};

// How to resize an image: its area becomes `picture`.
struct Resizing {
  Area area;
  bool scales = false;          // or else the pixels of the area stay what they are
  bool expandsPalette = false;  // before that, as colours can be blended and their numbers cannot
  Picture picture;
  std::uint32_t filter = KVTI_FILTER_LANCZOS3;
  std::uint32_t threads = 1;
};

// Plans the resizing of `picture`, which is upright. Throws a Failure that names `input` for an area outside of it and
// for samples that cannot be blended, and one that names `output` for sides that no file can have.
Resizing planResizing(const std::string& input, const std::string& output, const Picture& picture,
                      const ResizeRequest& request);

// The length that `other` pixels get where `from` pixels become `to` and the aspect ratio stays: rounded to nearest, at
// least 1. No argument may be 0.
std::uint64_t proportionalLength(std::uint32_t other, std::uint32_t from, std::uint32_t to);

}  // namespace kvtile

#endif
