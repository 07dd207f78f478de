// Pictures in other sizes, against plain arrays.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "sampling.h"
#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::pattern;
using support::Png;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Tiff;
using testing::ElementsAre;
using testing::HasSubstr;

// The source pixel that the middle of pixel `index` of `results` falls into: the last one that begins at or before it.
std::uint32_t under(std::uint32_t index, std::uint32_t sources, std::uint32_t results) {
  std::uint32_t source = 0;
  while (std::uint64_t{source + 1} * 2 * results <= (std::uint64_t{index} * 2 + 1) * sources) {
    ++source;
  }
  return source;
}

Raster resized(const Raster& raster, std::uint32_t width, std::uint32_t height) {
  Raster result(width, height, raster.samples, raster.bits);
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      for (std::uint32_t sample = 0; sample < raster.samples; ++sample) {
        result.at(x, y, sample) = raster.at(under(x, raster.width, width), under(y, raster.height, height), sample);
      }
    }
  }
  return result;
}

std::vector<std::uint32_t> positions(std::uint32_t sources, std::uint32_t results) {
  kvtile::SampledPositions walk(sources, results);
  std::vector<std::uint32_t> found;
  for (std::uint32_t i = 0; i < results; ++i) {
    found.push_back(walk.position());
    walk.advance();
  }
  return found;
}

// ---- Places and lengths

TEST(SampledPositionsTest, AreTheOnesUnderTheMiddles) {
  EXPECT_THAT(positions(5, 3), ElementsAre(0, 2, 4));
  EXPECT_THAT(positions(3, 5), ElementsAre(0, 0, 1, 2, 2));
  EXPECT_THAT(positions(4, 2), ElementsAre(1, 3));
  EXPECT_THAT(positions(2, 4), ElementsAre(0, 0, 1, 1));
  EXPECT_THAT(positions(4, 1), ElementsAre(2));
  EXPECT_THAT(positions(1, 3), ElementsAre(0, 0, 0));
  EXPECT_THAT(positions(4, 4), ElementsAre(0, 1, 2, 3));
  for (std::uint32_t sources = 1; sources <= 40; ++sources) {
    for (std::uint32_t results = 1; results <= 40; ++results) {
      const std::vector<std::uint32_t> found = positions(sources, results);
      for (std::uint32_t i = 0; i < results; ++i) {
        ASSERT_EQ(found[i], under(i, sources, results)) << i << " of " << results << " from " << sources;
      }
    }
  }
}

TEST(SampledPositionsTest, DoNotOverflow) {
  // A sixth, a half and five sixths of 4294967295.
  EXPECT_THAT(positions(0xffffffff, 3), ElementsAre(715827882, 2147483647, 3579139412));
  // The last of many: a half before the end.
  EXPECT_EQ(positions(0xffffffff, 1000).back(), 4292819811U);
}

TEST(ProportionalLengthTest, IsRoundedToNearest) {
  EXPECT_EQ(kvtile::proportionalLength(872, 1000, 16000), 13952U);
  EXPECT_EQ(kvtile::proportionalLength(14, 10, 1), 1U);
  EXPECT_EQ(kvtile::proportionalLength(15, 10, 1), 2U);
  EXPECT_EQ(kvtile::proportionalLength(16, 10, 1), 2U);
  EXPECT_EQ(kvtile::proportionalLength(1, 1000, 1), 1U) << "at least one pixel";
  EXPECT_EQ(kvtile::proportionalLength(0xffffffff, 1, 0xffffffff), 18446744065119617025U);
  // A little less and a little more than one and a half.
  EXPECT_EQ(kvtile::proportionalLength(3, 0xffffffff, 2147483647), 1U);
  EXPECT_EQ(kvtile::proportionalLength(3, 0xffffffff, 2147483648), 2U);
}

// ---- Pixels

struct Size {
  std::uint32_t width;
  std::uint32_t height;
};

// Neither side a multiple of anything that bytes or tiles like.
constexpr std::uint32_t kWidth = 37;
constexpr std::uint32_t kHeight = 23;

// Larger, smaller, both at once, the same, and the least.
constexpr Size kSizes[] = {{91, 50}, {11, 7}, {100, 9}, {13, 60}, {74, 46}, {kWidth, kHeight}, {kWidth, 5}, {1, 1}};

std::vector<std::string> resizeCommand(const Size& size, const std::string& in, const std::string& out) {
  return {"resize", "--width", std::to_string(size.width), "--height", std::to_string(size.height), "--force", in, out};
}

TEST(ResizeTest, EveryTiffFormatIsSampled) {
  const Sandbox sandbox;
  const std::pair<std::uint32_t, std::uint32_t> formats[] = {
      {1, 1}, {1, 2}, {1, 4},  {1, 8}, {1, 16}, {1, 24}, {1, 32}, {1, 64}, {2, 4}, {2, 8}, {3, 1},  {3, 2},
      {3, 4}, {3, 8}, {3, 16}, {4, 2}, {4, 8},  {4, 16}, {5, 1},  {7, 16}, {8, 1}, {9, 1}, {3, 64}, {12, 8}};
  for (const auto& [samples, bits] : formats) {
    const Tiff source = support::tiffOf(pattern(kWidth, kHeight, samples, bits));
    support::writeTiff(sandbox.path("in.tif"), source);
    for (const Size& size : kSizes) {
      SCOPED_TRACE(std::to_string(samples) + " x " + std::to_string(bits) + " to " + std::to_string(size.width) +
                   " x " + std::to_string(size.height));
      const Result result = sandbox.kvtile(resizeCommand(size, "in.tif", "out.tif"));
      ASSERT_EQ(result.status, 0) << result.err;
      EXPECT_EQ(result.err, "");
      const Tiff made = support::readTiff(sandbox.path("out.tif"));
      EXPECT_EQ(difference(resized(source.raster, size.width, size.height), made.raster), "");
      EXPECT_EQ(made.photometric, source.photometric);
      EXPECT_EQ(made.extras, source.extras);
    }
  }
}

TEST(ResizeTest, FloatingPointSamplesStayWhatTheyAre) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {32U, 64U}) {
    Tiff source = support::tiffOf(support::floatPattern(kWidth, kHeight, 3, bits));
    source.sampleFormat = SAMPLEFORMAT_IEEEFP;
    support::writeTiff(sandbox.path("in.tif"), source);
    const Result result = sandbox.kvtile(resizeCommand({50, 30}, "in.tif", "out.tif"));
    ASSERT_EQ(result.status, 0) << result.err;
    const Tiff made = support::readTiff(sandbox.path("out.tif"));
    EXPECT_EQ(difference(resized(source.raster, 50, 30), made.raster), "");
    EXPECT_EQ(made.sampleFormat, SAMPLEFORMAT_IEEEFP);
  }
}

TEST(ResizeTest, EveryPngFormatIsSampled) {
  const Sandbox sandbox;
  std::vector<Png> sources;
  for (const std::uint32_t bits : {1U, 2U, 4U, 8U, 16U}) {
    sources.push_back(support::pngOf(pattern(kWidth, kHeight, 1, bits)));
  }
  for (const std::uint32_t samples : {2U, 3U, 4U}) {
    sources.push_back(support::pngOf(pattern(kWidth, kHeight, samples, samples == 3 ? 16 : 8)));
  }
  for (const std::uint32_t bits : {1U, 2U, 4U, 8U}) {
    sources.push_back(support::palettePng(pattern(kWidth, kHeight, 1, bits)));
    sources.back().paletteAlpha = {7, 77};
    sources.back().interlaced = true;
  }
  for (const Png& source : sources) {
    support::writePng(sandbox.path("in.png"), source);
    for (const Size& size : kSizes) {
      SCOPED_TRACE(std::to_string(source.raster.samples) + " x " + std::to_string(source.raster.bits) + " type " +
                   std::to_string(source.colourType) + " to " + std::to_string(size.width));
      const Result result = sandbox.kvtile(resizeCommand(size, "in.png", "out.png"));
      ASSERT_EQ(result.status, 0) << result.err;
      const Png made = support::readPng(sandbox.path("out.png"));
      EXPECT_EQ(difference(resized(source.raster, size.width, size.height), made.raster), "");
      EXPECT_EQ(made.palette, source.palette);
      EXPECT_EQ(made.paletteAlpha, source.paletteAlpha);
    }
  }
}

TEST(ResizeTest, WideningComesFirst) {
  const Sandbox sandbox;
  const Tiff source = support::tiffOf(pattern(kWidth, kHeight, 3, 2));
  support::writeTiff(sandbox.path("in.tif"), source);
  const Result result = sandbox.kvtile({"resize", "--to-8bit", "--width", "80", "in.tif", "out.png"});
  ASSERT_EQ(result.status, 0) << result.err;
  // 23 * 80 / 37 = 49.7
  EXPECT_EQ(difference(resized(support::widened(source.raster, 85), 80, 50),
                       support::readPng(sandbox.path("out.png")).raster),
            "");
}

// What is made of a row for the file is made of it once, however often it is repeated.
TEST(ResizeTest, RepeatedRowsAreConvertedOnce) {
  const Sandbox sandbox;
  Tiff white = support::tiffOf(pattern(kWidth, kHeight, 1, 8));
  white.photometric = PHOTOMETRIC_MINISWHITE;
  support::writeTiff(sandbox.path("in.tif"), white);
  ASSERT_EQ(sandbox.kvtile(resizeCommand({50, 115}, "in.tif", "out.png")).status, 0);
  Raster expected = resized(white.raster, 50, 115);
  for (auto& value : expected.values) {
    value = 255 - value;
  }
  EXPECT_EQ(difference(expected, support::readPng(sandbox.path("out.png")).raster), "");

  // The horizontal predictor works on the rows that libtiff is given.
  Tiff predicted = support::tiffOf(pattern(kWidth, kHeight, 3, 16));
  predicted.compression = COMPRESSION_LZW;
  predicted.predictor = PREDICTOR_HORIZONTAL;
  support::writeTiff(sandbox.path("in.tif"), predicted);
  ASSERT_EQ(sandbox.kvtile(resizeCommand({50, 115}, "in.tif", "out.tif")).status, 0);
  const Tiff made = support::readTiff(sandbox.path("out.tif"));
  EXPECT_EQ(made.predictor, PREDICTOR_HORIZONTAL);
  EXPECT_EQ(difference(resized(predicted.raster, 50, 115), made.raster), "");
}

TEST(ResizeTest, PalettesWithTransparencyBecomeColoursInTiff) {
  const Sandbox sandbox;
  Png source = support::palettePng(pattern(kWidth, kHeight, 1, 2));
  source.paletteAlpha = {7, 77};
  support::writePng(sandbox.path("in.png"), source);
  ASSERT_EQ(sandbox.kvtile(resizeCommand({50, 60}, "in.png", "out.tif")).status, 0);
  const Raster indices = resized(source.raster, 50, 60);
  Raster expected(50, 60, 4, 8);
  for (std::uint32_t y = 0; y < 60; ++y) {
    for (std::uint32_t x = 0; x < 50; ++x) {
      const std::size_t index = indices.at(x, y, 0);
      for (std::uint32_t sample = 0; sample < 3; ++sample) {
        expected.at(x, y, sample) = source.palette[index][sample];
      }
      expected.at(x, y, 3) = index < source.paletteAlpha.size() ? source.paletteAlpha[index] : 255;
    }
  }
  EXPECT_EQ(difference(expected, support::readTiff(sandbox.path("out.tif")).raster), "");
}

// ---- Sizes and what goes with them

TEST(ResizeTest, TheOtherSideFollows) {
  const Sandbox sandbox;
  const Raster source = pattern(40, 30, 3, 8);
  support::writePng(sandbox.path("in.png"), support::pngOf(source));
  const auto made = [&sandbox](const char* side, const char* pixels) {
    EXPECT_EQ(sandbox.kvtile({"resize", side, pixels, "--force", "in.png", "out.png"}).status, 0);
    return support::readPng(sandbox.path("out.png")).raster;
  };
  EXPECT_EQ(difference(resized(source, 20, 15), made("--width", "20")), "");
  EXPECT_EQ(difference(resized(source, 80, 60), made("--height", "60")), "");
  EXPECT_EQ(difference(resized(source, 6, 5), made("--width", "6")), "") << "4.5 is rounded up";
  EXPECT_EQ(difference(resized(source, 1, 1), made("--height", "1")), "");
}

TEST(ResizeTest, ThePictureIsUprightFirst) {
  const Sandbox sandbox;
  const Raster upright = pattern(40, 30, 1, 8);
  for (std::uint16_t orientation = 1; orientation <= 8; ++orientation) {
    Tiff source = support::tiffOf(storedAs(upright, orientation));
    source.orientation = orientation;
    support::writeTiff(sandbox.path("in.tif"), source);
    ASSERT_EQ(sandbox.kvtile({"resize", "--width", "60", "--force", "in.tif", "out.tif"}).status, 0);
    const Tiff made = support::readTiff(sandbox.path("out.tif"));
    EXPECT_EQ(difference(resized(upright, 60, 45), made.raster), "") << orientation;
    EXPECT_EQ(made.orientation.value_or(1), 1);
  }
}

TEST(ResizeTest, TheResolutionStays) {
  const Sandbox sandbox;
  Tiff source = support::tiffOf(pattern(40, 30, 1, 8));
  source.resolution = {{300, 150}};
  source.unit = RESUNIT_INCH;
  support::writeTiff(sandbox.path("in.tif"), source);
  ASSERT_EQ(sandbox.kvtile({"resize", "--width", "80", "in.tif", "out.tif"}).status, 0);
  const Tiff made = support::readTiff(sandbox.path("out.tif"));
  EXPECT_EQ(made.resolution, source.resolution);
  EXPECT_EQ(made.unit, RESUNIT_INCH);
}

TEST(ResizeTest, SizesThatTheFileCannotHaveAreRefused) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), support::pngOf(pattern(10, 30, 1, 8)));
  const auto refusal = [&sandbox](const std::vector<std::string>& size, const char* out) {
    std::vector<std::string> command = {"resize", "in.png", out};
    command.insert(command.end(), size.begin(), size.end());
    const Result result = sandbox.kvtile(command);
    EXPECT_EQ(result.status, 1);
    EXPECT_THAT(sandbox.names(), ElementsAre("in.png"));
    return result.err;
  };
  EXPECT_EQ(refusal({"--width", "2147483648", "--height", "1"}, "out.png"),
            "kvtile: out.png: PNG cannot hold a picture of this size; write a .tif instead\n");
  EXPECT_EQ(refusal({"--width", "1000000000"}, "out.png"),
            "kvtile: out.png: PNG cannot hold a picture of this size; write a .tif instead\n");
  EXPECT_EQ(refusal({"--width", "2000000000"}, "out.tif"),
            "kvtile: out.tif: the height would be 6000000000 pixels, more than 4294967295; give --height too\n");
}

}  // namespace
