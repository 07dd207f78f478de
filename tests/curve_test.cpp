// Lookup tables applied to images: all channels or some, in place or into a new image.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/image.h"
#include "support/log_capture.h"
#include "support/lookup_handles.h"
#include "support/plain_image.h"

namespace {

using support::allocate;
using support::bytesOf;
using support::entriesOf;
using support::errors;
using support::Format;
using support::Image;
using support::LogCapture;
using support::LogLine;
using support::LogLines;
using support::PlainImage;
using support::Table;
using support::TableMap;
using testing::ElementsAre;
using testing::IsEmpty;

using Entries = std::vector<std::uint32_t>;
using Calls = std::vector<std::pair<std::uint32_t, std::uint32_t>>;

// The callback of the library has no place for a pointer of the caller's.
Calls calls;
std::function<void(std::uint32_t)> onRow;

void record(std::uint32_t index, std::uint32_t count) { calls.emplace_back(index, count); }
void forward(std::uint32_t index, std::uint32_t) { onRow(index); }

Calls takeCalls() { return std::exchange(calls, {}); }

// One call for each row.
Calls everyRow(std::uint32_t rows) {
  Calls expected;
  for (std::uint32_t y = 0; y < rows; ++y) {
    expected.emplace_back(y, rows);
  }
  return expected;
}

// A table without order; `seed` makes others.
Entries scrambled(std::uint32_t bits, std::uint32_t seed) {
  Entries entries(std::size_t{1} << bits);
  for (std::size_t i = 0; i < entries.size(); ++i) {
    entries[i] = static_cast<std::uint32_t>((i + seed * 977) * 0x9E3779B97F4A7C15U >> (64 - bits));
  }
  return entries;
}

Table tableOf(const Entries& entries, std::uint32_t bits) {
  const std::vector<std::uint8_t> bytes = bytesOf(entries, bits);
  return Table(KvTileImage_CreateLookupTable_ByteStream(bits, bytes.data(), bytes.size()));
}

// ---- Images and what they are compared with

void write(const Image& image, const PlainImage& pixels) {
  for (std::uint32_t y = 0; y < pixels.height(); ++y) {
    const std::vector<std::uint8_t> row = support::packed(pixels.format(), pixels.row(y, 0, pixels.width()));
    ASSERT_TRUE(KvTileImage_SetFullRowData(image.get(), y, row.data(), row.size()));
  }
}

PlainImage noise(std::uint32_t width, std::uint32_t height, const Format& format) {
  std::mt19937_64 random(width * 1000 + height);
  PlainImage pixels(width, height, format);
  for (std::uint32_t y = 0; y < height; ++y) {
    pixels.setRow(y, 0, support::randomRun(format, width, random), width);
  }
  return pixels;
}

Image imageOf(const PlainImage& pixels) {
  Image image = allocate(pixels.width(), pixels.height(), pixels.format().samples, pixels.format().bits);
  write(image, pixels);
  return image;
}

void expectPixels(const Image& image, const PlainImage& expected) {
  ASSERT_NE(image, nullptr);
  const Format& format = expected.format();
  std::vector<std::uint8_t> row(support::runBytes(format, expected.width()));
  for (std::uint32_t y = 0; y < expected.height(); ++y) {
    ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), y, row.data(), row.size()));
    ASSERT_EQ(row, support::packed(format, expected.row(y, 0, expected.width()))) << "row " << y;
  }
}

// `pixels` with every sample that `entriesFor(channel)` has entries for replaced by its entry.
PlainImage curved(PlainImage pixels, const std::function<const Entries*(std::uint32_t)>& entriesFor) {
  for (std::uint32_t y = 0; y < pixels.height(); ++y) {
    for (std::uint32_t x = 0; x < pixels.width(); ++x) {
      for (std::uint32_t channel = 0; channel < pixels.format().samples; ++channel) {
        if (const Entries* entries = entriesFor(channel)) {
          std::uint64_t& sample = pixels.at(x, y, channel);
          sample = (*entries)[sample];
        }
      }
    }
  }
  return pixels;
}

PlainImage curved(const PlainImage& pixels, const Entries& entries) {
  return curved(pixels, [&entries](std::uint32_t) { return &entries; });
}

struct Shape {
  std::uint32_t width;
  std::uint32_t height;
};

// Shorter than any vector, a few vectors and a rest, and more than one tile.
constexpr Shape kShapes[] = {{1, 1}, {5, 3}, {13, 4}, {64, 2}, {1000, 5}, {1111, 140}};
constexpr std::uint32_t kSampleCounts[] = {1, 2, 3, 4, 5, 16, 17, 33};

template <typename Check>
void forEveryFormat(Check check) {
  for (const std::uint32_t bits : {8U, 16U}) {
    for (const std::uint32_t samples : kSampleCounts) {
      for (const Shape& shape : kShapes) {
        if (samples <= 4 || shape.height < 100) {
          SCOPED_TRACE(testing::Message() << shape.width << " x " << shape.height << ", " << samples << " x " << bits);
          check(noise(shape.width, shape.height, {samples, bits}));
        }
      }
    }
  }
}

// ---- All channels

TEST(AllChannelsTest, EverySampleBecomesItsEntry) {
  forEveryFormat([](const PlainImage& pixels) {
    const std::uint32_t bits = pixels.format().bits;
    const Entries entries = scrambled(bits, 1);
    const Table table = tableOf(entries, bits);
    const Image image = imageOf(pixels);
    const Image copy(KvTileImage_AdjustCurveOfAllChannelsEx(image.get(), table.get(), &record));
    EXPECT_EQ(takeCalls(), everyRow(pixels.height()));
    expectPixels(copy, curved(pixels, entries));
    expectPixels(image, pixels);
    EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels(image.get(), table.get(), &record));
    EXPECT_EQ(takeCalls(), everyRow(pixels.height()));
    expectPixels(image, curved(pixels, entries));
  });
}

TEST(AllChannelsTest, TheCopyHasTheFormatAndNotTheResolution) {
  const Image source = allocate(7, 5, 2, 16, KVTI_SAMPLEFORMAT_INT);
  KvTileImage_SetDpiX(source.get(), 300.0F);
  const Table table = tableOf(scrambled(16, 1), 16);
  const TableMap map(KvTileImage_CreateLookupTableMap16());
  for (const Image& result : {Image(KvTileImage_AdjustCurveOfAllChannelsEx(source.get(), table.get(), nullptr)),
                              Image(KvTileImage_AdjustCurveOfSomeChannelsEx(source.get(), map.get(), nullptr)),
                              Image(KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(source.get(), 2.0, nullptr))}) {
    ASSERT_NE(result, nullptr);
    EXPECT_EQ(KvTileImage_GetWidth(result.get()), 7U);
    EXPECT_EQ(KvTileImage_GetHeight(result.get()), 5U);
    EXPECT_EQ(KvTileImage_GetSamplesPerPixel(result.get()), 2U);
    EXPECT_EQ(KvTileImage_GetBitsPerSample(result.get()), 16U);
    EXPECT_EQ(KvTileImage_GetSampleformat(result.get()), KVTI_SAMPLEFORMAT_INT);
    EXPECT_EQ(KvTileImage_GetDpiX(result.get()), 72.0F);
  }
}

TEST(AllChannelsTest, ImagesInFilesAreChangedToo) {
  const PlainImage pixels = noise(900, 70, {3, 16});
  const Entries entries = scrambled(16, 3);
  const Table table = tableOf(entries, 16);
  const Image image = support::allocateInFiles(900, 70, 3, 16, KVTI_SCANLINE_OPERATION_COL);
  ASSERT_NE(image, nullptr);
  write(image, pixels);
  expectPixels(Image(KvTileImage_AdjustCurveOfAllChannelsEx(image.get(), table.get(), nullptr)),
               curved(pixels, entries));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels(image.get(), table.get(), nullptr));
  expectPixels(image, curved(pixels, entries));
}

TEST(AllChannelsTest, ACopyBeyondTheBudgetIsKeptInFiles) {
  KvTileImage_SetMaxMemoryStorageBytes(0x4000000);
  const Image source = allocate(7500, 1000, 1, 8);
  ASSERT_NE(source, nullptr);
  LogCapture log(ember_logger::trace);
  const Image result(KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(source.get(), 2.0, nullptr));
  KvTileImage_SetMaxMemoryStorageBytes(0x40000000);
  ASSERT_NE(result, nullptr);
  EXPECT_THAT(log.take(), testing::Contains(LogLine{ember_logger::trace,
                                                    "[TileManager::postInitializeNormal] use file mapping "
                                                    "[bForceUseFileMapping:0]"}));
}

// The row is in the image when its callback is called, and the next one is not.
TEST(AllChannelsTest, TheCallbackSeesTheRowsDone) {
  const Image image = imageOf(PlainImage(6, 4, {1, 8}));
  const Table white(KvTileImage_CreateLookupTable8_Threshold(0, false));
  std::vector<std::vector<std::uint8_t>> seen;
  onRow = [&](std::uint32_t) {
    std::vector<std::uint8_t> column(4);
    EXPECT_TRUE(KvTileImage_GetFullColData(image.get(), 5, column.data(), column.size()));
    seen.push_back(column);
  };
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels(image.get(), white.get(), &forward));
  EXPECT_THAT(seen, ElementsAre(ElementsAre(255, 0, 0, 0), ElementsAre(255, 255, 0, 0), ElementsAre(255, 255, 255, 0),
                                ElementsAre(255, 255, 255, 255)));
}

TEST(AllChannelsTest, TheCallbackMayStopByThrowing) {
  LogCapture log;
  const Image image = imageOf(PlainImage(6, 4, {1, 8}));
  const Table white(KvTileImage_CreateLookupTable8_Threshold(0, false));
  const TableMap map(KvTileImage_CreateLookupTableMap8());
  ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), white.get(), 0));
  onRow = [](std::uint32_t index) {
    if (index == 1) {
      throw std::runtime_error("enough");
    }
  };
  const char* const all = "[CurveEngine::adjustCurveOfAllChannels] stopped by an exception of the progress callback";
  const char* const some = "[CurveEngine::adjustCurveOfSomeChannels] stopped by an exception of the progress callback";
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx(image.get(), white.get(), &forward), nullptr);
  EXPECT_EQ(log.take(), errors({all, "[KvTileImage_AdjustCurveOfAllChannelsEx] adjustCurveOfAllChannels failed!"}));
  EXPECT_EQ(KvTileImage_AdjustCurveOfSomeChannelsEx(image.get(), map.get(), &forward), nullptr);
  EXPECT_EQ(log.take(), errors({some, "[KvTileImage_AdjustCurveOfSomeChannelsEx] adjustCurveOfSomeChannels failed!"}));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), &forward));
  EXPECT_EQ(log.take(), errors({some}));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels(image.get(), white.get(), &forward));
  EXPECT_EQ(log.take(), errors({all}));
  std::vector<std::uint8_t> column(4);
  EXPECT_TRUE(KvTileImage_GetFullColData(image.get(), 0, column.data(), column.size()));
  EXPECT_THAT(column, ElementsAre(255, 255, 0, 0));
}

TEST(AllChannelsTest, InPlaceSaysSoToThoseWhoListen) {
  LogCapture log(ember_logger::debug);
  const Image image = allocate(2, 2, 1, 8);
  const Table table = tableOf(scrambled(8, 1), 8);
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels(image.get(), table.get(), nullptr));
  EXPECT_EQ(
      log.take(),
      (LogLines{{ember_logger::debug, "[CurveEngine::adjustCurveOfAllChannels] srcImage is the same as dstImage"}}));
}

// ---- Depths that do not fit

TEST(CurveDepthTest, TablesAndImagesHaveToAgree) {
  LogCapture log;
  const Table tables[] = {tableOf(scrambled(8, 1), 8), tableOf(scrambled(16, 1), 16)};
  const TableMap maps[] = {TableMap(KvTileImage_CreateLookupTableMap8()),
                           TableMap(KvTileImage_CreateLookupTableMap16())};
  for (const std::uint32_t imageBits : {1U, 2U, 4U, 8U, 12U, 16U, 24U, 32U, 64U}) {
    const Image image = allocate(3, 2, 1, imageBits);
    ASSERT_NE(image, nullptr);
    for (int i = 0; i < 2; ++i) {
      const std::uint32_t tableBits = i == 0 ? 8 : 16;
      if (tableBits == imageBits) {
        continue;
      }
      const auto line = [&](const char* begin) {
        std::ostringstream text;
        text << begin << tableBits << " bitsPerSample[tileImage]:" << imageBits
             << " is not same, please check your code.";
        return text.str();
      };
      const std::string all = line("[CurveEngine::adjustCurveOfAllChannels] bitsPerSample[lookupTable]:");
      const std::string some = line("[CurveEngine::adjustCurveOfSomeChannels] bitsPerSample[lookupTableMap]:");
      EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels(image.get(), tables[i].get(), &record));
      EXPECT_EQ(log.take(), errors({all.c_str()}));
      EXPECT_FALSE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), maps[i].get(), &record));
      EXPECT_EQ(log.take(), errors({some.c_str()}));
      EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx(image.get(), tables[i].get(), &record), nullptr);
      EXPECT_EQ(log.take(),
                errors({all.c_str(), "[KvTileImage_AdjustCurveOfAllChannelsEx] adjustCurveOfAllChannels failed!"}));
      EXPECT_EQ(KvTileImage_AdjustCurveOfSomeChannelsEx(image.get(), maps[i].get(), &record), nullptr);
      EXPECT_EQ(log.take(),
                errors({some.c_str(), "[KvTileImage_AdjustCurveOfSomeChannelsEx] adjustCurveOfSomeChannels failed!"}));
    }
  }
  EXPECT_THAT(takeCalls(), IsEmpty());
}

// ---- Some channels

// Tables for some of the channels, or all, or none that the image has.
TEST(SomeChannelsTest, OnlyChannelsWithATableChange) {
  forEveryFormat([](const PlainImage& pixels) {
    const auto [samples, bits] = pixels.format();
    for (const std::uint32_t step : {1U, 2U, 3U, 50U}) {
      const TableMap map(KvTileImage_CreateLookupTableMap(bits));
      std::vector<Entries> entries(samples);
      // From the second channel on, backwards, and two beyond the last.
      for (std::uint32_t channel = samples + 2; channel-- > 0;) {
        if (channel % step != 1 % step) {
          continue;
        }
        const Entries own = scrambled(bits, channel);
        ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), tableOf(own, bits).get(), channel));
        if (channel < samples) {
          entries[channel] = own;
        }
      }
      const PlainImage expected = curved(
          pixels, [&entries](std::uint32_t channel) { return entries[channel].empty() ? nullptr : &entries[channel]; });
      const Image image = imageOf(pixels);
      const Image copy(KvTileImage_AdjustCurveOfSomeChannelsEx(image.get(), map.get(), &record));
      EXPECT_EQ(takeCalls(), everyRow(pixels.height()));
      expectPixels(copy, expected);
      expectPixels(image, pixels);
      EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), &record));
      EXPECT_EQ(takeCalls(), everyRow(pixels.height()));
      expectPixels(image, expected);
    }
  });
}

TEST(SomeChannelsTest, ALaterTableTakesThePlaceOfTheFirst) {
  const PlainImage pixels = noise(50, 3, {3, 8});
  const Image image = imageOf(pixels);
  const TableMap map(KvTileImage_CreateLookupTableMap8());
  const Entries entries = scrambled(8, 2);
  EXPECT_TRUE(KvTileImage_InsertLookupTable(map.get(), tableOf(scrambled(8, 1), 8).get(), 1));
  EXPECT_TRUE(KvTileImage_InsertLookupTable(map.get(), tableOf(entries, 8).get(), 1));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), nullptr));
  expectPixels(image, curved(pixels, [&](std::uint32_t channel) { return channel == 1 ? &entries : nullptr; }));
}

TEST(SomeChannelsTest, AnEmptyMapChangesNothing) {
  LogCapture log(ember_logger::debug);
  const PlainImage pixels = noise(20, 3, {3, 16});
  const Image image = imageOf(pixels);
  const TableMap map(KvTileImage_CreateLookupTableMap16());
  EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), &record));
  EXPECT_THAT(takeCalls(), IsEmpty());
  EXPECT_EQ(
      log.take(),
      (LogLines{{ember_logger::debug, "[CurveEngine::adjustCurveOfSomeChannels] srcImage is the same as dstImage"},
                {ember_logger::warning,
                 "[CurveEngine::adjustCurveOfSomeChannels] lookupTableMap is empty, no need adjust curve."}}));
  expectPixels(image, pixels);
  expectPixels(Image(KvTileImage_AdjustCurveOfSomeChannelsEx(image.get(), map.get(), &record)), pixels);
  EXPECT_EQ(takeCalls(), everyRow(3));
}

// A map with tables for channels that the image does not have is not empty.
TEST(SomeChannelsTest, ChannelsBeyondTheImageAreGoneOverAllTheSame) {
  const PlainImage pixels = noise(20, 3, {3, 8});
  const Image image = imageOf(pixels);
  const TableMap map(KvTileImage_CreateLookupTableMap8());
  ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), tableOf(scrambled(8, 1), 8).get(), 5));
  ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), tableOf(scrambled(8, 1), 8).get(), 0xFFFFFFFF));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), &record));
  EXPECT_EQ(takeCalls(), everyRow(3));
  expectPixels(image, pixels);
}

// ---- Insertion

TEST(InsertTest, RefusesTablesOfAnotherDepth) {
  LogCapture log;
  const TableMap map(KvTileImage_CreateLookupTableMap8());
  EXPECT_FALSE(KvTileImage_InsertLookupTable(map.get(), tableOf(scrambled(16, 1), 16).get(), 0));
  EXPECT_EQ(log.take(), errors({"[KvTileImage_InsertLookupTable] lookupTableMap->bitsPerSample() != "
                                "lookupTable->bitsPerSample()"}));
  const TableMap wide(KvTileImage_CreateLookupTableMap(16));
  EXPECT_TRUE(KvTileImage_InsertLookupTable(wide.get(), tableOf(scrambled(16, 1), 16).get(), 0));
  EXPECT_TRUE(log.take().empty());
}

TEST(InsertTest, TellsTablesFromMaps) {
  LogCapture log;
  const Image image = allocate(2, 2, 1, 8);
  const Table table = tableOf(scrambled(8, 1), 8);
  const TableMap map(KvTileImage_CreateLookupTableMap8());
  EXPECT_FALSE(KvTileImage_InsertLookupTable(table.get(), table.get(), 0));
  EXPECT_EQ(log.take(), errors({"[KvTileImage_InsertLookupTable] the handle is that of a lookup table; pass a map"}));
  EXPECT_FALSE(KvTileImage_InsertLookupTable(map.get(), map.get(), 0));
  EXPECT_EQ(log.take(),
            errors({"[KvTileImage_InsertLookupTable] the handle is that of a lookup table map; pass a table"}));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels(image.get(), map.get(), nullptr));
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx(image.get(), map.get(), nullptr), nullptr);
  EXPECT_FALSE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), table.get(), nullptr));
  EXPECT_EQ(KvTileImage_AdjustCurveOfSomeChannelsEx(image.get(), table.get(), nullptr), nullptr);
  EXPECT_EQ(log.take(),
            errors({"[KvTileImage_AdjustCurveOfAllChannels] the handle is that of a lookup table map; pass a table",
                    "[KvTileImage_AdjustCurveOfAllChannelsEx] the handle is that of a lookup table map; pass a table",
                    "[KvTileImage_AdjustCurveOfSomeChannels] the handle is that of a lookup table; pass a map",
                    "[KvTileImage_AdjustCurveOfSomeChannelsEx] the handle is that of a lookup table; pass a map"}));
}

// ---- Handles

TEST(LookupHandleTest, NullGivesEmptyResultsWithoutAWord) {
  LogCapture log(ember_logger::trace);
  const Image image = allocate(2, 2, 1, 8);
  const Table table = tableOf(scrambled(8, 1), 8);
  const TableMap map(KvTileImage_CreateLookupTableMap8());
  log.take();
  EXPECT_FALSE(KvTileImage_InsertLookupTable(nullptr, table.get(), 0));
  EXPECT_FALSE(KvTileImage_InsertLookupTable(map.get(), nullptr, 0));
  EXPECT_FALSE(KvTileImage_InsertLookupTable(nullptr, nullptr, 0));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels(nullptr, table.get(), &record));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels(image.get(), nullptr, &record));
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx(nullptr, table.get(), &record), nullptr);
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx(image.get(), nullptr, &record), nullptr);
  EXPECT_FALSE(KvTileImage_AdjustCurveOfSomeChannels(nullptr, map.get(), &record));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), nullptr, &record));
  EXPECT_EQ(KvTileImage_AdjustCurveOfSomeChannelsEx(nullptr, map.get(), &record), nullptr);
  EXPECT_EQ(KvTileImage_AdjustCurveOfSomeChannelsEx(image.get(), nullptr, &record), nullptr);
  // Parameters that change nothing do not make a null handle a success.
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_Gamma(nullptr, 1.0, &record));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_Brightness(nullptr, 0.0, &record));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_Contrast(nullptr, 0.0, &record));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(nullptr, 0.0, 0.0, 1.0, false, &record));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_BrightnessContrast(nullptr, 0.0, 0.0, &record));
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_Threshold(nullptr, 0, false, &record));
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(nullptr, 1.0, &record), nullptr);
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx_Brightness(nullptr, 0.0, &record), nullptr);
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx_Contrast(nullptr, 0.0, &record), nullptr);
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrastGamma(nullptr, 0.0, 0.0, 1.0, true, &record),
            nullptr);
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrast(nullptr, 0.0, 0.0, &record), nullptr);
  KvTileImage_DestroyLookupTable(nullptr);
  KvTileImage_DestroyLookupTableMap(nullptr);
  EXPECT_THAT(takeCalls(), IsEmpty());
  EXPECT_TRUE(log.take().empty());
}

TEST(LookupHandleTest, OneFunctionWithTwoNamesDestroysBothKinds) {
  EXPECT_EQ(reinterpret_cast<const void*>(&KvTileImage_DestroyLookupTable),
            reinterpret_cast<const void*>(&KvTileImage_DestroyLookupTableMap));
  KvTileImage_DestroyLookupTableMap(KvTileImage_CreateLookupTable8_Gamma(2.0));
  KvTileImage_DestroyLookupTable(KvTileImage_CreateLookupTableMap8());
}

TEST(LookupHandleTest, AMapKeepsTheTablesWhoseHandlesAreGone) {
  const PlainImage pixels = noise(40, 3, {2, 16});
  const Image image = imageOf(pixels);
  const Entries entries = scrambled(16, 9);
  const TableMap map(KvTileImage_CreateLookupTableMap16());
  Table table = tableOf(entries, 16);
  ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), table.get(), 0));
  ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), table.get(), 1));
  table.reset();
  EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), nullptr));
  expectPixels(image, curved(pixels, entries));
}

// A callback may do with the handles what any other code may.
TEST(LookupHandleTest, ACallKeepsTheTablesWhoseHandlesItsCallbackDestroys) {
  const PlainImage pixels = noise(40, 6, {2, 16});
  const Entries entries = scrambled(16, 9);
  Table table = tableOf(entries, 16);
  TableMap map(KvTileImage_CreateLookupTableMap16());
  ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), table.get(), 0));
  const Image first = imageOf(pixels);
  onRow = [&table](std::uint32_t) { table.reset(); };
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels(first.get(), table.get(), &forward));
  expectPixels(first, curved(pixels, entries));
  const Image second = imageOf(pixels);
  onRow = [&map](std::uint32_t) { map.reset(); };
  EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(second.get(), map.get(), &forward));
  expectPixels(second, curved(pixels, [&](std::uint32_t channel) { return channel == 0 ? &entries : nullptr; }));
}

// ---- Parameters instead of a table

using InPlace = std::function<bool(TileImageHandle*, KvTileImage_ProgressCallback)>;
using IntoCopy = std::function<TileImageHandle*(TileImageHandle*, KvTileImage_ProgressCallback)>;
using Create = std::function<LookupTableHandle*(std::uint32_t bits)>;

struct Shortcut {
  const char* name;
  Create create;
  InPlace inPlace;
  IntoCopy intoCopy;
  bool copyCallsBack;
};

const Shortcut kShortcuts[] = {
    {"Gamma", [](std::uint32_t bits) { return KvTileImage_CreateLookupTable_Gamma(bits, 2.2); },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannels_Gamma(image, 2.2, progress);
     },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(image, 2.2, progress);
     },
     true},
    {"Brightness", [](std::uint32_t bits) { return KvTileImage_CreateLookupTable_Brightness(bits, 0.4); },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannels_Brightness(image, 0.4, progress);
     },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannelsEx_Brightness(image, 0.4, progress);
     },
     true},
    {"Contrast", [](std::uint32_t bits) { return KvTileImage_CreateLookupTable_Contrast(bits, -0.3); },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannels_Contrast(image, -0.3, progress);
     },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannelsEx_Contrast(image, -0.3, progress);
     },
     true},
    {"BrightnessContrastGamma",
     [](std::uint32_t bits) {
       return KvTileImage_CreateLookupTable_BrightnessContrastGamma(bits, 0.4, -0.3, 2.2, true);
     },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(image, 0.4, -0.3, 2.2, true, progress);
     },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrastGamma(image, 0.4, -0.3, 2.2, true, progress);
     },
     true},
    {"BrightnessContrast",
     [](std::uint32_t bits) { return KvTileImage_CreateLookupTable_BrightnessContrast(bits, 0.4, -0.3); },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannels_BrightnessContrast(image, 0.4, -0.3, progress);
     },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrast(image, 0.4, -0.3, progress);
     },
     false},
    {"Threshold", [](std::uint32_t bits) { return KvTileImage_CreateLookupTable_Threshold(bits, 99, true); },
     [](TileImageHandle* image, KvTileImage_ProgressCallback progress) {
       return KvTileImage_AdjustCurveOfAllChannels_Threshold(image, 99, true, progress);
     },
     nullptr, false},
};

TEST(ShortcutTest, DoesWhatTheTableDoes) {
  for (const Shortcut& shortcut : kShortcuts) {
    for (const std::uint32_t bits : {8U, 16U}) {
      SCOPED_TRACE(testing::Message() << shortcut.name << bits);
      const PlainImage pixels = noise(70, 4, {3, bits});
      const PlainImage expected = curved(pixels, entriesOf(Table(shortcut.create(bits)), bits));
      const Image image = imageOf(pixels);
      if (shortcut.intoCopy) {
        expectPixels(Image(shortcut.intoCopy(image.get(), &record)), expected);
        EXPECT_EQ(takeCalls(), shortcut.copyCallsBack ? everyRow(4) : Calls());
        expectPixels(image, pixels);
      }
      EXPECT_TRUE(shortcut.inPlace(image.get(), &record));
      EXPECT_EQ(takeCalls(), everyRow(4));
      expectPixels(image, expected);
    }
  }
}

TEST(ShortcutTest, FailsSilentlyForDepthsWithoutTables) {
  LogCapture log;
  for (const Shortcut& shortcut : kShortcuts) {
    for (const std::uint32_t bits : {1U, 2U, 4U, 24U, 32U}) {
      const Image image = allocate(3, 2, 1, bits);
      EXPECT_FALSE(shortcut.inPlace(image.get(), &record)) << shortcut.name;
      if (shortcut.intoCopy) {
        EXPECT_EQ(shortcut.intoCopy(image.get(), &record), nullptr) << shortcut.name;
      }
    }
  }
  EXPECT_THAT(takeCalls(), IsEmpty());
  EXPECT_TRUE(log.take().empty());
}

TEST(ShortcutTest, RefusesWhatTheTableRefuses) {
  LogCapture log;
  const PlainImage pixels = noise(20, 2, {1, 8});
  const Image image = imageOf(pixels);
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_Gamma(image.get(), 0.0, &record));
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(image.get(), -2.0, &record), nullptr);
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_Brightness(image.get(), 1.5, &record));
  EXPECT_EQ(KvTileImage_AdjustCurveOfAllChannelsEx_Contrast(image.get(), -1.5, &record), nullptr);
  EXPECT_FALSE(KvTileImage_AdjustCurveOfAllChannels_Threshold(image.get(), 256, false, &record));
  EXPECT_EQ(log.take(),
            errors({"[CurveEngine::checkGamma] gamma is 0.000000, check your code!",
                    "[CurveEngine::checkGamma] gamma is -2.000000, check your code!",
                    "[CurveEngine::checkBrightness] brightness is 1.500000, check your code! range: [-1.0,1.0]",
                    "[CurveEngine::checkContrast] contrast is -1.500000, check your code! range: [-1.0,1.0]",
                    "[CurveEngine::createLookupTable8_Threshold] threshold:256 is out range"}));
  EXPECT_THAT(takeCalls(), IsEmpty());
  expectPixels(image, pixels);
}

// Whatever the depth: nothing is looked at but the parameters. Contrast too, whose table is not the identity.
TEST(ShortcutTest, InPlaceDoesNothingForParametersThatChangeNothing) {
  LogCapture log(ember_logger::debug);
  for (const std::uint32_t bits : {1U, 8U, 16U, 32U}) {
    const PlainImage pixels = noise(20, 2, {1, bits});
    const Image image = imageOf(pixels);
    log.take();
    EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Gamma(image.get(), 1.0, &record));
    EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Brightness(image.get(), -1e-17, &record));
    EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Contrast(image.get(), 0.0, &record));
    EXPECT_TRUE(
        KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(image.get(), 0.0, 0.0, 1.0, false, &record));
    EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_BrightnessContrast(image.get(), 0.0, 0.0, &record));
    const auto line = [](const std::string& text) { return LogLine{ember_logger::debug, text}; };
    const LogLine combined = line(
        "[KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma] no need adjust curve,because brightness is "
        "0.000000, contrast is 0.000000, gamma is 1.000000, invert is false");
    EXPECT_EQ(
        log.take(),
        (LogLines{
            line("[KvTileImage_AdjustCurveOfAllChannels_Gamma] no need adjust curve,because gamma is 1.000000"),
            line("[KvTileImage_AdjustCurveOfAllChannels_Brightness] no need adjust curve,because brightness is "
                 "-0.000000"),
            line("[KvTileImage_AdjustCurveOfAllChannels_Contrast] no need adjust curve,because contrast is 0.000000"),
            combined, combined}));
    expectPixels(image, pixels);
  }
  EXPECT_THAT(takeCalls(), IsEmpty());
}

// Doubles next to 1 are 2^-53 below and 2^-52 above it.
TEST(ShortcutTest, NothingIsWhatIsNearerThanTheStepAboveOne) {
  const double step = std::pow(2.0, -52);
  const Image image = imageOf(noise(20, 2, {1, 8}));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Gamma(image.get(), 1.0 - step / 2, &record));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Brightness(image.get(), std::nextafter(step, 0.0), &record));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Contrast(image.get(), -std::nextafter(step, 0.0), &record));
  EXPECT_THAT(takeCalls(), IsEmpty());
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Gamma(image.get(), 1.0 + step, &record));
  EXPECT_EQ(takeCalls(), everyRow(2));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Brightness(image.get(), step, &record));
  EXPECT_EQ(takeCalls(), everyRow(2));
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_Contrast(image.get(), -step, &record));
  EXPECT_EQ(takeCalls(), everyRow(2));
}

TEST(ShortcutTest, TheCopyIsMadeForParametersThatChangeNothing) {
  const PlainImage pixels = noise(20, 3, {3, 8});
  const Image image = imageOf(pixels);
  expectPixels(Image(KvTileImage_AdjustCurveOfAllChannelsEx_Gamma(image.get(), 1.0, &record)), pixels);
  EXPECT_EQ(takeCalls(), everyRow(3));
  expectPixels(Image(KvTileImage_AdjustCurveOfAllChannelsEx_Brightness(image.get(), 0.0, &record)), pixels);
  EXPECT_EQ(takeCalls(), everyRow(3));
  expectPixels(
      Image(KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrastGamma(image.get(), 0.0, 0.0, 1.0, false, &record)),
      pixels);
  EXPECT_EQ(takeCalls(), everyRow(3));
  expectPixels(Image(KvTileImage_AdjustCurveOfAllChannelsEx_BrightnessContrast(image.get(), 0.0, 0.0, &record)),
               pixels);
  EXPECT_THAT(takeCalls(), IsEmpty());
  // The lower half becomes white: the table of contrast 0 is no identity.
  Entries whitened = support::everyValue(8);
  std::fill_n(whitened.begin(), 128, 255U);
  expectPixels(Image(KvTileImage_AdjustCurveOfAllChannelsEx_Contrast(image.get(), 0.0, &record)),
               curved(pixels, whitened));
  EXPECT_EQ(takeCalls(), everyRow(3));
}

TEST(ShortcutTest, InversionAloneIsAChange) {
  const PlainImage pixels = noise(20, 3, {2, 16});
  const Image image = imageOf(pixels);
  EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(image.get(), 0.0, 0.0, 1.0, true, &record));
  EXPECT_EQ(takeCalls(), everyRow(3));
  Entries inverted = support::everyValue(16);
  for (std::uint32_t& value : inverted) {
    value = 65535 - value;
  }
  expectPixels(image, curved(pixels, inverted));
}

}  // namespace
