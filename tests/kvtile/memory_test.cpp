// Memory: the library's images and little else, whatever the layout; no more than a file can be worth; a few tiles of
// images that are kept in files.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <png.h>
#include <tiffio.h>

#include <cstdio>
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
  expectImages(1, {"tone", "--gamma", "2", "--force", "one-strip.tif", "out.tif"});
  expectImages(1, {"histogram", "--gamma", "2", "--force", "one-strip.tif", "out.tif"});
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

// Two images of 324 MB in files. What is touched at one time are the tiles of a row of one and of a column of the
// other: up to 3072 rows of 12000 pixels and as many columns. Each thread of a resizing touches a row of its own.
TEST_F(MemoryTest, ImagesInFilesTakeTheTilesOfARowAndAColumn) {
  constexpr std::uint32_t kLargeWidth = 12000;
  constexpr std::uint32_t kLargeHeight = 9000;
  constexpr long kTilesKilobytes = long{2} * kLargeWidth * 3072 * 3 / 1024;
  constexpr long kImagesKilobytes = long{2} * kLargeWidth * kLargeHeight * 3 / 1024;
  static_assert(kTilesKilobytes + kOthersKilobytes < kImagesKilobytes / 2);
  TIFF* tiff = begin("in.tif", false);
  TIFFSetField(tiff, TIFFTAG_IMAGEWIDTH, kLargeWidth);
  TIFFSetField(tiff, TIFFTAG_IMAGELENGTH, kLargeHeight);
  TIFFSetField(tiff, TIFFTAG_COMPRESSION, COMPRESSION_PACKBITS);
  TIFFSetField(tiff, TIFFTAG_ROWSPERSTRIP, 100);
  std::vector<std::uint8_t> row(std::size_t{kLargeWidth} * 3, 0x5A);
  for (std::uint32_t y = 0; y < kLargeHeight; ++y) {
    ASSERT_EQ(TIFFWriteScanline(tiff, row.data(), y, 0), 1);
  }
  TIFFClose(tiff);
  for (const std::vector<std::string>& command : {std::vector<std::string>{"rotate", "90"},
                                                  {"mirror", "horizontal"},
                                                  {"resize", "--width", "6000", "--threads", "1"}}) {
    SCOPED_TRACE(testing::PrintToString(command));
    std::vector<std::string> words = command;
    words.insert(words.end(), {"--budget", "64M", "--force", "in.tif", "out.tif"});
    const Result result = sandbox_.kvtile(words);
    ASSERT_EQ(result.status, 0) << result.err;
    EXPECT_LT(result.peakKilobytes, kTilesKilobytes + kOthersKilobytes);
  }
}

TEST_F(MemoryTest, StatsTellThePeak) {
  writeTiff("in.tif", 100, false);
  const Result result = sandbox_.kvtile({"convert", "--stats", "in.tif", "out.tif"});
  ASSERT_EQ(result.status, 0) << result.err;
  double megabytes = 0;
  ASSERT_EQ(std::sscanf(result.err.c_str(), "kvtile: stats: image kept in memory, peak memory %lf MB", &megabytes), 1);
  EXPECT_GT(megabytes * 1e6 / 1024, kImageKilobytes);
  EXPECT_LT(megabytes * 1e6 / 1024, static_cast<double>(result.peakKilobytes) + 100);
}

// A program counts the memory of the one that started it as its own unless it looks more closely.
TEST_F(MemoryTest, StatsLeaveOutWhatStartedTheProgram) {
  writeTiff("in.tif", 100, false);
  const std::vector<std::uint8_t> large(std::size_t{300} << 20, 1);
  const Result result = sandbox_.kvtile({"convert", "--stats", "in.tif", "out.tif"});
  double megabytes = 0;
  ASSERT_EQ(std::sscanf(result.err.c_str(), "kvtile: stats: image kept in memory, peak memory %lf MB", &megabytes), 1);
  EXPECT_LT(megabytes * 1e6 / 1024, kImageKilobytes + kOthersKilobytes);
  EXPECT_GT(result.peakKilobytes, static_cast<long>(large.size() / 1024)) << "or there is nothing to leave out";
}

}  // namespace
