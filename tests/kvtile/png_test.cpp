// PNG to PNG.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "support/moves.h"
#include "support/pngs.h"
#include "support/sandbox.h"

namespace {

using support::difference;
using support::Move;
using support::palettePng;
using support::pattern;
using support::Png;
using support::pngOf;
using support::Raster;
using support::Result;
using support::Sandbox;
using testing::Contains;
using testing::HasSubstr;
using testing::Not;

Png through(const Sandbox& sandbox, const Png& source, std::vector<std::string> command) {
  support::writePng(sandbox.path("in.png"), source);
  command.insert(command.end(), {"--force", "in.png", "out.png"});
  const Result result = sandbox.kvtile(command);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return support::readPng(sandbox.path("out.png"));
}

struct Kind {
  const char* name;
  std::uint32_t samples;
  std::uint32_t bits;
  bool palette;
};

void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.name; }

class PngMatrixTest : public testing::TestWithParam<Kind> {
 protected:
  Png fixture(bool interlaced) const {
    const Raster raster = pattern(37, 23, GetParam().samples, GetParam().bits);
    Png png = GetParam().palette ? palettePng(raster) : pngOf(raster);
    png.interlaced = interlaced;
    return png;
  }
};

TEST_P(PngMatrixTest, ComesThroughEveryMove) {
  const Sandbox sandbox;
  for (const bool interlaced : {false, true}) {
    const Png source = fixture(interlaced);
    for (const Move& move : support::moves()) {
      if (source.raster.bits == 2 && move.reversesRows) {
        continue;
      }
      SCOPED_TRACE(testing::PrintToString(move.command) + (interlaced ? " interlaced" : ""));
      const Png made = through(sandbox, source, move.command);
      EXPECT_EQ(difference(move.model(source.raster), made.raster), "");
      EXPECT_EQ(made.colourType, source.colourType);
      EXPECT_EQ(made.palette, source.palette);
    }
  }
  EXPECT_EQ(sandbox.run({"pngcheck", "-q", "out.png"}).status, 0);
}

TEST_P(PngMatrixTest, WidenedComesThroughEveryMove) {
  const Sandbox sandbox;
  const std::uint32_t bits = GetParam().bits;
  const std::uint64_t scale = GetParam().palette ? 1 : bits == 1 ? 255 : bits == 2 ? 85 : 17;
  for (const bool interlaced : {false, true}) {
    const Png source = fixture(interlaced);
    const Raster wide = bits < 8 ? support::widened(source.raster, scale) : source.raster;
    for (const Move& move : support::moves()) {
      SCOPED_TRACE(testing::PrintToString(move.command) + (interlaced ? " interlaced" : ""));
      std::vector<std::string> command = move.command;
      command.push_back("--to-8bit");
      const Png made = through(sandbox, source, command);
      EXPECT_EQ(difference(move.model(wide), made.raster), "");
      EXPECT_EQ(made.palette, source.palette);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, PngMatrixTest,
    testing::Values(Kind{"Grey1", 1, 1, false}, Kind{"Grey2", 1, 2, false}, Kind{"Grey4", 1, 4, false},
                    Kind{"Grey8", 1, 8, false}, Kind{"Grey16", 1, 16, false}, Kind{"GreyAlpha8", 2, 8, false},
                    Kind{"GreyAlpha16", 2, 16, false}, Kind{"Rgb8", 3, 8, false}, Kind{"Rgb16", 3, 16, false},
                    Kind{"Rgba8", 4, 8, false}, Kind{"Rgba16", 4, 16, false}, Kind{"Palette1", 1, 1, true},
                    Kind{"Palette2", 1, 2, true}, Kind{"Palette4", 1, 4, true}, Kind{"Palette8", 1, 8, true}),
    [](const auto& parameter) { return std::string(parameter.param.name); });

// Passes without pixels are where small interlaced pictures go wrong.
TEST(PngTest, ReadsInterlacedPicturesOfEverySmallSize) {
  const Sandbox sandbox;
  for (std::uint32_t width = 1; width <= 9; ++width) {
    for (const std::uint32_t height : {1U, 2U, 3U, 4U, 5U, 8U, 9U}) {
      Png source = pngOf(pattern(width, height, 1, 4));
      source.interlaced = true;
      EXPECT_EQ(difference(source.raster, through(sandbox, source, {"convert"}).raster), "");
    }
  }
}

TEST(PngTest, PhotographAgreesWithImageMagick) {
  const Sandbox sandbox;
  const std::pair<std::vector<std::string>, std::vector<std::string>> pairs[] = {
      {{"rotate", "90"}, {"-rotate", "90"}},   {{"rotate", "180"}, {"-rotate", "180"}},
      {{"rotate", "-90"}, {"-rotate", "270"}}, {{"mirror", "horizontal"}, {"-flop"}},
      {{"mirror", "vertical"}, {"-flip"}},     {{"rotate", "360"}, {}}};
  for (auto [ours, theirs] : pairs) {
    SCOPED_TRACE(testing::PrintToString(ours));
    ours.insert(ours.end(), {"--force", KVTILE_PHOTOGRAPH, "out.png"});
    ASSERT_EQ(sandbox.kvtile(ours).status, 0);
    std::vector<std::string> model = {"convert-im6.q16", KVTILE_PHOTOGRAPH};
    model.insert(model.end(), theirs.begin(), theirs.end());
    model.push_back("model.ppm");
    ASSERT_EQ(sandbox.run(model).status, 0);
    EXPECT_EQ(sandbox.differingPixels("out.png", "model.ppm"), 0);
    EXPECT_EQ(sandbox.run({"pngcheck", "-q", "out.png"}).status, 0);
  }
  EXPECT_EQ(support::readPng(sandbox.path("out.png")).icc, support::readPng(KVTILE_PHOTOGRAPH).icc);
}

TEST(PngTest, CarriesThePixelDensityAndTurnsIt) {
  const Sandbox sandbox;
  for (const int unit : {PNG_RESOLUTION_METER, PNG_RESOLUTION_UNKNOWN}) {
    Png source = pngOf(pattern(20, 10, 1, 8));
    source.physical = support::PngPhysical{2835, 5669, unit};
    EXPECT_EQ(through(sandbox, source, {"convert"}).physical, source.physical);
    EXPECT_EQ(through(sandbox, source, {"rotate", "270"}).physical, (support::PngPhysical{5669, 2835, unit}));
  }
  EXPECT_FALSE(through(sandbox, pngOf(pattern(20, 10, 1, 8)), {"rotate", "90"}).physical.has_value());
}

TEST(PngTest, CarriesItsColourStatementsAndAddsNone) {
  const Sandbox sandbox;
  Png source = pngOf(pattern(20, 10, 3, 8));
  source.gamma = 55555;
  source.chromaticities = {31270, 32900, 64000, 33000, 30000, 60000, 15000, 6000};
  Png made = through(sandbox, source, {"rotate", "90"});
  EXPECT_EQ(made.gamma, source.gamma);
  EXPECT_EQ(made.chromaticities, source.chromaticities);
  EXPECT_THAT(support::chunkNames(sandbox.path("out.png")), Not(Contains("sRGB")));
  source.gamma.reset();
  source.chromaticities.reset();
  source.srgbIntent = PNG_sRGB_INTENT_ABSOLUTE;
  made = through(sandbox, source, {"rotate", "90"});
  EXPECT_EQ(made.srgbIntent, PNG_sRGB_INTENT_ABSOLUTE);
  EXPECT_THAT(support::chunkNames(sandbox.path("out.png")), Not(Contains("gAMA")));
  EXPECT_THAT(support::chunkNames(sandbox.path("out.png")), Not(Contains("cHRM")));
}

TEST(PngTest, CarriesTheTransparentColour) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {1U, 4U, 8U, 16U}) {
    Png grey = pngOf(pattern(20, 10, 1, bits));
    grey.colourKey = {1, 1, 1};
    EXPECT_EQ(through(sandbox, grey, {"rotate", "90"}).colourKey, grey.colourKey);
  }
  Png rgb = pngOf(pattern(20, 10, 3, 16));
  rgb.colourKey = {1000, 0, 65535};
  EXPECT_EQ(through(sandbox, rgb, {"mirror", "horizontal"}).colourKey, rgb.colourKey);
  Png grey = pngOf(pattern(20, 10, 1, 4));
  grey.colourKey = {5, 5, 5};
  EXPECT_EQ(through(sandbox, grey, {"convert", "--to-8bit"}).colourKey, (std::array<std::uint16_t, 3>{85, 85, 85}));
}

TEST(PngTest, CarriesTransparentPalettes) {
  const Sandbox sandbox;
  Png source = palettePng(pattern(20, 10, 1, 4));
  source.paletteAlpha = {0, 128, 255, 7};
  for (const char* option : {"--quiet", "--to-8bit"}) {
    const Png made = through(sandbox, source, {"rotate", "90", option});
    EXPECT_EQ(made.paletteAlpha, source.paletteAlpha);
    EXPECT_EQ(made.palette, source.palette);
  }
}

TEST(PngTest, Refuses2BitReversalBeforeItStarts) {
  const Sandbox sandbox;
  support::writePng(sandbox.path("in.png"), pngOf(pattern(20, 10, 1, 2)));
  const Result result = sandbox.kvtile({"rotate", "180", "in.png", "out.png"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kvtile: in.png: rows of 2-bit samples cannot be reversed without altering them; "
            "run again with --to-8bit to widen them\n");
  EXPECT_THAT(sandbox.names(), testing::ElementsAre("in.png"));
}

}  // namespace
