// Files mapped into memory.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdint>
#include <fstream>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/paths.h"
#include "platform/system_info.h"
#include "support/refusal.h"
#include "support/scratch_folder.h"
#include "support/system.h"
#include "support/whole_file.h"

namespace {

using support::contentsOf;
using support::refusalOf;
using win_interprocess::file_mapping;
using win_interprocess::kCopyOnWrite;
using win_interprocess::kReadOnly;
using win_interprocess::kReadWrite;
using win_interprocess::mapped_region;

constexpr std::uint64_t kMost = std::numeric_limits<std::uint64_t>::max();
constexpr std::array<std::uint32_t, 3> kModes{kReadOnly, kReadWrite, kCopyOnWrite};
constexpr const char* kMappingFailed = "fileMappingHandle is invalid";
constexpr const char* kViewFailed = "map_view_of_file_ex failed";

// The byte at `place` of a test's file; no two places less than 64 KiB apart have the same neighbourhood.
char byteAt(std::uint64_t place) { return static_cast<char>((place * 167 + (place >> 8) * 13 + (place >> 16)) & 0xFF); }

std::string pattern(std::uint64_t begin, std::uint64_t end) {
  std::string bytes;
  for (std::uint64_t place = begin; place < end; ++place) {
    bytes.push_back(byteAt(place));
  }
  return bytes;
}

std::string bytesOf(const mapped_region& region) {
  return {reinterpret_cast<const char*>(region.address()), region.size()};
}

void fill(const mapped_region& region, std::uint8_t value) { std::fill_n(region.address(), region.size(), value); }

class MappedFilesTest : public testing::Test {
 protected:
  // A file whose bytes are the pattern's.
  std::string file(std::uint64_t bytes, const char* name = "file") const {
    support::writeFile(pathOf(name), pattern(0, bytes));
    return narrow(name);
  }

  std::filesystem::path pathOf(const char* name) const { return scratch_.path() / name; }
  std::string narrow(const char* name) const { return platform::narrowPath(pathOf(name).generic_wstring()); }

  const std::uint64_t granularity_ = platform::allocationGranularity();
  support::ScratchFolder scratch_;
};

// ---- Opening a file

TEST_F(MappedFilesTest, RefusesAnEmptyNameBeforeAnythingElse) {
  for (const std::uint32_t mode : {kReadOnly, kReadWrite, kCopyOnWrite, 3U}) {
    const auto refusal = refusalOf([&] { file_mapping("", mode); });
    ASSERT_TRUE(refusal) << mode;
    EXPECT_EQ(refusal->message, "fileName is empty");
    EXPECT_EQ(refusal->code, 0U);
  }
}

TEST_F(MappedFilesTest, RefusesUnknownModesOfAMappingWithoutLookingAtTheFile) {
  const std::string name = file(10);
  for (const std::uint32_t mode : {3U, 4U, 0x80000000U, 0xFFFFFFFFU}) {
    for (const std::string& path : {name, narrow("missing")}) {
      const auto refusal = refusalOf([&] { file_mapping(path, mode); });
      ASSERT_TRUE(refusal) << mode;
      EXPECT_EQ(refusal->message, "invalid file_mapping mode");
      EXPECT_EQ(refusal->code, 0U);
    }
  }
}

TEST_F(MappedFilesTest, ReportsAFileThatIsMissingWhenItIsMapped) {
  for (const std::uint32_t mode : kModes) {
    for (const std::string& name : {narrow("missing"), narrow("missing/file")}) {
      const auto refusal = refusalOf([&] { file_mapping(name, mode); });
      ASSERT_TRUE(refusal) << mode;
      EXPECT_EQ(refusal->message, kMappingFailed);
      EXPECT_NE(refusal->code, 0U);
    }
    EXPECT_FALSE(std::filesystem::exists(pathOf("missing"))) << mode;
  }
}

TEST_F(MappedFilesTest, RefusesAFileWithoutBytes) {
  const std::string name = file(0);
  for (const std::uint32_t mode : kModes) {
    const auto refusal = refusalOf([&] { file_mapping(name, mode); });
    ASSERT_TRUE(refusal) << mode;
    EXPECT_EQ(refusal->message, kMappingFailed);
    EXPECT_NE(refusal->code, 0U);
    EXPECT_FALSE(support::isOpen(pathOf("file"))) << mode;
  }
  EXPECT_EQ(std::filesystem::file_size(pathOf("file")), 0U);
}

TEST_F(MappedFilesTest, RefusesAFolder) {
  const std::string name = platform::narrowPath(scratch_.path().generic_wstring());
  for (const std::uint32_t mode : kModes) {
    const auto refusal = refusalOf([&] { file_mapping(name, mode); });
    ASSERT_TRUE(refusal) << mode;
    EXPECT_EQ(refusal->message, kMappingFailed);
    EXPECT_NE(refusal->code, 0U);
  }
}

TEST_F(MappedFilesTest, KnowsItsNameItsModeAndTheSizeOfItsFile) {
  for (const std::uint64_t bytes : {std::uint64_t{1}, std::uint64_t{4095}, granularity_, granularity_ + 1}) {
    const std::string name = file(bytes);
    for (const std::uint32_t mode : kModes) {
      const file_mapping mapping(name, mode);
      EXPECT_EQ(mapping.name(), name);
      EXPECT_EQ(mapping.mode(), mode);
      EXPECT_EQ(mapping.size(), static_cast<std::int64_t>(bytes));
      EXPECT_NE(mapping.mapping_handle(), nullptr);
    }
  }
}

TEST_F(MappedFilesTest, CountsAndReachesBytesBeyondFourGibibytes) {
  constexpr std::uint64_t kBytes = (std::uint64_t{5} << 30) + 123;
  constexpr std::uint64_t kPlace = (std::uint64_t{4} << 30) + 70001;
  support::makeSparseFile(pathOf("sparse"), kBytes);
  std::fstream(pathOf("sparse"), std::ios::binary | std::ios::in | std::ios::out)
      .seekp(static_cast<std::streamoff>(kPlace))
      .write("beyond", 6);
  const file_mapping mapping(narrow("sparse"), kReadOnly);
  EXPECT_EQ(mapping.size(), static_cast<std::int64_t>(kBytes));
  EXPECT_EQ(bytesOf(mapped_region(mapping, kReadOnly, kPlace - 2, 10)), std::string("\0\0beyond\0\0", 10));
  EXPECT_EQ(mapped_region(mapping, kReadOnly, kPlace, 0).size(), kBytes - kPlace);
  EXPECT_EQ(mapped_region(mapping, kReadOnly, 0, 0).size(), kBytes);
}

// ---- Where a region lies

TEST_F(MappedFilesTest, TakesASizeOfZeroAsToTheEndOfTheFile) {
  const std::uint64_t bytes = 3 * granularity_ + 77;
  const file_mapping mapping(file(bytes), kReadOnly);
  for (const std::uint64_t offset : {std::uint64_t{0}, granularity_, granularity_ + 5, bytes - 1}) {
    const mapped_region region(mapping, kReadOnly, offset, 0);
    EXPECT_EQ(region.size(), bytes - offset);
    EXPECT_EQ(bytesOf(region), pattern(offset, bytes)) << offset;
  }
}

TEST_F(MappedFilesTest, BeginsExactlyAtTheOffsetWhateverItIs) {
  const std::uint64_t bytes = 4 * granularity_;
  const file_mapping mapping(file(bytes), kReadOnly);
  const std::array<std::uint64_t, 9> offsets{
      0, 1, 511, 4095, 4096, granularity_ - 1, granularity_, granularity_ + 1, 2 * granularity_ + granularity_ / 2};
  for (const std::uint64_t offset : offsets) {
    for (const std::uint64_t size : {std::uint64_t{1}, std::uint64_t{100}, granularity_}) {
      const mapped_region region(mapping, kReadOnly, offset, size);
      EXPECT_EQ(region.size(), size);
      EXPECT_EQ(region.page_offset(), offset % granularity_);
      EXPECT_EQ(reinterpret_cast<std::uintptr_t>(region.address()) % granularity_, offset % granularity_);
      EXPECT_EQ(bytesOf(region), pattern(offset, offset + size)) << offset << ", " << size << " bytes";
    }
  }
}

TEST_F(MappedFilesTest, UnmapsTheWholeViewOfARegion) {
  const std::uint64_t offset = 2 * granularity_ - 1;
  const std::uint64_t size = 2 * granularity_ + 2;
  const file_mapping mapping(file(5 * granularity_), kReadOnly);
  auto region = std::make_unique<mapped_region>(mapping, kReadOnly, offset, size);
  const std::uint8_t* const first = region->address() - (granularity_ - 1);  // of the view
  const std::uint8_t* const last = region->address() + size - 1;
  ASSERT_TRUE(support::isMapped(first));
  ASSERT_TRUE(support::isMapped(last));
  region.reset();
  EXPECT_FALSE(support::isMapped(first));
  EXPECT_FALSE(support::isMapped(first + granularity_));
  EXPECT_FALSE(support::isMapped(last));
}

TEST_F(MappedFilesTest, ReportsAnOffsetBehindTheEndOfARegionWithoutASize) {
  const std::uint64_t bytes = granularity_ + 10;
  const file_mapping mapping(file(bytes), kReadOnly);
  for (const std::uint64_t offset :
       {bytes + 1, 2 * granularity_, std::uint64_t{1} << 63, kMost - granularity_ + 1, kMost}) {
    const auto refusal = refusalOf([&] { mapped_region(mapping, kReadOnly, offset, 0); });
    ASSERT_TRUE(refusal) << offset;
    EXPECT_EQ(refusal->message, "num overflow") << offset;
    EXPECT_EQ(refusal->code, 0U);
  }
}

TEST_F(MappedFilesTest, HasNoBytesToMapAtTheEndOfAFileOfWholeUnits) {
  const std::uint64_t bytes = 2 * granularity_;
  const file_mapping mapping(file(bytes), kReadOnly);
  const auto refusal = refusalOf([&] { mapped_region(mapping, kReadOnly, bytes, 0); });
  ASSERT_TRUE(refusal);
  EXPECT_EQ(refusal->message, kViewFailed);
  EXPECT_NE(refusal->code, 0U);
}

struct Range {
  std::uint64_t offset, size;
};

TEST_F(MappedFilesTest, RefusesRegionsThatReachBehindTheEnd) {
  const std::uint64_t bytes = 2 * granularity_ + 100;
  const file_mapping mapping(file(bytes), kReadWrite);
  const std::array<Range, 10> ranges{{{0, bytes + granularity_},
                                      {granularity_, bytes},
                                      {granularity_ + 50, 2 * granularity_},
                                      {3 * granularity_, 1},
                                      {3 * granularity_ + 1, 1},
                                      {100 * granularity_, granularity_},
                                      {0, std::uint64_t{1} << 40},
                                      {0, std::uint64_t{1} << 62},
                                      {std::uint64_t{1} << 40, 1},
                                      {std::uint64_t{1} << 62, 1}}};
  for (const std::uint32_t mode : kModes) {
    for (const Range& range : ranges) {
      const auto refusal = refusalOf([&] { mapped_region(mapping, mode, range.offset, range.size); });
      ASSERT_TRUE(refusal) << range.size << " bytes at " << range.offset << ", mode " << mode;
      EXPECT_EQ(refusal->message, kViewFailed);
      EXPECT_NE(refusal->code, 0U);
    }
  }
}

TEST_F(MappedFilesTest, RefusesRegionsWhoseSizesDoNotFitSixtyFourBits) {
  const file_mapping mapping(file(2 * granularity_), kReadOnly);
  const std::array<Range, 8> ranges{{{0, kMost},
                                     {1, kMost},
                                     {granularity_ - 1, kMost},
                                     {granularity_ - 1, kMost - granularity_ + 2},  // 2^64 with what is before it
                                     {granularity_, kMost - granularity_ + 1},
                                     {kMost, 1},
                                     {kMost, kMost},
                                     {kMost - granularity_ + 1, granularity_}}};
  for (const Range& range : ranges) {
    const auto refusal = refusalOf([&] { mapped_region(mapping, kReadOnly, range.offset, range.size); });
    ASSERT_TRUE(refusal) << range.size << " bytes at " << range.offset;
    EXPECT_EQ(refusal->message, kViewFailed);
  }
}

// ---- Modes

TEST_F(MappedFilesTest, RefusesUnknownModesOfARegionBeforeItLooksAtTheOffset) {
  const file_mapping mapping(file(10), kReadWrite);
  for (const std::uint32_t mode : {3U, 4U, 0x80000000U, 0xFFFFFFFFU}) {
    for (const std::uint64_t offset : {std::uint64_t{0}, std::uint64_t{11}}) {
      const auto refusal = refusalOf([&] { mapped_region(mapping, mode, offset, 0); });
      ASSERT_TRUE(refusal) << mode;
      EXPECT_EQ(refusal->message, "invalid mapped_region mode");
      EXPECT_EQ(refusal->code, 0U);
    }
  }
}

TEST_F(MappedFilesTest, WritesToTheFileOnlyWhereTheMappingDoes) {
  constexpr bool kAllowed[3][3] = {{true, false, true}, {true, true, true}, {true, false, true}};
  const std::string name = file(100);
  for (const std::uint32_t mappingMode : kModes) {
    const file_mapping mapping(name, mappingMode);
    for (const std::uint32_t mode : kModes) {
      const auto refusal = refusalOf([&] {
        const mapped_region region(mapping, mode, 0, 0);
        EXPECT_EQ(region.mode(), mode);
        EXPECT_EQ(bytesOf(region), pattern(0, 100));
      });
      EXPECT_EQ(!refusal, kAllowed[mappingMode][mode]) << "region of mode " << mode << ", mapping of " << mappingMode;
      if (refusal) {
        EXPECT_EQ(refusal->message, kViewFailed);
        EXPECT_NE(refusal->code, 0U);
      }
    }
  }
}

TEST_F(MappedFilesTest, BringsWhatIsWrittenToTheFile) {
  const std::uint64_t bytes = 2 * granularity_ + 10;
  const std::uint64_t offset = granularity_ + 3;
  const std::string name = file(bytes);
  const std::string expected = pattern(0, offset) + std::string(5, '\x5A') + pattern(offset + 5, bytes);
  {
    const file_mapping mapping(name, kReadWrite);
    const mapped_region region(mapping, kReadWrite, offset, 5);
    fill(region, 0x5A);
    region.flush();
    EXPECT_EQ(contentsOf(pathOf("file")), expected);  // seen by others while the region is there
  }
  EXPECT_EQ(contentsOf(pathOf("file")), expected);
}

TEST_F(MappedFilesTest, ShowsOneRegionWhatIsWrittenToAnother) {
  const std::string name = file(100);
  const file_mapping first(name, kReadWrite);
  const file_mapping second(name, kReadOnly);
  const mapped_region written(first, kReadWrite, 10, 10);
  const mapped_region alike(first, kReadWrite, 0, 0);
  const mapped_region read(second, kReadOnly, 0, 0);
  fill(written, 0x5A);
  const std::string expected = pattern(0, 10) + std::string(10, '\x5A') + pattern(20, 100);
  EXPECT_EQ(bytesOf(alike), expected);
  EXPECT_EQ(bytesOf(read), expected);
}

TEST_F(MappedFilesTest, KeepsWhatIsWrittenToACopyFromTheFileAndFromOtherCopies) {
  const std::string name = file(granularity_ + 100);
  for (const std::uint32_t mappingMode : kModes) {
    {
      const file_mapping mapping(name, mappingMode);
      const mapped_region copy(mapping, kCopyOnWrite, granularity_ + 3, 5);
      const mapped_region other(mapping, kCopyOnWrite, granularity_ + 3, 5);
      fill(copy, 0x5A);
      copy.flush();
      EXPECT_EQ(bytesOf(copy), std::string(5, '\x5A'));
      EXPECT_EQ(bytesOf(other), pattern(granularity_ + 3, granularity_ + 8));
    }
    EXPECT_EQ(contentsOf(pathOf("file")), pattern(0, granularity_ + 100)) << mappingMode;
  }
}

TEST_F(MappedFilesTest, FlushesRegionsOfEveryMode) {
  const file_mapping mapping(file(3 * granularity_ + 1), kReadWrite);
  for (const std::uint32_t mode : kModes) {
    const mapped_region region(mapping, mode, granularity_ + 1, 0);
    region.flush();
    EXPECT_EQ(bytesOf(region), pattern(granularity_ + 1, 3 * granularity_ + 1)) << mode;
  }
}

// ---- Lives

TEST_F(MappedFilesTest, OutlivesItsMapping) {
  auto mapping = std::make_unique<file_mapping>(file(100), kReadWrite);
  const mapped_region region(*mapping, kReadWrite, 10, 20);
  mapping.reset();
  EXPECT_EQ(bytesOf(region), pattern(10, 30));
  fill(region, 0x5A);
  region.flush();
  EXPECT_EQ(contentsOf(pathOf("file")), pattern(0, 10) + std::string(20, '\x5A') + pattern(30, 100));
}

TEST_F(MappedFilesTest, LeavesNothingOpenBehind) {
  const std::string name = file(100);
  {
    const file_mapping mapping(name, kReadOnly);
    const mapped_region region(mapping, kReadOnly, 0, 0);
    EXPECT_TRUE(refusalOf([&] { mapped_region(mapping, kReadWrite, 0, 0); }));
    EXPECT_TRUE(refusalOf([&] { mapped_region(mapping, kReadOnly, 101, 0); }));
    EXPECT_TRUE(refusalOf([&] { mapped_region(mapping, kReadOnly, 0, kMost); }));
  }
  EXPECT_FALSE(support::isOpen(pathOf("file")));
  EXPECT_TRUE(std::filesystem::remove(pathOf("file")));
}

TEST_F(MappedFilesTest, MapsManyFilesAtOnce) {
  constexpr std::uint64_t kFiles = 300;
  std::vector<std::unique_ptr<mapped_region>> regions;
  for (std::uint64_t i = 0; i < kFiles; ++i) {
    const file_mapping mapping(file(i + 1, std::to_string(i).c_str()), kReadWrite);
    regions.push_back(std::make_unique<mapped_region>(mapping, kReadWrite, 0, 0));
  }
  for (std::uint64_t i = 0; i < kFiles; ++i) {
    EXPECT_EQ(bytesOf(*regions[i]), pattern(0, i + 1));
  }
}

TEST_F(MappedFilesTest, LetsThreadsMakeTheirFirstMappingsTogether) {
  constexpr int kThreads = 8;
  std::array<std::string, kThreads> names;
  for (int i = 0; i < kThreads; ++i) {
    names[i] = file(1000 + i, std::to_string(i).c_str());
  }
  std::atomic<int> waiting = kThreads;
  std::array<std::int64_t, kThreads> sizes{};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      for (--waiting; waiting > 0;) {
        std::this_thread::yield();
      }
      sizes[i] = file_mapping(names[i], kReadWrite).size();
    });
  }
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_THAT(sizes, testing::ElementsAre(1000, 1001, 1002, 1003, 1004, 1005, 1006, 1007));
}

}  // namespace
