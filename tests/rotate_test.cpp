// Scanline reversal and the rotate engine, seen from inside.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <vector>

#include "core/tile_image.h"
#include "rotate/rotate_engine.h"
#include "rotate/scanline_reverse_tool.h"
#include "support/guarded_buffer.h"
#include "support/log_capture.h"

namespace {

using core::TileImage;
using rotate::RotateEngine;
using rotate::ScanlineReverseTool;
using support::errors;
using support::GuardedBuffer;
using support::LogCapture;
using testing::ElementsAre;

using Bytes = std::vector<std::uint8_t>;

// ---- Reversal

TEST(ScanlineReverseToolTest, ReversesWholePixels) {
  Bytes row{0, 1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_TRUE(ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample(row.data(), 9, 3, 8, 3));
  EXPECT_THAT(row, ElementsAre(6, 7, 8, 3, 4, 5, 0, 1, 2));
}

TEST(ScanlineReverseToolTest, ReversesPixelsOfEveryWholeByteSize) {
  for (std::uint16_t bytesPerPixel = 1; bytesPerPixel <= 20; ++bytesPerPixel) {
    for (std::uint32_t pixels = 0; pixels <= 9; ++pixels) {
      Bytes row(std::size_t{pixels} * bytesPerPixel);
      Bytes expected(row.size());
      for (std::uint32_t pixel = 0; pixel < pixels; ++pixel) {
        for (std::uint32_t byte = 0; byte < bytesPerPixel; ++byte) {
          row[pixel * bytesPerPixel + byte] = static_cast<std::uint8_t>(pixel * 20 + byte);
          expected[(pixels - 1 - pixel) * bytesPerPixel + byte] = static_cast<std::uint8_t>(pixel * 20 + byte);
        }
      }
      GuardedBuffer buffer(row);
      ASSERT_TRUE(ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample(buffer.data(), buffer.size(),
                                                                               bytesPerPixel, 8, pixels));
      EXPECT_EQ(buffer.contents(), expected) << pixels << " pixels of " << bytesPerPixel << " bytes";
      EXPECT_TRUE(buffer.intact());
    }
  }
}

TEST(ScanlineReverseToolTest, RefusesToReverseWhatTheBufferDoesNotHold) {
  LogCapture log;
  Bytes row{1, 2, 3};
  EXPECT_FALSE(ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample(row.data(), 3, 1, 16, 2));
  EXPECT_EQ(log.take(), errors({"[ScanlineReverseTool::reverseScanline_8multiple_BitsPerSample] scanlineBytes(3) < "
                                "suitableBytes(4)"}));
  EXPECT_THAT(row, ElementsAre(1, 2, 3));
}

// ---- Unpacking

TEST(ScanlineReverseToolTest, UnpacksMostSignificantBitsFirst) {
  const Bytes source{0b10110000, 0xFF};
  GuardedBuffer ones(std::uint64_t{5});
  EXPECT_TRUE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 1, ones.data(), 5, 1, 1, 5));
  EXPECT_THAT(ones.contents(), ElementsAre(1, 0, 1, 1, 0));
  EXPECT_TRUE(ones.intact());
  GuardedBuffer twos(std::uint64_t{6});
  EXPECT_TRUE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 2, twos.data(), 6, 3, 2, 2));
  EXPECT_THAT(twos.contents(), ElementsAre(2, 3, 0, 0, 3, 3));
  EXPECT_TRUE(twos.intact());
  GuardedBuffer fours(std::uint64_t{3});
  EXPECT_TRUE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 2, fours.data(), 3, 1, 4, 3));
  EXPECT_THAT(fours.contents(), ElementsAre(11, 0, 15));
  EXPECT_TRUE(fours.intact());
}

TEST(ScanlineReverseToolTest, RefusesToUnpackBetweenBuffersThatAreTooSmall) {
  LogCapture log;
  const Bytes source(2);
  Bytes target(8, 0x77);
  EXPECT_FALSE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 1, target.data(), 8, 1, 2, 5));
  EXPECT_FALSE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 2, target.data(), 4, 1, 2, 5));
  EXPECT_EQ(log.take(),
            errors({"[ScanlineReverseTool::convert_1_2_4_To_8Bits] srcScanlineBytes(1) < srcSuitableBytes(2)",
                    "[ScanlineReverseTool::convert_1_2_4_To_8Bits] destScanlineBytes(4) < destSuitableBytes(5)"}));
  EXPECT_EQ(target, Bytes(8, 0x77));
}

TEST(ScanlineReverseToolTest, GrowsAndClearsTheArrayItUnpacksInto) {
  const Bytes source{0b10100000};
  Bytes small(1, 0x77);
  EXPECT_TRUE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 1, small, 1, 1, 4));
  EXPECT_THAT(small, ElementsAre(1, 0, 1, 0));
  Bytes large(6, 0x77);
  EXPECT_TRUE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 1, large, 1, 1, 4));
  EXPECT_THAT(large, ElementsAre(1, 0, 1, 0, 0, 0));
  // A failing call has grown and cleared it already.
  Bytes failed(1, 0x77);
  LogCapture log;
  EXPECT_FALSE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 0, failed, 1, 1, 4));
  EXPECT_THAT(failed, ElementsAre(0, 0, 0, 0));
}

TEST(ScanlineReverseToolTest, ReportsAnArrayThatCannotGrow) {
  LogCapture log;
  const Bytes source(1);
  Bytes target;
  EXPECT_FALSE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 1, target, 0xFFFF, 1, 0xFFFFFFFF));
  EXPECT_EQ(log.take(), errors({"[ScanlineReverseTool::convert_1_2_4_To_8Bits] bad_alloc exception"}));
}

// ---- Packing

Bytes packed(const Bytes& source, std::uint16_t bits, std::uint64_t targetBytes) {
  GuardedBuffer target(Bytes(targetBytes, 0xFF));
  EXPECT_TRUE(ScanlineReverseTool::convert_8_To_1_2_4Bits(source.data(), source.size(), target.data(), target.size(), 1,
                                                          bits, static_cast<std::uint32_t>(source.size())));
  EXPECT_TRUE(target.intact());
  return target.contents();
}

TEST(ScanlineReverseToolTest, PacksTheLowBitsOfEachByte) {
  EXPECT_THAT(packed({0x0F, 0x01, 0x02}, 4, 2), ElementsAre(0xF1, 0x20));
  EXPECT_THAT(packed({5}, 1, 1), ElementsAre(0x80));  // 5 & 1
  EXPECT_THAT(packed({1, 0, 1, 1, 0, 0, 0, 1, 2, 3}, 1, 2), ElementsAre(0b10110001, 0b01000000));
  EXPECT_THAT(packed({0xFF, 0x1E}, 4, 1), ElementsAre(0xFE));
}

TEST(ScanlineReverseToolTest, ClearsTheWholeTarget) {
  EXPECT_THAT(packed({0x0A}, 4, 4), ElementsAre(0xA0, 0, 0, 0));
  EXPECT_THAT(packed({}, 4, 2), ElementsAre(0, 0));
}

TEST(ScanlineReverseToolTest, RunsTheFourBitPassOverPackedTwoBitSamples) {
  EXPECT_THAT(packed({1, 2, 3, 0}, 2, 1), ElementsAre(0x7E));  // 0x6C | 0x12
  // Five samples: 0xE7 | 0x32, then 0x40 | 0x13.
  EXPECT_THAT(packed({3, 2, 1, 3, 1}, 2, 2), ElementsAre(0b11110111, 0b01010011));
  // The second pass takes four bits of each sample: 0xDC | 0xFD.
  EXPECT_THAT(packed({0xF, 0xD, 0x7}, 2, 1), ElementsAre(0xFD));
  EXPECT_THAT(packed({0, 0, 0, 0, 0, 0, 0, 0}, 2, 2), ElementsAre(0, 0));
  // It ends with the packed bytes, not with the target: 0x7E as above.
  EXPECT_THAT(packed({1, 2, 3, 0}, 2, 3), ElementsAre(0x7E, 0, 0));
}

TEST(ScanlineReverseToolTest, RefusesToPackBetweenBuffersThatAreTooSmall) {
  LogCapture log;
  const Bytes source(9);
  Bytes target(2, 0x77);
  EXPECT_FALSE(ScanlineReverseTool::convert_8_To_1_2_4Bits(source.data(), 8, target.data(), 2, 3, 1, 3));
  EXPECT_FALSE(ScanlineReverseTool::convert_8_To_1_2_4Bits(source.data(), 9, target.data(), 1, 3, 1, 3));
  EXPECT_EQ(log.take(),
            errors({"[ScanlineReverseTool::convert_8_To_1_2_4Bits] srcScanlineBytes(8) < srcSuitableBytes(9)",
                    "[ScanlineReverseTool::convert_8_To_1_2_4Bits] destScanlineBytes(1) < destSuitableBytes(2)"}));
  EXPECT_EQ(target, Bytes(2, 0x77));
}

TEST(ScanlineReverseToolTest, RefusesOtherDepthsSilently) {
  LogCapture log(ember_logger::trace);
  const Bytes source(64);
  Bytes target(64, 0x77);
  for (const std::uint16_t bits : std::vector<std::uint16_t>{0, 3, 8, 16}) {
    EXPECT_FALSE(ScanlineReverseTool::convert_1_2_4_To_8Bits(source.data(), 64, target.data(), 64, 1, bits, 4));
    EXPECT_FALSE(ScanlineReverseTool::convert_8_To_1_2_4Bits(source.data(), 64, target.data(), 64, 1, bits, 4));
  }
  EXPECT_TRUE(log.take().empty());
  EXPECT_EQ(target, Bytes(64, 0x77));
}

// ---- Engine

std::unique_ptr<TileImage> image(std::uint32_t width, std::uint32_t height, std::uint32_t samples = 1,
                                 std::uint32_t bits = 8, std::uint32_t sampleformat = 1) {
  return TileImage::createNormal({width, height, samples, bits, sampleformat, false, 3});
}

TEST(RotateEngineTest, NormalisesDegrees) {
  constexpr std::array<std::pair<std::int32_t, std::uint32_t>, 12> kTable{
      {{0, 0},
       {90, 90},
       {-90, 270},
       {450, 90},
       {-720, 0},
       {360, 0},
       {-1, 359},
       {-359, 1},
       {45, 45},
       {719, 359},
       // 2147483647 = 5965232 * 360 + 127; -2147483648 = -5965233 * 360 + 232
       {std::numeric_limits<std::int32_t>::max(), 127},
       {std::numeric_limits<std::int32_t>::min(), 232}}};
  for (const auto& [degrees, normalised] : kTable) {
    EXPECT_EQ(RotateEngine::normalizeRotation(degrees), normalised) << degrees;
  }
}

TEST(RotateEngineTest, RefusesAnglesBetweenQuarterTurns) {
  LogCapture log;
  const auto source = image(4, 4);
  const auto target = image(4, 4);
  EXPECT_FALSE(RotateEngine::rotateAndMirror(*source, *target, -315, 0, true, nullptr));
  EXPECT_EQ(log.take(), errors({"[RotateEngine::rotateAndMirror] rotation:45 !"}));
}

TEST(RotateEngineTest, RefusesImagesThatDoNotFitEachOther) {
  const auto source = image(4, 6);
  struct Case {
    std::unique_ptr<TileImage> target;
    std::int32_t rotation;
  };
  std::vector<Case> cases;
  cases.push_back({image(4, 6, 2), 0});
  cases.push_back({image(4, 6, 1, 16), 0});
  cases.push_back({image(4, 6, 1, 8, 2), 0});
  cases.push_back({image(5, 6), 0});
  cases.push_back({image(4, 7), 180});
  cases.push_back({image(4, 6), 90});
  cases.push_back({image(6, 5), 270});
  cases.push_back({image(7, 4), 90});
  for (const auto& [target, rotation] : cases) {
    LogCapture log;
    EXPECT_FALSE(RotateEngine::rotateAndMirror(*source, *target, rotation, 0, true, nullptr));
    EXPECT_EQ(log.take(), errors({"[RotateEngine::rotateAndMirror] check your code!"}));
  }
  EXPECT_TRUE(RotateEngine::rotateAndMirror(*source, *image(6, 4), 90, 0, true, nullptr));
}

TEST(RotateEngineTest, RefusesToReversePixelsBeyondSixteenBits) {
  LogCapture log;
  for (const auto& [samples, bits] : {std::pair{65536U, 8U}, {1U, 65536U}, {32768U, 16U}}) {
    const auto source = image(2, 1, samples, bits);
    const auto target = image(2, 1, samples, bits);
    ASSERT_NE(source, nullptr);
    ASSERT_NE(target, nullptr);
    EXPECT_FALSE(RotateEngine::rotateAndMirror(*source, *target, 180, 0, true, nullptr));
    EXPECT_EQ(log.take(), errors({"[RotateEngine::rotateAndMirror] ScanlineReverseTool::reverseScanline failed!"}));
    EXPECT_TRUE(RotateEngine::rotateAndMirror(*source, *target, 0, 0, true, nullptr));
  }
}

void outOfMemory(std::uint32_t, std::uint32_t) { throw std::bad_alloc(); }
void stop(std::uint32_t, std::uint32_t) { throw std::runtime_error("stopped"); }

TEST(RotateEngineTest, EndsExceptionsOfTheCallback) {
  LogCapture log;
  const auto source = image(4, 4);
  const auto target = image(4, 4);
  EXPECT_FALSE(RotateEngine::rotateAndMirror(*source, *target, 0, 0, true, &outOfMemory));
  EXPECT_FALSE(RotateEngine::rotateAndMirror(*source, *target, 0, 0, true, &stop));
  EXPECT_EQ(log.take(), errors({"[RotateEngine::rotateAndMirror] bad_alloc exception",
                                "[RotateEngine::rotateAndMirror] unknow exception"}));
}

}  // namespace
