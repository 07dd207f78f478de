// A rectangle of the tile grid, as the storage sees it.
#pragma once

#include <cstdint>

namespace storage {

// A rectangle of tiles; ends are exclusive. All zeros is the empty area.
struct TileArea {
  std::uint64_t firstColumn = 0;
  std::uint64_t endColumn = 0;
  std::uint64_t firstRow = 0;
  std::uint64_t endRow = 0;
};

}  // namespace storage
