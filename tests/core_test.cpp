// Tile grid, bit copies, tiles and the image object, seen from inside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "core/bit_tool.h"
#include "core/pixel_format.h"
#include "core/tile.h"
#include "core/tile_grid.h"
#include "core/tile_image.h"
#include "core/tile_manager.h"
#include "kvtileimage/KvTileImage.h"
#include "storage/memory_storage_strategy.h"
#include "storage/tile_image_memory_byte_counter.h"
#include "support/allocation_failures.h"
#include "support/guarded_buffer.h"
#include "support/log_capture.h"

namespace {

using core::BitTool;
using core::Direction;
using core::PixelFormat;
using core::TileGrid;
using core::TileImage;
using support::errors;
using support::LogCapture;
using support::LogLine;
using testing::Contains;
using testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

std::vector<LogLine> traceOf(std::initializer_list<const char*> texts) {
  std::vector<LogLine> lines;
  for (const char* text : texts) {
    lines.push_back({ember_logger::trace, text});
  }
  return lines;
}

PixelFormat format(std::uint32_t samples, std::uint32_t bits) { return {samples, bits, samples * bits}; }

// ---- Scanline sizes

struct ScanlineSize {
  std::uint32_t pixels, samples, bits;
  std::uint64_t stride, suitable;
};

TEST(PixelFormatTest, RoundsScanlinesToBytesAndToMultiplesOfFour) {
  constexpr std::array<ScanlineSize, 7> kTable{{{1, 1, 1, 4, 1},
                                                {33, 1, 1, 8, 5},
                                                {100, 3, 8, 300, 300},
                                                {101, 3, 8, 304, 303},
                                                {10, 2, 16, 40, 40},
                                                {7, 3, 4, 12, 11},
                                                {0xFFFFFFFF, 4, 64, 0x1FFFFFFFE0, 0x1FFFFFFFE0}}};
  for (const auto& row : kTable) {
    EXPECT_EQ(format(row.samples, row.bits).strideBytes(row.pixels), row.stride) << row.pixels;
    EXPECT_EQ(format(row.samples, row.bits).suitableBytes(row.pixels), row.suitable) << row.pixels;
  }
}

TEST(PixelFormatTest, CountsInSixtyFourBitsWherePixelBitsDoNotFitThirtyTwo) {
  EXPECT_EQ(format(65536, 65536).suitableBytes(1), 0x20000000U);
}

TEST(PixelFormatTest, PacksOneTwoAndFourBitsOnly) {
  for (std::uint32_t bits = 1; bits <= 64; ++bits) {
    EXPECT_EQ(format(1, bits).packed(), bits == 1 || bits == 2 || bits == 4) << bits;
  }
}

// ---- Tile grid

TEST(TileGridTest, RoundsTheWidthOfASmallMemoryImageToEight) {
  const auto grid = TileGrid::forMemory(format(3, 8), 100, 100);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->tileRowCount(), 1U);
  EXPECT_EQ(grid->tileColCount(), 1U);
  EXPECT_EQ(grid->geometry(0, 0).allocatedWidth, 104U);
  EXPECT_EQ(grid->geometry(0, 0).lastColumnValidWidth, 100U);
  EXPECT_EQ(grid->geometry(0, 0).height, 100U);
  EXPECT_EQ(grid->byteSizes().at(0, 0), 31200U);
}

TEST(TileGridTest, WidensMemoryTilesOfPackedSamplesButNotTheirHeight) {
  for (const auto& [bits, width] : {std::pair{1U, 1024U}, {2U, 512U}, {4U, 256U}, {8U, 128U}, {3U, 128U}}) {
    const auto grid = TileGrid::forMemory(format(1, bits), 5000, 5000);
    ASSERT_TRUE(grid);
    EXPECT_EQ(grid->tileBaseWidth(), width) << bits;
    EXPECT_EQ(grid->tileBaseHeight(), 128U) << bits;
  }
}

TEST(TileGridTest, GivesTheLastColumnAndRowWhatIsLeft) {
  const auto grid = TileGrid::forMemory(format(2, 8), 300, 256);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->tileColCount(), 3U);
  EXPECT_EQ(grid->tileRowCount(), 2U);
  EXPECT_EQ(grid->geometry(0, 0).allocatedWidth, 128U);
  EXPECT_EQ(grid->geometry(0, 2).allocatedWidth, 48U);  // 44 rounded up
  EXPECT_EQ(grid->geometry(0, 2).lastColumnValidWidth, 44U);
  EXPECT_EQ(grid->geometry(1, 0).height, 128U);  // 256 is a whole number of tiles
  EXPECT_EQ(grid->byteSizes().at(0, 0), 128U * 128 * 2);
  EXPECT_EQ(grid->byteSizes().at(1, 2), 48U * 128 * 2);
  EXPECT_EQ(grid->byteSizes().total(), 2U * (128 + 128 + 48) * 128 * 2);
  const auto shortLastRow = TileGrid::forMemory(format(1, 8), 300, 130);
  ASSERT_TRUE(shortLastRow);
  EXPECT_EQ(shortLastRow->byteSizes().at(1, 0), 128U * 2);
  EXPECT_EQ(shortLastRow->byteSizes().at(1, 2), 48U * 2);
  EXPECT_EQ(shortLastRow->byteSizes().total(), (128U + 128 + 48) * 130);
}

TEST(TileGridTest, LeavesTheLastColumnsWidthBehindInLaterRows) {
  const auto grid = TileGrid::forMemory(format(1, 8), 300, 300);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->geometry(0, 0).lastColumnValidWidth, 0U);
  EXPECT_EQ(grid->geometry(0, 1).lastColumnValidWidth, 0U);
  EXPECT_EQ(grid->geometry(0, 2).lastColumnValidWidth, 44U);
  EXPECT_EQ(grid->geometry(1, 0).lastColumnValidWidth, 44U);
  EXPECT_EQ(grid->geometry(2, 1).lastColumnValidWidth, 44U);
}

struct FileTiles {
  std::uint32_t width, height, bits, operation;
  std::uint64_t tileWidth, tileHeight, columns, rows;
};

TEST(TileGridTest, ShapesFileMappedTilesAfterAccessAndAspectRatio) {
  constexpr std::uint32_t kRow = KVTI_SCANLINE_OPERATION_ROW;
  constexpr std::uint32_t kCol = KVTI_SCANLINE_OPERATION_COL;
  constexpr std::uint32_t kBoth = KVTI_SCANLINE_OPERATION_ROWCOL;
  constexpr std::array<FileTiles, 17> kTable{{{10000, 2000, 8, kBoth, 4096, 1024, 3, 2},
                                              {10000, 2000, 4, kBoth, 8192, 2048, 2, 1},
                                              {3000, 3000, 8, kBoth, 3072, 3072, 1, 1},
                                              {10000, 2000, 8, kRow, 4096, 8192, 3, 1},
                                              {10000, 2000, 8, kCol, 2048, 3072, 5, 1},
                                              {10000, 2000, 1, kRow, 32768, 65536, 1, 1},
                                              {10000, 2000, 2, kCol, 8192, 12288, 2, 1},
                                              {2999, 2000, 8, kBoth, 3072, 3072, 1, 1},   // just below 1.5
                                              {3000, 2000, 8, kBoth, 4096, 2048, 1, 1},   // 1.5
                                              {2000, 3000, 8, kBoth, 2048, 4096, 1, 1},   // 1.5, tall
                                              {5999, 2000, 8, kBoth, 4096, 2048, 2, 1},   // just below 3
                                              {6000, 2000, 8, kBoth, 4096, 1024, 2, 2},   // 3
                                              {11999, 2000, 8, kBoth, 4096, 1024, 3, 2},  // just below 6
                                              {12000, 2000, 8, kBoth, 3072, 384, 4, 6},   // 6
                                              {19999, 2000, 8, kBoth, 3072, 384, 7, 6},   // just below 10
                                              {20000, 2000, 8, kBoth, 4096, 256, 5, 8},   // 10
                                              {2000, 20000, 8, kBoth, 256, 4096, 8, 5}}};
  for (const auto& row : kTable) {
    const auto grid = TileGrid::forFileMapping(format(3, row.bits), row.width, row.height, row.operation, 65536);
    ASSERT_TRUE(grid);
    EXPECT_EQ(grid->tileBaseWidth(), row.tileWidth) << row.width << " x " << row.height;
    EXPECT_EQ(grid->tileBaseHeight(), row.tileHeight) << row.width << " x " << row.height;
    EXPECT_EQ(grid->tileColCount(), row.columns) << row.width << " x " << row.height;
    EXPECT_EQ(grid->tileRowCount(), row.rows) << row.width << " x " << row.height;
  }
}

TEST(TileGridTest, GivesTheLastFileMappedColumnItsValidWidth) {
  const auto grid = TileGrid::forFileMapping(format(1, 8), 10000, 2000, KVTI_SCANLINE_OPERATION_ROWCOL, 65536);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->geometry(0, 2).allocatedWidth, 1808U);
  EXPECT_EQ(grid->geometry(0, 2).lastColumnValidWidth, 1808U);
}

TEST(TileGridTest, RoundsFileMappedTilesToTheGranularity) {
  const auto grid = TileGrid::forFileMapping(format(1, 8), 3000, 3000, KVTI_SCANLINE_OPERATION_ROWCOL, 65536);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->geometry(0, 0).allocatedWidth, 3000U);
  EXPECT_EQ(grid->geometry(0, 0).height, 3000U);
  EXPECT_EQ(grid->byteSizes().at(0, 0), 9043968U);  // 9,000,000 rounded up to 138 * 65,536
}

TEST(TileGridTest, RefusesUnknownAccessPatternsForFiles) {
  for (const std::uint32_t operation : {0U, 4U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(TileGrid::forFileMapping(format(1, 8), 100, 100, operation, 65536)) << operation;
  }
  EXPECT_FALSE(TileGrid::forFileMapping(format(1, 8), 100, 100, KVTI_SCANLINE_OPERATION_ROW, 0));
}

// As another process tells of it.
struct DescribedGrid {
  std::uint32_t width, height, samples, bits;
  core::TileGridDescription grid;
};

TEST(TileGridTest, IsTakenAsDescribed) {
  // 10000 x 2000 pixels in 3 x 2 tiles of 4096 x 1024; the last ones 1808 wide and 976 high.
  const auto grid = TileGrid::described(format(1, 8), 10000, 2000, {4096, 1024, 2, 3}, 4096);
  ASSERT_TRUE(grid);
  EXPECT_EQ(grid->tileBaseWidth(), 4096U);
  EXPECT_EQ(grid->tileBaseHeight(), 1024U);
  EXPECT_EQ(grid->tileRowCount(), 2U);
  EXPECT_EQ(grid->tileColCount(), 3U);
  EXPECT_EQ(grid->byteSizes().inner, 4096U * 1024);
  EXPECT_EQ(grid->byteSizes().lastColumn, 1851392U);  // 1808 * 1024, 452 units of 4096
  EXPECT_EQ(grid->byteSizes().lastRow, 4096U * 976);
  EXPECT_EQ(grid->byteSizes().corner, 1765376U);  // 1808 * 976 = 1764608, rounded up to 431 units
  for (const DescribedGrid& good :
       {DescribedGrid{1, 1, 1, 8, {8, 1, 1, 1}}, DescribedGrid{1, 1, 1, 8, {4294967288, 4294967295, 1, 1}},
        DescribedGrid{16, 2, 1, 1, {8, 1, 2, 2}}, DescribedGrid{4294967295, 1, 1, 8, {1024, 1, 1, 4194304}}}) {
    EXPECT_TRUE(TileGrid::described(format(good.samples, good.bits), good.width, good.height, good.grid, 4096));
  }
}

TEST(TileGridTest, IsRefusedIfTheDescriptionIsNoneOfTheImage) {
  for (const DescribedGrid& bad :
       {DescribedGrid{100, 100, 1, 8, {0, 128, 1, 1}}, DescribedGrid{100, 100, 1, 8, {128, 0, 1, 1}},
        DescribedGrid{100, 100, 1, 8, {104, 100, 0, 1}}, DescribedGrid{100, 100, 1, 8, {104, 100, 1, 0}},
        DescribedGrid{100, 100, 1, 8, {104, 100, 2, 1}}, DescribedGrid{100, 100, 1, 8, {104, 100, 1, 2}},
        DescribedGrid{100, 100, 1, 8, {100, 100, 1, 1}},  // no multiple of 8
        DescribedGrid{100, 100, 1, 8, {4294967296, 100, 1, 1}}, DescribedGrid{100, 100, 1, 8, {104, 4294967296, 1, 1}},
        DescribedGrid{100, 100, 1, 8, {6148914691236517208, 100, 1, 1}},
        DescribedGrid{4294967295, 2, 1, 8, {1024, 1, 2, 4194304}},  // more than 2^22 tiles
        DescribedGrid{4294967295, 4294967295, 4294967295, 8, {4294967288, 4294967295, 1, 2}}}) {
    EXPECT_FALSE(TileGrid::described(format(bad.samples, bad.bits), bad.width, bad.height, bad.grid, 4096))
        << bad.grid.tileBaseWidth << " x " << bad.grid.tileBaseHeight << ", " << bad.grid.tileColCount << " x "
        << bad.grid.tileRowCount;
  }
  EXPECT_FALSE(TileGrid::described(format(1, 8), 100, 100, {104, 100, 1, 1}, 0));
}

TEST(TileGridTest, RefusesBitsBeyondSixtyFourBits) {
  constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();
  EXPECT_FALSE(TileGrid::forMemory(format(2, 8), kMost, kMost));
  EXPECT_TRUE(TileGrid::forMemory(format(1, 1), kMost, kMost));
  // 2^64 - 2^32 bits fit; with the width rounded up they are 2^64.
  EXPECT_FALSE(TileGrid::forMemory(format(65536, 1), kMost, 65536));
  EXPECT_TRUE(TileGrid::forMemory(format(65536, 1), kMost - 7, 65536));
  EXPECT_FALSE(TileGrid::forFileMapping(format(kMost, kMost), 2, 1, KVTI_SCANLINE_OPERATION_ROW, 4096));
}

TEST(TileGridTest, FindsTheTilesThatARectangleTouches) {
  const auto grid = TileGrid::forMemory(format(1, 8), 1000, 1000);
  ASSERT_TRUE(grid);
  const storage::TileArea area = grid->tilesCovering(127, 257, 128, 129);
  EXPECT_EQ(area.firstColumn, 0U);
  EXPECT_EQ(area.endColumn, 3U);
  EXPECT_EQ(area.firstRow, 1U);
  EXPECT_EQ(area.endRow, 2U);
}

// ---- Bit copies

TEST(BitToolTest, CopiesSingleBitsMostSignificantFirst) {
  const Bytes source{0b00010110, 0b10100000};
  Bytes target{0x00, 0xFF};
  ASSERT_TRUE(BitTool::fillBitsEx(target.data(), 2, 6, source.data(), 2, 3, 7));
  EXPECT_THAT(target, ElementsAre(0b00000010, 0b11010111));
}

TEST(BitToolTest, RefusesABeginAtTheEndEvenForNoBits) {
  LogCapture log;
  const Bytes source(2);
  Bytes target(2);
  EXPECT_FALSE(BitTool::fillBitsEx(target.data(), 2, 16, source.data(), 2, 0, 0));
  EXPECT_EQ(log.take(), errors({"[BitTool::fillBitsEx] dstBitBeginIndex or dstBitEndIndex out range!"}));
  EXPECT_FALSE(BitTool::fillBitsEx(target.data(), 2, 0, source.data(), 2, 16, 0));
  EXPECT_EQ(log.take(), errors({"[BitTool::fillBitsEx] srcBitBeginIndex or srcBitEndIndex out range!"}));
  EXPECT_TRUE(BitTool::fillBitsEx(target.data(), 2, 15, source.data(), 2, 15, 0));
  EXPECT_TRUE(log.take().empty());
}

TEST(BitToolTest, RefusesRangesThatEndOutsideTheirBuffer) {
  LogCapture log;
  const Bytes source(4, 0xFF);
  Bytes target(4);
  EXPECT_FALSE(BitTool::fillBits(target.data(), 3, 8, source.data(), 4, 0, 17));
  EXPECT_FALSE(BitTool::fillBits(target.data(), 4, 0, source.data(), 3, 8, 17));
  EXPECT_FALSE(BitTool::fillBits(target.data(), 4, 1, source.data(), 4, 0, 32));
  EXPECT_FALSE(BitTool::fillBits(target.data(), 4, 0, source.data(), 4, 0, ~std::uint64_t{0}));
  EXPECT_FALSE(BitTool::fillBits(target.data(), 4, 1, source.data(), 4, 1, ~std::uint64_t{0}));
  EXPECT_EQ(log.take(), errors({"[BitTool::fillBits] dstBitBeginIndex or dstBitEndIndex out range!",
                                "[BitTool::fillBits] srcBitBeginIndex or srcBitEndIndex out range!",
                                "[BitTool::fillBitsEx] dstBitBeginIndex or dstBitEndIndex out range!",
                                "[BitTool::fillBits] dstBitBeginIndex or dstBitEndIndex out range!",
                                "[BitTool::fillBits] dstBitBeginIndex or dstBitEndIndex out range!"}));
  EXPECT_THAT(target, ElementsAre(0, 0, 0, 0));
}

TEST(BitToolTest, TakesByteCountsAsLargeAsTheType) {
  const Bytes source{0x81};
  Bytes target{0x00};
  EXPECT_TRUE(BitTool::fillBits(target.data(), ~std::uint64_t{0}, 0, source.data(), std::uint64_t{1} << 61, 0, 8));
  EXPECT_THAT(target, ElementsAre(0x81));
}

TEST(BitToolTest, CopiesHeadBodyAndTailFromTheFirstByte) {
  const Bytes source{0xFF, 0xC3, 0xAA, 0x55};
  Bytes target(4, 0x00);
  ASSERT_TRUE(BitTool::fillBits(target.data(), 4, 3, source.data(), 4, 3, 20));
  EXPECT_THAT(target, ElementsAre(0x1F, 0xC3, 0xAA, 0x00));  // 5 head bits, a byte, 7 tail bits (1010101|0)
}

TEST(BitToolTest, RefusesASharedPlaceInsideALaterByte) {
  LogCapture log;
  const Bytes source(4, 0xFF);
  Bytes target(4, 0x00);
  EXPECT_FALSE(BitTool::fillBits(target.data(), 4, 11, source.data(), 4, 11, 20));
  EXPECT_EQ(log.take(), errors({"[BitTool::fillBitsEx] dstBitBeginIndex or dstBitEndIndex out range!"}));
  // The begins are exchanged: a late source begin shows in the destination's check, a late destination's in the
  // source's.
  EXPECT_FALSE(BitTool::fillBits(target.data(), 4, 3, source.data(), 4, 11, 12));
  EXPECT_EQ(log.take(), errors({"[BitTool::fillBitsEx] dstBitBeginIndex or dstBitEndIndex out range!"}));
  EXPECT_FALSE(BitTool::fillBits(target.data(), 4, 11, source.data(), 4, 3, 12));
  EXPECT_EQ(log.take(), errors({"[BitTool::fillBitsEx] srcBitBeginIndex or srcBitEndIndex out range!"}));
  EXPECT_THAT(target, ElementsAre(0, 0, 0, 0));
}

TEST(BitToolTest, MovesLessThanAByteFromAnySharedPlace) {
  LogCapture log;
  const Bytes source{0x00, 0b00010110, 0xFF};
  Bytes target{0x00, 0x00, 0x00};
  EXPECT_TRUE(BitTool::fillBits(target.data(), 3, 11, source.data(), 3, 11, 7));
  EXPECT_THAT(target, ElementsAre(0x00, 0b00010110, 0b11000000));
  EXPECT_FALSE(BitTool::fillBits(target.data(), 3, 11, source.data(), 3, 11, 8));
}

bool bitOf(const Bytes& bytes, std::uint64_t bit) { return (bytes[bit / 8] >> (7 - bit % 8) & 1) != 0; }

TEST(BitToolTest, EqualsASingleBitCopyForAllPhasesAndLengths) {
  std::mt19937_64 random(20261121);
  for (std::uint64_t dstBegin = 0; dstBegin < 16; ++dstBegin) {
    for (std::uint64_t srcBegin = 0; srcBegin < 16; ++srcBegin) {
      for (std::uint64_t count = 0; count <= 200; ++count) {
        // Buffers that end with the last bit: the sanitizer sees any byte read or written too many.
        Bytes source((srcBegin + std::max<std::uint64_t>(count, 1) + 7) / 8);
        Bytes target((dstBegin + std::max<std::uint64_t>(count, 1) + 7) / 8);
        for (auto* bytes : {&source, &target}) {
          for (auto& byte : *bytes) {
            byte = static_cast<std::uint8_t>(random());
          }
        }
        Bytes expected = target;
        for (std::uint64_t i = 0; i < count; ++i) {
          const auto mask = static_cast<std::uint8_t>(1U << (7 - (dstBegin + i) % 8));
          auto& byte = expected[(dstBegin + i) / 8];
          byte = static_cast<std::uint8_t>(bitOf(source, srcBegin + i) ? byte | mask : byte & ~mask);
        }
        ASSERT_TRUE(
            BitTool::fillBitsEx(target.data(), target.size(), dstBegin, source.data(), source.size(), srcBegin, count));
        ASSERT_EQ(target, expected) << "from bit " << srcBegin << " to bit " << dstBegin << ", " << count << " bits";
      }
    }
  }
}

// ---- Tiles

// A tile of an 8-row image over a block of its own.
class TileTest : public testing::Test {
 protected:
  void make(std::uint32_t samples, std::uint32_t bits, std::uint64_t width = 32, std::uint64_t height = 8) {
    image_ = TileImage::createNormal({32, 8, samples, bits, 1, false, KVTI_SCANLINE_OPERATION_ROWCOL});
    ASSERT_NE(image_, nullptr);
    block_ = storage::MemoryBlock::create(width * height * samples * bits / 8);
    tile_ = std::make_unique<core::Tile>(*image_, block_, core::TileGeometry{width, height, width});
  }

  std::unique_ptr<TileImage> image_;
  std::shared_ptr<storage::MemoryBlock> block_;
  std::unique_ptr<core::Tile> tile_;
};

TEST_F(TileTest, MovesPackedBitsToTheStartOfTheBufferAndKeepsTheRest) {
  make(1, 1);
  const Bytes row{0b00010110, 0b10100111, 0xFF, 0x00};
  std::copy(row.begin(), row.end(), block_->load());
  Bytes buffer{0x00, 0b00111111};
  ASSERT_TRUE(tile_->copyRowData(0, 3, 13, buffer.data(), 2, Direction::get, 0));
  EXPECT_THAT(buffer, ElementsAre(0b10110101, 0b00111111));  // bits 3..12, then bits 10..15 as they were
}

TEST_F(TileTest, RefusesABufferOneByteTooSmallAndTouchesNothing) {
  make(3, 8);
  LogCapture log;
  Bytes buffer(29, 0xEE);
  EXPECT_FALSE(tile_->copyRowData(0, 0, 10, buffer.data(), 29, Direction::get, 0));
  EXPECT_EQ(log.take(), errors({"[Tile::copyRowData_8multipleBitsPerSample] bytes < validBytes"}));
  EXPECT_FALSE(tile_->copyColData(0, 0, 8, buffer.data(), 23, Direction::get, 0));
  EXPECT_EQ(log.take(), errors({"[Tile::copyColData_8multipleBitsPerSample] bytes < validBytes"}));
  EXPECT_EQ(buffer, Bytes(29, 0xEE));
}

TEST_F(TileTest, RefusesAPackedBufferThatEndsBeforeTheRun) {
  make(1, 1);
  LogCapture log;
  Bytes buffer(2, 0xEE);
  EXPECT_FALSE(tile_->copyRowData(0, 0, 17, buffer.data(), 2, Direction::get, 0));
  EXPECT_FALSE(tile_->copyRowData(0, 0, 8, buffer.data(), 2, Direction::get, 9));
  EXPECT_FALSE(tile_->copyColData(0, 0, 8, buffer.data(), 2, Direction::get, 9));
  EXPECT_EQ(log.take(), errors({"[Tile::copyRowData_1_2_4BitsPerSample] bytes < validBytes",
                                "[Tile::copyRowData_1_2_4BitsPerSample] bytes < validBytes",
                                "[Tile::copyColData_1_2_4BitsPerSample] bytes < validBytes"}));
  EXPECT_EQ(buffer, Bytes(2, 0xEE));
}

TEST_F(TileTest, CopiesNothingForAnotherDirectionAndSucceeds) {
  for (const std::uint32_t bits : {1U, 8U}) {
    make(1, bits);
    std::fill_n(block_->load(), block_->size(), std::uint8_t{0xFF});
    Bytes buffer(32, 0x11);
    const auto direction = static_cast<Direction>(2);
    EXPECT_TRUE(tile_->copyRowData(0, 0, 32, buffer.data(), 32, direction, 0));
    EXPECT_TRUE(tile_->copyColData(0, 0, 8, buffer.data(), 32, direction, 0));
    EXPECT_EQ(buffer, Bytes(32, 0x11));
    EXPECT_EQ(Bytes(block_->load(), block_->load() + block_->size()), Bytes(block_->size(), 0xFF));
  }
}

TEST_F(TileTest, SucceedsForAnEmptyColumnRun) {
  make(1, 8);
  Bytes buffer(1, 0x22);
  EXPECT_TRUE(tile_->copyColData(0, 4, 4, buffer.data(), 0, Direction::get, 0));
  EXPECT_EQ(buffer, Bytes(1, 0x22));
}

// A block whose bytes are not at hand.
class AbsentBlock : public storage::Block {
 public:
  AbsentBlock() : Block(1024) {}
  std::uint8_t* load() override { return nullptr; }
  void release() override { ++releases; }
  int releases = 0;
};

TEST_F(TileTest, ReportsBlocksThatCannotBeLoaded) {
  LogCapture log;
  for (const auto& [bits, family] : {std::pair{8U, "8multiple"}, {2U, "1_2_4"}}) {
    make(1, bits);
    const auto block = std::make_shared<AbsentBlock>();
    const core::Tile tile(*image_, block, {32, 8, 32});
    Bytes buffer(32);
    EXPECT_FALSE(tile.copyRowData(0, 0, 8, buffer.data(), 32, Direction::get, 0));
    EXPECT_FALSE(tile.copyColData(0, 0, 8, buffer.data(), 32, Direction::set, 0));
    const std::string end = std::string(family) + "BitsPerSample] originData is nullptr,check your code!";
    EXPECT_EQ(log.take(), errors({("[Tile::copyRowData_" + end).c_str(), ("[Tile::copyColData_" + end).c_str()}));
    EXPECT_EQ(block->releases, 0);
  }
}

// Counts the accesses to a block that are begun and ended.
class CountingBlock : public storage::Block {
 public:
  CountingBlock() : Block(1024) {}
  std::uint8_t* load() override {
    ++loads;
    return bytes_.data();
  }
  void release() override { ++releases; }
  int loads = 0;
  int releases = 0;

 private:
  Bytes bytes_ = Bytes(1024);
};

TEST_F(TileTest, EndsEachAccessThatItBegins) {
  LogCapture log;
  for (const std::uint32_t bits : {1U, 8U, 4U}) {
    make(bits == 4 ? 3 : 1, bits);
    const auto block = std::make_shared<CountingBlock>();
    const core::Tile tile(*image_, block, {32, 8, 32});
    Bytes buffer(64);
    EXPECT_TRUE(tile.copyRowData(0, 0, 8, buffer.data(), 64, Direction::get, 0));
    EXPECT_EQ(tile.copyColData(1, 0, 8, buffer.data(), 64, Direction::set, 0), bits != 4);  // 3 x 4 bits are refused
    EXPECT_EQ(block->loads, 2);
    EXPECT_EQ(block->releases, 2);
  }
}

TEST_F(TileTest, StopsAPackedColumnAtTheRowThatSharesAPlaceInsideAByte) {
  make(3, 4);
  // Column 1 starts at bit 12: place 4 of a byte. Row 0 of the buffer starts at place 0, row 1 at place 4: refused.
  LogCapture log;
  Bytes buffer(12, 0xFF);
  EXPECT_FALSE(tile_->copyColData(1, 0, 8, buffer.data(), 12, Direction::set, 0));
  EXPECT_EQ(log.take(), errors({"[BitTool::fillBitsEx] dstBitBeginIndex or dstBitEndIndex out range!",
                                "[Tile::copyColData_1_2_4BitsPerSample] fill_1_2_4BitsPerSample failed"}));
  const std::uint8_t* row = block_->load();
  EXPECT_EQ(Bytes(row, row + 4), (Bytes{0x00, 0x0F, 0xFF, 0x00}));        // row 0 has its pixel
  EXPECT_EQ(Bytes(row + 48, row + 52), (Bytes{0x00, 0x00, 0x00, 0x00}));  // row 1 has not
  EXPECT_TRUE(tile_->copyColData(2, 0, 8, buffer.data(), 12, Direction::set, 0));
}

// ---- Manager and image

TEST(TileManagerTest, TracesTheGridOfAMemoryImage) {
  LogCapture log(ember_logger::trace);
  const auto image = TileImage::createNormal({100, 300, 3, 8, 1, false, KVTI_SCANLINE_OPERATION_ROWCOL});
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(
      log.take(),
      traceOf({"[TileManager::postInitializeNormal] fuzzyTotalBytes:720000",
               "[TileManager::postInitializeNormal] use memory", "[TileManager::postInitializeNormal] sumBytes_:93600",
               "[TileManager::postInitializeNormal] width:100 height:300 tileBaseWidth:128 tileBaseHeight:128 "
               "tileRowCount:3 tileColCount:1 ",
               "[TileManager::postInitializeNormal] [0][0]: tileWidth: 104 tileHeight: 128 bytes: 39936 ",
               "[TileManager::postInitializeNormal] [0][last]: tileWidth: 104 tileHeight: 128 bytes: 39936 ",
               "[TileManager::postInitializeNormal] [last][0]: tileWidth: 104 tileHeight: 44 bytes: 13728 ",
               "[TileManager::postInitializeNormal] [last][last]: tileWidth: 104 tileHeight: 44 bytes: 13728 ",
               "[TileManager::postInitializeNormal] ****************************"}));
}

TEST(TileManagerTest, FailsWithItsOwnMessageWhereFilesCannotBeHad) {
  LogCapture log(ember_logger::trace);
  EXPECT_EQ(TileImage::createNormal({0xFFFFFFFF, 0xFFFFFFFF, 1, 1, 1, true, KVTI_SCANLINE_OPERATION_COL}), nullptr);
  const auto lines = log.take();
  ASSERT_GT(lines.size(), 7U);
  // (2^32 - 1)^2 bits
  EXPECT_EQ(support::LogLines(lines.begin(), lines.begin() + 3),
            traceOf({"[TileManager::postInitializeNormal] fuzzyTotalBytes:18446744065119617025",
                     "[TileManager::postInitializeNormal] use file mapping [bForceUseFileMapping:1]",
                     "[TileManager::calculate_UseFileMapping] KVTI_SCANLINE_OPERATION_COL"}));
  EXPECT_EQ(support::LogLines(lines.end() - 4, lines.end()),
            errors({"[TileManager::postInitializeNormal] blockCenter_ create failed",
                    "[TileManager::createNormal] postInitialize failed",
                    "[TileImage::postInitializeNormal] create failed!", "[TileImage::createNormal] create failed"}));
}

TEST(TileManagerTest, NamesTheAccessPatternOfFiles) {
  LogCapture log(ember_logger::trace);
  for (const auto& [operation, name] : {std::pair{1U, "ROW"}, {2U, "COL"}, {3U, "ROWCOL"}}) {
    EXPECT_NE(TileImage::createNormal({100, 100, 1, 8, 1, true, operation}), nullptr);
    EXPECT_THAT(log.take(), Contains(LogLine{ember_logger::trace, std::string("[TileManager::calculate_UseFileMapping] "
                                                                              "KVTI_SCANLINE_OPERATION_") +
                                                                      name}));
  }
}

TEST(TileManagerTest, FailsCleanlyForAnUnknownAccessPattern) {
  LogCapture log;
  EXPECT_EQ(TileImage::createNormal({100, 100, 1, 8, 1, true, 7}), nullptr);
  EXPECT_EQ(log.take(),
            errors({"[TileManager::postInitializeNormal] no tile grid: the image's bits must fit 64 bits and its "
                    "scanlineOperation be 1, 2 or 3",
                    "[TileManager::createNormal] postInitialize failed",
                    "[TileImage::postInitializeNormal] create failed!", "[TileImage::createNormal] create failed"}));
  // Memory images do not look at it.
  EXPECT_NE(TileImage::createNormal({100, 100, 1, 8, 1, false, 7}), nullptr);
}

TEST(TileManagerTest, RefusesBitsThatWrapAroundToFewOnes) {
  LogCapture log;
  // 2^31 * 2^31 * 4 * 1 bits are 2^64: the count wraps to 0. One row less wraps to 2^64 - 2^33.
  EXPECT_EQ(TileImage::createNormal({0x80000000, 0x80000000, 4, 1, 1, false, 3}), nullptr);
  EXPECT_EQ(log.take(), errors({"[TileImage::check] invalid args.width:2147483648 height:2147483648 samplesPerPixel:4 "
                                "bitsPerSample:1!",
                                "[TileImage::createNormal] create failed"}));
  // 2^64 + 2^33 bits wrap to a count that fits the budget.
  EXPECT_EQ(TileImage::createNormal({0x80000000, 0x80000001, 4, 1, 1, false, 3}), nullptr);
  EXPECT_EQ(log.take(),
            errors({"[TileManager::postInitializeNormal] no tile grid: the image's bits must fit 64 bits and its "
                    "scanlineOperation be 1, 2 or 3",
                    "[TileManager::createNormal] postInitialize failed",
                    "[TileImage::postInitializeNormal] create failed!", "[TileImage::createNormal] create failed"}));
}

TEST(TileManagerTest, TracesFourCornersThatDiffer) {
  LogCapture log(ember_logger::trace);
  const auto image = TileImage::createNormal({140, 130, 1, 16, 1, false, 3});
  ASSERT_NE(image, nullptr);
  const auto lines = log.take();
  const auto expected =
      traceOf({"[TileManager::postInitializeNormal] [0][0]: tileWidth: 128 tileHeight: 128 bytes: 32768 ",
               "[TileManager::postInitializeNormal] [0][last]: tileWidth: 16 tileHeight: 128 bytes: 4096 ",
               "[TileManager::postInitializeNormal] [last][0]: tileWidth: 128 tileHeight: 2 bytes: 512 ",
               "[TileManager::postInitializeNormal] [last][last]: tileWidth: 16 tileHeight: 2 bytes: 64 "});
  EXPECT_THAT(lines, testing::IsSupersetOf(expected));
  EXPECT_THAT(lines, Contains(LogLine{ember_logger::trace, "[TileManager::postInitializeNormal] sumBytes_:37440"}));
}

TEST(TileManagerTest, FailsCleanlyWhicheverAllocationFails) {
  const auto counter = storage::TileImageMemoryByteCounter::instance();
  const std::uint64_t before = counter->usedBytes();
  std::set<std::string> seen;
  std::unique_ptr<TileImage> image;
  for (long n = 1; image == nullptr; ++n) {
    ASSERT_LT(n, 1000);
    LogCapture log;
    support::failAllocation(n);
    image = TileImage::createNormal({300, 300, 1, 8, 1, false, 3});
    support::failAllocation(0);
    if (image == nullptr) {
      EXPECT_EQ(counter->usedBytes(), before) << n;
      for (const auto& line : log.take()) {
        seen.insert(line.text);
      }
    }
  }
  EXPECT_EQ(counter->usedBytes(), before + 300 * 304);
  for (const char* text :
       {"[TileImage::createNormal] create failed", "[TileImage::postInitializeNormal] throw exception:std::bad_alloc!",
        "[MemoryStorageStrategy::postInitialize] postInitialize failed [reason: exception - std::bad_alloc]",
        "[TileManager::postInitializeNormal] blockCenter_ create failed", "[Tile::create] create failed",
        "[TileManager::initTiles] tile create failed", "[TileManager::postInitializeNormal] init tiles failed",
        "[TileManager::createNormal] postInitialize failed"}) {
    EXPECT_TRUE(seen.contains(text)) << text;
  }
}

// A budget of the test's own, with `used` bytes taken by images that do not exist.
class BudgetTest : public testing::Test {
 protected:
  static constexpr std::uint64_t kBudget = 0x4000000;  // bytes, the smallest there is

  void SetUp() override { counter_->setMaxBytes(kBudget); }
  void TearDown() override {
    counter_->subtract(taken_);
    counter_->setMaxBytes(storage::TileImageMemoryByteCounter::kDefaultMaxBytes);
  }

  void use(std::uint64_t bytes) {
    counter_->subtract(taken_);
    taken_ = bytes - counter_->usedBytes();
    counter_->add(taken_);
  }

  // Whether an image is put into heap memory; files take no budget.
  bool fits(std::uint32_t width, std::uint32_t height) const {
    const std::uint64_t before = counter_->usedBytes();
    const auto image = TileImage::createNormal({width, height, 1, 8, 1, false, 3});
    EXPECT_NE(image, nullptr);
    return counter_->usedBytes() > before;
  }

  std::shared_ptr<storage::TileImageMemoryByteCounter> counter_ = storage::TileImageMemoryByteCounter::instance();
  std::uint64_t taken_ = 0;
};

TEST_F(BudgetTest, ComparesBitsWithTheBytesOfTheBudget) {
  use(0);
  EXPECT_TRUE(fits(1024, 8191));   // 67,100,672 bits
  EXPECT_FALSE(fits(1024, 8192));  // 67,108,864 bits are not less than the budget
}

TEST_F(BudgetTest, SendsImagesBeyondItToFilesAndTracesThat) {
  LogCapture log(ember_logger::trace);
  EXPECT_FALSE(fits(1024, 8192));
  EXPECT_THAT(log.take(), Contains(LogLine{ember_logger::trace,
                                           "[TileManager::postInitializeNormal] use file mapping "
                                           "[bForceUseFileMapping:0]"}));
}

TEST_F(BudgetTest, SubtractsWhatLiveImagesUse) {
  use(kBudget - 8193 * 8);
  EXPECT_TRUE(fits(1, 8192));
  EXPECT_FALSE(fits(1, 8193));
  use(kBudget);
  EXPECT_FALSE(fits(1, 1025));
}

TEST_F(BudgetTest, TakesSmallImagesUpToTwiceTheBudget) {
  use(2 * kBudget - 1);
  EXPECT_TRUE(fits(1024, 1));   // 8192 bits
  EXPECT_FALSE(fits(1025, 1));  // 8200 bits
  use(2 * kBudget);
  EXPECT_FALSE(fits(1, 1));
}

TEST_F(BudgetTest, CountsABudgetWhoseDoubleOverflowsAsNoLimit) {
  counter_->setMaxBytes(std::uint64_t{1} << 63);
  use(100);
  EXPECT_TRUE(fits(1, 1));
}

TEST_F(BudgetTest, CountsTheTilesOfLiveImages) {
  const std::uint64_t before = counter_->usedBytes();
  {
    const auto image = TileImage::createNormal({100, 100, 3, 8, 1, false, 3});
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(counter_->usedBytes(), before + 31200);
    const auto inFiles = TileImage::createNormal({100, 100, 3, 8, 1, true, 3});
    ASSERT_NE(inFiles, nullptr);
    EXPECT_EQ(counter_->usedBytes(), before + 31200);
  }
  EXPECT_EQ(counter_->usedBytes(), before);
}

TEST_F(BudgetTest, HasRoomAgainAfterAnImageIsGone) {
  use(0);
  // 7500 x 1000 bytes: 60,000,000 bits; a second one is beyond 67,108,864 - 7,516,000.
  auto image = TileImage::createNormal({7500, 1000, 1, 8, 1, false, 3});
  ASSERT_NE(image, nullptr);
  EXPECT_FALSE(fits(7500, 1000));
  image.reset();
  EXPECT_TRUE(fits(7500, 1000));
}

TEST(TileManagerTest, RefusesEmptyAreas) {
  const auto image = TileImage::createNormal({100, 100, 1, 8, 1, false, 3});
  const auto manager = core::TileManager::createNormal(*image, false);
  ASSERT_NE(manager, nullptr);
  LogCapture log;
  EXPECT_FALSE(manager->adjustCache(5, 5, 0, 1, false));
  EXPECT_FALSE(manager->adjustCache(0, 1, 6, 5, true));
  EXPECT_EQ(log.take(),
            errors({"[TileManager::adjustCache] check your code", "[TileManager::adjustCache] check your code"}));
  EXPECT_TRUE(manager->adjustCache(5, 6, 0, 1, false));
  EXPECT_EQ(manager->tile(0, 0)->tileWidth(), 104U);
  EXPECT_EQ(manager->tile(1, 0), nullptr);
  EXPECT_EQ(manager->tile(0, 1), nullptr);
}

}  // namespace
