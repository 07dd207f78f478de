// Tone curves seen from inside: the loops for each kind of processor, and what callers cannot bring about.
#include "curve/curve_engine.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "api/lookup_handle.h"
#include "api/tile_image_handle.h"
#include "core/tile_image.h"
#include "curve/combined_curve.h"
#include "curve/lookup_kernels.h"
#include "kvtileimage/KvTileImage.h"
#include "platform/processor.h"
#include "support/allocation_failures.h"
#include "support/backing_files.h"
#include "support/guarded_buffer.h"
#include "support/log_capture.h"
#include "support/mapping_calls.h"

namespace {

using core::TileImage;
using curve::CurveEngine;
using curve::LookupKernels8;
using curve::LookupTable;
using curve::LookupTableMap;
using curve::LookupTablePointer;
using support::errors;
using support::GuardedBuffer;
using support::LogCapture;
using testing::Each;

using Bytes = std::vector<std::uint8_t>;

Bytes randomBytes(std::size_t count, std::uint32_t seed) {
  std::mt19937 random(seed);
  Bytes bytes(count);
  std::generate(bytes.begin(), bytes.end(), [&random] { return static_cast<std::uint8_t>(random()); });
  return bytes;
}

// ---- Loops of 8-bit lookups

TEST(LookupKernelsTest, ThisProcessorRunsWhatItHas) {
  std::vector<std::string> expected{"plain"};
  if (platform::processorHasAvx2()) {
    expected.emplace_back("AVX2");
  }
  if (platform::processorHasAvx512Vbmi()) {
    expected.emplace_back("AVX-512 VBMI");
  }
  std::vector<std::string> usable;
  for (const LookupKernels8* kernels : curve::usableKernels8()) {
    usable.emplace_back(kernels->name);
  }
  EXPECT_EQ(usable, expected);
  EXPECT_EQ(curve::kernels8().name, usable.back());
}

class LookupKernels8Test : public testing::TestWithParam<const LookupKernels8*> {
 protected:
  const LookupKernels8& kernels() const { return *GetParam(); }
};

INSTANTIATE_TEST_SUITE_P(Processors, LookupKernels8Test, testing::ValuesIn(curve::usableKernels8()),
                         [](const auto& kernels) {
                           std::string name = kernels.param->name;
                           std::erase_if(name, [](char character) { return character == ' ' || character == '-'; });
                           return name;
                         });

TEST_P(LookupKernels8Test, LookUpEveryValueInEveryPlace) {
  const Bytes table = randomBytes(256, 1);
  for (unsigned value = 0; value < 256; ++value) {
    Bytes samples(150, static_cast<std::uint8_t>(value));
    kernels().lookUp(samples.data(), samples.size(), table.data());
    ASSERT_THAT(samples, Each(table[value])) << value;
  }
}

TEST_P(LookupKernels8Test, LookUpAnyNumberOfSamplesAndNoMore) {
  const Bytes table = randomBytes(256, 2);
  for (std::size_t count = 0; count <= 300; ++count) {
    for (const std::size_t start : {0U, 1U, 31U}) {
      Bytes expected = randomBytes(start + count, static_cast<std::uint32_t>(count));
      GuardedBuffer samples(expected);
      kernels().lookUp(samples.data() + start, count, table.data());
      for (std::size_t i = start; i < expected.size(); ++i) {
        expected[i] = table[expected[i]];
      }
      ASSERT_EQ(samples.contents(), expected) << count << " from " << start;
      ASSERT_TRUE(samples.intact()) << count;
    }
  }
}

TEST_P(LookupKernels8Test, LookUpOneChannelAndLeaveTheOthers) {
  const Bytes table = randomBytes(256, 3);
  for (std::uint32_t samplesPerPixel = 1; samplesPerPixel <= 40; ++samplesPerPixel) {
    for (std::uint32_t channel = 0; channel < samplesPerPixel; ++channel) {
      for (const std::size_t pixels : {0U, 1U, 2U, 21U, 22U, 64U, 65U, 100U}) {
        Bytes expected = randomBytes(pixels * samplesPerPixel, channel);
        GuardedBuffer samples(expected);
        kernels().lookUpChannel(samples.data(), pixels, samplesPerPixel, channel, table.data());
        for (std::size_t pixel = 0; pixel < pixels; ++pixel) {
          std::uint8_t& sample = expected[pixel * samplesPerPixel + channel];
          sample = table[sample];
        }
        ASSERT_EQ(samples.contents(), expected)
            << pixels << " pixels, channel " << channel << " of " << samplesPerPixel;
        ASSERT_TRUE(samples.intact());
      }
    }
  }
}

// ---- Tables

TEST(LookupTableTest, HasOneEntryForEachValue) {
  for (const std::uint32_t bits : {8U, 16U, 24U}) {
    const std::shared_ptr<LookupTable> table = LookupTable::create(bits);
    ASSERT_NE(table, nullptr);
    EXPECT_EQ(table->bitsPerSample(), bits);
    EXPECT_EQ(table->entryCount(), std::uint64_t{1} << bits);
    EXPECT_EQ(table->bufferBytes(), (std::uint64_t{1} << bits) * (bits / 8));
    const std::uint8_t* const bytes = table->buffer();
    EXPECT_TRUE(std::all_of(bytes, bytes + table->bufferBytes(), [](std::uint8_t byte) { return byte == 0; }));
  }
}

TEST(LookupTableTest, IsNotMadeForPartsOfBytesOrTooManyEntries) {
  LogCapture log;
  for (const std::uint32_t bits : {1U, 4U, 12U, 17U, 64U, 72U, 0xFFFFFFF8U, 0xFFFFFFFFU}) {
    EXPECT_EQ(LookupTable::create(bits), nullptr) << bits;
  }
  EXPECT_TRUE(log.take().empty());
  EXPECT_EQ(LookupTable::create(56), nullptr);  // 504 PiB
  const support::LogLines lines = log.take();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_THAT(lines[0].text, testing::StartsWith("[LookupTable::create] there is no memory for a table of 56 bits:"));
}

TEST(LookupTableMapTest, RefusesNoTableAndOtherDepths) {
  LogCapture log;
  const auto map = LookupTableMap::create(8);
  ASSERT_NE(map, nullptr);
  EXPECT_FALSE(map->insert(0, nullptr));
  EXPECT_FALSE(map->insert(0, CurveEngine::createLookupTable16_Gamma(2.0)));
  const char* const line = "[LookupTableMap::insert] !lookupTable || lookupTable->bitsPerSample() != bitsPerSample_";
  EXPECT_EQ(log.take(), errors({line, line}));
  EXPECT_TRUE(map->tables().empty());
}

TEST(CombinedCurveTest, WritesAllOrNothing) {
  LogCapture log;
  const auto fill = [](auto& entries, std::uint64_t bytes) {
    return curve::_getLookupTable_BrightnessContrastGamma(0.0, 0.0, 1.0, true, entries.data(), bytes);
  };
  std::vector<std::uint8_t> narrow(256, 7);
  std::vector<std::uint16_t> wide(65536, 7);
  EXPECT_FALSE(fill(narrow, 255));
  EXPECT_FALSE(fill(wide, 131071));
  EXPECT_THAT(narrow, Each(7));
  EXPECT_THAT(wide, Each(7));
  const char* const line = "[_getLookupTable_BrightnessContrastGamma] check your code.";
  EXPECT_EQ(log.take(), errors({line, line}));
  EXPECT_TRUE(fill(narrow, 256));
  EXPECT_TRUE(fill(wide, 131072));
  EXPECT_EQ(narrow[3], 252);
  EXPECT_EQ(wide[3], 65532);
}

// ---- Images

std::unique_ptr<TileImage> imageOf(const core::TileImageArguments& arguments) {
  return TileImage::createNormal(arguments);
}

TEST(CurveEngineTest, RefusesImagesOfDifferentSizesAndFormats) {
  LogCapture log;
  const core::TileImageArguments source{6, 5, 2, 8, KVTI_SAMPLEFORMAT_UINT, false, 3};
  const auto from = imageOf(source);
  const LookupTablePointer table = CurveEngine::createLookupTable8_Gamma(2.0);
  const auto map = LookupTableMap::create(8);
  std::vector<core::TileImageArguments> others(5, source);
  others[0].width = 7;
  others[1].height = 4;
  others[2].samplesPerPixel = 1;
  others[3].bitsPerSample = 16;
  others[4].sampleformat = KVTI_SAMPLEFORMAT_INT;
  for (const core::TileImageArguments& other : others) {
    const auto to = imageOf(other);
    EXPECT_FALSE(CurveEngine::adjustCurveOfAllChannels(*from, *to, table, nullptr));
    EXPECT_EQ(log.take(), errors({"[CurveEngine::adjustCurveOfAllChannels] check your code"}));
    EXPECT_FALSE(CurveEngine::adjustCurveOfSomeChannels(*from, *to, map, nullptr));
    EXPECT_EQ(log.take(), errors({"[CurveEngine::adjustCurveOfSomeChannels] check your code"}));
  }
  // The scanline operation and the place may differ.
  core::TileImageArguments inFiles = source;
  inFiles.bForceUseFileMapping = true;
  inFiles.scanlineOperation = 1;
  EXPECT_TRUE(CurveEngine::adjustCurveOfAllChannels(*from, *imageOf(inFiles), table, nullptr));
}

TEST(CurveEngineTest, SupportsTwoDepthsOnly) {
  LogCapture log;
  const auto image = imageOf({2, 2, 1, 24, KVTI_SAMPLEFORMAT_UINT, false, 3});
  EXPECT_FALSE(CurveEngine::adjustCurveOfAllChannels(*image, *image, LookupTable::create(24), nullptr));
  EXPECT_EQ(log.take(), errors({"[CurveEngine::adjustCurveOfAllChannels] not support bitsPerSample:24"}));
}

TEST(CurveEngineTest, NoTableIsRefusedSilently) {
  LogCapture log(ember_logger::trace);
  const auto image = imageOf({2, 2, 1, 8, KVTI_SAMPLEFORMAT_UINT, false, 3});
  log.take();
  EXPECT_FALSE(CurveEngine::adjustCurveOfAllChannels(*image, *image, nullptr, nullptr));
  EXPECT_FALSE(CurveEngine::adjustCurveOfSomeChannels(*image, *image, nullptr, nullptr));
  TileImageHandle handle{imageOf({2, 2, 1, 8, KVTI_SAMPLEFORMAT_UINT, false, 3}).release()};
  LookupHandle noTable{LookupTablePointer()};
  LookupHandle noMap{std::shared_ptr<LookupTableMap>()};
  log.take();
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels(&handle, &noTable, nullptr));
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx(&handle, &noTable, nullptr), nullptr);
  EXPECT_FALSE(KvTileImage_AdjustCurveOfSomeChannels(&handle, &noMap, nullptr));
  EXPECT_EQ(KvTileImage_AdjustCurveOfSomeChannelsEx(&handle, &noMap, nullptr), nullptr);
  EXPECT_FALSE(KvTileImage_InsertLookupTable(&noMap, &noTable, 0));
  EXPECT_TRUE(log.take().empty());
}

// Rows 0 .. 4095 are in the first tile, the others in the second.
core::TileImageArguments twoTiles() {
  return {40, 4100, 1, 8, KVTI_SAMPLEFORMAT_UINT, true, KVTI_SCANLINE_OPERATION_ROWCOL};
}

std::uint32_t rowsDone = 0;
void count(std::uint32_t index, std::uint32_t) { rowsDone = index + 1; }

TEST(CurveEngineTest, SaysWhichTransferFailed) {
  const LookupTablePointer table = CurveEngine::createLookupTable8_Threshold(0, false);
  const auto map = LookupTableMap::create(8);
  ASSERT_TRUE(map->insert(0, table));
  for (const bool readingFails : {true, false}) {
    const auto first = imageOf(twoTiles());
    const auto second = imageOf(twoTiles());
    const auto files = support::backingFiles();
    ASSERT_EQ(files.size(), 4U);
    const support::Unmappable broken(files[1].path);  // the lower tile of the first image
    const auto& from = readingFails ? first : second;
    const auto& to = readingFails ? second : first;
    const std::string failure = readingFails ? "getRowData failed." : "setRowData failed.";
    LogCapture log;
    rowsDone = 0;
    EXPECT_FALSE(CurveEngine::adjustCurveOfAllChannels(*from, *to, table, &count));
    EXPECT_EQ(rowsDone, 4096U);
    EXPECT_EQ(log.take().back().text, "[CurveEngine::adjustCurveOfAllChannels] " + failure);
    rowsDone = 0;
    EXPECT_FALSE(CurveEngine::adjustCurveOfSomeChannels(*from, *to, map, &count));
    EXPECT_EQ(rowsDone, 4096U);
    EXPECT_EQ(log.take().back().text, "[CurveEngine::adjustCurveOfSomeChannels] " + failure);
    Bytes column(4096);
    EXPECT_TRUE(to->copyColData(39, 0, 4096, column.data(), column.size(), core::Direction::get));
    EXPECT_THAT(column, Each(255));
  }
}

// ---- Without memory

// Runs `work`, which is to return true, with one allocation after the other failing until none is left; returns the
// messages of the runs that failed.
template <typename Work>
std::set<std::string> messagesOfFailures(Work work) {
  std::set<std::string> messages;
  bool done = false;
  for (long n = 1; !done; ++n) {
    if (n == 1000) {
      ADD_FAILURE() << "no end to the allocations";
      return messages;
    }
    LogCapture log;
    support::failAllocation(n);
    done = work();
    support::failAllocation(0);
    for (const auto& line : log.take()) {
      messages.insert(line.text);
    }
  }
  return messages;
}

TEST(CurveMemoryTest, TablesAreRefusedWhicheverAllocationFails) {
  const Bytes stream(131072, 9);
  for (const std::uint32_t bits : {8U, 16U}) {
    const std::string line =
        "[LookupTable::create] there is no memory for a table of " + std::to_string(bits) + " bits:std::bad_alloc";
    const std::vector<std::function<LookupTableHandle*()>> creations{
        [=] { return KvTileImage_CreateLookupTable_Gamma(bits, 2.0); },
        [=] { return KvTileImage_CreateLookupTable_Brightness(bits, 0.5); },
        [=] { return KvTileImage_CreateLookupTable_Contrast(bits, 0.5); },
        [=] { return KvTileImage_CreateLookupTable_BrightnessContrastGamma(bits, 0.5, 0.5, 2.0, true); },
        [=] { return KvTileImage_CreateLookupTable_Threshold(bits, 9, false); },
        [&] { return KvTileImage_CreateLookupTable_ByteStream(bits, stream.data(), stream.size()); }};
    for (const auto& create : creations) {
      EXPECT_EQ(messagesOfFailures([&create] {
                  LookupTableHandle* const table = create();
                  KvTileImage_DestroyLookupTable(table);
                  return table != nullptr;
                }),
                std::set<std::string>{line});
    }
  }
}

TEST(CurveMemoryTest, MapsAreRefusedWhicheverAllocationFails) {
  LookupHandle* const table = KvTileImage_CreateLookupTable8_Gamma(2.0);
  const std::set<std::string> messages = messagesOfFailures([table] {
    LookupHandle* const map = KvTileImage_CreateLookupTableMap8();
    const bool inserted = map != nullptr && KvTileImage_InsertLookupTable(map, table, 3);
    KvTileImage_DestroyLookupTable(map);
    return inserted;
  });
  KvTileImage_DestroyLookupTable(table);
  EXPECT_EQ(messages, (std::set<std::string>{"[LookupTableMap::create] there is no memory for a map",
                                             "[LookupTableMap::insert] there is no memory for a table of channel 3"}));
}

TEST(CurveMemoryTest, ImagesStayAsTheyAreWhicheverAllocationFails) {
  TileImageHandle image{imageOf({20, 3, 2, 8, KVTI_SAMPLEFORMAT_UINT, false, 3}).release()};
  LookupHandle table{CurveEngine::createLookupTable8_Threshold(0, false)};
  const auto tables = LookupTableMap::create(8);
  ASSERT_TRUE(tables->insert(1, std::get<LookupTablePointer>(table.reference)));
  LookupHandle map{tables};
  std::array<std::uint8_t, 40> row{};  // of the caller's own, as every allocation may fail
  const auto read = [&] { return KvTileImage_GetFullRowData(&image, 0, row.data(), row.size()); };
  EXPECT_THAT(
      messagesOfFailures([&] {
        TileImageHandle* const copy = KvTileImage_AdjustCurveOfAllChannelsEx(&image, &table, nullptr);
        EXPECT_TRUE(read() && std::count(row.begin(), row.end(), 0) == 40);
        KvTileImage_Unload(copy);
        return copy != nullptr;
      }),
      testing::IsSupersetOf({"[TileImage::createNormal] create failed",
                             "[CurveEngine::adjustCurveOfAllChannels] there is no memory for a row of the image",
                             "[KvTileImage_AdjustCurveOfAllChannelsEx] adjustCurveOfAllChannels failed!"}));
  EXPECT_EQ(
      messagesOfFailures([&] {
        EXPECT_TRUE(read() && std::count(row.begin(), row.end(), 0) == 40);
        return KvTileImage_AdjustCurveOfSomeChannels(&image, &map, nullptr);
      }),
      (std::set<std::string>{"[CurveEngine::adjustCurveOfSomeChannels] there is no memory for a row of the image"}));
  EXPECT_TRUE(read());
  EXPECT_EQ(row[0], 0);
  EXPECT_EQ(row[1], 255);
}

}  // namespace
