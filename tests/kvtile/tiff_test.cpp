// What TIFF files carry besides their samples, from TIFF to TIFF.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/moves.h"
#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/tiffs.h"

namespace {

using support::difference;
using support::Move;
using support::pattern;
using support::Raster;
using support::Result;
using support::Sandbox;
using support::Tiff;
using support::tiffOf;
using testing::HasSubstr;

// Runs the program on `source` and reads what it made.
Tiff through(const Sandbox& sandbox, const Tiff& source, std::vector<std::string> command) {
  support::writeTiff(sandbox.path("in.tif"), source);
  command.insert(command.end(), {"--force", "in.tif", "out.tif"});
  const Result result = sandbox.kvtile(command);
  EXPECT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(result.err, "");
  return support::readTiff(sandbox.path("out.tif"));
}

TEST(TiffTest, ReadsBigTiffInBothByteOrders) {
  const Sandbox sandbox;
  for (const bool bigEndian : {false, true}) {
    Tiff source = tiffOf(pattern(50, 30, 3, 16));
    source.bigTiff = true;
    source.bigEndian = bigEndian;
    const Tiff made = through(sandbox, source, {"rotate", "90"});
    EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
    EXPECT_FALSE(made.bigTiff) << "a small result is a classic TIFF";
  }
}

TEST(TiffTest, ReadsBothFillOrders) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {1U, 4U, 8U, 16U}) {
    for (const std::uint16_t compression :
         std::initializer_list<std::uint16_t>{COMPRESSION_NONE, COMPRESSION_LZW, COMPRESSION_PACKBITS}) {
      SCOPED_TRACE(std::to_string(bits) + " bits, compression " + std::to_string(compression));
      Tiff source = tiffOf(pattern(45, 20, 1, bits));
      source.lsbFirst = true;
      source.compression = compression;
      source.bigEndian = true;
      EXPECT_EQ(difference(rotated90(source.raster), through(sandbox, source, {"rotate", "90"}).raster), "");
    }
  }
}

TEST(TiffTest, ReadsUncompressedStripsOfAnyHeight) {
  const Sandbox sandbox;
  for (const std::uint32_t rows : {1U, 7U, 40U, 0xffffffffU}) {
    SCOPED_TRACE(rows);
    // A row is larger than a block that is read at once, then far smaller.
    for (const std::uint32_t width : {100000U, 9U}) {
      Tiff source = tiffOf(pattern(width, 40, 3, 8));
      source.rowsPerStrip = rows;
      EXPECT_EQ(difference(source.raster, through(sandbox, source, {"convert"}).raster), "");
    }
  }
}

struct Kept {
  std::uint16_t compression;
  std::uint16_t predictor;
  std::uint32_t bits;
};

TEST(TiffTest, KeepsLosslessCompressions) {
  const Sandbox sandbox;
  for (const Kept& kept :
       {Kept{COMPRESSION_NONE, 0, 8}, Kept{COMPRESSION_LZW, 2, 8}, Kept{COMPRESSION_LZW, 1, 16},
        Kept{COMPRESSION_ADOBE_DEFLATE, 2, 16}, Kept{COMPRESSION_DEFLATE, 1, 8}, Kept{COMPRESSION_PACKBITS, 0, 8},
        Kept{COMPRESSION_ZSTD, 2, 8}, Kept{COMPRESSION_LZMA, 1, 8}, Kept{COMPRESSION_CCITTRLE, 0, 1},
        Kept{COMPRESSION_CCITTFAX4, 0, 1}, Kept{COMPRESSION_CCITTFAX3, 0, 1}}) {
    SCOPED_TRACE("compression " + std::to_string(kept.compression));
    if (TIFFIsCODECConfigured(kept.compression) == 0) {
      continue;
    }
    Tiff source = tiffOf(pattern(64, 48, 1, kept.bits));
    source.compression = kept.compression;
    source.predictor = kept.predictor;
    const Tiff made = through(sandbox, source, {"rotate", "270"});
    EXPECT_EQ(difference(rotated270(source.raster), made.raster), "");
    EXPECT_EQ(made.compression, kept.compression);
    EXPECT_EQ(made.predictor == 0 ? 1 : made.predictor, kept.predictor == 0 ? 1 : kept.predictor);
  }
}

TEST(TiffTest, KeepsTheOptionsOfGroup3Fax) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(64, 48, 1, 1));
  source.compression = COMPRESSION_CCITTFAX3;
  source.group3Options = GROUP3OPT_2DENCODING | GROUP3OPT_FILLBITS;
  source.photometric = PHOTOMETRIC_MINISWHITE;
  const Tiff made = through(sandbox, source, {"mirror", "vertical"});
  EXPECT_EQ(difference(mirroredTopBottom(source.raster), made.raster), "");
  EXPECT_EQ(made.group3Options, source.group3Options);
}

TEST(TiffTest, FaxBecomesDeflateWhenWidened) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(64, 48, 1, 1));
  source.compression = COMPRESSION_CCITTFAX4;
  const Tiff made = through(sandbox, source, {"convert", "--to-8bit"});
  EXPECT_EQ(made.compression, COMPRESSION_ADOBE_DEFLATE);
  EXPECT_EQ(difference(support::widened(source.raster, 255), made.raster), "");
}

TEST(TiffTest, ReadsFloatsThroughTheirPredictor) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {32U, 64U}) {
    Tiff source = tiffOf(support::floatPattern(40, 30, 3, bits));
    source.sampleFormat = SAMPLEFORMAT_IEEEFP;
    source.compression = COMPRESSION_ADOBE_DEFLATE;
    source.predictor = PREDICTOR_FLOATINGPOINT;
    const Tiff made = through(sandbox, source, {"rotate", "90"});
    EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
    EXPECT_EQ(made.predictor, PREDICTOR_FLOATINGPOINT);
  }
}

// JPEG decodes to the same samples for everyone who uses the same library; ImageMagick and libtiff's own conversion
// to RGB do.
TEST(TiffTest, JpegBecomesDeflateWithTheSamplesThatOthersDecode) {
  const Sandbox sandbox;
  ASSERT_EQ(sandbox
                .run({"convert-im6.q16", KVTILE_PHOTOGRAPH, "-strip", "-crop", "300x200+350+300", "+repage",
                      "-compress", "jpeg", "-quality", "90", "photo.tif"})
                .status,
            0);
  Result result = sandbox.kvtile({"rotate", "90", "photo.tif", "out.tif"});
  ASSERT_EQ(result.status, 0) << result.err;
  ASSERT_EQ(sandbox.run({"convert-im6.q16", "photo.tif", "-rotate", "90", "-compress", "none", "model.tif"}).status, 0);
  EXPECT_EQ(sandbox.differingPixels("out.tif", "model.tif"), 0);
  const Tiff made = support::readTiff(sandbox.path("out.tif"));
  EXPECT_EQ(made.compression, COMPRESSION_ADOBE_DEFLATE);
  EXPECT_EQ(made.predictor, PREDICTOR_HORIZONTAL);
  EXPECT_EQ(made.photometric, PHOTOMETRIC_RGB);
}

TEST(TiffTest, TurnsWhatTheViewerShowsWhateverTheOrientation) {
  const Sandbox sandbox;
  const Raster upright = pattern(29, 17, 3, 8);
  for (unsigned orientation = 1; orientation <= 8; ++orientation) {
    Tiff source = tiffOf(storedAs(upright, orientation));
    source.orientation = static_cast<std::uint16_t>(orientation);
    for (const Move& move : support::moves()) {
      SCOPED_TRACE("orientation " + std::to_string(orientation) + ": " + testing::PrintToString(move.command));
      const Tiff made = through(sandbox, source, move.command);
      EXPECT_EQ(difference(move.model(upright), made.raster), "");
      EXPECT_EQ(made.orientation.value_or(1), 1);
    }
  }
}

TEST(TiffTest, OrientationsAgreeWithImageMagick) {
  const Sandbox sandbox;
  for (unsigned orientation = 1; orientation <= 8; ++orientation) {
    SCOPED_TRACE(orientation);
    Tiff source = tiffOf(pattern(31, 19, 3, 8));
    source.orientation = static_cast<std::uint16_t>(orientation);
    through(sandbox, source, {"convert"});
    ASSERT_EQ(sandbox.run({"convert-im6.q16", "in.tif", "-auto-orient", "model.png"}).status, 0);
    EXPECT_EQ(sandbox.differingPixels("out.tif", "model.png"), 0);
  }
}

// 2-bit rows cannot be reversed, but an orientation may undo what the user asks for.
TEST(TiffTest, OrientationAndMirrorTogetherDecideWhatIsRefused) {
  const Sandbox sandbox;
  const Raster upright = pattern(30, 20, 1, 2);
  Tiff source = tiffOf(storedAs(upright, 2));
  source.orientation = 2;
  const Tiff made = through(sandbox, source, {"mirror", "horizontal"});
  EXPECT_EQ(difference(mirroredLeftRight(upright), made.raster), "");
  const Result refused = sandbox.kvtile({"convert", "--force", "in.tif", "out.tif"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.err, HasSubstr("2-bit"));
  // A transposition writes rows as columns and reverses nothing.
  source = tiffOf(storedAs(upright, 5));
  source.orientation = 5;
  EXPECT_EQ(difference(upright, through(sandbox, source, {"convert"}).raster), "");
}

TEST(TiffTest, CarriesTheResolutionAndTurnsIt) {
  const Sandbox sandbox;
  for (const std::uint16_t unit :
       std::initializer_list<std::uint16_t>{RESUNIT_NONE, RESUNIT_INCH, RESUNIT_CENTIMETER}) {
    Tiff source = tiffOf(pattern(20, 10, 1, 8));
    source.resolution = {118.11F, 300.0F};
    source.unit = unit;
    const Tiff same = through(sandbox, source, {"rotate", "180"});
    EXPECT_EQ(same.resolution, source.resolution);
    EXPECT_EQ(same.unit, unit);
    const Tiff turned = through(sandbox, source, {"rotate", "90"});
    EXPECT_EQ(turned.resolution, (std::array<float, 2>{300.0F, 118.11F}));
    EXPECT_EQ(turned.unit, unit);
    source.orientation = 6;
    const Tiff upright = through(sandbox, source, {"convert"});
    EXPECT_EQ(upright.resolution, (std::array<float, 2>{300.0F, 118.11F})) << "the tag turns it as well";
  }
}

TEST(TiffTest, NoResolutionStaysNone) {
  const Sandbox sandbox;
  EXPECT_FALSE(through(sandbox, tiffOf(pattern(20, 10, 1, 8)), {"rotate", "90"}).resolution.has_value());
}

TEST(TiffTest, CarriesColoursAndProfile) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(20, 10, 5, 8));
  source.photometric = PHOTOMETRIC_SEPARATED;
  source.extras = {EXTRASAMPLE_UNASSALPHA};
  source.inkSet = INKSET_CMYK;
  source.icc = "bytes that nobody looks at, " + std::string(3000, 'x');
  const Tiff made = through(sandbox, source, {"rotate", "90"});
  EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
  EXPECT_EQ(made.photometric, PHOTOMETRIC_SEPARATED);
  EXPECT_EQ(made.extras, source.extras);
  EXPECT_EQ(made.inkSet, INKSET_CMYK);
  EXPECT_EQ(made.icc, source.icc);
}

TEST(TiffTest, CarriesTheNamesOfInks) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(20, 10, 5, 8));
  source.photometric = PHOTOMETRIC_SEPARATED;
  source.extras = {};
  source.inkSet = INKSET_MULTIINK;
  source.inkNames = std::string("Cyan\0Magenta\0Yellow\0Black\0Gold\0", 31);
  const Tiff made = through(sandbox, source, {"mirror", "vertical"});
  EXPECT_EQ(made.inkSet, INKSET_MULTIINK);
  EXPECT_EQ(made.inkNames, source.inkNames);
  EXPECT_EQ(difference(mirroredTopBottom(source.raster), made.raster), "");
}

TEST(TiffTest, CarriesTheOtherMeanings) {
  const Sandbox sandbox;
  Tiff lab = tiffOf(pattern(20, 10, 3, 8));
  lab.photometric = PHOTOMETRIC_CIELAB;
  lab.whitePoint = {0.3457F, 0.3585F};
  const Tiff madeLab = through(sandbox, lab, {"rotate", "90"});
  EXPECT_EQ(madeLab.photometric, PHOTOMETRIC_CIELAB);
  EXPECT_EQ(madeLab.whitePoint, lab.whitePoint);
  EXPECT_EQ(difference(rotated90(lab.raster), madeLab.raster), "");
  for (const std::uint16_t photometric :
       std::initializer_list<std::uint16_t>{PHOTOMETRIC_MINISWHITE, PHOTOMETRIC_MASK}) {
    Tiff source = tiffOf(pattern(20, 10, 1, 1));
    source.photometric = photometric;
    const Tiff made = through(sandbox, source, {"rotate", "90"});
    EXPECT_EQ(made.photometric, photometric);
    EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
  }
}

TEST(TiffTest, CarriesColourMapsExactlyAndExtendsThemWhenWidened) {
  const Sandbox sandbox;
  for (const std::uint32_t bits : {1U, 2U, 4U, 8U, 16U}) {
    SCOPED_TRACE(bits);
    Tiff source = tiffOf(pattern(20, 10, 1, bits));
    source.photometric = PHOTOMETRIC_PALETTE;
    support::ColourMap map;
    for (std::uint32_t i = 0; i < 1U << bits; ++i) {
      map.red.push_back(static_cast<std::uint16_t>(i * 4099));
      map.green.push_back(static_cast<std::uint16_t>(60000 - i));
      map.blue.push_back(static_cast<std::uint16_t>(i * i));
    }
    source.colourMap = map;
    const Tiff made = through(sandbox, source, {"rotate", "90"});
    EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
    EXPECT_EQ(made.photometric, PHOTOMETRIC_PALETTE);
    EXPECT_TRUE(made.colourMap == source.colourMap);
    const Tiff wide = through(sandbox, source, {"rotate", "180", "--to-8bit"});
    Raster indices = source.raster;
    indices.bits = std::max(bits, 8U);
    EXPECT_EQ(difference(rotated180(indices), wide.raster), "") << "numbers of colours stay what they are";
    const std::size_t entries = std::size_t{1} << std::max(bits, 8U);
    map.red.resize(entries);
    map.green.resize(entries);
    map.blue.resize(entries);
    EXPECT_TRUE(wide.colourMap == map);
  }
}

// Scaling is for values that count from zero.
TEST(TiffTest, SignedNibblesAreTurnedButNotWidened) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(20, 10, 1, 4));
  source.sampleFormat = SAMPLEFORMAT_INT;
  const Tiff made = through(sandbox, source, {"rotate", "90"});
  EXPECT_EQ(difference(rotated90(source.raster), made.raster), "");
  EXPECT_EQ(made.sampleFormat, SAMPLEFORMAT_INT);
  const Result refused = sandbox.kvtile({"rotate", "90", "--to-8bit", "--force", "in.tif", "out.tif"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err,
            "kvtile: in.tif: its samples (1 x 4 bits, signed) cannot be widened to 8 bits; run again without "
            "--to-8bit\n");
}

TEST(TiffTest, WritesStripsOfSensibleSize) {
  const Sandbox sandbox;
  EXPECT_EQ(through(sandbox, tiffOf(pattern(1024, 1000, 1, 8)), {"convert"}).rowsPerStrip, 256U);
  EXPECT_EQ(through(sandbox, tiffOf(pattern(300000, 3, 1, 8)), {"convert"}).rowsPerStrip, 1U);
}

TEST(TiffTest, TellsOfPagesThatAreNotRead) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(20, 10, 1, 8));
  source.pages = 3;
  support::writeTiff(sandbox.path("in.tif"), source);
  Result result = sandbox.kvtile({"convert", "in.tif", "out.tif"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "kvtile: in.tif has 3 pages; only the first is read\n");
  EXPECT_EQ(support::readTiff(sandbox.path("out.tif")).pages, 1);
  result = sandbox.kvtile({"convert", "--quiet", "--force", "in.tif", "out.tif"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
}

TEST(TiffTest, OtherProgramsReadTheResult) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(200, 150, 3, 16));
  source.compression = COMPRESSION_LZW;
  source.predictor = 2;
  through(sandbox, source, {"mirror", "horizontal"});
  const Result info = sandbox.run({"tiffinfo", "out.tif"});
  EXPECT_EQ(info.status, 0);
  EXPECT_EQ(info.err, "");
  ASSERT_EQ(sandbox.run({"convert-im6.q16", "in.tif", "-flop", "model.tif"}).status, 0);
  EXPECT_EQ(sandbox.differingPixels("out.tif", "model.tif"), 0);
  ASSERT_EQ(sandbox.kvtile({"mirror", "horizontal", "out.tif", "back.tif"}).status, 0);
  EXPECT_EQ(sandbox.run({"tiffcmp", "-t", "in.tif", "back.tif"}).status, 0);
}

// The offset of the file's second half has to be beyond what 32 bits reach.
TEST(TiffTest, ReadsPixelsBeyondFourGibibytes) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(50, 30, 1, 8));
  source.bigTiff = true;
  source.rowsPerStrip = 30;
  support::writeTiff(sandbox.path("small.tif"), source);
  // The same file with a hole before its pixels: the one strip's position is the only thing that changes.
  const std::string bytes = sandbox.read("small.tif");
  TIFF* tiff = TIFFOpen(sandbox.path("small.tif").c_str(), "r");
  ASSERT_NE(tiff, nullptr);
  const std::uint64_t pixels = TIFFGetStrileOffset(tiff, 0);
  TIFFClose(tiff);
  const std::uint64_t moved = (std::uint64_t{5} << 30) + 2;
  const std::string oldEntry(reinterpret_cast<const char*>(&pixels), 8);
  const std::size_t entry = bytes.rfind(oldEntry);
  ASSERT_NE(entry, std::string::npos);
  std::string header = bytes;
  header.replace(entry, 8, reinterpret_cast<const char*>(&moved), 8);
  sandbox.write("in.tif", header);
  std::FILE* file = std::fopen(sandbox.path("in.tif").c_str(), "r+b");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(fseeko(file, static_cast<off_t>(moved), SEEK_SET), 0);
  ASSERT_EQ(std::fwrite(&bytes[pixels], 1, 1500, file), 1500U);
  ASSERT_EQ(std::fclose(file), 0);
  const Result result = sandbox.kvtile({"rotate", "90", "in.tif", "out.tif"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_EQ(difference(rotated90(source.raster), support::readTiff(sandbox.path("out.tif")).raster), "");
}

}  // namespace
