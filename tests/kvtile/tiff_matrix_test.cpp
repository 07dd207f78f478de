// Every sample format in every layout through every move, against plain arrays.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "support/moves.h"
#include "support/sandbox.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::Move;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Tiff;
using testing::HasSubstr;

struct Format {
  std::uint32_t samples;
  std::uint32_t bits;
  std::uint16_t kind;
};

void PrintTo(const Format& format, std::ostream* out) {
  *out << format.samples << " x " << format.bits << ", sample format " << format.kind;
}

std::string nameOf(const testing::TestParamInfo<Format>& info) {
  const char* kinds[] = {"", "Unsigned", "Signed", "Float"};
  return std::to_string(info.param.samples) + "x" + std::to_string(info.param.bits) + kinds[info.param.kind];
}

// Neither side a multiple of anything that tiles or bytes like.
constexpr std::uint32_t kWidth = 37;
constexpr std::uint32_t kHeight = 23;

struct Layout {
  const char* name;
  bool tiled;
  bool separate;
  bool bigEndian;
};

constexpr Layout kLayouts[] = {{"strips", false, false, false},
                               {"big-endian strips", false, false, true},
                               {"tiles", true, false, false},
                               {"separate strips", false, true, false},
                               {"big-endian separate tiles", true, true, true}};

class TiffMatrixTest : public testing::TestWithParam<Format> {
 protected:
  Tiff fixture(const Layout& layout) const {
    const Format& format = GetParam();
    Tiff tiff = support::tiffOf(format.kind == SAMPLEFORMAT_IEEEFP
                                    ? support::floatPattern(kWidth, kHeight, format.samples, format.bits)
                                    : support::pattern(kWidth, kHeight, format.samples, format.bits));
    tiff.sampleFormat = format.kind;
    tiff.separate = layout.separate;
    tiff.bigEndian = layout.bigEndian;
    if (layout.tiled) {
      tiff.tileWidth = 16;
      tiff.tileHeight = 32;
    }
    return tiff;
  }

  // The two packed layouts that the library does not turn.
  bool refused(const Move& move) const {
    const std::uint32_t pixelBits = GetParam().samples * GetParam().bits;
    const bool offBytes = GetParam().bits < 8 && pixelBits >= 8 && pixelBits % 8 != 0;
    return (GetParam().bits == 2 && move.reversesRows) || (offBytes && move.swapsSides);
  }
};

TEST_P(TiffMatrixTest, EveryLayoutComesThroughEveryMove) {
  const Sandbox sandbox;
  for (const Layout& layout : kLayouts) {
    const Tiff source = fixture(layout);
    support::writeTiff(sandbox.path("in.tif"), source);
    for (const Move& move : support::moves()) {
      SCOPED_TRACE(std::string(layout.name) + ": " + testing::PrintToString(move.command));
      const Result result = sandbox.kvtile(support::commandLine(move, {"--force", "in.tif", "out.tif"}));
      if (refused(move)) {
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("run again with --to-8bit"));
        continue;
      }
      ASSERT_EQ(result.status, 0) << result.err;
      EXPECT_EQ(result.err, "");
      const Tiff made = support::readTiff(sandbox.path("out.tif"));
      EXPECT_EQ(difference(move.model(source.raster), made.raster), "");
      EXPECT_EQ(made.sampleFormat, source.sampleFormat);
      EXPECT_EQ(made.photometric, source.photometric);
      EXPECT_EQ(made.extras, source.extras);
    }
  }
}

TEST_P(TiffMatrixTest, WideningTo8BitComesThroughEveryMove) {
  const Sandbox sandbox;
  const std::uint32_t bits = GetParam().bits;
  const std::uint64_t scale = bits == 1 ? 255 : bits == 2 ? 85 : 17;
  for (const Layout& layout : {kLayouts[0], kLayouts[4]}) {
    const Tiff source = fixture(layout);
    support::writeTiff(sandbox.path("in.tif"), source);
    const Raster wide = bits < 8 ? support::widened(source.raster, scale) : source.raster;
    for (const Move& move : support::moves()) {
      SCOPED_TRACE(std::string(layout.name) + ": " + testing::PrintToString(move.command));
      const Result result = sandbox.kvtile(support::commandLine(move, {"in.tif", "out.tif", "--to-8bit", "--force"}));
      ASSERT_EQ(result.status, 0) << result.err;
      EXPECT_EQ(difference(move.model(wide), support::readTiff(sandbox.path("out.tif")).raster), "");
    }
  }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, TiffMatrixTest,
    testing::Values(Format{1, 1, SAMPLEFORMAT_UINT}, Format{1, 2, SAMPLEFORMAT_UINT}, Format{1, 4, SAMPLEFORMAT_UINT},
                    Format{1, 8, SAMPLEFORMAT_UINT}, Format{1, 16, SAMPLEFORMAT_UINT}, Format{1, 24, SAMPLEFORMAT_UINT},
                    Format{1, 32, SAMPLEFORMAT_UINT}, Format{1, 64, SAMPLEFORMAT_UINT}, Format{1, 8, SAMPLEFORMAT_INT},
                    Format{1, 16, SAMPLEFORMAT_INT}, Format{1, 32, SAMPLEFORMAT_INT}, Format{1, 64, SAMPLEFORMAT_INT},
                    Format{1, 32, SAMPLEFORMAT_IEEEFP}, Format{1, 64, SAMPLEFORMAT_IEEEFP},
                    Format{2, 8, SAMPLEFORMAT_UINT}, Format{2, 16, SAMPLEFORMAT_UINT}, Format{3, 1, SAMPLEFORMAT_UINT},
                    Format{3, 2, SAMPLEFORMAT_UINT}, Format{3, 4, SAMPLEFORMAT_UINT}, Format{3, 8, SAMPLEFORMAT_UINT},
                    Format{3, 16, SAMPLEFORMAT_UINT}, Format{3, 32, SAMPLEFORMAT_IEEEFP},
                    Format{4, 4, SAMPLEFORMAT_UINT}, Format{4, 8, SAMPLEFORMAT_UINT}, Format{4, 16, SAMPLEFORMAT_UINT},
                    Format{5, 1, SAMPLEFORMAT_UINT}, Format{5, 8, SAMPLEFORMAT_UINT}, Format{9, 1, SAMPLEFORMAT_UINT},
                    Format{7, 16, SAMPLEFORMAT_INT}, Format{3, 64, SAMPLEFORMAT_IEEEFP}),
    nameOf);

}  // namespace
