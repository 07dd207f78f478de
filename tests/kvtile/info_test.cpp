// What `kvtile info` prints.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/pngs.h"
#include "support/sandbox.h"
#include "support/tiffs.h"

namespace {

using support::pattern;
using support::Result;
using support::Sandbox;
using support::Tiff;
using support::tiffOf;
using testing::HasSubstr;

TEST(InfoTest, DescribesATiff) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(40, 30, 4, 16));
  source.extras = {EXTRASAMPLE_ASSOCALPHA};
  source.bigTiff = true;
  source.bigEndian = true;
  source.separate = true;
  source.tileWidth = 32;
  source.tileHeight = 16;
  source.compression = COMPRESSION_LZW;
  source.predictor = PREDICTOR_HORIZONTAL;
  source.resolution = {300, 150.5};
  source.unit = RESUNIT_CENTIMETER;
  source.orientation = 6;
  source.icc = std::string(400, 'p');
  source.pages = 2;
  support::writeTiff(sandbox.path("in.tif"), source);
  const Result result = sandbox.kvtile({"info", "in.tif"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out,
            "file:        in.tif\n"
            "format:      BigTIFF, big-endian\n"
            "size:        40 x 30 pixels\n"
            "samples:     4 x 16 bits, unsigned\n"
            "meaning:     RGB + premultiplied alpha\n"
            "compression: LZW, horizontal predictor\n"
            "layout:      tiles of 32 x 16 pixels, one plane per sample\n"
            "resolution:  300 x 150.5 pixels per centimetre\n"
            "orientation: 6 (to be turned by 90 degrees)\n"
            "ICC profile: yes, 400 bytes\n"
            "pages:       2\n"
            "pixel bytes: 9600 bytes (9.4 KiB)\n");
}

TEST(InfoTest, DescribesAPng) {
  const Sandbox sandbox;
  support::Png source = support::palettePng(pattern(40, 30, 1, 4));
  source.paletteAlpha = {0};
  source.interlaced = true;
  source.physical = support::PngPhysical{11811, 11811, PNG_RESOLUTION_METER};
  support::writePng(sandbox.path("in.png"), source);
  const Result result = sandbox.kvtile({"info", "in.png"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out,
            "file:        in.png\n"
            "format:      PNG\n"
            "size:        40 x 30 pixels\n"
            "samples:     1 x 4 bits, unsigned\n"
            "meaning:     palette of 16 colours, with transparency\n"
            "compression: deflate\n"
            "layout:      interlaced (Adam7)\n"
            "resolution:  11811 x 11811 pixels per metre (299.999 x 299.999 per inch)\n"
            "orientation: 1 (upright)\n"
            "ICC profile: no\n"
            "pages:       1\n"
            "pixel bytes: 600 bytes\n");
}

TEST(InfoTest, ShowsTheGoodFilesAndReportsTheOthers) {
  const Sandbox sandbox;
  support::writeTiff(sandbox.path("a.tif"), tiffOf(pattern(3, 2, 1, 8)));
  support::writePng(sandbox.path("b.png"), support::pngOf(pattern(3, 2, 1, 8)));
  sandbox.write("text.png", "no picture at all");
  const Result result = sandbox.kvtile({"info", "a.tif", "missing.tif", "text.png", "b.png"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kvtile: missing.tif: there is no such file; check the name\n"
            "kvtile: text.png: is neither a PNG nor a TIFF file; convert it to one of these first\n");
  EXPECT_EQ(result.out.find("file:        a.tif\n"), 0U);
  EXPECT_THAT(result.out, HasSubstr("pixel bytes: 6 bytes\n\nfile:        b.png\n"));
}

// Files that cannot be converted can still be looked at.
TEST(InfoTest, DescribesWhatCannotBeRead) {
  const Sandbox sandbox;
  Tiff source = tiffOf(pattern(40, 30, 3, 8));
  source.photometric = PHOTOMETRIC_YCBCR;
  source.rowsPerStrip = 30;
  support::writeTiff(sandbox.path("in.tif"), source);
  const Result shown = sandbox.kvtile({"info", "in.tif"});
  EXPECT_EQ(shown.status, 0) << shown.err;
  EXPECT_THAT(shown.out, HasSubstr("meaning:     YCbCr\n"));
  const Result refused = sandbox.kvtile({"convert", "in.tif", "out.tif"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_EQ(refused.err, "kvtile: in.tif: pixels stored as YCbCr cannot be read; convert it to RGB or grey first\n");
}

TEST(InfoTest, FailsIfItsOutputGoesNowhere) {
  const Sandbox sandbox;
  support::writeTiff(sandbox.path("a.tif"), tiffOf(pattern(3, 2, 1, 8)));
  const Result result = sandbox.run({"sh", "-c", std::string(KVTILE_PROGRAM) + " info a.tif > /dev/full"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err,
            "kvtile: standard output: cannot be written (No space left on device); check where it leads to\n");
}

}  // namespace
