// Rescaling as callers see it: every sample, bit for bit, against the sum that defines it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/image.h"
#include "support/log_capture.h"
#include "support/rescale_model.h"

namespace {

using support::allocate;
using support::errors;
using support::Image;
using support::LogCapture;
using support::LogLine;
using support::SamplesModel;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

struct EndEngine {
  void operator()(RescaleEngineHandle* engine) const { KvTileImage_EndRescaleRowScanline_ThreadSafe(engine); }
};
using Engine = std::unique_ptr<RescaleEngineHandle, EndEngine>;

constexpr std::uint32_t kFilters[] = {KVTI_FILTER_BOX,     KVTI_FILTER_BICUBIC,    KVTI_FILTER_BILINEAR,
                                      KVTI_FILTER_BSPLINE, KVTI_FILTER_CATMULLROM, KVTI_FILTER_LANCZOS3};

struct Rectangle {
  std::uint32_t x1;
  std::uint32_t y1;
  std::uint32_t x2;
  std::uint32_t y2;
};

// ---- Images of every sample type

template <typename Sample>
constexpr std::uint32_t kBits = sizeof(Sample) * 8;

// Noise over the whole range, the ends of the range, and edges between them: what rings and is cut off.
template <typename Sample>
Sample randomSample(std::mt19937_64& random) {
  using Limits = std::numeric_limits<Sample>;
  const std::uint64_t bits = random();
  if (bits % 8 < 2) {
    return bits % 8 == 0 ? Limits::lowest() : Limits::max();
  }
  if constexpr (std::is_floating_point_v<Sample>) {
    // Numbers of many sizes, the smallest ones included.
    const double value = static_cast<double>(static_cast<std::int64_t>(bits)) * 1e-18;
    return static_cast<Sample>(bits % 8 == 2 ? value * 1e-300 : value);
  } else {
    return static_cast<Sample>(bits >> 7);
  }
}

template <typename Sample>
SamplesModel<Sample> noise(std::uint32_t width, std::uint32_t height, std::uint32_t channels) {
  std::mt19937_64 random(width * 31 + height * 7 + channels);
  SamplesModel<Sample> model{width, height, channels, {}};
  model.samples.resize(std::size_t{width} * height * channels);
  std::generate(model.samples.begin(), model.samples.end(), [&random] { return randomSample<Sample>(random); });
  return model;
}

template <typename Sample>
Bytes bytesOf(const std::vector<Sample>& samples) {
  Bytes bytes(samples.size() * sizeof(Sample));
  std::memcpy(bytes.data(), samples.data(), bytes.size());
  return bytes;
}

template <typename Sample>
void fill(const Image& image, const SamplesModel<Sample>& model) {
  const Bytes bytes = bytesOf(model.samples);
  const std::size_t rowBytes = bytes.size() / model.height;
  for (std::uint32_t y = 0; y < model.height; ++y) {
    ASSERT_TRUE(KvTileImage_SetFullRowData(image.get(), y, bytes.data() + y * rowBytes, rowBytes));
  }
}

template <typename Sample>
Image imageOf(const SamplesModel<Sample>& model, std::uint32_t sampleformat) {
  Image image = allocate(model.width, model.height, model.channels, kBits<Sample>, sampleformat);
  fill(image, model);
  return image;
}

Bytes rowOf(const Image& image, std::uint32_t y) {
  Bytes row(KvTileImage_GetRowScanlineSuitableBytes(image.get()));
  EXPECT_TRUE(KvTileImage_GetFullRowData(image.get(), y, row.data(), row.size()));
  return row;
}

// ---- Every sample type, kernel and number of channels

struct Change {
  Rectangle source;
  std::uint32_t width;
  std::uint32_t height;
};

// Of an image of 23 x 19: larger, smaller, both, a part of it, one pixel of it, and all of it as one pixel.
constexpr Change kChanges[] = {{{0, 0, 23, 19}, 31, 27}, {{0, 0, 23, 19}, 10, 7},  {{0, 0, 23, 19}, 40, 4},
                               {{3, 2, 17, 16}, 9, 21},  {{22, 18, 23, 19}, 3, 2}, {{0, 0, 23, 19}, 1, 1}};

template <typename Sample>
void expectDirectSums(std::uint32_t sampleformat) {
  std::mt19937 random(7);
  for (std::uint32_t channels = 1; channels <= 5; ++channels) {
    const SamplesModel<Sample> model = noise<Sample>(23, 19, channels);
    const Image image = imageOf(model, sampleformat);
    for (const std::uint32_t filter : kFilters) {
      for (const Change& change : kChanges) {
        const auto& [x1, y1, x2, y2] = change.source;
        SCOPED_TRACE(testing::Message() << channels << " channels, filter " << filter << ", to " << change.width
                                        << " x " << change.height << " from " << x1 << ", " << y1);
        const double scaleX = double(change.width) / (x2 - x1);
        const double scaleY = double(change.height) / (y2 - y1);
        // Turn by turn by size and by scale.
        ASSERT_TRUE(
            (channels + filter) % 2 == 0
                ? KvTileImage_BeginRescaleRowScanline(image.get(), x1, y1, x2, y2, change.width, change.height, filter)
                : KvTileImage_BeginRescaleRowScanlineEx(image.get(), x1, y1, x2, y2, scaleX, scaleY, filter));
        EXPECT_EQ(KvTileImage_WidthAfterRescale(image.get()), change.width);
        EXPECT_EQ(KvTileImage_HeightAfterRescale(image.get()), change.height);
        std::vector<std::uint32_t> rows(change.height);
        std::iota(rows.begin(), rows.end(), 0U);
        std::shuffle(rows.begin(), rows.end(), random);
        for (const std::uint32_t row : rows) {
          const Bytes expected =
              bytesOf(support::rescaledRowModel(model, x1, y1, x2, y2, scaleX, scaleY, change.width, row, filter));
          Bytes made(expected.size());
          ASSERT_TRUE(KvTileImage_RescaleRowScanline(image.get(), row, made.data(), made.size()));
          ASSERT_EQ(made, expected) << "row " << row;
        }
      }
    }
  }
}

TEST(DirectSumTest, Unsigned8) { expectDirectSums<std::uint8_t>(KVTI_SAMPLEFORMAT_UINT); }
TEST(DirectSumTest, Signed8) { expectDirectSums<std::int8_t>(KVTI_SAMPLEFORMAT_INT); }
TEST(DirectSumTest, Unsigned16) { expectDirectSums<std::uint16_t>(KVTI_SAMPLEFORMAT_UINT); }
TEST(DirectSumTest, Signed16) { expectDirectSums<std::int16_t>(KVTI_SAMPLEFORMAT_INT); }
TEST(DirectSumTest, Unsigned32) { expectDirectSums<std::uint32_t>(KVTI_SAMPLEFORMAT_UINT); }
TEST(DirectSumTest, Signed32) { expectDirectSums<std::int32_t>(KVTI_SAMPLEFORMAT_INT); }
TEST(DirectSumTest, Float) { expectDirectSums<float>(KVTI_SAMPLEFORMAT_FLOAT); }
TEST(DirectSumTest, Unsigned64) { expectDirectSums<std::uint64_t>(KVTI_SAMPLEFORMAT_UINT); }
TEST(DirectSumTest, Signed64) { expectDirectSums<std::int64_t>(KVTI_SAMPLEFORMAT_INT); }
TEST(DirectSumTest, Signed64UnderItsOtherCode) { expectDirectSums<std::int64_t>(KVTI_SAMPLEFORMAT_INT64); }
TEST(DirectSumTest, Double) { expectDirectSums<double>(KVTI_SAMPLEFORMAT_DOUBLE); }

// ---- By scale

TEST(RescaleByScaleTest, SizesAreRoundedAndWeightsFollowTheScale) {
  const SamplesModel<std::uint8_t> model = noise<std::uint8_t>(23, 19, 3);
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_UINT);
  // 20 and 15 pixels: 20 * 0.33 = 6.6, 15 * 1.7 = 25.5, and so on.
  struct Scale {
    double x;
    double y;
    std::uint32_t width;
    std::uint32_t height;
  };
  for (const Scale& scale : {Scale{0.33, 1.7, 7, 26}, Scale{1.0 / 3, 0.1, 7, 2}, Scale{2.5, 0.5, 50, 8}}) {
    for (const std::uint32_t filter : kFilters) {
      ASSERT_TRUE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), 1, 2, 21, 17, scale.x, scale.y, filter));
      ASSERT_EQ(KvTileImage_WidthAfterRescale(image.get()), scale.width);
      ASSERT_EQ(KvTileImage_HeightAfterRescale(image.get()), scale.height);
      for (std::uint32_t row = 0; row < scale.height; ++row) {
        Bytes made(scale.width * 3);
        ASSERT_TRUE(KvTileImage_RescaleRowScanline(image.get(), row, made.data(), made.size()));
        ASSERT_EQ(made, support::rescaledRowModel(model, 1, 2, 21, 17, scale.x, scale.y, scale.width, row, filter));
      }
    }
  }
}

TEST(RescaleByScaleTest, HalvesAreRoundedUp) {
  const Image image = allocate(3, 5, 1, 8);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), 0, 0, 3, 5, 0.5, 0.5, KVTI_FILTER_BOX));
  EXPECT_EQ(KvTileImage_WidthAfterRescale(image.get()), 2U);
  EXPECT_EQ(KvTileImage_HeightAfterRescale(image.get()), 3U);
}

// ---- By sight

TEST(RescaleTest, BoxTakesTheMean) {
  const SamplesModel<std::uint8_t> model{4, 2, 1, {0, 10, 100, 101, 20, 30, 102, 103}};
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_UINT);
  const Image half = allocate(2, 1, 1, 8);
  ASSERT_TRUE(KvTileImage_Rescale(image.get(), half.get(), KVTI_FILTER_BOX));
  // 60 / 4 and 406 / 4; a half is rounded up.
  EXPECT_THAT(rowOf(half, 0), ElementsAre(15, 102));
}

TEST(RescaleTest, NegativeHalvesAreRoundedTowardsZero) {
  const SamplesModel<std::int8_t> model{2, 1, 1, {-10, -11}};
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_INT);
  const Image half = allocate(1, 1, 1, 8, KVTI_SAMPLEFORMAT_INT);
  ASSERT_TRUE(KvTileImage_Rescale(image.get(), half.get(), KVTI_FILTER_BOX));
  EXPECT_THAT(rowOf(half, 0), ElementsAre(0xF6));  // -10.5 + 0.5
}

TEST(RescaleTest, TheSameSizeIsACopy) {
  for (const std::uint32_t sampleformat : {KVTI_SAMPLEFORMAT_UINT, 77U}) {
    const SamplesModel<std::uint16_t> model = noise<std::uint16_t>(30, 20, 3);
    const Image image = imageOf(model, sampleformat);
    const Image copy = allocate(11, 9, 3, 16, sampleformat);
    ASSERT_TRUE(KvTileImage_RescaleEx(image.get(), 4, 5, 15, 14, copy.get(), KVTI_FILTER_BSPLINE));
    for (std::uint32_t y = 0; y < 9; ++y) {
      Bytes expected(66);
      ASSERT_TRUE(KvTileImage_GetRowData(image.get(), y + 5, 4, 15, expected.data(), expected.size()));
      EXPECT_EQ(rowOf(copy, y), expected);
    }
  }
}

// ---- Rows of the caller's

TEST(RescaleRowTest, TakesABufferOfTheRowsSizeOrMore) {
  LogCapture log;
  const SamplesModel<std::uint8_t> model = noise<std::uint8_t>(20, 10, 3);
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_UINT);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 20, 10, 7, 5, KVTI_FILTER_BILINEAR));
  Bytes row(30, 99);
  EXPECT_FALSE(KvTileImage_RescaleRowScanline(image.get(), 0, row.data(), 20));
  EXPECT_FALSE(KvTileImage_RescaleRowScanline(image.get(), 0, nullptr, 30));
  const char* const line = "[KvTileImage_RescaleRowScanline] the buffer is null or holds less than the row's 21 bytes";
  EXPECT_EQ(log.take(), errors({line, line}));
  EXPECT_THAT(row, Each(99));
  EXPECT_TRUE(KvTileImage_RescaleRowScanline(image.get(), 0, row.data(), 30));
  EXPECT_THAT(Bytes(row.begin() + 21, row.end()), Each(99));
}

TEST(RescaleRowTest, ShowsTheRowItKeeps) {
  const SamplesModel<std::uint16_t> model = noise<std::uint16_t>(20, 10, 2);
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_UINT);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 20, 10, 7, 5, KVTI_FILTER_BICUBIC));
  Bytes copy(28);
  const std::uint8_t* shown = nullptr;
  std::uint64_t bytes = 0;
  for (std::uint32_t row = 0; row < 5; ++row) {
    ASSERT_TRUE(KvTileImage_RescaleRowScanline(image.get(), row, copy.data(), copy.size()));
    ASSERT_TRUE(KvTileImage_RescaleRowScanlineEx(image.get(), row, &shown, &bytes));
    EXPECT_EQ(Bytes(shown, shown + bytes), copy);
  }
  EXPECT_FALSE(KvTileImage_RescaleRowScanlineEx(image.get(), 0, nullptr, &bytes));
  EXPECT_FALSE(KvTileImage_RescaleRowScanlineEx(image.get(), 0, &shown, nullptr));
}

TEST(RescaleRowTest, EndsAtTheLastRow) {
  LogCapture log;
  const Image image = allocate(20, 10, 1, 8);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 20, 10, 7, 5, KVTI_FILTER_BOX));
  Bytes row(7);
  EXPECT_TRUE(KvTileImage_RescaleRowScanline(image.get(), 4, row.data(), row.size()));
  EXPECT_FALSE(KvTileImage_RescaleRowScanline(image.get(), 5, row.data(), row.size()));
  EXPECT_FALSE(KvTileImage_RescaleRowScanline(image.get(), 0xFFFFFFFF, row.data(), row.size()));
  EXPECT_EQ(log.take(), errors({"[ScanlineResizeEngine::scaleRow] there is no row 5, the result has 5 rows",
                                "[ScanlineResizeEngine::scaleRow] there is no row 4294967295, the result has 5 rows"}));
}

TEST(RescaleRowTest, TellsOfEveryHundredthRow) {
  const Image image = allocate(2, 50, 1, 8);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 2, 50, 2, 250, KVTI_FILTER_BOX));
  LogCapture log(ember_logger::trace);
  Bytes row(2);
  for (std::uint32_t y = 0; y < 250; ++y) {
    ASSERT_TRUE(KvTileImage_RescaleRowScanline(image.get(), y, row.data(), row.size()));
  }
  const auto line = [](const char* text) { return LogLine{ember_logger::trace, text}; };
  EXPECT_EQ(log.take(), (support::LogLines{line("[ScanlineResizeEngine::scaleRow] scale Row index:0"),
                                           line("[ScanlineResizeEngine::scaleRow] scale Row index:100"),
                                           line("[ScanlineResizeEngine::scaleRow] scale Row index:200")}));
}

TEST(RescaleRowTest, NothingBegunIsNothingDone) {
  LogCapture log(ember_logger::trace);
  const Image image = allocate(2, 2, 1, 8);
  log.take();
  Bytes row(9);
  const std::uint8_t* shown = nullptr;
  std::uint64_t bytes = 0;
  for (TileImageHandle* const handle : {image.get(), static_cast<TileImageHandle*>(nullptr)}) {
    EXPECT_FALSE(KvTileImage_RescaleRowScanline(handle, 0, row.data(), row.size()));
    EXPECT_FALSE(KvTileImage_RescaleRowScanlineEx(handle, 0, &shown, &bytes));
    EXPECT_EQ(KvTileImage_WidthAfterRescale(handle), 0U);
    EXPECT_EQ(KvTileImage_HeightAfterRescale(handle), 0U);
    KvTileImage_EndRescaleRowScanline(handle);
  }
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanline(nullptr, 0, 0, 2, 2, 1, 1, KVTI_FILTER_BOX));
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanlineEx(nullptr, 0, 0, 2, 2, 1.0, 1.0, KVTI_FILTER_BOX));
  EXPECT_EQ(KvTileImage_BeginRescaleRowScanline_ThreadSafe(nullptr, 0, 0, 2, 2, 1, 1, KVTI_FILTER_BOX), nullptr);
  EXPECT_EQ(KvTileImage_BeginRescaleRowScanlineEx_ThreadSafe(nullptr, 0, 0, 2, 2, 1.0, 1.0, KVTI_FILTER_BOX), nullptr);
  EXPECT_FALSE(KvTileImage_RescaleRowScanline_ThreadSafe(nullptr, 0, row.data(), row.size()));
  EXPECT_FALSE(KvTileImage_RescaleRowScanlineEx_ThreadSafe(nullptr, 0, &shown, &bytes));
  EXPECT_EQ(KvTileImage_WidthAfterRescale_ThreadSafe(nullptr), 0U);
  EXPECT_EQ(KvTileImage_HeightAfterRescale_ThreadSafe(nullptr), 0U);
  KvTileImage_EndRescaleRowScanline_ThreadSafe(nullptr);
  EXPECT_FALSE(KvTileImage_Rescale(nullptr, image.get(), KVTI_FILTER_BOX));
  EXPECT_FALSE(KvTileImage_Rescale(image.get(), nullptr, KVTI_FILTER_BOX));
  EXPECT_FALSE(KvTileImage_RescaleEx(nullptr, 0, 0, 1, 1, image.get(), KVTI_FILTER_BOX));
  EXPECT_FALSE(KvTileImage_RescaleEx(image.get(), 0, 0, 1, 1, nullptr, KVTI_FILTER_BOX));
  EXPECT_TRUE(log.take().empty());
}

TEST(RescaleRowTest, ANewBeginTakesThePlaceOfTheOldOneUnlessItFails) {
  LogCapture log;
  const Image image = allocate(20, 10, 1, 8);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 20, 10, 7, 5, KVTI_FILTER_BOX));
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 20, 10, 8, 6, KVTI_FILTER_BOX));
  EXPECT_EQ(KvTileImage_WidthAfterRescale(image.get()), 8U);
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 20, 10, 9, 7, 6));
  EXPECT_EQ(KvTileImage_WidthAfterRescale(image.get()), 8U);
  Bytes row(8);
  EXPECT_TRUE(KvTileImage_RescaleRowScanline(image.get(), 5, row.data(), row.size()));
  KvTileImage_EndRescaleRowScanline(image.get());
  EXPECT_EQ(KvTileImage_WidthAfterRescale(image.get()), 0U);
  EXPECT_FALSE(KvTileImage_RescaleRowScanline(image.get(), 5, row.data(), row.size()));
}

// ---- What is refused

class RescaleRefusalTest : public testing::Test {
 protected:
  // The messages of an attempt, which has to fail in each of the four ways to begin, with one line more where the
  // caller would hold the engine.
  support::LogLines refusal(const Image& image, const Rectangle& source, std::uint32_t filter) {
    const auto& [x1, y1, x2, y2] = source;
    EXPECT_FALSE(KvTileImage_BeginRescaleRowScanline(image.get(), x1, y1, x2, y2, 4, 4, filter));
    const support::LogLines lines = log_.take();
    EXPECT_FALSE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), x1, y1, x2, y2, 0.5, 0.5, filter));
    EXPECT_EQ(log_.take(), lines);
    support::LogLines more = lines;
    more.push_back(
        {ember_logger::error, "[ScanlineResizeEngine::begin_threadsafe] __create ScanlineResizeEngine failed!"});
    EXPECT_EQ(KvTileImage_BeginRescaleRowScanline_ThreadSafe(image.get(), x1, y1, x2, y2, 4, 4, filter), nullptr);
    EXPECT_EQ(log_.take(), more);
    EXPECT_EQ(KvTileImage_BeginRescaleRowScanlineEx_ThreadSafe(image.get(), x1, y1, x2, y2, 0.5, 0.5, filter), nullptr);
    EXPECT_EQ(log_.take(), more);
    return lines;
  }

  LogCapture log_;
};

TEST_F(RescaleRefusalTest, OtherDepths) {
  for (const std::uint32_t bits : {1U, 2U, 4U, 12U, 24U, 48U}) {
    const Image image = allocate(8, 8, 1, bits);
    const std::string line =
        "[ScanlineResizeEngine::postInitialize] not support bitsPerSample:" + std::to_string(bits) + "!";
    EXPECT_EQ(refusal(image, {0, 0, 8, 8}, KVTI_FILTER_BOX), errors({line.c_str()}));
  }
}

TEST_F(RescaleRefusalTest, UnknownFilters) {
  const Image image = allocate(8, 8, 1, 8);
  EXPECT_EQ(refusal(image, {0, 0, 8, 8}, 6),
            errors({"[ScanlineResizeEngine::createFilter] createFilter failed!",
                    "[ScanlineResizeEngine::postInitialize] horFilter create failed!"}));
}

TEST_F(RescaleRefusalTest, EmptyRectangles) {
  const Image image = allocate(8, 8, 1, 8);
  EXPECT_EQ(refusal(image, {3, 0, 3, 8}, KVTI_FILTER_BOX),
            errors({"[ScanlineResizeEngine::postInitialize] the source rectangle is empty [x1:3 x2:3 y1:0 y2:8]"}));
  EXPECT_EQ(refusal(image, {0, 5, 8, 4}, KVTI_FILTER_BOX),
            errors({"[ScanlineResizeEngine::postInitialize] the source rectangle is empty [x1:0 x2:8 y1:5 y2:4]"}));
}

TEST_F(RescaleRefusalTest, RectanglesBeyondTheWidth) {
  const Image image = allocate(8, 8, 1, 8);
  EXPECT_EQ(refusal(image, {1, 0, 9, 8}, KVTI_FILTER_BOX),
            errors({"[ScanlinesCache::createRowScanlinesCache] offset0 >= offset1 || offset1 > tileImage->width()!",
                    "[ScanlineResizeEngine::postInitialize] srcRowScanlinesCache_ create failed!"}));
}

TEST_F(RescaleRefusalTest, ResultsWithoutPixels) {
  const Image image = allocate(8, 8, 1, 8);
  const auto lines = errors({"[Sampler::postInitialize] weightTable_ resize failed!",
                             "[ScanlineResizeEngine::postInitialize] sampler create failed!"});
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 8, 8, 0, 4, KVTI_FILTER_BOX));
  EXPECT_EQ(log_.take(), lines);
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 8, 8, 4, 0, KVTI_FILTER_BOX));
  EXPECT_EQ(log_.take(), lines);
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), 0, 0, 8, 8, 1.0, 0.06, KVTI_FILTER_BOX));
  EXPECT_EQ(log_.take(), lines);
}

TEST_F(RescaleRefusalTest, ScalesThatAreNoScales) {
  const Image image = allocate(8, 8, 1, 8);
  for (const double scale : {-1.0, std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()}) {
    EXPECT_FALSE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), 0, 0, 8, 8, scale, 1.0, KVTI_FILTER_BOX));
    EXPECT_EQ(log_.take().size(), 1U) << scale;
    EXPECT_FALSE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), 0, 0, 8, 8, 1.0, scale, KVTI_FILTER_BOX));
    EXPECT_EQ(log_.take().size(), 1U) << scale;
  }
}

TEST_F(RescaleRefusalTest, ResultsBeyondAnyMemory) {
  const Image image = allocate(8, 8, 4, 64);
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), 0, 0, 8, 8, 1e9, 1.0, KVTI_FILTER_BOX));
  EXPECT_EQ(log_.take(), errors({"[ScanlineResizeEngine::postInitialize] the result is too large "
                                 "[width:8000000000 height:8]"}));
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanlineEx(image.get(), 0, 0, 8, 8, 1.0, 1e300, KVTI_FILTER_BOX));
  EXPECT_EQ(log_.take(), errors({"[ScanlineResizeEngine::postInitialize] the result is too large "
                                 "[width:8 height:18446744073709551615]"}));
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 8, 8, 0xFFFFFFFF, 8, KVTI_FILTER_BOX));
  EXPECT_EQ(log_.take(), errors({"[ScanlineResizeEngine::postInitialize] a row of the result needs more memory than "
                                 "there is"}));
  EXPECT_FALSE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 8, 8, 8, 0xFFFFFFFF, KVTI_FILTER_BOX));
  EXPECT_EQ(log_.take(), errors({"[Sampler::postInitialize] weightTable_ resize failed!",
                                 "[ScanlineResizeEngine::postInitialize] sampler create failed!"}));
}

TEST_F(RescaleRefusalTest, SampleFormatsWithTheFirstRow) {
  struct Case {
    std::uint32_t bits;
    std::uint32_t sampleformat;
  };
  for (const Case& unreadable : {Case{8, 3}, Case{8, 5}, Case{16, 3}, Case{16, 4}, Case{32, 5}, Case{32, 6},
                                 Case{64, 3}, Case{64, 4}, Case{8, 0xFFFFFFFF}, Case{8, 0}}) {
    const Image image = allocate(8, 8, 1, unreadable.bits, unreadable.sampleformat);
    const Engine engine(KvTileImage_BeginRescaleRowScanline_ThreadSafe(image.get(), 0, 0, 8, 8, 4, 4, KVTI_FILTER_BOX));
    ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 8, 8, 4, 4, KVTI_FILTER_BOX));
    Bytes row(32, 99);
    EXPECT_FALSE(KvTileImage_RescaleRowScanline(image.get(), 0, row.data(), row.size()));
    std::ostringstream line;
    line << "[ScanlineResizeEngine::scaleRow] not support bitsPerSample:" << unreadable.bits
         << " sampleformat:" << unreadable.sampleformat << "!";
    EXPECT_EQ(log_.take(), errors({line.str().c_str()}));
    EXPECT_FALSE(KvTileImage_RescaleRowScanline_ThreadSafe(engine.get(), 0, row.data(), row.size()));
    EXPECT_EQ(log_.take(),
              errors({line.str().c_str(), "[ScanlineResizeEngine::scaleRow_threadsafe] scaleRow failed!"}));
    EXPECT_THAT(row, Each(99));
    const Image result = allocate(4, 4, 1, unreadable.bits, unreadable.sampleformat);
    EXPECT_FALSE(KvTileImage_Rescale(image.get(), result.get(), KVTI_FILTER_BOX));
    EXPECT_EQ(log_.take(), errors({line.str().c_str(), "[ResizeEngine::scaleSection] scaleRow failed!"}));
  }
}

TEST_F(RescaleRefusalTest, RowsFromBelowTheImage) {
  const SamplesModel<std::uint8_t> model = noise<std::uint8_t>(8, 8, 1);
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_UINT);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 4, 8, 12, 4, 4, KVTI_FILTER_BOX));
  Bytes row(4, 99);
  EXPECT_TRUE(KvTileImage_RescaleRowScanline(image.get(), 1, row.data(), row.size()));
  EXPECT_EQ(row, support::rescaledRowModel(model, 0, 4, 8, 12, 0.5, 0.5, 4, 1, KVTI_FILTER_BOX));
  const Bytes before = row;
  EXPECT_FALSE(KvTileImage_RescaleRowScanline(image.get(), 2, row.data(), row.size()));
  EXPECT_EQ(row, before);
  const auto lines = log_.take();
  EXPECT_EQ(support::LogLines(lines.end() - 2, lines.end()),
            errors({"[ScanlinesCache::load] getRowData failed!",
                    "[ScanlineResizeEngine::scaleRow] horSrcScanlinesCache_ load failed!"}));
  EXPECT_TRUE(KvTileImage_RescaleRowScanline(image.get(), 1, row.data(), row.size())) << "the engine goes on";
}

// A copy of rows always succeeds; what is below the image is clear.
TEST_F(RescaleRefusalTest, NoCopiedRows) {
  const SamplesModel<std::uint8_t> model = noise<std::uint8_t>(8, 8, 1);
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_UINT);
  ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 4, 8, 12, 8, 8, KVTI_FILTER_BOX));
  Bytes row(8, 99);
  EXPECT_TRUE(KvTileImage_RescaleRowScanline(image.get(), 3, row.data(), row.size()));
  EXPECT_EQ(row, Bytes(model.samples.end() - 8, model.samples.end()));
  EXPECT_TRUE(log_.take().empty());
  EXPECT_TRUE(KvTileImage_RescaleRowScanline(image.get(), 4, row.data(), row.size()));
  EXPECT_THAT(row, Each(0));
  EXPECT_THAT(log_.take(), Contains(LogLine{ember_logger::error, "[ScanlinesCache::load] getRowData failed!"}));
}

// ---- Engines of the caller's

TEST(RescaleEngineTest, DoesWhatTheImagesOwnDoes) {
  const SamplesModel<float> model = noise<float>(20, 30, 2);
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_FLOAT);
  const Engine bySize(
      KvTileImage_BeginRescaleRowScanline_ThreadSafe(image.get(), 2, 3, 18, 27, 5, 40, KVTI_FILTER_LANCZOS3));
  const Engine byScale(KvTileImage_BeginRescaleRowScanlineEx_ThreadSafe(image.get(), 2, 3, 18, 27, 5.0 / 16, 40.0 / 24,
                                                                        KVTI_FILTER_LANCZOS3));
  for (const Engine* engine : {&bySize, &byScale}) {
    EXPECT_EQ(KvTileImage_WidthAfterRescale_ThreadSafe(engine->get()), 5U);
    EXPECT_EQ(KvTileImage_HeightAfterRescale_ThreadSafe(engine->get()), 40U);
    for (std::uint32_t row = 0; row < 40; ++row) {
      const Bytes expected =
          bytesOf(support::rescaledRowModel(model, 2, 3, 18, 27, 5.0 / 16, 40.0 / 24, 5, row, KVTI_FILTER_LANCZOS3));
      Bytes made(40);
      ASSERT_TRUE(KvTileImage_RescaleRowScanline_ThreadSafe(engine->get(), row, made.data(), made.size()));
      ASSERT_EQ(made, expected);
      const std::uint8_t* shown = nullptr;
      std::uint64_t bytes = 0;
      ASSERT_TRUE(KvTileImage_RescaleRowScanlineEx_ThreadSafe(engine->get(), row, &shown, &bytes));
      ASSERT_EQ(Bytes(shown, shown + bytes), expected);
    }
  }
  EXPECT_EQ(KvTileImage_WidthAfterRescale(image.get()), 0U) << "nothing is attached to the image";
}

TEST(RescaleEngineTest, SaysUnderItsOwnNameThatABufferIsTooSmall) {
  LogCapture log;
  const Image image = allocate(20, 30, 2, 8);
  const Engine engine(KvTileImage_BeginRescaleRowScanline_ThreadSafe(image.get(), 0, 0, 20, 30, 5, 5, KVTI_FILTER_BOX));
  Bytes row(9);
  EXPECT_FALSE(KvTileImage_RescaleRowScanline_ThreadSafe(engine.get(), 0, row.data(), row.size()));
  EXPECT_EQ(log.take(), errors({"[ScanlineResizeEngine::scaleRow_threadsafe] the buffer is null or holds less than "
                                "the row's 10 bytes"}));
}

TEST(RescaleEngineTest, OutlivesItsImage) {
  const SamplesModel<std::uint8_t> model = noise<std::uint8_t>(40, 30, 1);
  for (const bool inFiles : {false, true}) {
    Image image =
        inFiles ? support::allocateInFiles(40, 30, 1, 8, KVTI_SCANLINE_OPERATION_ROW) : allocate(40, 30, 1, 8);
    fill(image, model);
    const Engine engine(
        KvTileImage_BeginRescaleRowScanline_ThreadSafe(image.get(), 0, 0, 40, 30, 9, 8, KVTI_FILTER_BICUBIC));
    ASSERT_TRUE(KvTileImage_BeginRescaleRowScanline(image.get(), 0, 0, 40, 30, 9, 8, KVTI_FILTER_BICUBIC));
    image.reset();
    Bytes row(9);
    for (std::uint32_t y = 0; y < 8; ++y) {
      ASSERT_TRUE(KvTileImage_RescaleRowScanline_ThreadSafe(engine.get(), y, row.data(), row.size()));
      EXPECT_EQ(row, support::rescaledRowModel(model, 0, 0, 40, 30, 9.0 / 40, 8.0 / 30, 9, y, KVTI_FILTER_BICUBIC));
    }
  }
}

// ---- Whole images

TEST(WholeImageTest, EveryRowIsTheDirectSum) {
  const SamplesModel<std::uint16_t> model = noise<std::uint16_t>(50, 40, 3);
  const Image image = imageOf(model, KVTI_SAMPLEFORMAT_UINT);
  for (const bool inFiles : {false, true}) {
    const Image result =
        inFiles ? support::allocateInFiles(33, 61, 3, 16, KVTI_SCANLINE_OPERATION_COL) : allocate(33, 61, 3, 16);
    ASSERT_TRUE(KvTileImage_RescaleEx(image.get(), 5, 6, 47, 39, result.get(), KVTI_FILTER_CATMULLROM));
    for (std::uint32_t y = 0; y < 61; ++y) {
      ASSERT_EQ(rowOf(result, y), bytesOf(support::rescaledRowModel(model, 5, 6, 47, 39, 33.0 / 42, 61.0 / 33, 33, y,
                                                                    KVTI_FILTER_CATMULLROM)));
    }
  }
}

TEST(WholeImageTest, SaysWhatItDoes) {
  const Image image = allocate(1000, 1000, 1, 8);
  const Image result = allocate(10, 10, 1, 8);
  LogCapture log(ember_logger::trace);
  ASSERT_TRUE(KvTileImage_Rescale(image.get(), result.get(), KVTI_FILTER_BOX));
  const support::LogLines lines = log.take();
  const auto has = [&lines](int severity, const char* text) {
    return std::find(lines.begin(), lines.end(), LogLine{severity, text}) != lines.end();
  };
  EXPECT_EQ(lines.front(), (LogLine{ember_logger::trace, "[KvTileImage_RescaleEx] Rescale begin!"}));
  EXPECT_TRUE(has(ember_logger::info, "[ResizeEngine::scale] no use multi thread"));
  EXPECT_TRUE(has(ember_logger::trace, "[ResizeEngine::scaleSection] thread! dstY1 - dstY2:[0 , 10)"));
  EXPECT_TRUE(has(ember_logger::trace, "[ResizeEngine::scaleSection] last row of the section is finished :9"));
  EXPECT_EQ(lines.back(), (LogLine{ember_logger::trace, "[KvTileImage_RescaleEx] Rescale end[is success:1]!"}));
  EXPECT_FALSE(KvTileImage_Rescale(image.get(), result.get(), 9));
  EXPECT_EQ(log.take().back(), (LogLine{ember_logger::trace, "[KvTileImage_RescaleEx] Rescale end[is success:0]!"}));
}

TEST(WholeImageTest, FormatsHaveToFit) {
  LogCapture log;
  const Image image = allocate(10, 10, 2, 8);
  const Image wider = allocate(5, 5, 2, 16);
  const Image fewer = allocate(5, 5, 1, 8);
  EXPECT_FALSE(KvTileImage_Rescale(image.get(), wider.get(), KVTI_FILTER_BOX));
  EXPECT_FALSE(KvTileImage_Rescale(image.get(), fewer.get(), KVTI_FILTER_BOX));
  const char* const line = "[ResizeEngine::scale] the images have different formats";
  EXPECT_EQ(log.take(), errors({line, line}));
}

// 64 Mi samples in 65,536 rows, so that each of the few columns is cheap: the smallest work for several threads.
class LargeImageTest : public testing::Test {
 protected:
  static constexpr std::uint32_t kWidth = 1024;
  static constexpr std::uint32_t kHeight = 65536;
  static constexpr std::uint32_t kRows = 5000;  // at least 2048 each, for two threads 3072

  void SetUp() override {
    if (std::thread::hardware_concurrency() < 2) {
      GTEST_SKIP() << "one processor: images are rescaled on the caller's thread";
    }
    KvTileImage_SetMaxMemoryStorageBytes(std::uint64_t{1} << 40);
    model_ = {kWidth, kHeight, 1, {}};
    model_.samples.resize(std::size_t{kWidth} * kHeight);
    for (std::size_t i = 0; i < model_.samples.size(); ++i) {
      model_.samples[i] = static_cast<std::uint8_t>(i * 0x9E3779B97F4A7C15U >> 50);
    }
    image_ = imageOf(model_, KVTI_SAMPLEFORMAT_UINT);
    result_ = allocate(3, kRows, 1, 8);
    KvTileImage_SetMaxMemoryStorageBytes(std::uint64_t{1} << 30);
    ASSERT_NE(result_, nullptr);
  }

  // Where the sections end, with as many processors as this machine has.
  static std::vector<std::uint32_t> sectionEnds() {
    const bool two = std::thread::hardware_concurrency() == 2;
    return two ? std::vector<std::uint32_t>{3072, 5000} : std::vector<std::uint32_t>{2048, 4096, 5000};
  }

  static std::ptrdiff_t count(const support::LogLines& lines, int severity, const std::string& text) {
    return std::count(lines.begin(), lines.end(), LogLine{severity, text});
  }

  SamplesModel<std::uint8_t> model_;
  Image image_;
  Image result_;
};

// Every section begins with the first row.
TEST_F(LargeImageTest, TakesSeveralThreads) {
  LogCapture log(ember_logger::trace);
  ASSERT_TRUE(KvTileImage_Rescale(image_.get(), result_.get(), KVTI_FILTER_BOX));
  const support::LogLines lines = log.take();
  const std::vector<std::uint32_t> ends = sectionEnds();
  std::ostringstream threads;
  threads << "[ResizeEngine::scale] use multi thread. thread count:" << ends.size() << "! rowsPerSection:" << ends[0];
  EXPECT_EQ(count(lines, ember_logger::info, threads.str()), 1);
  for (const std::uint32_t end : ends) {
    std::ostringstream begins;
    begins << "[ResizeEngine::scaleSection] thread! dstY1 - dstY2:[0 , " << end << ")";
    EXPECT_EQ(count(lines, ember_logger::trace, begins.str()), 1);
    std::ostringstream done;
    done << "[ResizeEngine::scaleSection] last row of the section is finished :" << end - 1;
    EXPECT_EQ(count(lines, ember_logger::trace, done.str()), 1);
  }
  EXPECT_EQ(count(lines, ember_logger::trace, "[ScanlineResizeEngine::scaleRow] scale Row index:0"),
            static_cast<std::ptrdiff_t>(ends.size()));
  // The first and the last row of each section, and some in between.
  for (const std::uint32_t y : {0U, 1U, 777U, 2047U, 2048U, 3071U, 3072U, 4095U, 4096U, 4998U, 4999U}) {
    ASSERT_EQ(rowOf(result_, y), support::rescaledRowModel(model_, 0, 0, kWidth, kHeight, 3.0 / kWidth,
                                                           double(kRows) / kHeight, 3, y, KVTI_FILTER_BOX))
        << y;
  }
}

// Rows from 4444 on need source rows from below the image; the sections before the last have none of them.
TEST_F(LargeImageTest, FailsWithItsLastSection) {
  LogCapture log(ember_logger::trace);
  EXPECT_FALSE(KvTileImage_RescaleEx(image_.get(), 0, 0, kWidth, kHeight + 8192, result_.get(), KVTI_FILTER_BOX));
  const support::LogLines lines = log.take();
  EXPECT_EQ(count(lines, ember_logger::error, "[ResizeEngine::scaleSection] scaleRow failed!"), 1);
  EXPECT_EQ(lines.back(), (LogLine{ember_logger::trace, "[KvTileImage_RescaleEx] Rescale end[is success:0]!"}));
  EXPECT_EQ(rowOf(result_, 4443),
            support::rescaledRowModel(model_, 0, 0, kWidth, kHeight + 8192, 3.0 / kWidth,
                                      double(kRows) / (kHeight + 8192), 3, 4443, KVTI_FILTER_BOX));
}

// Each thread streams every fourth row of one image in files with an engine of its own.
TEST(RescaleThreadsTest, StreamFromOneImageInFiles) {
  constexpr std::uint32_t kThreads = 4;
  const SamplesModel<std::uint8_t> model = noise<std::uint8_t>(300, 500, 3);
  const Image image = support::allocateInFiles(300, 500, 3, 8, KVTI_SCANLINE_OPERATION_ROWCOL);
  ASSERT_NE(image, nullptr);
  fill(image, model);
  const Image result = support::allocateInFiles(40, 90, 3, 8, KVTI_SCANLINE_OPERATION_ROWCOL);
  std::vector<std::thread> threads;
  for (std::uint32_t index = 0; index < kThreads; ++index) {
    threads.emplace_back([&, index] {
      const Engine engine(
          KvTileImage_BeginRescaleRowScanline_ThreadSafe(image.get(), 10, 20, 290, 480, 40, 90, KVTI_FILTER_LANCZOS3));
      Bytes row(120);
      for (std::uint32_t y = index; y < 90; y += kThreads) {
        EXPECT_TRUE(KvTileImage_RescaleRowScanline_ThreadSafe(engine.get(), y, row.data(), row.size()));
        EXPECT_TRUE(KvTileImage_SetFullRowData(result.get(), y, row.data(), row.size()));
      }
      KvTileImage_EndCurrentThreadIO(image.get());
      KvTileImage_EndCurrentThreadIO(result.get());
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  for (std::uint32_t y = 0; y < 90; ++y) {
    ASSERT_EQ(rowOf(result, y),
              support::rescaledRowModel(model, 10, 20, 290, 480, 40.0 / 280, 90.0 / 460, 40, y, KVTI_FILTER_LANCZOS3));
  }
}

}  // namespace
