// The byte sizes of the tile grid, as the storage sees it.
#pragma once

#include <cstdint>

namespace storage {

// The bytes of every tile of a grid. Only the last row and the last column can differ from the rest, so four sizes
// describe a grid of any length.
struct TileByteSizes {
  std::uint64_t rows = 0;
  std::uint64_t columns = 0;
  std::uint64_t inner = 0;
  std::uint64_t lastColumn = 0;  // not in the last row
  std::uint64_t lastRow = 0;     // not in the last column
  std::uint64_t corner = 0;      // last row and last column

  // Bytes of the tile at (row, column), both inside the grid.
  std::uint64_t at(std::uint64_t row, std::uint64_t column) const {
    if (row + 1 == rows) {
      return column + 1 == columns ? corner : lastRow;
    }
    return column + 1 == columns ? lastColumn : inner;
  }

  // Bytes of all tiles. The grid's maker sees to it that the sum fits 64 bits.
  std::uint64_t total() const {
    if (rows == 0 || columns == 0) {
      return 0;
    }
    return (rows - 1) * ((columns - 1) * inner + lastColumn) + (columns - 1) * lastRow + corner;
  }
};

}  // namespace storage
