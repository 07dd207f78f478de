// Memory: the library's images and little else, whatever the layout; no more than a file can be worth.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>
#include <tiffio.h>

#include <string>
#include <vector>

#include "support/sandbox.h"

namespace {

using support::Result;
using support::Sandbox;

// 6000 x 5000 pixels of 3 x 8 bits.
constexpr std::uint32_t kWidth = 6000;
constexpr std::uint32_t kHeight = 5000;
constexpr long kImageKilobytes = 90000000 / 1024;

// Program, libraries and buffers.
constexpr long kOthersKilobytes = 20 * 1024;

class MemoryTest : public testing::Test {
 protected:
  // The fixtures are written row by row: a program that is started counts the memory of the one that started it.
  void writeTiff(const std::string& name, std::uint32_t rowsPerStrip, bool separate) const {
    TIFF* tiff = begin(name, separate);
    TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, rowsPerStrip);
    std::vector<std::uint8_t> row(std::size_t{kWidth} * (separate ? 1 : 3), 0x5A);
    for (std::uint16_t plane = 0; plane < (separate ? 3 : 1); ++plane) {
      for (std::uint32_t y = 0; y < kHeight; ++y) {
        ASSERT_EQ(TIFFWriteScanline(tiff, row.data(), y, plane), 1);
      }
    }
    TIFFClose(tiff);
  }

  void writeTiles(const std::string& name) const {
    TIFF* tiff = begin(name, true);
    TIFFSetField(tiff, TIFFTAG_TILEWIDTH, 256);
    TIFFSetField(tiff, TIFFTAG_TILELENGTH, 256);
    TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_PACKBITS);
    for (std::uint32_t tile = 0; tile < TIFFNumberOfTiles(tiff); ++tile) {
      std::vector<std::uint8_t> samples(256 * 256, 0x5A);
      ASSERT_EQ(TIFFWriteEncodedTile(tiff, tile, samples.data(), 256 * 256), 256 * 256);
    }
    TIFFClose(tiff);
  }

  TIFF* begin(const std::string& name, bool separate) const {
    TIFF* tiff = TIFFOpen(sandbox_.path(name).c_str(), "w");
    TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kWidth);
    TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kHeight);
    TIFFSetField(tiff, TIFFTAG_SAMPLESPERPIXEL, 3);
    TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 8);
    TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
    TIFFSetField(tiff, TIFFTAG_PLANARCONFIG, separate ? PLANARCONFIG_SEPARATE : PLANARCONFIG_CONTIG);
    return tiff;
  }

  void expectImages(int images, const std::vector<std::string>& command) {
    SCOPED_TRACE(testing::PrintToString(command));
    const Result result = sandbox_.kvtile(command);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_GT(result.peakKilobytes, images * kImageKilobytes);
    EXPECT_LT(result.peakKilobytes, images * kImageKilobytes + kOthersKilobytes);
  }

  Sandbox sandbox_;
};

TEST_F(MemoryTest, EveryLayoutTakesTheImagesAndLittleElse) {
  writeTiff("one-strip.tif", 0xffffffff, false);
  expectImages(1, {"convert", "--force", "one-strip.tif", "out.tif"});
  expectImages(2, {"rotate", "90", "--budget", "2G", "--force", "one-strip.tif", "out.tif"});
  writeTiff("two-strips.tif", kHeight / 2, true);
  expectImages(1, {"convert", "--force", "two-strips.tif", "out.tif"});
  writeTiles("tiles.tif");
  expectImages(2, {"mirror", "vertical", "--budget", "2G", "--force", "tiles.tif", "out.tif"});
}

TEST_F(MemoryTest, InterlacedPngTakesTheImagesAndLittleElse) {
  std::FILE* file = std::fopen(sandbox_.path("in.png").c_str(), "wb");
  ASSERT_NE(file, nullptr);
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  png_init_io(png, file);
  png_set_IHDR(png, info, kWidth, kHeight, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_ADAM7, PNG_COMPRESSION_TYPE_DEFAULT,
               PNG_FILTER_TYPE_DEFAULT);
  png_set_compression_level(png, 1);
  png_write_info(png, info);
  std::vector<std::uint8_t> row(kWidth * 3, 0x5A);
  std::vector<png_bytep> rows(kHeight, row.data());
  png_write_image(png, rows.data());
  png_write_end(png, info);
  png_destroy_write_struct(&png, &info);
  ASSERT_EQ(std::fclose(file), 0);
  expectImages(1, {"rotate", "360", "in.png", "out.tif"});
}

// 722 MB of white paper, which fax compression makes tiny: what counts is how far it could have grown.
TEST_F(MemoryTest, AResultThatMightOutgrowClassicTiffBecomesBigTiff) {
  constexpr std::uint32_t kSide = 76000;
  TIFF* tiff = TIFFOpen(sandbox_.path("in.tif").c_str(), "w");
  ASSERT_NE(tiff, nullptr);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kSide);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kSide);
  TIFFSetField(tiff, TIFFTAG_BITSPERSAMPLE, 1);
  TIFFSetField(tiff, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISWHITE);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 1000);
  std::vector<std::uint8_t> row(kSide / 8);
  for (std::uint32_t y = 0; y < kSide; ++y) {
    ASSERT_EQ(TIFFWriteScanline(tiff, row.data(), y, 0), 1);
  }
  TIFFClose(tiff);
  const Result result = sandbox_.kvtile({"convert", "--budget", "6G", "in.tif", "out.tif"});
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_LT(result.peakKilobytes, long{kSide} * (kSide / 8) / 1024 + kOthersKilobytes);
  tiff = TIFFOpen(sandbox_.path("out.tif").c_str(), "r");
  ASSERT_NE(tiff, nullptr);
  EXPECT_NE(TIFFIsBigTIFF(tiff), 0);
  std::uint16_t compression = 0;
  TIFFGetField(tiff, TIFFTAG_COMPRESSION, &compression);
  EXPECT_EQ(compression, COMPRESSION_CCITTFAX4);
  TIFFClose(tiff);
}

}  // namespace
