// A rectangle of the tile grid, as the storage sees it.
#pragma once

#include <algorithm>
#include <cstdint>

namespace storage {

// A rectangle of tiles; ends are exclusive. All zeros is the empty area.
struct TileArea {
  std::uint64_t firstColumn = 0;
  std::uint64_t endColumn = 0;
  std::uint64_t firstRow = 0;
  std::uint64_t endRow = 0;

  bool empty() const { return firstColumn >= endColumn || firstRow >= endRow; }

  bool contains(std::uint64_t row, std::uint64_t column) const {
    return row >= firstRow && row < endRow && column >= firstColumn && column < endColumn;
  }

  friend bool operator==(const TileArea&, const TileArea&) = default;
};

// The tiles that are in both; the empty area if there are none.
inline TileArea overlap(const TileArea& a, const TileArea& b) {
  const TileArea both{std::max(a.firstColumn, b.firstColumn), std::min(a.endColumn, b.endColumn),
                      std::max(a.firstRow, b.firstRow), std::min(a.endRow, b.endRow)};
  return both.empty() ? TileArea{} : both;
}

}  // namespace storage
