#include "core/tile.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "base/log.h"
#include "core/big_endian.h"
#include "core/bit_tool.h"
#include "core/narrow_column.h"
#include "core/tile_image.h"

namespace core {
namespace {

// The bytes of a block while a copy uses them.
class LoadedBlock {
 public:
  // Not valid, with a logged reason, if the block has no bytes at hand.
  LoadedBlock(storage::Block& block, const char* function) : block_(block), data_(block.load()) {
    if (data_ == nullptr) {
      base::logger().log(ember_logger::error, "[%s] originData is nullptr,check your code!", function);
    }
  }
  ~LoadedBlock() {
    if (data_ != nullptr) {
      block_.release();
    }
  }
  LoadedBlock(const LoadedBlock&) = delete;
  LoadedBlock& operator=(const LoadedBlock&) = delete;

  explicit operator bool() const { return data_ != nullptr; }
  std::uint8_t* data() const { return data_; }

 private:
  storage::Block& block_;
  std::uint8_t* data_;
};

bool checkBufferBytes(std::uint64_t bufferBytes, std::uint64_t needed, const char* function) {
  if (bufferBytes < needed) {
    base::logger().log(ember_logger::error, "[%s] bytes < validBytes", function);
    return false;
  }
  return true;
}

void copyBytes(std::uint8_t* tile, std::uint8_t* buffer, std::uint64_t bytes, Direction direction) {
  if (direction == Direction::get) {
    std::memcpy(buffer, tile, bytes);
  } else if (direction == Direction::set) {
    std::memcpy(tile, buffer, bytes);
  }
}

// Copies `count` pixels that stand `stride` bytes apart in the tile and side by side in the buffer. A pixel size that
// the compiler knows becomes a plain load and store.
template <std::uint32_t kBytesPerPixel>
void copyColumnOf(std::uint8_t* tile, std::uint64_t stride, std::uint8_t* buffer, std::uint32_t count,
                  Direction direction) {
  if (direction == Direction::get) {
    for (std::uint32_t i = 0; i < count; ++i, tile += stride, buffer += kBytesPerPixel) {
      std::memcpy(buffer, tile, kBytesPerPixel);
    }
  } else if (direction == Direction::set) {
    for (std::uint32_t i = 0; i < count; ++i, tile += stride, buffer += kBytesPerPixel) {
      std::memcpy(tile, buffer, kBytesPerPixel);
    }
  }
}

void copyColumn(std::uint8_t* tile, std::uint64_t stride, std::uint8_t* buffer, std::uint32_t count,
                std::uint32_t bytesPerPixel, Direction direction) {
  switch (bytesPerPixel) {
    case 1:
      return copyColumnOf<1>(tile, stride, buffer, count, direction);
    case 2:
      return copyColumnOf<2>(tile, stride, buffer, count, direction);
    case 3:
      return copyColumnOf<3>(tile, stride, buffer, count, direction);
    case 4:
      return copyColumnOf<4>(tile, stride, buffer, count, direction);
    case 6:
      return copyColumnOf<6>(tile, stride, buffer, count, direction);
    case 8:
      return copyColumnOf<8>(tile, stride, buffer, count, direction);
    case 12:
      return copyColumnOf<12>(tile, stride, buffer, count, direction);
    case 16:
      return copyColumnOf<16>(tile, stride, buffer, count, direction);
    default:
      for (std::uint32_t i = 0; i < count; ++i, tile += stride, buffer += bytesPerPixel) {
        copyBytes(tile, buffer, bytesPerPixel, direction);
      }
  }
}

}  // namespace

Tile::Tile(const TileImage& owner, std::shared_ptr<storage::Block> block, const TileGeometry& geometry)
    : owner_(owner),
      block_(std::move(block)),
      geometry_(geometry),
      rowBytes_(format().bitsPerPixel * geometry.allocatedWidth / 8) {}

const PixelFormat& Tile::format() const { return owner_.format(); }

bool Tile::copyRowData(std::uint32_t rowInTile, std::uint32_t x1, std::uint32_t x2, std::uint8_t* buffer,
                       std::uint64_t bufferBytes, Direction direction, std::uint64_t sampleOffset) const {
  return format().packed()
             ? copyRowData_1_2_4BitsPerSample(rowInTile, x1, x2, buffer, bufferBytes, direction, sampleOffset)
             : copyRowData_8multipleBitsPerSample(rowInTile, x1, x2, buffer, bufferBytes, direction);
}

bool Tile::copyColData(std::uint32_t colInTile, std::uint32_t y1, std::uint32_t y2, std::uint8_t* buffer,
                       std::uint64_t bufferBytes, Direction direction, std::uint64_t sampleOffset) const {
  return format().packed()
             ? copyColData_1_2_4BitsPerSample(colInTile, y1, y2, buffer, bufferBytes, direction, sampleOffset)
             : copyColData_8multipleBitsPerSample(colInTile, y1, y2, buffer, bufferBytes, direction);
}

bool Tile::copyRowData_8multipleBitsPerSample(std::uint32_t rowInTile, std::uint32_t x1, std::uint32_t x2,
                                              std::uint8_t* buffer, std::uint64_t bufferBytes,
                                              Direction direction) const {
  constexpr const char* kName = "Tile::copyRowData_8multipleBitsPerSample";
  const std::uint64_t needed = std::uint64_t{format().bytesPerPixel()} * (x2 - x1);
  if (!checkBufferBytes(bufferBytes, needed, kName)) {
    return false;
  }
  const LoadedBlock block(*block_, kName);
  if (!block) {
    return false;
  }
  std::uint8_t* const run = block.data() + rowInTile * rowBytes_ + std::uint64_t{format().bitsPerPixel} * x1 / 8;
  copyBytes(run, buffer, needed, direction);
  return true;
}

bool Tile::copyColData_8multipleBitsPerSample(std::uint32_t colInTile, std::uint32_t y1, std::uint32_t y2,
                                              std::uint8_t* buffer, std::uint64_t bufferBytes,
                                              Direction direction) const {
  constexpr const char* kName = "Tile::copyColData_8multipleBitsPerSample";
  const std::uint32_t bytesPerPixel = format().bytesPerPixel();
  // In 32 bits, as callers know it; the image has checked the whole run in 64.
  const std::uint32_t needed = (y2 - y1) * bytesPerPixel;
  if (!checkBufferBytes(bufferBytes, needed, kName)) {
    return false;
  }
  const LoadedBlock block(*block_, kName);
  if (!block) {
    return false;
  }
  if (y1 < y2) {
    std::uint8_t* const run = block.data() + y1 * rowBytes_ + std::uint64_t{format().bitsPerPixel} * colInTile / 8;
    copyColumn(run, rowBytes_, buffer, y2 - y1, bytesPerPixel, direction);
  }
  return true;
}

bool Tile::copyRowData_1_2_4BitsPerSample(std::uint32_t rowInTile, std::uint32_t x1, std::uint32_t x2,
                                          std::uint8_t* buffer, std::uint64_t bufferBytes, Direction direction,
                                          std::uint64_t sampleOffset) const {
  constexpr const char* kName = "Tile::copyRowData_1_2_4BitsPerSample";
  const std::uint64_t bits = std::uint64_t{format().bitsPerPixel} * (x2 - x1);
  const std::uint64_t bufferBit = format().bitsPerSample * sampleOffset;
  if (!checkBufferBytes(bufferBytes, (bufferBit + 7 + bits) / 8, kName)) {
    return false;
  }
  const LoadedBlock block(*block_, kName);
  if (!block) {
    return false;
  }
  std::uint8_t* const row = block.data() + rowInTile * rowBytes_;
  const std::uint64_t tileBit = std::uint64_t{format().bitsPerPixel} * x1;
  switch (direction) {
    case Direction::get:
      return BitTool::fillBits(buffer, bufferBytes, bufferBit, row, rowBytes_, tileBit, bits);
    case Direction::set:
      return BitTool::fillBits(row, rowBytes_, tileBit, buffer, bufferBytes, bufferBit, bits);
  }
  return true;
}

bool Tile::copyColData_1_2_4BitsPerSample(std::uint32_t colInTile, std::uint32_t y1, std::uint32_t y2,
                                          std::uint8_t* buffer, std::uint64_t bufferBytes, Direction direction,
                                          std::uint64_t sampleOffset) const {
  constexpr const char* kName = "Tile::copyColData_1_2_4BitsPerSample";
  const std::uint64_t bits = std::uint64_t{format().bitsPerPixel} * (y2 - y1);
  const std::uint64_t bufferBit = format().bitsPerSample * sampleOffset;
  if (!checkBufferBytes(bufferBytes, (bufferBit + 7 + bits) / 8, kName)) {
    return false;
  }
  const LoadedBlock block(*block_, kName);
  if (!block) {
    return false;
  }
  if (direction != Direction::get && direction != Direction::set) {
    return true;
  }
  const std::uint64_t tileBit = std::uint64_t{format().bitsPerPixel} * colInTile;
  const BitBuffer target{buffer, bufferBytes, bufferBit};
  const bool narrow =
      NarrowColumn::takes(format().bitsPerPixel) && colInTile < geometry_.allocatedWidth && y2 <= geometry_.height;
  const bool copied = narrow ? copyNarrowColumn(block.data(), tileBit, y1, y2, target, direction)
                             : copyWideColumn(block.data(), tileBit, y1, y2, target, direction);
  if (!copied) {
    base::logger().log(ember_logger::error, "[%s] fill_1_2_4BitsPerSample failed", kName);
  }
  return copied;
}

bool Tile::copyNarrowColumn(std::uint8_t* data, std::uint64_t tileBit, std::uint32_t y1, std::uint32_t y2,
                            BitBuffer buffer, Direction direction) const {
  const std::uint32_t bitsPerPixel = format().bitsPerPixel;
  NarrowColumn column(data, rowBytes_, tileBit, bitsPerPixel);
  std::array<std::uint8_t, 8> word{};
  for (std::uint32_t y = y1; y < y2;) {
    const std::uint32_t count = std::min(column.pixelsPerWord(), y2 - y);
    const std::uint64_t bits = std::uint64_t{count} * bitsPerPixel;
    if (direction == Direction::get) {
      storeBigEndian(word.data(), column.read(y, count));
      if (!BitTool::fillBitsEx(buffer.bytes, buffer.size, buffer.bit, word.data(), word.size(), 0, bits)) {
        return false;
      }
    } else {
      if (!BitTool::fillBitsEx(word.data(), word.size(), 0, buffer.bytes, buffer.size, buffer.bit, bits)) {
        return false;
      }
      column.write(y, count, loadBigEndian(word.data()));
    }
    buffer.bit += bits;
    y += count;
  }
  return true;
}

bool Tile::copyWideColumn(std::uint8_t* data, std::uint64_t tileBit, std::uint32_t y1, std::uint32_t y2,
                          BitBuffer buffer, Direction direction) const {
  const std::uint32_t bits = format().bitsPerPixel;
  std::uint8_t* row = data + y1 * rowBytes_;
  for (std::uint32_t y = y1; y < y2; ++y, row += rowBytes_, buffer.bit += bits) {
    const bool copied = direction == Direction::get
                            ? BitTool::fillBits(buffer.bytes, buffer.size, buffer.bit, row, rowBytes_, tileBit, bits)
                            : BitTool::fillBits(row, rowBytes_, tileBit, buffer.bytes, buffer.size, buffer.bit, bits);
    if (!copied) {
      return false;
    }
  }
  return true;
}

}  // namespace core
