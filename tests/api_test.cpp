// The exported functions as a caller sees them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/guarded_buffer.h"
#include "support/image.h"
#include "support/log_capture.h"

namespace {

using support::allocate;
using support::errors;
using support::GuardedBuffer;
using support::Image;
using support::LogCapture;
using testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t kMost = std::numeric_limits<std::uint32_t>::max();

// ---- Version and helpers

TEST(VersionTest, StoresThePartsThatAreAskedFor) {
  std::uint32_t major = 77;
  std::uint32_t minor = 77;
  std::uint32_t patch = 77;
  KvTileImage_VersionNum(&major, &minor, &patch);
  EXPECT_THAT((std::vector{major, minor, patch}), ElementsAre(2, 0, 15));
  minor = 77;
  KvTileImage_VersionNum(nullptr, &minor, nullptr);
  EXPECT_EQ(minor, 0U);
  KvTileImage_VersionNum(nullptr, nullptr, nullptr);
}

TEST(VersionTest, GivesTheText) {
  const char* text = nullptr;
  KvTileImage_VersionString(&text);
  EXPECT_STREQ(text, "2.0.15");
  KvTileImage_VersionString(nullptr);
}

TEST(ScaledPixelCountTest, RoundsHalvesUp) {
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(3, 0.5), 2U);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(1, 0.49), 0U);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(1, 0.5), 1U);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(1000, 1.0 / 3.0), 333U);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(0, 1e300), 0U);
}

TEST(ScaledPixelCountTest, CoversTheWholeUnsignedRange) {
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(std::uint64_t{1} << 63, 1.0), std::uint64_t{1} << 63);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(0xC000000000000000, 1.0), 0xC000000000000000U);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(std::uint64_t{1} << 62, 3.0), 0xC000000000000000U);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(std::uint64_t{1} << 63, 2.0), ~std::uint64_t{0});
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(1, std::numeric_limits<double>::infinity()), ~std::uint64_t{0});
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(1, -3.0), 0U);
  EXPECT_EQ(KvTileImage_ComputeScaledPixelCount(1, std::numeric_limits<double>::quiet_NaN()), 0U);
}

// ---- Handles

TEST(NullHandleTest, GivesEmptyResults) {
  EXPECT_EQ(KvTileImage_GetWidth(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetHeight(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetSamplesPerPixel(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetBitsPerSample(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetBitsPerPixel(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetSampleformat(nullptr), 0xFFFFFFFFU);
  EXPECT_EQ(KvTileImage_GetDpiX(nullptr), 0.0F);
  EXPECT_EQ(KvTileImage_GetDpiY(nullptr), 0.0F);
  KvTileImage_SetDpiX(nullptr, 1.0F);
  KvTileImage_SetDpiY(nullptr, 1.0F);
  EXPECT_EQ(KvTileImage_GetRowScanlineStrideBytes(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetColScanlineStrideBytes(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetRowScanlineSuitableBytes(nullptr), 0U);
  EXPECT_EQ(KvTileImage_GetColScanlineSuitableBytes(nullptr), 0U);
  Bytes buffer(16, 0x33);
  EXPECT_FALSE(KvTileImage_GetPixelData(nullptr, 0, 0, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_SetPixelData(nullptr, 0, 0, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_GetRowData(nullptr, 0, 0, 1, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_SetRowData(nullptr, 0, 0, 1, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_GetColData(nullptr, 0, 0, 1, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_SetColData(nullptr, 0, 0, 1, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_GetFullRowData(nullptr, 0, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_SetFullRowData(nullptr, 0, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_GetFullColData(nullptr, 0, buffer.data(), 16));
  EXPECT_FALSE(KvTileImage_SetFullColData(nullptr, 0, buffer.data(), 16));
  EXPECT_EQ(buffer, Bytes(16, 0x33));
  EXPECT_EQ(KvTileImage_RotateAndMirror(nullptr, 90, 1, true, nullptr), nullptr);
  EXPECT_EQ(KvTileImage_Rotate(nullptr, 90, nullptr), nullptr);
  EXPECT_EQ(KvTileImage_Mirror(nullptr, 1, nullptr), nullptr);
  EXPECT_EQ(KvTileImage_HorizontalMirror(nullptr, nullptr), nullptr);
  EXPECT_EQ(KvTileImage_VerticalMirror(nullptr, nullptr), nullptr);
  KvTileImage_Unload(nullptr);
}

TEST(AllocTest, KeepsWhatItWasGiven) {
  const Image image(KvTileImage_AllocEx(33, 21, 3, 16, 2, 0, KVTI_SCANLINE_OPERATION_ROW));
  ASSERT_NE(image, nullptr);
  EXPECT_EQ(KvTileImage_GetWidth(image.get()), 33U);
  EXPECT_EQ(KvTileImage_GetHeight(image.get()), 21U);
  EXPECT_EQ(KvTileImage_GetSamplesPerPixel(image.get()), 3U);
  EXPECT_EQ(KvTileImage_GetBitsPerSample(image.get()), 16U);
  EXPECT_EQ(KvTileImage_GetBitsPerPixel(image.get()), 48U);
  EXPECT_EQ(KvTileImage_GetSampleformat(image.get()), 2U);
  EXPECT_EQ(KvTileImage_GetRowScanlineStrideBytes(image.get()), 200U);
  EXPECT_EQ(KvTileImage_GetRowScanlineSuitableBytes(image.get()), 198U);
  EXPECT_EQ(KvTileImage_GetColScanlineStrideBytes(image.get()), 128U);
  EXPECT_EQ(KvTileImage_GetColScanlineSuitableBytes(image.get()), 126U);
}

TEST(AllocTest, StartsAtSeventyTwoDotsPerInch) {
  const Image image = allocate(1, 1, 1, 8);
  EXPECT_EQ(KvTileImage_GetDpiX(image.get()), 72.0F);
  EXPECT_EQ(KvTileImage_GetDpiY(image.get()), 72.0F);
  KvTileImage_SetDpiX(image.get(), 300.0F);
  KvTileImage_SetDpiY(image.get(), 299.5F);
  EXPECT_EQ(KvTileImage_GetDpiX(image.get()), 300.0F);
  EXPECT_EQ(KvTileImage_GetDpiY(image.get()), 299.5F);
}

TEST(AllocTest, RefusesZerosAndSaysWhich) {
  LogCapture log;
  for (int zero = 0; zero < 4; ++zero) {
    const auto value = [zero](int argument, std::uint32_t otherwise) { return argument == zero ? 0 : otherwise; };
    EXPECT_EQ(KvTileImage_AllocEx(value(0, 5), value(1, 6), value(2, 3), value(3, 8), 1, 0, 3), nullptr);
    const std::string check = "[TileImage::check] invalid args.width:" + std::to_string(value(0, 5)) +
                              " height:" + std::to_string(value(1, 6)) +
                              " samplesPerPixel:" + std::to_string(value(2, 3)) +
                              " bitsPerSample:" + std::to_string(value(3, 8)) + "!";
    EXPECT_EQ(log.take(), errors({check.c_str(), "[TileImage::createNormal] create failed"}));
  }
}

TEST(AllocTest, RefusesAbsurdSizes) {
  LogCapture log;
  KvTileImage_SetMaxMemoryStorageBytes(~std::uint64_t{0});
  const std::vector<std::vector<std::uint32_t>> sizes{
      {kMost, kMost, kMost, kMost}, {kMost, kMost, 1, 1},     {kMost, kMost, 1, 8},     {kMost, kMost, 3, 64},
      {1, 1, kMost, kMost},         {1, 1, 65536, 65536 * 8}, {100, 100, 1 << 20, 64},  {kMost, 1, 1024, 64},
      {1, kMost, 1024, 64},         {65536, 65536, 256, 64},  {131072, 131072, 64, 64},
  };
  for (const auto& size : sizes) {
    EXPECT_EQ(KvTileImage_Alloc(size[0], size[1], size[2], size[3], 1, 0), nullptr)
        << size[0] << " x " << size[1] << " x " << size[2] << " x " << size[3];
    EXPECT_FALSE(log.take().empty());
  }
  KvTileImage_SetMaxMemoryStorageBytes(0x40000000);
}

// Destroyed after the library's own static objects, if they were made later.
Image staticImage;

TEST(AllocTest, LetsStaticObjectsReleaseTheirImages) {
  EXPECT_EXIT(
      {
        staticImage = allocate(10, 10, 1, 8);
        std::exit(staticImage != nullptr ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

TEST(MessagesTest, AreErrorsOnlyUntilTheHostAsksForMore) {
  testing::internal::CaptureStderr();
  {
    const Image image = allocate(10, 10, 1, 8);
    EXPECT_EQ(KvTileImage_Alloc(0, 6, 3, 8, 1, 0), nullptr);
  }
  std::string output = testing::internal::GetCapturedStderr();
  std::erase(output, '\r');
  EXPECT_EQ(
      output,
      "[KvTileImage] [error] [TileImage::check] invalid args.width:0 height:6 samplesPerPixel:3 bitsPerSample:8!\n"
      "[KvTileImage] [error] [TileImage::createNormal] create failed\n");
}

// ---- Transfer

TEST(PixelIoTest, ChecksTheRange) {
  LogCapture log;
  const Image image = allocate(10, 7, 1, 8);
  Bytes buffer(10, 0x44);
  EXPECT_FALSE(KvTileImage_GetRowData(image.get(), 2, 3, 3, buffer.data(), 10));
  EXPECT_FALSE(KvTileImage_GetRowData(image.get(), 7, 0, 1, buffer.data(), 10));
  EXPECT_FALSE(KvTileImage_GetRowData(image.get(), 0, 0, 11, buffer.data(), 10));
  EXPECT_FALSE(KvTileImage_GetPixelData(image.get(), 10, 0, buffer.data(), 10));
  EXPECT_FALSE(KvTileImage_SetPixelData(image.get(), kMost, 0, buffer.data(), 10));
  EXPECT_FALSE(KvTileImage_GetFullRowData(image.get(), 7, buffer.data(), 10));
  EXPECT_EQ(log.take(), errors({"[TileImage::copyRowData] y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2  "
                                "[width:10 height:7 y:2 x1:3 x2:3]",
                                "[TileImage::copyRowData] y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2  "
                                "[width:10 height:7 y:7 x1:0 x2:1]",
                                "[TileImage::copyRowData] y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2  "
                                "[width:10 height:7 y:0 x1:0 x2:11]",
                                "[TileImage::copyRowData] y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2  "
                                "[width:10 height:7 y:0 x1:10 x2:11]",
                                "[TileImage::copyRowData] y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2  "
                                "[width:10 height:7 y:0 x1:4294967295 x2:0]",
                                "[TileImage::copyRowData] y >= height_ || x1 >= width_ || x2 > width_ || x1 >= x2  "
                                "[width:10 height:7 y:7 x1:0 x2:10]"}));
  EXPECT_FALSE(KvTileImage_GetColData(image.get(), 10, 0, 1, buffer.data(), 10));
  EXPECT_FALSE(KvTileImage_SetColData(image.get(), 3, 5, 8, buffer.data(), 10));
  EXPECT_EQ(log.take(), errors({"[TileImage::copyColData] x >= width_ || y1 >= height_ || y2 > height_ || y1 >= y2 "
                                "[width:10 height:7 x:10 y1:0 y2:1]",
                                "[TileImage::copyColData] x >= width_ || y1 >= height_ || y2 > height_ || y1 >= y2 "
                                "[width:10 height:7 x:3 y1:5 y2:8]"}));
  EXPECT_EQ(buffer, Bytes(10, 0x44));
  EXPECT_TRUE(KvTileImage_GetRowData(image.get(), 2, 3, 10, buffer.data(), 7));
  EXPECT_TRUE(KvTileImage_GetPixelData(image.get(), 9, 6, buffer.data(), 1));
}

TEST(PixelIoTest, TakesExactlyTheBytesOfThePixelAtTheLastCorner) {
  for (const auto& [samples, bits] : {std::pair{1U, 1U}, {5U, 2U}, {3U, 4U}, {3U, 8U}, {2U, 64U}}) {
    const Image image = allocate(300, 260, samples, bits);
    const std::uint64_t bytes = (samples * bits + 7) / 8;
    GuardedBuffer buffer(bytes);
    EXPECT_TRUE(KvTileImage_GetPixelData(image.get(), 299, 259, buffer.data(), bytes)) << samples << " x " << bits;
    EXPECT_TRUE(buffer.intact());
    LogCapture log;
    EXPECT_FALSE(KvTileImage_GetPixelData(image.get(), 299, 259, buffer.data(), bytes - 1));
    EXPECT_EQ(log.take(), errors({"[TileImage::copyRowData] checkBytes failed!"}));
  }
}

TEST(PixelIoTest, ChecksTheBuffer) {
  LogCapture log;
  const Image image = allocate(10, 7, 1, 16);
  Bytes buffer(20, 0x55);
  EXPECT_FALSE(KvTileImage_GetPixelData(image.get(), 0, 0, buffer.data(), 1));
  EXPECT_FALSE(KvTileImage_GetFullRowData(image.get(), 0, buffer.data(), 19));
  EXPECT_FALSE(KvTileImage_SetFullRowData(image.get(), 0, nullptr, 20));
  EXPECT_FALSE(KvTileImage_GetFullColData(image.get(), 0, buffer.data(), 13));
  EXPECT_FALSE(KvTileImage_SetColData(image.get(), 0, 0, 7, nullptr, 100));
  EXPECT_EQ(log.take(),
            errors({"[TileImage::copyRowData] checkBytes failed!", "[TileImage::copyRowData] checkBytes failed!",
                    "[TileImage::copyRowData] checkBytes failed!", "[TileImage::copyColData] checkBytes failed!",
                    "[TileImage::copyColData] checkBytes failed!"}));
  EXPECT_EQ(buffer, Bytes(20, 0x55));
  EXPECT_TRUE(KvTileImage_GetFullRowData(image.get(), 0, buffer.data(), ~std::uint64_t{0}));
}

TEST(PixelIoTest, ReadsZerosBeforeAnythingIsWritten) {
  const Image image = allocate(300, 300, 3, 8);
  for (std::uint32_t y = 0; y < 300; ++y) {
    Bytes row(900, 0x66);
    ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), y, row.data(), row.size()));
    ASSERT_EQ(row, Bytes(900, 0)) << y;
  }
}

TEST(PixelIoTest, ReadsPackedRowsAcrossTileSeams) {
  // Three tiles of 1024 pixels; every seventh pixel is set.
  const Image image = allocate(3000, 3, 1, 1);
  for (std::uint32_t x = 0; x < 3000; ++x) {
    const std::uint8_t pixel = x % 7 == 0 ? 0x80 : 0x00;
    ASSERT_TRUE(KvTileImage_SetPixelData(image.get(), x, 1, &pixel, 1));
  }
  for (const std::uint32_t x1 : {0U, 1U, 1000U, 1023U, 1024U}) {
    GuardedBuffer row((3000 - x1 + 7) / 8);
    ASSERT_TRUE(KvTileImage_GetRowData(image.get(), 1, x1, 3000, row.data(), row.size()));
    for (std::uint32_t x = x1; x < 3000; ++x) {
      const bool set = (row.data()[(x - x1) / 8] >> (7 - (x - x1) % 8) & 1) != 0;
      ASSERT_EQ(set, x % 7 == 0) << x << " from " << x1;
    }
    EXPECT_TRUE(row.intact());
  }
}

TEST(PixelIoTest, ReadsAColumnBackAsSinglePixels) {
  const Image image = allocate(5, 300, 2, 16);
  Bytes column(1200);
  for (std::size_t i = 0; i < column.size(); ++i) {
    column[i] = static_cast<std::uint8_t>(i * 31 + i / 256);
  }
  ASSERT_TRUE(KvTileImage_SetFullColData(image.get(), 3, column.data(), column.size()));
  for (std::uint32_t y = 0; y < 300; ++y) {
    Bytes pixel(4);
    ASSERT_TRUE(KvTileImage_GetPixelData(image.get(), 3, y, pixel.data(), 4));
    EXPECT_EQ(pixel, Bytes(column.begin() + 4 * y, column.begin() + 4 * y + 4)) << y;
  }
}

TEST(PixelIoTest, AcceptsTwelveBitSamplesOnTheWholeBytePath) {
  // One byte a pixel moves, to byte 12 * x / 8 of the row: pixels 0, 1, 2, 3 to bytes 0, 1, 3, 4.
  const Image image = allocate(8, 1, 1, 12);
  ASSERT_NE(image, nullptr);
  for (std::uint8_t x = 0; x < 4; ++x) {
    const Bytes pixel{static_cast<std::uint8_t>(0xA0 + x), 0x00};
    ASSERT_TRUE(KvTileImage_SetPixelData(image.get(), x, 0, pixel.data(), 2));
  }
  Bytes row(12, 0x99);
  ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), 0, row.data(), 12));
  EXPECT_THAT(row, ElementsAre(0xA0, 0xA1, 0x00, 0xA2, 0xA3, 0, 0, 0, 0x99, 0x99, 0x99, 0x99));
}

TEST(PixelIoTest, FailsColumnsOfPackedPixelsThatShareAPlaceInsideAByte) {
  const Image image = allocate(4, 4, 3, 4);
  Bytes column(6, 0xFF);
  EXPECT_TRUE(KvTileImage_SetFullColData(image.get(), 0, column.data(), 6));
  LogCapture log;
  EXPECT_FALSE(KvTileImage_SetFullColData(image.get(), 1, column.data(), 6));
  EXPECT_EQ(log.take(),
            errors({"[BitTool::fillBitsEx] dstBitBeginIndex or dstBitEndIndex out range!",
                    "[Tile::copyColData_1_2_4BitsPerSample] fill_1_2_4BitsPerSample failed",
                    "[TileImage::copyColData_1_2_4BitsPerSample] tile copyColData failed! x:1 y1:0 y2:4 tileRowCount:1 "
                    "tileColCount:1"}));
}

// ---- Rotation

Image numbered(std::uint32_t width, std::uint32_t height) {
  Image image = allocate(width, height, 1, 8);
  for (std::uint32_t y = 0; y < height; ++y) {
    for (std::uint32_t x = 0; x < width; ++x) {
      const auto value = static_cast<std::uint8_t>(10 * y + x);
      EXPECT_TRUE(KvTileImage_SetPixelData(image.get(), x, y, &value, 1));
    }
  }
  return image;
}

std::vector<Bytes> rows(const Image& image) {
  std::vector<Bytes> result(KvTileImage_GetHeight(image.get()), Bytes(KvTileImage_GetWidth(image.get())));
  for (std::uint32_t y = 0; y < result.size(); ++y) {
    EXPECT_TRUE(KvTileImage_GetFullRowData(image.get(), y, result[y].data(), result[y].size()));
  }
  return result;
}

TEST(RotationTest, TurnsAndMirrorsBySight) {
  const Image source = numbered(3, 2);  // 0 1 2 over 10 11 12
  EXPECT_EQ(rows(Image(KvTileImage_Rotate(source.get(), 90, nullptr))),
            (std::vector<Bytes>{{10, 0}, {11, 1}, {12, 2}}));
  EXPECT_EQ(rows(Image(KvTileImage_Rotate(source.get(), 180, nullptr))), (std::vector<Bytes>{{12, 11, 10}, {2, 1, 0}}));
  EXPECT_EQ(rows(Image(KvTileImage_Rotate(source.get(), 270, nullptr))),
            (std::vector<Bytes>{{2, 12}, {1, 11}, {0, 10}}));
  EXPECT_EQ(rows(Image(KvTileImage_Rotate(source.get(), -90, nullptr))),
            (std::vector<Bytes>{{2, 12}, {1, 11}, {0, 10}}));
  EXPECT_EQ(rows(Image(KvTileImage_Rotate(source.get(), -720, nullptr))),
            (std::vector<Bytes>{{0, 1, 2}, {10, 11, 12}}));
  EXPECT_EQ(rows(Image(KvTileImage_HorizontalMirror(source.get(), nullptr))),
            (std::vector<Bytes>{{2, 1, 0}, {12, 11, 10}}));
  EXPECT_EQ(rows(Image(KvTileImage_VerticalMirror(source.get(), nullptr))),
            (std::vector<Bytes>{{10, 11, 12}, {0, 1, 2}}));
  // Transposed, and transposed along the other diagonal.
  EXPECT_EQ(rows(Image(KvTileImage_RotateAndMirror(source.get(), 90, KVTI_MIRROR_HORIZONTAL, true, nullptr))),
            (std::vector<Bytes>{{0, 10}, {1, 11}, {2, 12}}));
  EXPECT_EQ(rows(Image(KvTileImage_RotateAndMirror(source.get(), 90, KVTI_MIRROR_HORIZONTAL, false, nullptr))),
            (std::vector<Bytes>{{12, 2}, {11, 1}, {10, 0}}));
}

TEST(RotationTest, RefusesOtherAngles) {
  LogCapture log;
  const Image source = numbered(3, 2);
  EXPECT_EQ(KvTileImage_Rotate(source.get(), 45, nullptr), nullptr);
  EXPECT_EQ(log.take(), errors({"[RotateEngine::rotateAndMirror] rotation:45 !",
                                "[KvTileImage_RotateAndMirror] rotateAndMirror failed!"}));
  EXPECT_EQ(KvTileImage_Rotate(source.get(), std::numeric_limits<std::int32_t>::max(), nullptr), nullptr);
  EXPECT_EQ(KvTileImage_Rotate(source.get(), std::numeric_limits<std::int32_t>::min(), nullptr), nullptr);
}

TEST(RotationTest, SaysWhichTransferFailed) {
  LogCapture log;
  const Image source = allocate(4, 4, 3, 4);
  EXPECT_EQ(KvTileImage_Rotate(source.get(), 90, nullptr), nullptr);
  // The first row goes to column 3, whose pixels start at bit 36: place 4, as do the odd rows in the buffer.
  EXPECT_EQ(log.take(),
            errors({"[BitTool::fillBitsEx] dstBitBeginIndex or dstBitEndIndex out range!",
                    "[Tile::copyColData_1_2_4BitsPerSample] fill_1_2_4BitsPerSample failed",
                    "[TileImage::copyColData_1_2_4BitsPerSample] tile copyColData failed! x:3 y1:0 y2:4 tileRowCount:1 "
                    "tileColCount:1",
                    "[RotateEngine::rotateAndMirror] dstImage setRowData or setColData failed!",
                    "[KvTileImage_RotateAndMirror] rotateAndMirror failed!"}));
  EXPECT_NE(Image(KvTileImage_Rotate(source.get(), 180, nullptr)), nullptr);
}

TEST(RotationTest, WritesNothingForAnUnknownMirrorOfTheResult) {
  const Image source = numbered(3, 2);
  const Image result(KvTileImage_Mirror(source.get(), 3, nullptr));
  EXPECT_EQ(rows(result), (std::vector<Bytes>{{0, 0, 0}, {0, 0, 0}}));
  // Of the source, it counts as none.
  EXPECT_EQ(rows(Image(KvTileImage_RotateAndMirror(source.get(), 0, 3, false, nullptr))), rows(source));
}

TEST(RotationTest, KeepsFormatAndNotResolution) {
  const Image source = allocate(3, 2, 2, 16, KVTI_SAMPLEFORMAT_INT);
  KvTileImage_SetDpiX(source.get(), 300.0F);
  const Image result(KvTileImage_Rotate(source.get(), 90, nullptr));
  EXPECT_EQ(KvTileImage_GetWidth(result.get()), 2U);
  EXPECT_EQ(KvTileImage_GetHeight(result.get()), 3U);
  EXPECT_EQ(KvTileImage_GetSamplesPerPixel(result.get()), 2U);
  EXPECT_EQ(KvTileImage_GetBitsPerSample(result.get()), 16U);
  EXPECT_EQ(KvTileImage_GetSampleformat(result.get()), KVTI_SAMPLEFORMAT_INT);
  EXPECT_EQ(KvTileImage_GetDpiX(result.get()), 72.0F);
}

std::vector<std::pair<std::uint32_t, std::uint32_t>> calls;
void record(std::uint32_t index, std::uint32_t count) { calls.emplace_back(index, count); }

TEST(RotationTest, ReportsEachRow) {
  const Image source = numbered(3, 4);
  for (const std::int32_t rotation : {0, 90, 180, 270}) {
    calls.clear();
    const Image result(KvTileImage_Rotate(source.get(), rotation, &record));
    ASSERT_NE(result, nullptr);
    EXPECT_THAT(calls, ElementsAre(std::pair{0U, 4U}, std::pair{1U, 4U}, std::pair{2U, 4U}, std::pair{3U, 4U}));
  }
  calls.clear();
  const Image unwritten(KvTileImage_Mirror(source.get(), 9, &record));
  EXPECT_EQ(calls.size(), 4U);
}

void stop(std::uint32_t index, std::uint32_t) {
  if (index == 1) {
    throw std::string("stop");
  }
}

TEST(RotationTest, StopsWhenTheCallbackThrows) {
  LogCapture log;
  const Image source = numbered(3, 4);
  EXPECT_EQ(KvTileImage_Rotate(source.get(), 90, &stop), nullptr);
  EXPECT_EQ(log.take(), errors({"[RotateEngine::rotateAndMirror] unknow exception",
                                "[KvTileImage_RotateAndMirror] rotateAndMirror failed!"}));
  EXPECT_NE(Image(KvTileImage_Rotate(source.get(), 90, nullptr)), nullptr);
}

TEST(RotationTest, KeepsAResultBeyondTheBudgetInFiles) {
  KvTileImage_SetMaxMemoryStorageBytes(0x4000000);
  const Image source = allocate(7500, 1000, 1, 8);
  ASSERT_NE(source, nullptr);
  const std::uint8_t pixel = 77;
  ASSERT_TRUE(KvTileImage_SetPixelData(source.get(), 7000, 10, &pixel, 1));
  LogCapture log(ember_logger::trace);
  const Image result(KvTileImage_Rotate(source.get(), 90, nullptr));
  KvTileImage_SetMaxMemoryStorageBytes(0x40000000);
  ASSERT_NE(result, nullptr);
  EXPECT_THAT(log.take(), testing::Contains(support::LogLine{ember_logger::trace,
                                                             "[TileManager::postInitializeNormal] use file mapping "
                                                             "[bForceUseFileMapping:0]"}));
  std::uint8_t back = 0;
  EXPECT_TRUE(KvTileImage_GetPixelData(result.get(), 1000 - 1 - 10, 7000, &back, 1));
  EXPECT_EQ(back, pixel);
}

}  // namespace
