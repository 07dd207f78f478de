// Heap storage and its budget.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/process_values.h"
#include "storage/block_center.h"
#include "storage/memory_storage_strategy.h"
#include "storage/tile_image_memory_byte_counter.h"
#include "support/log_capture.h"

namespace {

using storage::BlockCenter;
using storage::MemoryBlock;
using storage::MemoryStorageStrategy;
using storage::TileByteSizes;
using storage::TileImageMemoryByteCounter;
using support::errors;
using support::LogCapture;

// Rows x columns tiles of the given sizes in bytes.
TileByteSizes sizes(std::uint64_t rows, std::uint64_t columns, std::uint64_t inner, std::uint64_t lastColumn,
                    std::uint64_t lastRow, std::uint64_t corner) {
  return {rows, columns, inner, lastColumn, lastRow, corner};
}

TEST(MemoryStorageTest, MakesOneZeroFilledBlockPerTile) {
  const auto center = BlockCenter::create(sizes(3, 2, 4000, 300, 2000, 100), true);
  ASSERT_NE(center, nullptr);
  constexpr std::uint64_t kExpected[3][2] = {{4000, 300}, {4000, 300}, {2000, 100}};
  for (std::uint64_t row = 0; row < 3; ++row) {
    for (std::uint64_t column = 0; column < 2; ++column) {
      storage::Block& block = *center->storage().block(row, column);
      EXPECT_EQ(block.size(), kExpected[row][column]);
      const std::uint8_t* bytes = block.load();
      ASSERT_NE(bytes, nullptr);
      EXPECT_TRUE(std::all_of(bytes, bytes + block.size(), [](std::uint8_t byte) { return byte == 0; }));
      block.release();
    }
  }
  EXPECT_EQ(sizes(3, 2, 4000, 300, 2000, 100).total(), 10700U);
}

TEST(MemoryStorageTest, ZeroFillsMemoryThatWasUsedBefore) {
  for (int round = 0; round < 50; ++round) {
    const auto block = MemoryBlock::create(16384);
    ASSERT_NE(block, nullptr);
    std::uint8_t* bytes = block->load();
    ASSERT_TRUE(std::all_of(bytes, bytes + 16384, [](std::uint8_t byte) { return byte == 0; })) << round;
    std::fill_n(bytes, 16384, std::uint8_t{0xFF});
  }
}

TEST(MemoryStorageTest, IgnoresAnnouncementsAndBatches) {
  const auto center = BlockCenter::create(sizes(1, 1, 0, 0, 0, 8), true);
  ASSERT_NE(center, nullptr);
  std::uint8_t* const before = center->storage().block(0, 0)->load();
  center->storage().beginCurrentThreadIO();
  center->storage().updateCache({0, 1, 0, 1}, true);
  center->storage().endCurrentThreadIO();
  EXPECT_EQ(center->storage().block(0, 0)->load(), before);
}

TEST(MemoryStorageTest, ReportsABlockThatCannotBeAllocated) {
  LogCapture log;
  EXPECT_EQ(MemoryBlock::create(std::uint64_t{1} << 60), nullptr);
  EXPECT_EQ(MemoryBlock::create(~std::uint64_t{0}), nullptr);
  EXPECT_EQ(log.take(), errors({"[MemoryBlock::create] create failed", "[MemoryBlock::create] create failed"}));
}

TEST(MemoryStorageTest, FailsAsAWholeIfOneBlockOfManyCannotBeAllocated) {
  LogCapture log;
  EXPECT_EQ(MemoryStorageStrategy::create(sizes(3, 2, 64, 64, 64, std::uint64_t{1} << 60)), nullptr);
  EXPECT_EQ(log.take(), errors({"[MemoryBlock::create] create failed",
                                "[MemoryStorageStrategy::postInitialize] MemoryBlock create failed",
                                "[MemoryStorageStrategy::create] create failed"}));
}

TEST(MemoryStorageTest, ReportsAGridThatCannotBeAllocated) {
  LogCapture log;
  EXPECT_EQ(MemoryStorageStrategy::create(sizes(std::uint64_t{1} << 61, 1, 0, 8, 0, 8)), nullptr);
  const auto lines = log.take();
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0].text.find("[MemoryStorageStrategy::postInitialize] postInitialize failed [reason: exception - "),
            0U);
  EXPECT_EQ(lines[1].text, "[MemoryStorageStrategy::create] create failed");
}

TEST(BlockCenterTest, RefusesTilesBeyondTheMachinesMemoryBeforeItTakesAny) {
  LogCapture log;
  const std::uint64_t available = base::totalMemoryBytes();
  EXPECT_EQ(BlockCenter::create(sizes(1, 2, 0, 0, 16, available), true), nullptr);
  EXPECT_EQ(log.take(), errors({("[BlockCenter::create] the tiles take " + std::to_string(available + 16) +
                                 " bytes, more than the machine's " + std::to_string(available) + " bytes")
                                    .c_str()}));
}

TEST(MemoryByteCounterTest, RaisesSmallBudgetsToSixtyFourMebibytes) {
  TileImageMemoryByteCounter counter;
  EXPECT_EQ(counter.maxBytes(), 0x40000000U);
  counter.setMaxBytes(0);
  EXPECT_EQ(counter.maxBytes(), 67108864U);
  counter.setMaxBytes(67108865);
  EXPECT_EQ(counter.maxBytes(), 67108865U);
}

TEST(MemoryByteCounterTest, IsOneForTheProcess) {
  EXPECT_EQ(TileImageMemoryByteCounter::instance(), TileImageMemoryByteCounter::instance());
}

TEST(MemoryByteCounterTest, AddsAndSubtractsFromManyThreads) {
  TileImageMemoryByteCounter counter;
  std::atomic<int> waiting = 8;  // all begin together
  std::vector<std::thread> threads;
  for (std::uint64_t i = 1; i <= 8; ++i) {
    threads.emplace_back([&, i] {
      for (--waiting; waiting > 0;) {
        std::this_thread::yield();
      }
      for (int round = 0; round < 100000; ++round) {
        counter.add(i);
        counter.subtract(i - 1);
      }
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(counter.usedBytes(), 800000U);
}

}  // namespace
