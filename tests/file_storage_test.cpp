// Tiles in memory-mapped files: the files on the disk, which tiles are mapped when and for whom, and what is flushed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <vector>

#ifndef _WIN32
#include <sys/wait.h>
#include <unistd.h>
#endif

#include "cache/file_mapping_file_path_helper.h"
#include "core/tile_image.h"
#include "core/tile_manager.h"
#include "kvtileimage/KvTileImage.h"
#include "platform/threads.h"
#include "storage/clean_up.h"
#include "storage/file_mapping_block.h"
#include "storage/file_mapping_storage_strategy.h"
#include "storage/file_mapping_thread_data.h"
#include "storage/tile_image_memory_byte_counter.h"
#include "support/allocation_failures.h"
#include "support/backing_files.h"
#include "support/image.h"
#include "support/log_capture.h"
#include "support/mapping_calls.h"
#include "support/other_thread.h"

namespace {

using core::Direction;
using core::TileImage;
using storage::AliveFlag;
using storage::FileMappingBlock;
using storage::FileMappingStorageStrategy;
using storage::FileMappingThreadData;
using storage::SyncFlusher;
using storage::ThreadLocalData;
using storage::TileArea;
using storage::TileByteSizes;
using support::BackingFile;
using support::backingFiles;
using support::errors;
using support::FlushCall;
using support::LogCapture;
using support::LogLine;
using support::OtherThread;
using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;
using Strategy = std::shared_ptr<FileMappingStorageStrategy>;

#ifdef _WIN32
constexpr bool kOnWindows = true;
#else
constexpr bool kOnWindows = false;
#endif
constexpr std::uint64_t kGranularity = kOnWindows ? 65536 : 4096;

// ---- The files of this process

std::vector<std::uint64_t> fileSizes() {
  std::vector<std::uint64_t> sizes;
  for (const auto& file : backingFiles()) {
    sizes.push_back(file.bytes());
  }
  return sizes;
}

Bytes contents(const std::filesystem::path& path) {
  std::ifstream stream(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

struct SizesOnDisk {
  const char* name;
  core::TileImageArguments image;
  std::vector<std::uint64_t> onLinux;    // rounded up to 4096
  std::vector<std::uint64_t> onWindows;  // rounded up to 65,536
};

void PrintTo(const SizesOnDisk& sizes, std::ostream* out) { *out << sizes.name; }

class FileSizesTest : public testing::TestWithParam<SizesOnDisk> {};

TEST_P(FileSizesTest, OneFilePerTileOfWholeUnits) {
  ASSERT_THAT(backingFiles(), IsEmpty());
  auto image = TileImage::createNormal(GetParam().image);
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(fileSizes(), kOnWindows ? GetParam().onWindows : GetParam().onLinux);
  image.reset();
  EXPECT_THAT(backingFiles(), IsEmpty());
}

// Arguments of an image in files.
core::TileImageArguments inFiles(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits,
                                 std::uint32_t operation) {
  return {width, height, samples, bits, KVTI_SAMPLEFORMAT_UINT, true, operation};
}

constexpr std::uint32_t kRow = KVTI_SCANLINE_OPERATION_ROW;
constexpr std::uint32_t kCol = KVTI_SCANLINE_OPERATION_COL;
constexpr std::uint32_t kRowCol = KVTI_SCANLINE_OPERATION_ROWCOL;

// Worked out by hand: width (the last one rounded up to 8) * height * bits / 8, rounded up to whole units.
INSTANTIATE_TEST_SUITE_P(
    Grids, FileSizesTest,
    testing::Values(
        // Tiles of 4096 x 1024: 4096, 4096 and 1808 columns; 1024 and 976 rows.
        SizesOnDisk{"RowColThreeByTwo",
                    inFiles(10000, 2000, 1, 8, kRowCol),
                    {4194304, 4194304, 1851392, 3997696, 3997696, 1765376},
                    {4194304, 4194304, 1900544, 3997696, 3997696, 1769472}},
        // Tiles of 8192 x 2048: 8192 and 1808 columns of half a byte.
        SizesOnDisk{"RowColFourBits", inFiles(10000, 2000, 1, 4, kRowCol), {8192000, 1810432}, {8192000, 1835008}},
        SizesOnDisk{"RowColOneTile", inFiles(3000, 3000, 1, 8, kRowCol), {9003008}, {9043968}},
        // Tall tiles of 256 x 4096: 256 and 48 columns, 44 of them in use; 4096 and 4 rows.
        SizesOnDisk{"RowColTall",
                    inFiles(300, 4100, 1, 8, kRowCol),
                    {1048576, 196608, 4096, 4096},
                    {1048576, 196608, 65536, 65536}},
        // Tiles of 4096 x 8192: 4096 and 8 columns of three bytes, 10 rows.
        SizesOnDisk{"RowThreeSamples", inFiles(4100, 10, 3, 8, kRow), {122880, 4096}, {131072, 65536}},
        // Tiles of 32,768 x 65,536: 32,768 and 232 columns of a bit, 100 rows.
        SizesOnDisk{"RowOneBit", inFiles(33000, 100, 1, 1, kRow), {409600, 4096}, {458752, 65536}},
        // Tiles of 2048 x 3072: 2048 and 8 columns of two bytes; 3072 and 3 rows.
        SizesOnDisk{"ColSixteenBits",
                    inFiles(2050, 3075, 1, 16, kCol),
                    {12582912, 49152, 12288, 4096},
                    {12582912, 65536, 65536, 65536}},
        // Tiles of 8192 x 12,288: 8192 and 8 columns of two bits, 20 rows.
        SizesOnDisk{"ColTwoBits", inFiles(8195, 20, 1, 2, kCol), {40960, 4096}, {65536, 65536}},
        // 104 columns of three bytes.
        SizesOnDisk{"RowTwentyFourBits", inFiles(100, 50, 1, 24, kRow), {16384}, {65536}},
        SizesOnDisk{"OnePixelOfTwoTimesSixtyFourBits", inFiles(1, 1, 2, 64, kCol), {4096}, {65536}},
        // 16 columns of three bits, 5 rows.
        SizesOnDisk{"RowColThreeTimesOneBit", inFiles(9, 5, 3, 1, kRowCol), {4096}, {65536}}),
    [](const auto& instance) { return instance.param.name; });

TEST(FileStorageTest, FillsItsFilesWithZeros) {
  const auto image = TileImage::createNormal(inFiles(300, 4100, 1, 8, kRowCol));
  ASSERT_NE(image, nullptr);
  const auto files = backingFiles();
  ASSERT_EQ(files.size(), 4U);
  for (const auto& file : files) {
    EXPECT_EQ(contents(file.path), Bytes(file.bytes(), 0)) << file.name();
  }
  Bytes row(300, 0xEE);
  ASSERT_TRUE(image->copyRowData(4099, 0, 300, row.data(), 300, Direction::get));
  EXPECT_EQ(row, Bytes(300, 0));
}

TEST(FileStorageTest, LaysTileRowsOutInTheFileAsInMemory) {
  const auto image = TileImage::createNormal(inFiles(300, 4100, 1, 8, kRowCol));
  ASSERT_NE(image, nullptr);
  const auto files = backingFiles();
  ASSERT_EQ(files.size(), 4U);
  const Bytes run{1, 2, 3, 4};
  // Across the seams at column 256 and, going down, row 4096.
  ASSERT_TRUE(image->copyRowData(4097, 254, 258, const_cast<std::uint8_t*>(run.data()), 4, Direction::set));
  ASSERT_TRUE(image->copyColData(299, 4094, 4098, const_cast<std::uint8_t*>(run.data()), 4, Direction::set));
  image->endCurrentThreadIO();
  Bytes expected(196608, 0);
  expected[4094 * 48 + 43] = 1;
  expected[4095 * 48 + 43] = 2;
  EXPECT_EQ(contents(files[1].path), expected);
  expected.assign(files[2].bytes(), 0);
  expected[256 + 254] = 1;
  expected[256 + 255] = 2;
  EXPECT_EQ(contents(files[2].path), expected);
  expected.assign(files[3].bytes(), 0);
  expected[48] = 3;
  expected[49] = 4;
  expected[43] = 3;
  expected[48 + 43] = 4;
  EXPECT_EQ(contents(files[3].path), expected);
}

TEST(FileStorageTest, KeepsImagesApart) {
  const auto first = TileImage::createNormal(inFiles(10, 10, 1, 8, kRow));
  auto second = TileImage::createNormal(inFiles(10, 10, 1, 8, kRow));
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  std::uint8_t pixel = 7;
  ASSERT_TRUE(first->copyRowData(0, 0, 1, &pixel, 1, Direction::set));
  ASSERT_TRUE(second->copyRowData(0, 0, 1, &pixel, 1, Direction::get));
  EXPECT_EQ(pixel, 0);
  EXPECT_EQ(backingFiles().size(), 2U);
  second.reset();
  EXPECT_EQ(backingFiles().size(), 1U);
  ASSERT_TRUE(first->copyRowData(0, 0, 1, &pixel, 1, Direction::get));
  EXPECT_EQ(pixel, 7);
}

TEST(FileStorageTest, TakesImagesThatTheHeapBudgetHasNoRoomFor) {
  const auto counter = storage::TileImageMemoryByteCounter::instance();
  counter->setMaxBytes(0);  // 67,108,864
  const auto filesOf = [](std::uint32_t width, std::uint32_t height) {
    const auto image = TileImage::createNormal({width, height, 1, 8, 1, false, kRow});
    EXPECT_NE(image, nullptr);
    return backingFiles().size();
  };
  const std::uint64_t budget = counter->maxBytes();
  EXPECT_EQ(filesOf(1024, 8191), 0U);  // 67,100,672 bits are less
  EXPECT_EQ(filesOf(1024, 8192), 1U);  // 67,108,864 are not
  counter->add(budget);
  EXPECT_EQ(filesOf(1024, 1), 0U);  // 8192 bits are a small image
  EXPECT_EQ(filesOf(1025, 1), 1U);  // 8200 are not
  counter->add(budget);
  EXPECT_EQ(filesOf(1, 1), 1U);
  counter->subtract(2 * budget);
  counter->setMaxBytes(storage::TileImageMemoryByteCounter::kDefaultMaxBytes);
}

// ---- Creation that fails

TEST(FileStorageTest, RefusesTilesThatAreNoWholeUnits) {
  LogCapture log;
  EXPECT_EQ(FileMappingStorageStrategy::createNormal({1, 2, 0, 0, kGranularity, kGranularity + 1}), nullptr);
  EXPECT_EQ(log.take(), errors({"[FileMappingStorageStrategy::postInitializeInterprocessA] fileBytes is not a multiple "
                                "of pageSize, check your code",
                                "[FileMappingStorageStrategy::createNormal] create failed"}));
  EXPECT_THAT(backingFiles(), IsEmpty());  // the first tile's is gone, too
}

TEST(FileStorageTest, RefusesAnEmptyGrid) {
  LogCapture log;
  for (const TileByteSizes& sizes :
       {TileByteSizes{}, TileByteSizes{1, 0, 0, 0, 0, 0}, TileByteSizes{0, 1, 0, 0, 0, 0}}) {
    EXPECT_EQ(FileMappingStorageStrategy::createNormal(sizes), nullptr);
    EXPECT_EQ(log.take(), errors({"[FileMappingStorageStrategy::postInitializeCommon] code error, check your code",
                                  "[FileMappingStorageStrategy::createNormal] create failed"}));
  }
}

TEST(FileStorageTest, TracesItsFlusher) {
  LogCapture log(ember_logger::trace);
  const auto strategy = FileMappingStorageStrategy::createNormal({1, 1, 0, 0, 0, kGranularity});
  EXPECT_EQ(log.take(), (support::LogLines{{ember_logger::trace, "[SyncFlusher::create] use SyncFlush"}}));
}

// A process that had this one's id may have left it, or still have it in use in another container.
TEST(FileStorageTest, MakesNoFileOverOneThatIsThere) {
  const auto& folders = storage::cacheFolders()->rootDirList();
  const auto last = cache::FileMappingFilePathHelper::getUniqueFileInfo(folders.front());
  ASSERT_TRUE(last);
  std::vector<std::filesystem::path> others;
  for (const std::wstring& folder : folders) {  // whichever has its turn
    for (const std::uint64_t ahead : {1, 2}) {
      std::wstring name = folder + cache::FileMappingFilePathHelper::prefix() + std::to_wstring(last->number + ahead);
      name += cache::FileMappingFilePathHelper::kExtension;
      others.emplace_back(name);
      std::ofstream(others.back(), std::ios::binary) << "another's";
    }
  }
  {
    const auto image = TileImage::createNormal(inFiles(10, 10, 1, 8, kRow));
    ASSERT_NE(image, nullptr);
    EXPECT_EQ(backingFiles().back().number, last->number + 3);
  }
  for (const auto& other : others) {
    EXPECT_EQ(contents(other), (Bytes{'a', 'n', 'o', 't', 'h', 'e', 'r', '\'', 's'}));
    std::filesystem::remove(other);
  }
  EXPECT_THAT(backingFiles(), IsEmpty());
}

TEST(FileStorageTest, LeavesNoFileBehindWhicheverAllocationFails) {
  std::set<std::string> seen;
  std::unique_ptr<TileImage> image;
  for (long n = 1; image == nullptr; ++n) {
    ASSERT_LT(n, 1000);
    LogCapture log;
    support::failAllocation(n);
    image = TileImage::createNormal(inFiles(300, 4100, 1, 8, kRowCol));
    support::failAllocation(0);
    if (image == nullptr) {
      EXPECT_THAT(backingFiles(), IsEmpty()) << n;
      for (const auto& line : log.take()) {
        seen.insert(line.text);
      }
    }
  }
  EXPECT_EQ(backingFiles().size(), 4U);
  for (const char* text :
       {"[FileMappingStorageStrategy::postInitializeInterprocessA] postInitialize failed [reason: exception "
        "std::bad_alloc]",
        "[FileMappingStorageStrategy::postInitializeInterprocessA] postInitialize failed [reason: block create failed]",
        "[FileMappingStorageStrategy::createNormal] create failed",
        "[TileManager::postInitializeNormal] blockCenter_ create failed"}) {
    EXPECT_TRUE(seen.contains(text)) << text;
  }
}

TEST(FileStorageTest, DeletesItsFilesWithoutMemory) {
  auto image = TileImage::createNormal(inFiles(10, 10, 1, 8, kRow));
  ASSERT_NE(image, nullptr);
  support::failAllocation(1);
  image.reset();
  support::failAllocation(0);
  EXPECT_THAT(backingFiles(), IsEmpty());
}

// ---- Which tiles are mapped

// A grid of tiles of one unit each.
class FileGridTest : public testing::Test {
 protected:
  void make(std::uint64_t rows, std::uint64_t columns) {
    strategy_ = FileMappingStorageStrategy::createNormal(
        {rows, columns, kGranularity, kGranularity, kGranularity, kGranularity});
    ASSERT_NE(strategy_, nullptr);
    rows_ = rows;
    columns_ = columns;
    for (const auto& file : backingFiles()) {
      files_.push_back(file.path);
    }
    ASSERT_EQ(files_.size(), rows * columns);
    support::takeFlushCalls();
  }

  FileMappingBlock& block(std::uint64_t row, std::uint64_t column) const {
    return dynamic_cast<FileMappingBlock&>(*strategy_->block(row, column));
  }

  // The users of each tile, a digit each and "." for none, row by row.
  std::vector<std::string> users() const {
    std::vector<std::string> rows;
    for (std::uint64_t row = 0; row < rows_; ++row) {
      std::string& line = rows.emplace_back();
      for (std::uint64_t column = 0; column < columns_; ++column) {
        const std::uint32_t count = block(row, column).useCount();
        line += count == 0 ? "." : std::to_string(count);
      }
    }
    return rows;
  }

  const std::filesystem::path& file(std::uint64_t row, std::uint64_t column) const {
    return files_[row * columns_ + column];
  }

  // Flushes of whole tiles.
  std::vector<FlushCall> flushesOf(std::initializer_list<std::pair<int, int>> tiles) const {
    std::vector<FlushCall> calls;
    for (const auto& [row, column] : tiles) {
      const auto& path = file(static_cast<std::uint64_t>(row), static_cast<std::uint64_t>(column));
      calls.push_back({path.filename().string(), kGranularity});
    }
    return calls;
  }

  Strategy strategy_;
  std::uint64_t rows_ = 0;
  std::uint64_t columns_ = 0;
  std::vector<std::filesystem::path> files_;
};

TEST_F(FileGridTest, MapsNothingAtCreation) {
  make(2, 3);
  EXPECT_THAT(users(), ElementsAre("...", "..."));
  strategy_->beginCurrentThreadIO();
  EXPECT_THAT(users(), ElementsAre("...", "..."));
}

TEST_F(FileGridTest, MapsTheTilesOfTheAreaAndNoOther) {
  make(3, 4);
  strategy_->updateCache({1, 3, 0, 2}, false);
  EXPECT_THAT(users(), ElementsAre(".11.", ".11.", "...."));
  std::set<std::uint8_t*> places;
  for (const auto& [row, column] : {std::pair{0U, 1U}, {0U, 2U}, {1U, 1U}, {1U, 2U}}) {
    EXPECT_EQ(block(row, column).size(), kGranularity);
    std::uint8_t* const bytes = block(row, column).load();
    ASSERT_NE(bytes, nullptr);
    EXPECT_TRUE(std::all_of(bytes, bytes + kGranularity, [](std::uint8_t byte) { return byte == 0; }));
    places.insert(bytes);
    block(row, column).release();
  }
  EXPECT_EQ(places.size(), 4U);
}

TEST_F(FileGridTest, KeepsUseCountsWhenAnAreaIsAnnouncedAgain) {
  make(2, 2);
  strategy_->updateCache({0, 2, 0, 1}, false);
  std::uint8_t* const before = block(0, 0).load();
  strategy_->updateCache({0, 2, 0, 1}, false);
  strategy_->updateCache({0, 2, 0, 1}, true);
  EXPECT_THAT(users(), ElementsAre("11", ".."));
  EXPECT_EQ(block(0, 0).load(), before);
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(users(), ElementsAre("..", ".."));
}

TEST_F(FileGridTest, UnmapsAllOfADisjointAreaAndFlushesWhatWasWritten) {
  make(3, 3);
  strategy_->updateCache({0, 2, 1, 3}, true);
  block(2, 1).load()[5] = 99;
  strategy_->updateCache({2, 3, 0, 3}, false);
  EXPECT_THAT(users(), ElementsAre("..1", "..1", "..1"));
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{1, 0}, {1, 1}, {2, 0}, {2, 1}}));
  EXPECT_EQ(contents(file(2, 1))[5], 99);
  LogCapture log;
  for (const auto& [row, column] : {std::pair{1U, 0U}, {1U, 1U}, {2U, 0U}, {2U, 1U}}) {
    EXPECT_EQ(block(row, column).load(), nullptr);
  }
  EXPECT_EQ(log.take().size(), 4U);
  strategy_->updateCache({1, 2, 2, 3}, false);
  EXPECT_EQ(block(2, 1).load()[5], 99);
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
}

TEST_F(FileGridTest, KeepsWhatIsInBothAreasMappedInItsPlace) {
  make(3, 4);
  strategy_->updateCache({0, 3, 0, 2}, true);
  std::uint8_t* const shared = block(1, 1).load();
  std::uint8_t* const alsoShared = block(1, 2).load();
  strategy_->updateCache({1, 4, 1, 3}, false);
  EXPECT_THAT(users(), ElementsAre("....", ".111", ".111"));
  EXPECT_EQ(block(1, 1).load(), shared);
  EXPECT_EQ(block(1, 2).load(), alsoShared);
  // (0, 0) is left to the system; the shared ones stay, so they are not flushed.
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{0, 1}, {0, 2}, {1, 0}}));
  strategy_->endCurrentThreadIO();
  // What entered was read only.
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{1, 1}, {1, 2}}));
}

// Every pair of areas of a 3 x 3 grid, compared with a set of tiles.
TEST_F(FileGridTest, HoldsExactlyTheLastAreaWhateverWasBefore) {
  make(3, 3);
  std::vector<TileArea> areas;
  for (const auto& [begin, end] : {std::pair{0U, 1U}, {0U, 2U}, {0U, 3U}, {1U, 2U}, {1U, 3U}, {2U, 3U}}) {
    for (const auto& [top, bottom] : {std::pair{0U, 1U}, {0U, 2U}, {0U, 3U}, {1U, 2U}, {1U, 3U}, {2U, 3U}}) {
      areas.push_back({begin, end, top, bottom});
    }
  }
  for (const auto& before : areas) {
    for (const auto& after : areas) {
      strategy_->updateCache(before, false);
      strategy_->updateCache(after, false);
      std::vector<std::string> expected(3, "...");
      for (std::uint64_t row = after.firstRow; row < after.endRow; ++row) {
        for (std::uint64_t column = after.firstColumn; column < after.endColumn; ++column) {
          expected[row][column] = '1';
        }
      }
      ASSERT_EQ(users(), expected);
    }
  }
}

TEST_F(FileGridTest, LogsAnEmptyAreaAndLetsGoOfTheOneBefore) {
  make(2, 2);
  for (const TileArea& empty : {TileArea{}, TileArea{1, 1, 0, 2}, TileArea{0, 2, 1, 1}, TileArea{2, 1, 0, 2}}) {
    strategy_->updateCache({0, 2, 0, 2}, false);
    EXPECT_THAT(users(), ElementsAre("11", "11"));
    LogCapture log;
    strategy_->updateCache(empty, false);
    EXPECT_EQ(log.take(), errors({"[FileMappingStorageStrategy::updateCache] area is empty,check your code!"}));
    EXPECT_THAT(users(), ElementsAre("..", ".."));
  }
  strategy_->updateCache({1, 2, 1, 2}, false);
  EXPECT_THAT(users(), ElementsAre("..", ".1"));
}

TEST_F(FileGridTest, MapsATileInTwoThreadsAreasOnceAndCountsItTwice) {
  make(2, 3);
  OtherThread other;
  strategy_->updateCache({0, 2, 0, 2}, false);
  std::uint8_t* const place = block(0, 0).load();
  other.run([&] { strategy_->updateCache({0, 2, 0, 2}, true); });
  EXPECT_THAT(users(), ElementsAre("22.", "22."));
  EXPECT_EQ(block(0, 0).load(), place);
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(users(), ElementsAre("11.", "11."));
  EXPECT_EQ(block(0, 0).load(), place);
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
  other.run([&] { strategy_->updateCache({1, 3, 0, 1}, false); });
  EXPECT_THAT(users(), ElementsAre(".11", "..."));
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{1, 0}, {1, 1}}));
  other.run([&] { strategy_->endCurrentThreadIO(); });
  EXPECT_THAT(users(), ElementsAre("...", "..."));
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{0, 1}}));
}

TEST_F(FileGridTest, IgnoresTheEndOfAThreadThatNeverAnnounced) {
  make(1, 2);
  strategy_->updateCache({0, 2, 0, 1}, true);
  LogCapture log(ember_logger::debug);
  OtherThread other;
  other.run([&] {
    strategy_->endCurrentThreadIO();
    EXPECT_EQ(ThreadLocalData::ofThread().recordCount(), 0U);
  });
  EXPECT_THAT(users(), ElementsAre("11"));
  strategy_->endCurrentThreadIO();
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(users(), ElementsAre(".."));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(FileGridTest, ReportsTheLoadOfATileThatNoOneUses) {
  make(2, 3);
  LogCapture log;
  EXPECT_EQ(block(1, 2).load(), nullptr);
  std::array<char, 200> expected{};
  std::snprintf(expected.data(), expected.size(),
                "[FileMappingBlock::load] useCount_ is zero, buf addr is %p check your code! rowIndex:1 colIndex:2",
                static_cast<void*>(nullptr));
  EXPECT_EQ(log.take(), errors({expected.data()}));
}

TEST_F(FileGridTest, WarnsWhenATileIsLetGoThatNoOneUses) {
  make(1, 1);
  LogCapture log(ember_logger::debug);
  EXPECT_TRUE(block(0, 0).tryFlushAndResetMappedRegion());
  EXPECT_EQ(log.take(), (support::LogLines{{ember_logger::warning,
                                            "[FileMappingBlock::tryFlushAndResetMappedRegion] block is already flushed "
                                            "and reset,check your code"}}));
  EXPECT_EQ(block(0, 0).useCount(), 0U);
}

TEST_F(FileGridTest, TellsWhetherTheLastUserOfATileLeft) {
  make(1, 1);
  EXPECT_TRUE(block(0, 0).ensureValidAndUse(false));
  EXPECT_TRUE(block(0, 0).ensureValidAndUse(false));
  EXPECT_FALSE(block(0, 0).tryFlushAndResetMappedRegion());
  EXPECT_TRUE(block(0, 0).tryFlushAndResetMappedRegion());
}

// ---- What is flushed

TEST_F(FileGridTest, NeverFlushesTheFirstTile) {
  make(2, 1);
  strategy_->updateCache({0, 1, 0, 2}, true);
  strategy_->endCurrentThreadIO();
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{1, 0}}));
}

TEST_F(FileGridTest, FlushesNothingThatWasOnlyRead) {
  make(2, 2);
  strategy_->updateCache({0, 2, 0, 2}, false);
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
}

TEST(FileFlushTest, CoversTheWholeTile) {
  const auto strategy = FileMappingStorageStrategy::createNormal({2, 1, 0, 2 * kGranularity, 0, 3 * kGranularity});
  ASSERT_NE(strategy, nullptr);
  const auto files = backingFiles();
  ASSERT_EQ(files.size(), 2U);
  support::takeFlushCalls();
  strategy->updateCache({0, 1, 1, 2}, true);
  strategy->endCurrentThreadIO();
  EXPECT_EQ(support::takeFlushCalls(), (std::vector<FlushCall>{{files[1].name(), 3 * kGranularity}}));
}

TEST_F(FileGridTest, FlushesATileThatAnyUserWroteWhenTheLastOneLeaves) {
  make(2, 1);
  OtherThread writer;
  strategy_->updateCache({0, 1, 1, 2}, false);
  writer.run([&] {
    strategy_->updateCache({0, 1, 1, 2}, true);
    strategy_->endCurrentThreadIO();
  });
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
  strategy_->endCurrentThreadIO();
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{1, 0}}));
}

TEST_F(FileGridTest, RemembersAWriterWhateverComesLater) {
  make(2, 1);
  OtherThread reader;
  strategy_->updateCache({0, 1, 1, 2}, true);
  reader.run([&] { strategy_->updateCache({0, 1, 1, 2}, false); });
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
  reader.run([&] { strategy_->endCurrentThreadIO(); });
  EXPECT_EQ(support::takeFlushCalls(), flushesOf({{1, 0}}));
}

TEST_F(FileGridTest, ForgetsAfterTheFlushThatATileWasWritten) {
  make(2, 1);
  strategy_->updateCache({0, 1, 1, 2}, true);
  strategy_->endCurrentThreadIO();
  support::takeFlushCalls();
  strategy_->updateCache({0, 1, 1, 2}, false);
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
}

// An unchanged area is not looked at again; the system writes the tile in its own time.
TEST_F(FileGridTest, DoesNotLearnThatAnAreaItHoldsForReadingIsWritten) {
  make(2, 1);
  strategy_->updateCache({0, 1, 1, 2}, false);
  strategy_->updateCache({0, 1, 1, 2}, true);
  block(1, 0).load()[1] = 42;
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
  EXPECT_EQ(contents(file(1, 0))[1], 42);
}

TEST_F(FileGridTest, FlushesInThePatternOfRowsAndColumns) {
  make(9, 8);
  strategy_->updateCache({0, 8, 0, 9}, true);
  strategy_->endCurrentThreadIO();
  // Of 0 .. 8, the multiples of 4 or 7 are 0, 4, 7 and 8.
  constexpr std::array<const char*, 9> kFlushed{".FFF.FF.",   // row 0
                                                "FFFFFFFF",   // 1
                                                "FFFFFFFF",   // 2
                                                "FFFFFFFF",   // 3
                                                ".FFF.FF.",   // 4
                                                "FFFFFFFF",   // 5
                                                "FFFFFFFF",   // 6
                                                ".FFF.FF.",   // 7
                                                ".FFF.FF."};  // 8
  std::vector<FlushCall> expected;
  for (std::size_t row = 0; row < 9; ++row) {
    for (std::size_t column = 0; column < 8; ++column) {
      if (kFlushed[row][column] == 'F') {
        expected.push_back({file(row, column).filename().string(), kGranularity});
      }
    }
  }
  EXPECT_EQ(support::takeFlushCalls(), expected);
}

TEST(SyncFlusherTest, LeavesTilesToTheSystemWhereRowAndColumnAreSuchMultiples) {
  // 0 .. 60 that can be divided by 4, 7, 11, 13, 17, 19 or 23.
  const std::set<std::uint64_t> multiples{0,  4,  7,  8,  11, 12, 13, 14, 16, 17, 19, 20, 21, 22, 23, 24, 26, 28, 32,
                                          33, 34, 35, 36, 38, 39, 40, 42, 44, 46, 48, 49, 51, 52, 55, 56, 57, 60};
  for (std::uint64_t row = 0; row <= 60; ++row) {
    for (std::uint64_t column = 0; column <= 60; ++column) {
      EXPECT_EQ(SyncFlusher::leavesToSystem(row, column), multiples.contains(row) && multiples.contains(column))
          << row << ", " << column;
    }
  }
}

// ---- Tiles that cannot be mapped

constexpr const char* kNotMapped =
    "[FileMappingBlock::ensureValidAndUse] ensureValid failed [reason: exception map_view_of_file_ex failed]";

// The library's own text, and what the system says of the file.
void expectNotMapped(const support::LogLines& lines, const std::filesystem::path& file) {
  ASSERT_EQ(lines.size(), 2U);
  EXPECT_EQ(lines[0], (LogLine{ember_logger::error, kNotMapped}));
  EXPECT_THAT(lines[1].text, testing::StartsWith("[FileMappingBlock::ensureValidAndUse] "));
  EXPECT_THAT(lines[1].text, testing::HasSubstr(file.filename().string() + " cannot be mapped: "));
}

TEST_F(FileGridTest, LetsGoOfTheWholeAreaIfATileCannotBeMapped) {
  make(3, 3);
  strategy_->updateCache({0, 2, 0, 2}, true);
  {
    const support::Unmappable broken(file(1, 2));
    LogCapture log;
    EXPECT_FALSE(strategy_->updateCache({1, 3, 0, 3}, true));
    expectNotMapped(log.take(), file(1, 2));
    EXPECT_THAT(users(), ElementsAre("...", "...", "..."));
    // It tries again every time.
    EXPECT_FALSE(strategy_->updateCache({1, 3, 0, 3}, true));
    expectNotMapped(log.take(), file(1, 2));
    EXPECT_THAT(users(), ElementsAre("...", "...", "..."));
    EXPECT_TRUE(strategy_->updateCache({0, 2, 0, 2}, false));
    EXPECT_THAT(log.take(), IsEmpty());
    EXPECT_THAT(users(), ElementsAre("11.", "11.", "..."));
  }
  strategy_->updateCache({1, 3, 0, 3}, true);
  EXPECT_THAT(users(), ElementsAre(".11", ".11", ".11"));
  LogCapture log(ember_logger::debug);
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(users(), ElementsAre("...", "...", "..."));
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(FileGridTest, FailsWithoutAnyAreaBefore) {
  make(1, 2);
  const support::Unmappable broken(file(0, 0));
  LogCapture log(ember_logger::debug);
  EXPECT_FALSE(strategy_->updateCache({0, 2, 0, 1}, false));
  expectNotMapped(log.take(), file(0, 0));
  EXPECT_THAT(users(), ElementsAre(".."));
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(log.take(), IsEmpty());
}

TEST_F(FileGridTest, LeavesAnotherThreadsTilesAloneWhenOneCannotBeMapped) {
  make(2, 2);
  OtherThread other;
  other.run([&] { strategy_->updateCache({0, 2, 0, 1}, true); });
  std::uint8_t* const place = block(0, 1).load();
  place[3] = 77;
  {
    const support::Unmappable broken(file(1, 1));
    LogCapture log(ember_logger::debug);
    EXPECT_FALSE(strategy_->updateCache({0, 2, 0, 2}, false));
    expectNotMapped(log.take(), file(1, 1));
    EXPECT_THAT(users(), ElementsAre("11", ".."));
    strategy_->endCurrentThreadIO();
    EXPECT_THAT(users(), ElementsAre("11", ".."));
    EXPECT_EQ(block(0, 1).load(), place);
    EXPECT_EQ(place[3], 77);
    EXPECT_THAT(log.take(), IsEmpty());
  }
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
  other.run([&] { strategy_->endCurrentThreadIO(); });
  EXPECT_THAT(users(), ElementsAre("..", ".."));
}

// What is mapped already needs no file any more.
TEST_F(FileGridTest, SharesATileThatAnotherThreadHoldsEvenIfItCouldNotBeMappedAnew) {
  make(1, 1);
  OtherThread other;
  other.run([&] { strategy_->updateCache({0, 1, 0, 1}, false); });
  const support::Unmappable broken(file(0, 0));
  LogCapture log;
  strategy_->updateCache({0, 1, 0, 1}, false);
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_THAT(users(), ElementsAre("2"));
  strategy_->endCurrentThreadIO();
  other.run([&] { strategy_->endCurrentThreadIO(); });
}

TEST_F(FileGridTest, LetsGoOfTheWholeAreaWhicheverAllocationFails) {
  make(2, 2);
  bool all = false;
  for (long n = 1; !all; ++n) {
    ASSERT_LT(n, 100);
    strategy_->updateCache({0, 1, 0, 2}, false);
    LogCapture log;
    support::failAllocation(n);
    try {
      strategy_->updateCache({0, 2, 0, 2}, false);
    } catch (const std::bad_alloc&) {
      FAIL() << n;  // a thread that is known needs no memory of its own
    }
    support::failAllocation(0);
    all = users() == std::vector<std::string>{"11", "11"};
    if (!all) {
      EXPECT_THAT(users(), ElementsAre("..", "..")) << n;
      EXPECT_EQ(log.take(), errors({"[FileMappingBlock::ensureValidAndUse] ensureValid failed [reason: exception "
                                    "std::bad_alloc]"}));
    }
  }
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(users(), ElementsAre("..", ".."));
}

// The copy must not begin: what it reached first would go when the other thread lets go of it.
TEST(FileImageTest, TouchesNoTileIfOneOfTheAreaCannotBeMappedWhateverOtherThreadsHold) {
  const support::Image image(KvTileImage_AllocEx(300, 4100, 1, 8, KVTI_SAMPLEFORMAT_UINT, 1, kRowCol));
  ASSERT_NE(image, nullptr);
  OtherThread other;
  other.run([&] {
    std::uint8_t pixel = 0;
    EXPECT_TRUE(KvTileImage_GetPixelData(image.get(), 0, 4098, &pixel, 1));
  });
  const Bytes written(300, 0x5A);
  {
    const support::Unmappable broken(backingFiles()[3].path);
    const LogCapture quiet;
    EXPECT_FALSE(KvTileImage_SetFullRowData(image.get(), 4098, written.data(), written.size()));
  }
  Bytes row(300, 0x11);
  ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), 4098, row.data(), row.size()));
  EXPECT_EQ(row, Bytes(300, 0));
  other.run([&] { KvTileImage_EndCurrentThreadIO(image.get()); });
}

TEST(FileImageTest, FailsTheAccessToATileThatCannotBeMappedAndWorksOnceItCan) {
  const support::Image image(KvTileImage_AllocEx(300, 4100, 1, 8, KVTI_SAMPLEFORMAT_UINT, 1, kRowCol));
  ASSERT_NE(image, nullptr);
  Bytes row(300, 0x5A);
  ASSERT_TRUE(KvTileImage_SetFullRowData(image.get(), 4098, row.data(), row.size()));
  const auto files = backingFiles();
  ASSERT_EQ(files.size(), 4U);
  ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), 0, row.data(), row.size()));
  {
    const support::Unmappable broken(files[3].path);
    LogCapture log;
    EXPECT_FALSE(KvTileImage_GetFullRowData(image.get(), 4098, row.data(), row.size()));
    auto lines = log.take();
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines.back(), (LogLine{ember_logger::error, "[TileImage::copyRowData] adjustCachedTile failed!"}));
    lines.pop_back();
    expectNotMapped(lines, files[3].path);
    EXPECT_FALSE(KvTileImage_GetFullColData(image.get(), 299, row.data(), 4100));
    EXPECT_TRUE(KvTileImage_GetRowData(image.get(), 4098, 0, 256, row.data(), row.size()));
  }
  row.assign(300, 0);
  ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), 4098, row.data(), row.size()));
  EXPECT_EQ(row, Bytes(300, 0x5A));
}

// ---- Which tiles an image announces

// Tiles of 256 x 4096: columns from 0, 256 and 512 on, rows from 0, 4096 and 8192 on.
constexpr std::uint32_t kWidth = 700;
constexpr std::uint32_t kHeight = 8200;

struct Rectangle {
  std::uint32_t x1, x2, y1, y2;
  std::array<const char*, 3> mapped;
};

TEST(FileImageTest, AnnouncesTheTilesThatARectangleTouches) {
  const auto image = TileImage::createNormal(inFiles(kWidth, kHeight, 1, 8, kRowCol));
  ASSERT_NE(image, nullptr);
  const auto manager = core::TileManager::createNormal(*image, true);
  ASSERT_NE(manager, nullptr);
  const std::array<Rectangle, 11> table{{{0, kWidth, 0, 1, {"XXX", "...", "..."}},
                                         {255, 257, 4095, 4096, {"XX.", "...", "..."}},
                                         {256, 512, 4096, 4097, {"...", ".X.", "..."}},
                                         {256, 513, 4096, 4097, {"...", ".XX", "..."}},
                                         {0, 256, 8191, 8192, {"...", "X..", "..."}},
                                         {512, kWidth, 8199, kHeight, {"...", "...", "..X"}},
                                         {255, 256, 0, kHeight, {"X..", "X..", "X.."}},
                                         {256, 257, 4095, 4097, {".X.", ".X.", "..."}},
                                         {511, 512, 4096, 8192, {"...", ".X.", "..."}},
                                         {512, 513, 8191, 8193, {"...", "..X", "..X"}},
                                         {255, 513, 4095, 8193, {"XXX", "XXX", "XXX"}}}};
  const LogCapture quiet;
  for (const auto& [x1, x2, y1, y2, mapped] : table) {
    EXPECT_TRUE(manager->adjustCache(x1, x2, y1, y2, false));
    for (std::uint64_t row = 0; row < 3; ++row) {
      std::string found;
      for (std::uint64_t column = 0; column < 3; ++column) {
        std::uint8_t pixel = 0;
        found += manager->tile(row, column)->copyRowData(0, 0, 1, &pixel, 1, Direction::get, 0) ? 'X' : '.';
      }
      EXPECT_EQ(found, mapped[row]) << "[" << x1 << ", " << x2 << ") x [" << y1 << ", " << y2 << "), tile row " << row;
    }
  }
}

// The tiles that the transfers of one batch had flushed, by their place in row order; (0, 0) never is.
class FlushedTilesTest : public testing::Test {
 protected:
  void SetUp() override {
    image_.reset(KvTileImage_AllocEx(kWidth, kHeight, 1, 8, KVTI_SAMPLEFORMAT_UINT, 1, kRowCol));
    ASSERT_NE(image_, nullptr);
    files_ = backingFiles();
    ASSERT_EQ(files_.size(), 9U);
    support::takeFlushCalls();
  }

  std::vector<int> flushed() {
    KvTileImage_EndCurrentThreadIO(image_.get());
    std::vector<int> tiles;
    for (const auto& call : support::takeFlushCalls()) {
      const auto found =
          std::find_if(files_.begin(), files_.end(), [&](const auto& file) { return file.name() == call.fileName; });
      tiles.push_back(static_cast<int>(found - files_.begin()));
    }
    return tiles;
  }

  support::Image image_;
  std::vector<BackingFile> files_;
  Bytes buffer_ = Bytes(kHeight, 1);
};

TEST_F(FlushedTilesTest, AreTheOnesThatWereWritten) {
  const std::uint64_t bytes = buffer_.size();
  EXPECT_TRUE(KvTileImage_SetFullRowData(image_.get(), 4096, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(3, 4, 5));
  EXPECT_TRUE(KvTileImage_SetRowData(image_.get(), 4095, 256, 513, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(1, 2));
  EXPECT_TRUE(KvTileImage_SetRowData(image_.get(), 8191, 256, 512, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(4));
  EXPECT_TRUE(KvTileImage_SetFullColData(image_.get(), 256, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(1, 4, 7));
  EXPECT_TRUE(KvTileImage_SetColData(image_.get(), 511, 4095, 4097, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(1, 4));
  EXPECT_TRUE(KvTileImage_SetColData(image_.get(), 0, 4096, 8192, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(3));
  EXPECT_TRUE(KvTileImage_SetPixelData(image_.get(), 255, 4096, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(3));
  EXPECT_TRUE(KvTileImage_SetPixelData(image_.get(), 256, 4095, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), ElementsAre(1));
}

TEST_F(FlushedTilesTest, AreNotTheOnesThatWereRead) {
  const std::uint64_t bytes = buffer_.size();
  EXPECT_TRUE(KvTileImage_GetFullRowData(image_.get(), 4096, buffer_.data(), bytes));
  EXPECT_TRUE(KvTileImage_GetRowData(image_.get(), 4095, 255, 513, buffer_.data(), bytes));
  EXPECT_TRUE(KvTileImage_GetFullColData(image_.get(), 256, buffer_.data(), bytes));
  EXPECT_TRUE(KvTileImage_GetColData(image_.get(), 511, 4095, 4097, buffer_.data(), bytes));
  EXPECT_TRUE(KvTileImage_GetPixelData(image_.get(), 256, 4096, buffer_.data(), bytes));
  EXPECT_THAT(flushed(), IsEmpty());
}

TEST_F(FlushedTilesTest, GoOneByOneAsTransfersMoveOn) {
  for (std::uint32_t x = 250; x < 260; ++x) {
    EXPECT_TRUE(KvTileImage_SetPixelData(image_.get(), x, 5000, buffer_.data(), 1));
  }
  EXPECT_EQ(support::takeFlushCalls().size(), 1U);  // tile 3, at column 256
  EXPECT_THAT(flushed(), ElementsAre(4));
}

// ---- Threads and processes

TEST_F(FileGridTest, KeepsTheTilesOfAThreadThatEndedWithoutLettingGo) {
  make(2, 2);
  {
    OtherThread other;
    other.run([&] {
      strategy_->updateCache({0, 2, 1, 2}, true);
      block(1, 1).load()[0] = 5;
    });
  }
  EXPECT_THAT(users(), ElementsAre("..", "11"));
  strategy_->updateCache({1, 2, 0, 2}, false);
  EXPECT_THAT(users(), ElementsAre(".1", "12"));
  EXPECT_EQ(block(1, 1).load()[0], 5);
  strategy_->endCurrentThreadIO();
  EXPECT_THAT(users(), ElementsAre("..", "11"));
  LogCapture log(ember_logger::debug);
  strategy_.reset();
  EXPECT_THAT(log.take(), IsEmpty());
  EXPECT_THAT(backingFiles(), IsEmpty());
}

TEST_F(FileGridTest, ReleasesTilesThatAreMappedWithoutAFlush) {
  make(2, 2);
  strategy_->updateCache({0, 2, 0, 2}, true);
  strategy_.reset();
  EXPECT_THAT(support::takeFlushCalls(), IsEmpty());
  EXPECT_THAT(backingFiles(), IsEmpty());
}

TEST_F(FileGridTest, WarnsWhenAnotherThreadReleasesIt) {
  make(1, 1);
  strategy_->updateCache({0, 1, 0, 1}, true);
  LogCapture log(ember_logger::debug);
  std::uint32_t otherId = 0;
  {
    OtherThread other;
    other.run([&] {
      otherId = platform::currentThreadId();
      strategy_.reset();
    });
  }
  ASSERT_NE(otherId, platform::currentThreadId());
  EXPECT_EQ(
      log.take(),
      (support::LogLines{{ember_logger::warning,
                          "[FileMappingStorageStrategy::~FileMappingStorageStrategy] threadIdOfConstructor: " +
                              std::to_string(platform::currentThreadId()) + ", threadIdOfDestructor: " +
                              std::to_string(otherId) + " . not in same thread,this possibly cause thread unsafe."}}));
  EXPECT_THAT(backingFiles(), IsEmpty());
}

TEST_F(FileGridTest, StartsWithoutAnAreaInThePlaceOfAReleasedImage) {
  // Whatever address the new one gets: no thread holds a tile of it.
  OtherThread other;
  for (int round = 0; round < 5; ++round) {
    files_.clear();
    make(1, 2);
    EXPECT_THAT(users(), ElementsAre(".."));
    other.run([&] { strategy_->updateCache({0, 1, 0, 1}, false); });
    strategy_->updateCache({0, 1, 0, 1}, false);
    EXPECT_THAT(users(), ElementsAre("2."));
    strategy_.reset();
  }
}

#ifndef _WIN32
TEST_F(FileGridTest, LeavesTheFilesToTheParentInAForkedProcess) {
  make(1, 2);
  strategy_->updateCache({0, 2, 0, 1}, true);
  block(0, 1).load()[7] = 70;
  const pid_t child = fork();
  ASSERT_NE(child, -1);
  if (child == 0) {
    strategy_.reset();
    _exit(0);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  ASSERT_EQ(backingFiles().size(), 2U);
  EXPECT_THAT(users(), ElementsAre("11"));
  strategy_->endCurrentThreadIO();
  strategy_->updateCache({1, 2, 0, 1}, false);
  EXPECT_EQ(block(0, 1).load()[7], 70);
}
#endif

// ---- The records of a thread

AliveFlag flag(bool alive = true) { return std::make_shared<std::atomic<bool>>(alive); }

constexpr TileArea kSomeArea{1, 2, 3, 4};
constexpr TileArea kOtherArea{5, 6, 7, 8};

TEST(ThreadLocalDataTest, HandsBackTheAreaBefore) {
  ThreadLocalData data;
  const AliveFlag alive = flag();
  TileArea before = kOtherArea;
  const auto record = data.updateArea(16, alive, kSomeArea, before);
  EXPECT_EQ(before, TileArea());
  EXPECT_EQ(record->key, 16U);
  EXPECT_EQ(record->alive, alive);
  EXPECT_EQ(record->area, kSomeArea);
  EXPECT_EQ(data.updateArea(16, alive, kOtherArea, before), record);
  EXPECT_EQ(before, kSomeArea);
  EXPECT_EQ(record->area, kOtherArea);
}

TEST(ThreadLocalDataTest, KeepsARecordPerKey) {
  ThreadLocalData data;
  const AliveFlag first = flag();
  const AliveFlag second = flag();
  TileArea before;
  data.updateArea(16, first, kSomeArea, before);
  data.updateArea(32, second, kOtherArea, before);
  EXPECT_EQ(before, TileArea());
  EXPECT_EQ(data.recordCount(), 2U);
  data.updateArea(16, first, {}, before);
  EXPECT_EQ(before, kSomeArea);
  data.updateArea(32, second, {}, before);
  EXPECT_EQ(before, kOtherArea);
}

// The same for the record that was used last, which is found without looking, and for one that was not.
TEST(ThreadLocalDataTest, DoesNotTrustTheRecordOfADeadOwnerOfTheSameKey) {
  for (const bool usedLast : {true, false}) {
    ThreadLocalData data;
    const AliveFlag dead = flag();
    TileArea before;
    const auto old = data.updateArea(16, dead, kSomeArea, before);
    if (!usedLast) {
      data.updateArea(32, flag(), kSomeArea, before);
    }
    *dead = false;
    const AliveFlag alive = flag();
    const auto record = data.updateArea(16, alive, kOtherArea, before);
    EXPECT_EQ(before, TileArea()) << usedLast;
    EXPECT_NE(record, old);
    EXPECT_EQ(record->alive, alive);
    EXPECT_EQ(old->area, kSomeArea);
    EXPECT_EQ(data.recordCount(), usedLast ? 1U : 2U);
  }
}

TEST(ThreadLocalDataTest, DoesNotTrustARecordWhoseFlagIsDown) {
  ThreadLocalData data;
  const AliveFlag alive = flag();
  TileArea before;
  data.updateArea(16, alive, kSomeArea, before);
  *alive = false;
  data.updateArea(16, alive, kOtherArea, before);
  EXPECT_EQ(before, TileArea());
}

TEST(ThreadLocalDataTest, RemovesARecord) {
  ThreadLocalData data;
  const AliveFlag first = flag();
  const AliveFlag second = flag();
  TileArea before;
  data.updateArea(16, first, kSomeArea, before);
  data.updateArea(32, second, kSomeArea, before);
  EXPECT_TRUE(data.check(32));  // the one used last
  EXPECT_FALSE(data.check(32));
  EXPECT_TRUE(data.check(16));
  EXPECT_FALSE(data.check(16));
  EXPECT_EQ(data.recordCount(), 0U);
  data.updateArea(32, second, kSomeArea, before);
  EXPECT_EQ(before, TileArea());
}

// Keys first, first + 16, ... with records of one owner.
void addRecords(ThreadLocalData& data, std::uint64_t first, std::uint64_t count, const AliveFlag& alive) {
  TileArea before;
  for (std::uint64_t i = 0; i < count; ++i) {
    data.updateArea(first + i * 16, alive, kSomeArea, before);
    EXPECT_EQ(before, TileArea());
  }
}

TEST(ThreadLocalDataTest, PurgesDeadRecordsWhenTheSixtyFifthComes) {
  ThreadLocalData data;
  const AliveFlag dead = flag();
  addRecords(data, 0x1000, 64, dead);
  *dead = false;
  EXPECT_EQ(data.recordCount(), 64U);
  addRecords(data, 0x9000, 1, flag());
  EXPECT_EQ(data.recordCount(), 1U);
}

TEST(ThreadLocalDataTest, KeepsLiveRecordsWhenItPurges) {
  ThreadLocalData data;
  const AliveFlag alive = flag();
  const AliveFlag dead = flag();
  addRecords(data, 0x1000, 10, alive);
  addRecords(data, 0x2000, 54, dead);
  *dead = false;
  addRecords(data, 0x9000, 1, alive);
  EXPECT_EQ(data.recordCount(), 11U);
  TileArea before;
  for (std::uint64_t i = 0; i < 10; ++i) {
    data.updateArea(0x1000 + i * 16, alive, kOtherArea, before);
    EXPECT_EQ(before, kSomeArea);
  }
}

// A purge that leaves 64 records puts the next one off until there are 128, whatever dies meanwhile.
TEST(ThreadLocalDataTest, KeepsDeadRecordsBetweenPurges) {
  ThreadLocalData data;
  const AliveFlag alive = flag();
  addRecords(data, 0x1000, 65, alive);
  const AliveFlag dead = flag();
  addRecords(data, 0x2000, 10, dead);
  *dead = false;
  addRecords(data, 0x3000, 53, alive);
  EXPECT_EQ(data.recordCount(), 128U);
  addRecords(data, 0x4000, 1, alive);
  EXPECT_EQ(data.recordCount(), 119U);
}

TEST(ThreadLocalDataTest, PurgesAgainAtTheNextMultipleOfSixtyFour) {
  ThreadLocalData data;
  const AliveFlag alive = flag();
  addRecords(data, 0x1000, 64, alive);
  addRecords(data, 0x2000, 1, alive);  // nothing to purge among 64: the next at 128
  const AliveFlag dead = flag();
  addRecords(data, 0x3000, 63, dead);
  *dead = false;
  EXPECT_EQ(data.recordCount(), 128U);
  addRecords(data, 0x4000, 1, alive);
  EXPECT_EQ(data.recordCount(), 66U);  // the 65 that were there stayed: the next at 65 / 64 * 64 + 64 = 128
  const AliveFlag alsoDead = flag();
  addRecords(data, 0x5000, 62, alsoDead);
  *alsoDead = false;
  EXPECT_EQ(data.recordCount(), 128U);
  addRecords(data, 0x6000, 1, alive);
  EXPECT_EQ(data.recordCount(), 67U);
}

// An erased record of a dead owner makes room first.
TEST(ThreadLocalDataTest, DoesNotPurgeForAKeyThatComesBack) {
  ThreadLocalData data;
  const AliveFlag dead = flag();
  addRecords(data, 0x1000, 64, dead);
  *dead = false;
  addRecords(data, 0x1000, 1, flag());
  EXPECT_EQ(data.recordCount(), 64U);
}

// What `action` throws, if it is a text.
std::optional<std::string> textThrownBy(const std::function<void()>& action) {
  try {
    action();
  } catch (const char* text) {
    return text;
  }
  return std::nullopt;
}

TEST(ThreadLocalDataTest, ThrowsATextForNoKey) {
  ThreadLocalData data;
  LogCapture log;
  TileArea before;
  EXPECT_EQ(textThrownBy([&] { data.updateArea(0, flag(), kSomeArea, before); }), "check your code!");
  EXPECT_EQ(log.take(), errors({"[ThreadLocalData::updateArea] ptr is nullptr,check your code!"}));
  EXPECT_EQ(data.recordCount(), 0U);
}

TEST(ThreadLocalDataTest, ThrowsATextForAnotherThread) {
  ThreadLocalData data;
  LogCapture log;
  OtherThread other;
  const auto lines = errors(
      {"[ThreadLocalData::check] other thread use ThreadLocalData,This will cause thread insecurity.check your code"});
  other.run([&] {
    TileArea before;
    EXPECT_EQ(textThrownBy([&] { data.updateArea(16, flag(), kSomeArea, before); }), "check your code!");
    EXPECT_EQ(log.take(), lines);
    EXPECT_EQ(textThrownBy([&] { data.check(16); }), "check your code!");
    EXPECT_EQ(log.take(), lines);
    // Without a key it does not come that far.
    EXPECT_EQ(textThrownBy([&] { data.updateArea(0, flag(), kSomeArea, before); }), "check your code!");
    EXPECT_EQ(log.take(), errors({"[ThreadLocalData::updateArea] ptr is nullptr,check your code!"}));
  });
  EXPECT_EQ(data.recordCount(), 0U);
}

// "[function] what [tid:id] [addr:...]", with the address as the system writes it.
std::string threadLine(const char* function, const char* what, std::uint32_t id, const ThreadLocalData* address) {
  std::array<char, 200> text{};
  std::snprintf(text.data(), text.size(), "[%s] %s [tid:%u] [addr:%p]", function, what, id,
                static_cast<const void*>(address));
  return text.data();
}

TEST(ThreadLocalDataTest, TracesTheFirstUseAndTheEndOfAThread) {
  LogCapture log(ember_logger::trace);
  std::uint32_t id = 0;
  const ThreadLocalData* address = nullptr;
  {
    OtherThread other;
    other.run([&] {
      id = platform::currentThreadId();
      EXPECT_EQ(ThreadLocalData::ofThreadIfAny(), nullptr);
      address = &ThreadLocalData::ofThread();
      EXPECT_EQ(&ThreadLocalData::ofThread(), address);
      EXPECT_EQ(ThreadLocalData::ofThreadIfAny(), address);
    });
    EXPECT_EQ(log.take(), (support::LogLines{{ember_logger::trace, threadLine("ThreadLocalData::ThreadLocalData",
                                                                              "thread start", id, address)}}));
  }
  EXPECT_EQ(log.take(), (support::LogLines{{ember_logger::trace, threadLine("ThreadLocalData::~ThreadLocalData",
                                                                            "thread quit", id, address)}}));
}

TEST(ThreadLocalDataTest, IsAnotherOneInEachThread) {
  const ThreadLocalData* const mine = &ThreadLocalData::ofThread();
  OtherThread other;
  other.run([&] { EXPECT_NE(&ThreadLocalData::ofThread(), mine); });
}

// Thread data that can be made again in the same place.
class InPlace {
 public:
  ~InPlace() { remove(); }
  FileMappingThreadData& make() {
    remove();
    data_ = new (place_.data()) FileMappingThreadData(flag());
    return *data_;
  }
  void remove() {
    if (data_ != nullptr) {
      data_->~FileMappingThreadData();
      data_ = nullptr;
    }
  }

 private:
  alignas(FileMappingThreadData) std::array<std::byte, sizeof(FileMappingThreadData)> place_{};
  FileMappingThreadData* data_ = nullptr;
};

TEST(FileMappingThreadDataTest, GivesTheEmptyAreaFirstAndClearsToIt) {
  FileMappingThreadData data(flag());
  TileArea before = kOtherArea;
  data.updateArea(kSomeArea, before);
  EXPECT_EQ(before, TileArea());
  data.begin();
  data.clearArea(before);
  EXPECT_EQ(before, kSomeArea);
  data.clearArea(before);
  EXPECT_EQ(before, TileArea());
}

TEST(FileMappingThreadDataTest, ForgetsTheCallingThread) {
  FileMappingThreadData data(flag());
  EXPECT_FALSE(data.check());
  TileArea before;
  data.updateArea(kSomeArea, before);
  EXPECT_TRUE(data.check());
  EXPECT_FALSE(data.check());
  data.updateArea(kSomeArea, before);
  EXPECT_EQ(before, TileArea());
}

TEST(FileMappingThreadDataTest, KeepsAnAreaPerThread) {
  FileMappingThreadData data(flag());
  OtherThread other;
  TileArea before;
  data.updateArea(kSomeArea, before);
  other.run([&] {
    data.updateArea(kOtherArea, before);
    EXPECT_EQ(before, TileArea());
  });
  data.updateArea({}, before);
  EXPECT_EQ(before, kSomeArea);
  other.run([&] { data.updateArea({}, before); });
  EXPECT_EQ(before, kOtherArea);
}

TEST(FileMappingThreadDataTest, RemovesItsRecordFromTheThreadThatDestroysIt) {
  OtherThread other;
  other.run([&] {
    const AliveFlag alive = flag();
    TileArea before;
    {
      FileMappingThreadData data(alive);
      data.updateArea(kSomeArea, before);
      EXPECT_EQ(ThreadLocalData::ofThread().recordCount(), 1U);
    }
    EXPECT_EQ(ThreadLocalData::ofThread().recordCount(), 0U);
    EXPECT_FALSE(*alive);
  });
}

TEST(FileMappingThreadDataTest, GivesTheEmptyAreaWhenItsAddressComesBack) {
  InPlace place;
  OtherThread other;
  FileMappingThreadData& first = place.make();
  TileArea before;
  first.updateArea(kSomeArea, before);
  other.run([&] { first.updateArea(kSomeArea, before); });
  FileMappingThreadData& second = place.make();
  ASSERT_EQ(&first, &second);
  second.updateArea(kOtherArea, before);
  EXPECT_EQ(before, TileArea());
  before = kSomeArea;
  other.run([&] {
    // Left behind, as only this thread may touch it.
    EXPECT_EQ(ThreadLocalData::ofThread().recordCount(), 1U);
    second.updateArea(kOtherArea, before);
    EXPECT_EQ(ThreadLocalData::ofThread().recordCount(), 1U);
  });
  EXPECT_EQ(before, TileArea());
}

TEST(FileMappingThreadDataTest, LeavesNoMoreThanSixtyFourRecordsOfReleasedImagesInAThread) {
  OtherThread other;
  std::vector<std::unique_ptr<FileMappingThreadData>> images;
  TileArea before;
  other.run([&] {
    for (int i = 0; i < 64; ++i) {
      images.push_back(std::make_unique<FileMappingThreadData>(flag()));
      images.back()->updateArea(kSomeArea, before);
    }
  });
  images.clear();  // on this thread: the records of the other one stay
  FileMappingThreadData last(flag());
  other.run([&] {
    EXPECT_EQ(ThreadLocalData::ofThread().recordCount(), 64U);
    last.updateArea(kSomeArea, before);
    EXPECT_EQ(before, TileArea());
    EXPECT_LE(ThreadLocalData::ofThread().recordCount(), 64U);
  });
}

}  // namespace
