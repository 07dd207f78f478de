// From TIFF to PNG and from PNG to TIFF: the picture keeps its meaning, or the command says why it cannot.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/moves.h"
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
using support::tiffOf;
using testing::ElementsAre;
using testing::HasSubstr;

Png toPng(const Sandbox& sandbox, const Tiff& source, const std::string& note = "") {
  support::writeTiff(sandbox.path("in.tif"), source);
  const Result result = sandbox.kvtile({"rotate", "90", "--force", "in.tif", "out.png"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, note);
  EXPECT_EQ(sandbox.run({"pngcheck", "-q", "out.png"}).status, 0);
  return support::readPng(sandbox.path("out.png"));
}

Tiff toTiff(const Sandbox& sandbox, const Png& source, const std::string& note = "") {
  support::writePng(sandbox.path("in.png"), source);
  const Result result = sandbox.kvtile({"rotate", "90", "--force", "in.png", "out.tif"});
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, note);
  return support::readTiff(sandbox.path("out.tif"));
}

// The line of a refusal; the folder is as it was.
std::string refusal(const Tiff& source, const std::vector<std::string>& options = {}) {
  const Sandbox sandbox;
  support::writeTiff(sandbox.path("in.tif"), source);
  std::vector<std::string> command = {"convert", "in.tif", "out.png"};
  command.insert(command.end(), options.begin(), options.end());
  const Result result = sandbox.kvtile(command);
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1);
  EXPECT_THAT(sandbox.names(), ElementsAre("in.tif"));
  return result.err;
}

TEST(CrossingTest, PlainSamplesStayWhatTheyAre) {
  const Sandbox sandbox;
  for (const std::uint32_t samples : {1U, 2U, 3U, 4U}) {
    for (const std::uint32_t bits : {1U, 4U, 8U, 16U}) {
      if (samples > 1 && bits < 8) {
        continue;
      }
      SCOPED_TRACE(std::to_string(samples) + " x " + std::to_string(bits));
      Tiff tiff = tiffOf(pattern(33, 21, samples, bits));
      if (!tiff.extras.empty()) {
        tiff.extras = {EXTRASAMPLE_UNASSALPHA};
      }
      EXPECT_EQ(difference(rotated90(tiff.raster), toPng(sandbox, tiff).raster), "");
      EXPECT_EQ(sandbox.run({"convert-im6.q16", "in.tif", "-rotate", "90", "model.png"}).status, 0);
      EXPECT_EQ(sandbox.differingPixels("out.png", "model.png"), 0);

      const Tiff made = toTiff(sandbox, support::pngOf(tiff.raster));
      EXPECT_EQ(difference(rotated90(tiff.raster), made.raster), "");
      EXPECT_EQ(made.extras, tiff.extras);
      EXPECT_EQ(made.photometric, tiff.photometric);
      EXPECT_EQ(made.compression, COMPRESSION_ADOBE_DEFLATE);
      EXPECT_EQ(std::max<int>(made.predictor, PREDICTOR_NONE), bits < 8 ? PREDICTOR_NONE : PREDICTOR_HORIZONTAL);
      EXPECT_EQ(sandbox.run({"convert-im6.q16", "in.png", "-rotate", "90", "model.png"}).status, 0);
      EXPECT_EQ(sandbox.differingPixels("out.tif", "model.png"), 0);
    }
  }
}

TEST(CrossingTest, WhiteIsZeroIsInvertedForPng) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {1U, 4U, 8U, 16U}) {
    Tiff source = tiffOf(pattern(33, 21, 1, bits));
    source.photometric = PHOTOMETRIC_MINISWHITE;
    Raster expected = rotated90(source.raster);
    for (auto& value : expected.values) {
      value = expected.highest() - value;
    }
    EXPECT_EQ(difference(expected, toPng(sandbox, source).raster), "") << bits;
  }
}

TEST(CrossingTest, WhiteIsZeroLeavesAlphaAlone) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {8U, 16U}) {
    Tiff source = tiffOf(pattern(33, 21, 2, bits));
    source.photometric = PHOTOMETRIC_MINISWHITE;
    source.extras = {EXTRASAMPLE_UNASSALPHA};
    Raster expected = rotated90(source.raster);
    for (std::size_t i = 0; i < expected.values.size(); i += 2) {
      expected.values[i] = expected.highest() - expected.values[i];
    }
    EXPECT_EQ(difference(expected, toPng(sandbox, source).raster), "") << bits;
  }
}

TEST(CrossingTest, MasksBecomeGreyInPng) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(33, 21, 1, 1));
  source.photometric = PHOTOMETRIC_MASK;
  const Png made = toPng(sandbox, source);
  EXPECT_EQ(made.colourType, PNG_COLOR_TYPE_GRAY);
  EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
}

TEST(CrossingTest, AssociatedAlphaIsDividedOutForPng) {
  const Sandbox sandbox;
  for (const std::uint32_t samples : {2U, 4U}) {
    for (const std::uint32_t bits : {8U, 16U}) {
      SCOPED_TRACE(std::to_string(samples) + " x " + std::to_string(bits));
      Tiff source = tiffOf(pattern(33, 21, samples, bits));
      source.extras = {EXTRASAMPLE_ASSOCALPHA};
      // Some pixels without any colour to find, and some whose colour is beyond what their alpha allows.
      for (std::uint32_t x = 0; x < 33; ++x) {
        source.raster.at(x, 5, samples - 1) = 0;
      }
      Raster expected = rotated90(source.raster);
      for (std::size_t pixel = 0; pixel < expected.values.size(); pixel += samples) {
        const auto alpha = static_cast<double>(expected.values[pixel + samples - 1]);
        const auto highest = static_cast<double>(expected.highest());
        for (std::uint32_t sample = 0; sample + 1 < samples; ++sample) {
          auto& value = expected.values[pixel + sample];
          const double straight = alpha == 0 ? 0 : std::floor(static_cast<double>(value) * highest / alpha + 0.5);
          value = static_cast<std::uint64_t>(std::min(straight, highest));
        }
      }
      EXPECT_EQ(difference(expected, toPng(sandbox, source).raster), "");
    }
  }
}

TEST(CrossingTest, AnUndeclaredFourthSampleBecomesAlphaWithANote) {
  const Sandbox sandbox;
  const Tiff source = tiffOf(pattern(33, 21, 4, 8));
  const Png made = toPng(sandbox, source,
                         "kvtile: out.png: sample 4 of each pixel has no declared meaning and becomes the alpha of "
                         "the PNG\n");
  EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
}

TEST(CrossingTest, ColourMapsBecomePalettes) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {1U, 4U, 8U}) {
    for (const bool narrow : {false, true}) {
      SCOPED_TRACE(std::to_string(bits) + (narrow ? " narrow" : ""));
      Tiff source = tiffOf(pattern(33, 21, 1, bits));
      source.photometric = PHOTOMETRIC_PALETTE;
      support::ColourMap map;
      std::vector<std::array<std::uint8_t, 3>> expected;
      for (std::uint32_t i = 0; i < 1U << bits; ++i) {
        const std::array<std::uint8_t, 3> colour = {
            static_cast<std::uint8_t>(i * 7), static_cast<std::uint8_t>(255 - i), static_cast<std::uint8_t>(i * i)};
        const int scale = narrow ? 1 : 257;
        map.red.push_back(static_cast<std::uint16_t>(colour[0] * scale));
        map.green.push_back(static_cast<std::uint16_t>(colour[1] * scale));
        map.blue.push_back(static_cast<std::uint16_t>(colour[2] * scale));
        expected.push_back(colour);
      }
      source.colourMap = map;
      const Png made = toPng(sandbox, source);
      EXPECT_EQ(made.colourType, PNG_COLOR_TYPE_PALETTE);
      EXPECT_EQ(made.palette, expected);
      EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
    }
  }
}

TEST(CrossingTest, PalettesBecomeColourMaps) {
  const Sandbox sandbox;
  Png source = support::palettePng(pattern(33, 21, 1, 4));
  source.palette.resize(11);
  for (auto& value : source.raster.values) {
    value %= 11;
  }
  const Tiff made = toTiff(sandbox, source);
  EXPECT_EQ(made.photometric, PHOTOMETRIC_PALETTE);
  EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
  ASSERT_TRUE(made.colourMap.has_value());
  ASSERT_EQ(made.colourMap->red.size(), 16U);
  for (std::size_t i = 0; i < 11; ++i) {
    EXPECT_EQ(made.colourMap->red[i], source.palette[i][0] * 257);
    EXPECT_EQ(made.colourMap->green[i], source.palette[i][1] * 257);
    EXPECT_EQ(made.colourMap->blue[i], source.palette[i][2] * 257);
  }
  EXPECT_LE(made.predictor, PREDICTOR_NONE);
}

TEST(CrossingTest, TransparentPalettesBecomeRgba) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {1U, 4U, 8U}) {
    SCOPED_TRACE(bits);
    Png source = support::palettePng(pattern(33, 21, 1, bits));
    source.paletteAlpha = {17};
    if (bits > 1) {
      source.paletteAlpha = {0, 128, 255, 7};
    }
    Raster expected(21, 33, 4, 8);
    const Raster indices = rotated90(source.raster);
    for (std::size_t pixel = 0; pixel < indices.values.size(); ++pixel) {
      const std::size_t index = indices.values[pixel];
      for (std::size_t c = 0; c < 3; ++c) {
        expected.values[pixel * 4 + c] = source.palette[index][c];
      }
      expected.values[pixel * 4 + 3] = index < source.paletteAlpha.size() ? source.paletteAlpha[index] : 255;
    }
    const Tiff made = toTiff(sandbox, source);
    EXPECT_EQ(made.photometric, PHOTOMETRIC_RGB);
    EXPECT_THAT(made.extras, ElementsAre(EXTRASAMPLE_UNASSALPHA));
    EXPECT_EQ(difference(expected, made.raster), "");
  }
}

TEST(CrossingTest, TheTransparentColourIsDroppedWithANote) {
  const Sandbox sandbox;
  Png source = support::pngOf(pattern(33, 21, 3, 8));
  source.colourKey = {1, 2, 3};
  const Tiff made =
      toTiff(sandbox, source, "kvtile: out.tif: TIFF has no place for the PNG's transparent colour; it is dropped\n");
  EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
}

TEST(CrossingTest, TheProfileGoesBothWays) {
  const Sandbox sandbox;
  const std::string profile = support::readPng(KVTILE_PHOTOGRAPH).icc;
  ASSERT_FALSE(profile.empty());
  Tiff tiff = tiffOf(pattern(33, 21, 3, 8));
  tiff.icc = profile;
  EXPECT_EQ(toPng(sandbox, tiff).icc, profile);
  Png png = support::pngOf(pattern(33, 21, 3, 8));
  png.icc = profile;
  EXPECT_EQ(toTiff(sandbox, png).icc, profile);
}

TEST(CrossingTest, AProfileThatIsNoneIsDroppedWithANote) {
  const Sandbox sandbox;
  Tiff tiff = tiffOf(pattern(33, 21, 3, 8));
  tiff.icc = std::string(500, 'x');
  const Png made =
      toPng(sandbox, tiff, "kvtile: out.png: the colour profile does not suit a PNG of this kind and is dropped\n");
  EXPECT_EQ(made.icc, "");
  EXPECT_EQ(difference(rotated90(tiff.raster), made.raster), "");
}

struct Density {
  std::array<float, 2> tiff;
  std::uint16_t unit;
  support::PngPhysical png;
};

// Turned by 90 degrees on the way, so that x and y change places.
TEST(CrossingTest, TheResolutionGoesBothWays) {
  const Sandbox sandbox;
  for (const Density& density : {Density{{300, 150}, RESUNIT_INCH, {5906, 11811, PNG_RESOLUTION_METER}},
                                 Density{{72, 72}, RESUNIT_INCH, {2835, 2835, PNG_RESOLUTION_METER}},
                                 Density{{10, 20}, RESUNIT_CENTIMETER, {2000, 1000, PNG_RESOLUTION_METER}},
                                 Density{{3, 2}, RESUNIT_NONE, {2, 3, PNG_RESOLUTION_UNKNOWN}}}) {
    SCOPED_TRACE(density.unit);
    Tiff tiff = tiffOf(pattern(20, 10, 1, 8));
    tiff.resolution = density.tiff;
    tiff.unit = density.unit;
    EXPECT_EQ(toPng(sandbox, tiff).physical, density.png);
    Png png = support::pngOf(pattern(20, 10, 1, 8));
    png.physical = support::PngPhysical{density.png.y, density.png.x, density.png.unit};
    const Tiff made = toTiff(sandbox, png);
    EXPECT_EQ(made.resolution, (std::array<float, 2>{density.tiff[1], density.tiff[0]}));
    EXPECT_EQ(made.unit, density.unit);
  }
  EXPECT_FALSE(toPng(sandbox, tiffOf(pattern(20, 10, 1, 8))).physical.has_value());
  EXPECT_FALSE(toTiff(sandbox, support::pngOf(pattern(20, 10, 1, 8))).resolution.has_value());
}

TEST(CrossingTest, PngIsRefusedWhatItCannotHold) {
  Tiff source = tiffOf(support::floatPattern(20, 10, 1, 32));
  source.sampleFormat = SAMPLEFORMAT_IEEEFP;
  EXPECT_EQ(refusal(source),
            "kvtile: out.png: PNG cannot hold samples of this kind (1 x 32 bits, floating point); "
            "write a .tif instead\n");
  source = tiffOf(pattern(20, 10, 1, 16));
  source.sampleFormat = SAMPLEFORMAT_INT;
  EXPECT_THAT(refusal(source), HasSubstr("(1 x 16 bits, signed); write a .tif instead"));
  EXPECT_THAT(refusal(tiffOf(pattern(20, 10, 1, 32))), HasSubstr("(1 x 32 bits, unsigned); write a .tif instead"));
  EXPECT_THAT(refusal(tiffOf(pattern(20, 10, 5, 8))), HasSubstr("5 samples per pixel"));
  EXPECT_THAT(refusal(tiffOf(pattern(20, 10, 3, 4))), HasSubstr("widen them with --to-8bit"));
  source = tiffOf(pattern(20, 10, 4, 8));
  source.photometric = PHOTOMETRIC_SEPARATED;
  source.extras = {};
  EXPECT_THAT(refusal(source), HasSubstr("PNG cannot hold separated inks; write a .tif instead"));
  source = tiffOf(pattern(20, 10, 3, 8));
  source.photometric = PHOTOMETRIC_CIELAB;
  EXPECT_THAT(refusal(source), HasSubstr("PNG cannot hold CIE L*a*b*; write a .tif instead"));
  source = tiffOf(pattern(20, 10, 1, 16));
  source.photometric = PHOTOMETRIC_PALETTE;
  source.colourMap = support::ColourMap{std::vector<std::uint16_t>(65536), std::vector<std::uint16_t>(65536),
                                        std::vector<std::uint16_t>(65536)};
  EXPECT_THAT(refusal(source), HasSubstr("PNG cannot hold a palette of 16 bits"));
}

TEST(CrossingTest, WideningMakesRoomInPng) {
  const Sandbox sandbox;
  const Tiff source = tiffOf(pattern(20, 10, 3, 4));
  support::writeTiff(sandbox.path("in.tif"), source);
  const Result result = sandbox.kvtile({"--to-8bit", "rotate", "90", "in.tif", "out.png"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(
      difference(rotated90(support::widened(source.raster, 17)), support::readPng(sandbox.path("out.png")).raster), "");
}

}  // namespace
