// Kernels, weights, rows held and sections of threads: rescaling seen from inside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "core/tile_image.h"
#include "kvtileimage/KvTileImage.h"
#include "resize/filters.h"
#include "resize/resize_engine.h"
#include "resize/sampler.h"
#include "resize/scanline_resize_engine.h"
#include "resize/scanlines_cache.h"
#include "support/allocation_failures.h"
#include "support/backing_files.h"
#include "support/log_capture.h"
#include "support/mapping_calls.h"
#include "support/rescale_model.h"

namespace {

using core::TileImage;
using resize::CGenericFilter;
using resize::Contribution;
using resize::Rectangle;
using resize::ResizeEngine;
using resize::Sampler;
using resize::Scanline;
using resize::ScanlineResizeEngine;
using resize::ScanlinesCache;
using resize::Sections;
using support::errors;
using support::LogCapture;
using support::LogLine;
using testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kFilters[] = {KVTI_FILTER_BOX,     KVTI_FILTER_BICUBIC,    KVTI_FILTER_BILINEAR,
                                      KVTI_FILTER_BSPLINE, KVTI_FILTER_CATMULLROM, KVTI_FILTER_LANCZOS3};

// ---- Kernels

TEST(FilterTest, HasTheWeightsOfItsFamilyAtWholeAndHalfDistances) {
  struct Row {
    std::uint32_t filter;
    double width;
    // At 0, 1/2, 1, 3/2, 2 and 5/2.
    std::vector<double> weights;
  };
  // Fractions worked out by hand; sinc at 1/2 and so on: 2/pi * sin(pi/6)/(pi/6) = 6/pi^2, and so forth.
  const double square = std::pow(std::acos(-1.0), 2);
  const Row rows[] = {
      {KVTI_FILTER_BOX, 0.5, {1, 1, 0, 0, 0, 0}},
      {KVTI_FILTER_BICUBIC, 2.0, {8.0 / 9, 77.0 / 144, 1.0 / 18, -5.0 / 144, 0, 0}},
      {KVTI_FILTER_BILINEAR, 1.0, {1, 0.5, 0, 0, 0, 0}},
      {KVTI_FILTER_BSPLINE, 2.0, {2.0 / 3, 23.0 / 48, 1.0 / 6, 1.0 / 48, 0, 0}},
      {KVTI_FILTER_CATMULLROM, 2.0, {1, 9.0 / 16, 0, -1.0 / 16, 0, 0}},
      {KVTI_FILTER_LANCZOS3, 3.0, {1, 6 / square, 0, -4.0 / (3 * square), 0, 6.0 / (25 * square)}},
  };
  for (const Row& row : rows) {
    const auto filter = resize::makeFilter(row.filter);
    ASSERT_NE(filter, nullptr);
    EXPECT_EQ(filter->width(), row.width);
    for (std::size_t i = 0; i < row.weights.size(); ++i) {
      EXPECT_NEAR(filter->Filter(0.5 * static_cast<double>(i)), row.weights[i], 1e-15) << row.filter << " at " << i;
      EXPECT_NEAR(filter->Filter(-0.5 * static_cast<double>(i)), row.weights[i], 1e-15) << row.filter << " at -" << i;
    }
  }
}

TEST(FilterTest, IsNothingBeyondItsWidth) {
  for (const std::uint32_t code : kFilters) {
    const auto filter = resize::makeFilter(code);
    for (const double x : {filter->width() * 1.0000001, 3.5, 100.0, 1e300}) {
      EXPECT_EQ(filter->Filter(x), 0.0);
      EXPECT_EQ(filter->Filter(-x), 0.0);
    }
  }
  EXPECT_EQ(resize::makeFilter(KVTI_FILTER_BOX)->Filter(0.5), 1.0) << "the edge is inside";
  EXPECT_EQ(resize::makeFilter(KVTI_FILTER_LANCZOS3)->Filter(3.0), 0.0);
}

TEST(FilterTest, CodesGoUpToFive) {
  LogCapture log;
  for (const std::uint32_t code : kFilters) {
    EXPECT_NE(ScanlineResizeEngine::createFilter(code), nullptr);
  }
  EXPECT_TRUE(log.take().empty());
  for (const std::uint32_t code : {6U, 7U, 0xFFFFFFFFU}) {
    EXPECT_EQ(ScanlineResizeEngine::createFilter(code), nullptr);
    EXPECT_EQ(log.take(), errors({"[ScanlineResizeEngine::createFilter] createFilter failed!"}));
  }
}

// ---- Weights

std::shared_ptr<const Sampler> sampler(std::uint32_t filter, std::uint32_t length, double scale) {
  return Sampler::create(*resize::makeFilter(filter), length, scale);
}

TEST(SamplerTest, AgreesWithATableForAwkwardScales) {
  const LogCapture log;
  const double scales[] = {0.0101, 0.013, 1.0 / 7, 0.25, 0.3,  1.0 / 3, 0.4999999, 0.5, 2.0 / 3,  0.75,
                           0.9999, 1.0,   1.0001,  1.25, 1.37, 1.5,     2.0,       3.0, 10.0 / 3, 7.77};
  for (const std::uint32_t filter : kFilters) {
    for (const std::uint32_t length : {1U, 2U, 3U, 7U, 100U, 251U}) {
      for (const double scale : scales) {
        const auto table = sampler(filter, length, scale);
        const auto expectedLength = static_cast<std::uint32_t>(length * scale + 0.5);
        if (expectedLength == 0) {
          EXPECT_EQ(table, nullptr);
          continue;
        }
        ASSERT_NE(table, nullptr);
        ASSERT_EQ(table->destinationLength(), expectedLength);
        for (std::uint32_t u = 0; u < expectedLength; ++u) {
          const Contribution made = table->contribution(u);
          const support::WeightsModel model = support::weightsModel(filter, length, scale, u);
          ASSERT_EQ(made.left, model.left) << filter << ", " << length << " by " << scale << ", " << u;
          ASSERT_EQ(made.right, model.right) << filter << ", " << length << " by " << scale << ", " << u;
          ASSERT_EQ(std::vector(made.weights.begin(), made.weights.end()), model.weights);
        }
      }
    }
  }
}

TEST(SamplerTest, BoxAtFullSizeTakesEachPixelItself) {
  const auto table = sampler(KVTI_FILTER_BOX, 5, 1.0);
  for (std::uint32_t u = 0; u < 5; ++u) {
    EXPECT_EQ(table->contribution(u).left, u);
    EXPECT_EQ(table->contribution(u).right, u + 1);
    EXPECT_THAT(table->contribution(u).weights, ElementsAre(1.0));
  }
}

TEST(SamplerTest, BilinearDoublesByQuarters) {
  const auto table = sampler(KVTI_FILTER_BILINEAR, 4, 2.0);
  EXPECT_EQ(table->contribution(0).left, 0U);
  EXPECT_THAT(table->contribution(0).weights, ElementsAre(1.0));
  EXPECT_EQ(table->contribution(1).left, 0U);
  EXPECT_THAT(table->contribution(1).weights, ElementsAre(0.75, 0.25));
  EXPECT_EQ(table->contribution(2).left, 0U);
  EXPECT_THAT(table->contribution(2).weights, ElementsAre(0.25, 0.75));
}

TEST(SamplerTest, WindowsEndAtAHundredPixels) {
  LogCapture log(ember_logger::trace);
  const auto table = sampler(KVTI_FILTER_LANCZOS3, 10000, 0.01);
  EXPECT_EQ(table->windowSize(), 100U);
  EXPECT_EQ(log.take(), (support::LogLines{{ember_logger::trace,
                                            "[Sampler::postInitialize] sampler windowSize:100 dWidth:49.000000 "
                                            "dFilterWidth\xA3\xBA"
                                            "3.000000 dScale:0.010000!"}}));
  for (std::uint32_t u = 0; u < table->destinationLength(); ++u) {
    EXPECT_LE(table->contribution(u).count(), 100U);
  }
  // A filter that reaches 48 pixels has a window of 97, one that reaches 50 would have 101.
  EXPECT_EQ(sampler(KVTI_FILTER_LANCZOS3, 10000, 3.0 / 48)->windowSize(), 97U);
  EXPECT_EQ(sampler(KVTI_FILTER_LANCZOS3, 10000, 3.0 / 50)->windowSize(), 100U);
}

TEST(SamplerTest, OnePixelIsAllThereIs) {
  for (const std::uint32_t filter : kFilters) {
    const auto table = sampler(filter, 1, 3.0);
    for (std::uint32_t u = 0; u < 3; ++u) {
      EXPECT_EQ(table->contribution(u).left, 0U);
      EXPECT_EQ(table->contribution(u).right, 1U);
      EXPECT_THAT(table->contribution(u).weights, ElementsAre(1.0));
    }
  }
}

// Pixels 3 .. 6 have the weights 0, 1, 0 and 0. The last 0 takes pixel 6 off and hides the one of pixel 5; the 1 stays;
// the first 0 takes pixel 5 off and not itself.
TEST(SamplerTest, ZerosInsideCutTheEndOff) {
  const auto table = sampler(KVTI_FILTER_CATMULLROM, 9, 1.0);
  const Contribution middle = table->contribution(4);
  EXPECT_EQ(middle.left, 3U);
  EXPECT_EQ(middle.right, 5U);
  EXPECT_THAT(middle.weights, ElementsAre(0.0, 1.0));
}

TEST(SamplerTest, RefusesResultsWithoutPixels) {
  LogCapture log;
  EXPECT_EQ(sampler(KVTI_FILTER_BOX, 3, 0.1), nullptr);
  EXPECT_EQ(log.take(), errors({"[Sampler::postInitialize] weightTable_ resize failed!"}));
}

TEST(SamplerTest, RefusesTablesBeyondMemory) {
  LogCapture log;
  EXPECT_EQ(sampler(KVTI_FILTER_LANCZOS3, 0xFFFFFFFF, 1.0), nullptr);
  EXPECT_EQ(log.take(), errors({"[Sampler::postInitialize] weightTable_ resize failed!"}));
}

TEST(SamplerTest, ReachesTheLastOfManyPixels) {
  const auto table = sampler(KVTI_FILTER_BILINEAR, 0xFFFFFFFF, 1e-8);
  ASSERT_EQ(table->destinationLength(), 43U);
  const Contribution last = table->contribution(42);
  EXPECT_EQ(last.left, 4249999951U);  // the middle, 42.5e8, less 49, and a half is rounded up
  EXPECT_EQ(last.count(), 98U);
}

// ---- Rows

std::unique_ptr<TileImage> numberedImage(std::uint32_t width, std::uint32_t height) {
  auto image = TileImage::createNormal({width, height, 1, 8, KVTI_SAMPLEFORMAT_UINT, false, 3});
  for (std::uint32_t y = 0; y < height; ++y) {
    Bytes row(width);
    for (std::uint32_t x = 0; x < width; ++x) {
      row[x] = static_cast<std::uint8_t>(10 * y + x);
    }
    EXPECT_TRUE(image->copyRowData(y, 0, width, row.data(), row.size(), core::Direction::set));
  }
  return image;
}

TEST(ScanlinesCacheTest, HoldsTheColumnsOfItsRows) {
  const auto image = numberedImage(9, 20);
  const auto cache = ScanlinesCache::createRowScanlinesCache(*image, 2, 6);
  ASSERT_NE(cache, nullptr);
  // Forwards, backwards, larger windows and smaller ones.
  const std::pair<std::uint32_t, std::uint32_t> windows[] = {{0, 3}, {1, 4}, {3, 8}, {2, 7}, {19, 20}, {0, 1}, {0, 9}};
  for (const auto& [begin, end] : windows) {
    ASSERT_TRUE(cache->load(begin, end));
    for (std::uint32_t y = begin; y < end; ++y) {
      Bytes bytes(4);
      EXPECT_TRUE(cache->row(y).copy(2, 6, bytes.data(), bytes.size()));
      EXPECT_THAT(bytes, ElementsAre(10 * y + 2, 10 * y + 3, 10 * y + 4, 10 * y + 5));
    }
  }
}

// What is in the image now shows which rows were read again.
TEST(ScanlinesCacheTest, ReadsEachRowOnce) {
  const auto image = numberedImage(3, 10);
  const auto cache = ScanlinesCache::createRowScanlinesCache(*image, 0, 3);
  ASSERT_TRUE(cache->load(0, 4));
  for (std::uint32_t y = 0; y < 10; ++y) {
    Bytes changed{200, 200, 200};
    ASSERT_TRUE(image->copyRowData(y, 0, 3, changed.data(), 3, core::Direction::set));
  }
  ASSERT_TRUE(cache->load(2, 6));
  const auto first = [&](std::uint32_t y) { return *cache->row(y).pixelAddress(0); };
  EXPECT_EQ(first(2), 20);
  EXPECT_EQ(first(3), 30);
  EXPECT_EQ(first(4), 200);
  ASSERT_TRUE(cache->load(3, 10));  // more rows than before
  EXPECT_EQ(first(3), 30);
  EXPECT_EQ(first(9), 200);
}

TEST(ScanlinesCacheTest, ChecksItsColumns) {
  LogCapture log;
  const auto image = numberedImage(9, 2);
  const char* const line =
      "[ScanlinesCache::createRowScanlinesCache] offset0 >= offset1 || offset1 > tileImage->width()!";
  EXPECT_EQ(ScanlinesCache::createRowScanlinesCache(*image, 3, 3), nullptr);
  EXPECT_EQ(ScanlinesCache::createRowScanlinesCache(*image, 4, 3), nullptr);
  EXPECT_EQ(ScanlinesCache::createRowScanlinesCache(*image, 0, 10), nullptr);
  EXPECT_EQ(log.take(), errors({line, line, line}));
}

TEST(ScanlinesCacheTest, SaysWhatItCannotRead) {
  LogCapture log;
  const auto image = numberedImage(9, 2);
  const auto cache = ScanlinesCache::createRowScanlinesCache(*image, 0, 9);
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_FALSE(cache->load(1, 3));
    EXPECT_EQ(log.take().back(), (LogLine{ember_logger::error, "[ScanlinesCache::load] getRowData failed!"}));
  }
  EXPECT_TRUE(cache->load(0, 2));
}

TEST(ScanlineTest, ChecksItsPixels) {
  LogCapture log;
  const auto image = numberedImage(9, 2);
  Scanline scanline(image->format(), 2, 6);
  ASSERT_TRUE(scanline.read(*image, 1));
  EXPECT_EQ(*scanline.pixelAddress(2), 12);
  EXPECT_EQ(*scanline.pixelAddress(5), 15);
  EXPECT_TRUE(log.take().empty());
  const char* const address = "[Scanline::pixelAddress] pixelIndex < offset0() || pixelIndex >= offset1()!";
  EXPECT_EQ(scanline.pixelAddress(1), nullptr);
  EXPECT_EQ(scanline.pixelAddress(6), nullptr);
  EXPECT_EQ(log.take(), errors({address, address}));
  Bytes bytes(4, 99);
  const char* const copy =
      "[Scanline::copy] begin < offset0() || begin >= offset1() || begin >= end || end > offset1()!";
  EXPECT_FALSE(scanline.copy(1, 4, bytes.data(), 4));
  EXPECT_FALSE(scanline.copy(6, 7, bytes.data(), 4));
  EXPECT_FALSE(scanline.copy(3, 3, bytes.data(), 4));
  EXPECT_FALSE(scanline.copy(3, 7, bytes.data(), 4));
  EXPECT_EQ(log.take(), errors({copy, copy, copy, copy}));
  EXPECT_FALSE(scanline.copy(2, 6, bytes.data(), 3)) << "silently";
  EXPECT_TRUE(log.take().empty());
  EXPECT_THAT(bytes, ElementsAre(99, 99, 99, 99));
  EXPECT_TRUE(scanline.copy(3, 5, bytes.data(), 2));
  EXPECT_THAT(bytes, ElementsAre(13, 14, 99, 99));
}

// ---- Sections

struct SectionsCase {
  std::uint32_t rows;
  std::uint32_t processors;
  std::uint32_t threads;
  std::uint32_t rowsPerSection;
};

// Worked out by hand.
constexpr SectionsCase kSections[] = {
    {8400, 8, 4, 2048},   // 1050 rows each would be too few; the rest of 208 goes to the last of four
    {10000, 8, 5, 2048},  // a rest of 1808
    {1, 1, 1, 2048},        {1, 64, 1, 2048},   {2048, 2, 1, 2048}, {2049, 2, 1, 2048},  // a rest of 1
    {2560, 2, 1, 2048},                                                                  // a rest of 512
    {2561, 2, 2, 2048},                                                                  // a rest of 513
    {4096, 2, 2, 2048},     {4097, 2, 2, 3072},  // 2049 each, rounded up; a rest of 1025
    {8192, 2, 2, 4096},     {8192, 1, 1, 8192}, {8193, 1, 1, 9216}, {20000, 3, 3, 7168},  // 6667 each
    {100000, 16, 14, 7168},  // 6250 each; 13 whole sections and a rest of 6816
    {100000, 48, 33, 3072},  // 2084 each; 32 whole sections and a rest of 1696
};

TEST(SectionsTest, AreWholeThousandsOfRows) {
  for (const SectionsCase& row : kSections) {
    const Sections sections = Sections::of(row.rows, row.processors);
    EXPECT_EQ(sections.threadCount, row.threads) << row.rows << " on " << row.processors;
    EXPECT_EQ(sections.rowsPerSection, row.rowsPerSection) << row.rows << " on " << row.processors;
  }
}

TEST(SectionsTest, EndAtTheEndOfTheImage) {
  const Sections four = Sections::of(8400, 8);
  std::vector<std::uint32_t> ends;
  for (std::uint32_t section = 0; section < four.threadCount; ++section) {
    ends.push_back(four.endRow(section, 8400));
  }
  EXPECT_THAT(ends, ElementsAre(2048, 4096, 6144, 8400));
  for (const std::uint32_t rows : {1U, 2048U, 5000U, 0x7FFFFFFFU, 0xFFFFFFFFU}) {
    for (const std::uint32_t processors : {1U, 2U, 7U, 256U}) {
      const Sections sections = Sections::of(rows, processors);
      ASSERT_GE(sections.threadCount, 1U);
      EXPECT_EQ(sections.endRow(sections.threadCount - 1, rows), rows);
    }
  }
}

TEST(SectionsTest, AreForManySamplesAndRowsOnly) {
  const auto uses = [](std::uint32_t samples, std::uint32_t bits, std::uint32_t width, std::uint32_t height) {
    return ResizeEngine::usesThreads({samples, bits, samples * bits}, {5, 7, 5 + width, 7 + height});
  };
  EXPECT_TRUE(uses(1, 8, 16384, 4096));  // 67,108,864 samples
  EXPECT_FALSE(uses(1, 8, 16383, 4096));
  EXPECT_FALSE(uses(1, 8, 16389, 4095));
  EXPECT_FALSE(uses(1, 8, 1000000, 4095));
  EXPECT_TRUE(uses(4, 16, 4096, 4096));  // samples, not pixels and not bytes
  EXPECT_FALSE(uses(3, 64, 5461, 4096));
  EXPECT_TRUE(uses(3, 64, 5462, 4096));
}

// ---- Images in files

std::unique_ptr<TileImage> imageInFiles(std::uint32_t width, std::uint32_t height) {
  return TileImage::createNormal({width, height, 1, 8, KVTI_SAMPLEFORMAT_UINT, true, 3});
}

// The last rows are in a tile of their own, which is written to its file when it is let go of.
TEST(ResizeEngineTest, LetsGoOfTheTilesItHasWritten) {
  const auto source = numberedImage(40, 50);
  const auto destination = imageInFiles(40, 4100);
  const auto files = support::backingFiles();
  ASSERT_EQ(files.size(), 2U);
  support::takeFlushCalls();
  ASSERT_TRUE(ResizeEngine::scale(*source, {0, 0, 40, 50}, *destination, KVTI_FILTER_BOX));
  EXPECT_THAT(support::takeFlushCalls(), testing::Contains(support::FlushCall{files[1].name(), files[1].bytes()}));
}

TEST(ResizeEngineTest, SaysWhatItCannotWrite) {
  const auto source = imageInFiles(40, 50);
  const auto destination = imageInFiles(20, 20);
  const auto files = support::backingFiles();
  ASSERT_EQ(files.size(), 2U);
  const support::Unmappable broken(files[1].path);
  LogCapture log;
  EXPECT_FALSE(ResizeEngine::scale(*source, {0, 0, 40, 50}, *destination, KVTI_FILTER_BOX));
  EXPECT_EQ(log.take().back(),
            (LogLine{ember_logger::error, "[ResizeEngine::scaleSection] dstImage setRowData failed!"}));
}

// ---- Without memory

TEST(RescaleMemoryTest, EnginesAreRefusedWhicheverAllocationFails) {
  const auto image = numberedImage(9, 20);
  std::shared_ptr<ScanlineResizeEngine> engine;
  for (long n = 1; engine == nullptr; ++n) {
    ASSERT_LT(n, 1000);
    LogCapture log;
    support::failAllocation(n);
    engine = ScanlineResizeEngine::__create(*image, {0, 0, 9, 20}, 5U, 5U, KVTI_FILTER_LANCZOS3);
    support::failAllocation(0);
    if (engine == nullptr) {
      EXPECT_THAT(log.take(), testing::Not(testing::IsEmpty())) << n;
    }
  }
  bool scaled = false;
  for (long n = 1; !scaled; ++n) {
    ASSERT_LT(n, 1000);
    LogCapture log;
    support::failAllocation(n);
    scaled = engine->scaleRow(2);
    support::failAllocation(0);
    if (!scaled) {
      EXPECT_THAT(log.take(), testing::Contains(LogLine{ember_logger::error,
                                                        "[ScanlineResizeEngine::scaleRow] "
                                                        "bad_alloc!"}));
    }
  }
}

TEST(RescaleMemoryTest, ClonesAreRefusedWhicheverAllocationFails) {
  const auto image = numberedImage(9, 20);
  const auto engine = ScanlineResizeEngine::__create(*image, {0, 0, 9, 20}, 5U, 5U, KVTI_FILTER_BOX);
  ASSERT_NE(engine, nullptr);
  LogCapture log;
  support::failAllocation(1);
  EXPECT_EQ(engine->clone(), nullptr);
  support::failAllocation(0);
  EXPECT_EQ(log.take(), errors({"[ScanlineResizeEngine::clone] bad_alloc!"}));
  const auto clone = engine->clone();
  ASSERT_NE(clone, nullptr);
  ASSERT_TRUE(engine->scaleRow(3));
  ASSERT_TRUE(clone->scaleRow(3));
  EXPECT_EQ(Bytes(engine->row().begin(), engine->row().end()), Bytes(clone->row().begin(), clone->row().end()));
}

}  // namespace
