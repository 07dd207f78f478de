// All turns and mirrors of images of many formats, compared with the plain model.
#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/image.h"
#include "support/log_capture.h"
#include "support/plain_image.h"

namespace {

using support::Format;
using support::Image;
using support::PlainImage;
using support::Samples;

struct Point {
  std::uint32_t x;
  std::uint32_t y;
};

// Where the pixel (x, y) of a width x height image goes when the image is turned clockwise.
Point turned(Point p, std::uint32_t rotation, std::uint32_t width, std::uint32_t height) {
  switch (rotation) {
    case 90:
      return {height - 1 - p.y, p.x};
    case 180:
      return {width - 1 - p.x, height - 1 - p.y};
    case 270:
      return {p.y, width - 1 - p.x};
    default:
      return p;
  }
}

Point mirrored(Point p, std::uint32_t mirror, std::uint32_t width, std::uint32_t height) {
  switch (mirror) {
    case 1:
      return {width - 1 - p.x, p.y};
    case 2:
      return {p.x, height - 1 - p.y};
    default:
      return p;
  }
}

struct Turn {
  std::uint32_t rotation;
  std::uint32_t mirror;
  bool mirrorAfterRotation;
};

Point moved(Point p, const Turn& turn, std::uint32_t width, std::uint32_t height) {
  if (!turn.mirrorAfterRotation) {
    return turned(mirrored(p, turn.mirror, width, height), turn.rotation, width, height);
  }
  const bool swapped = turn.rotation % 180 != 0;
  return mirrored(turned(p, turn.rotation, width, height), turn.mirror, swapped ? height : width,
                  swapped ? width : height);
}

// Whether the pixels of a source row stand in the result in the opposite order.
bool rowsAreReversed(const Turn& turn) {
  const Point first = moved({0, 0}, turn, 2, 2);
  const Point second = moved({1, 0}, turn, 2, 2);
  return second.x < first.x || second.y < first.y;
}

// What packing a scanline of 2-bit samples makes of them: to each packed byte the low 4 bits of two samples are added,
// those of samples 2j and 2j + 1 to byte j.
Samples packedTwice(const Samples& scanline) {
  std::vector<unsigned> bytes((scanline.size() + 3) / 4);
  for (std::size_t i = 0; i < scanline.size(); ++i) {
    bytes[i / 4] |= static_cast<unsigned>(scanline[i]) << (6 - 2 * (i % 4));
  }
  for (std::size_t j = 0; j < bytes.size(); ++j) {
    for (std::size_t k = 0; k < 2 && 2 * j + k < scanline.size(); ++k) {
      bytes[j] |= static_cast<unsigned>(scanline[2 * j + k]) << (4 - 4 * k);
    }
  }
  Samples altered(scanline.size());
  for (std::size_t i = 0; i < altered.size(); ++i) {
    altered[i] = bytes[i / 4] >> (6 - 2 * (i % 4)) & 3;
  }
  return altered;
}

// The whole result, or nothing where a column transfer refuses the format.
std::optional<PlainImage> expectedResult(const PlainImage& source, const Turn& turn) {
  const bool swapped = turn.rotation % 180 != 0;
  PlainImage result(swapped ? source.height() : source.width(), swapped ? source.width() : source.height(),
                    source.format());
  for (std::uint32_t y = 0; y < source.height(); ++y) {
    for (std::uint32_t x = 0; x < source.width(); ++x) {
      const Point to = moved({x, y}, turn, source.width(), source.height());
      for (std::uint32_t sample = 0; sample < source.format().samples; ++sample) {
        result.at(to.x, to.y, sample) = source.at(x, y, sample);
      }
    }
  }
  if (source.format().bits == 2 && rowsAreReversed(turn)) {
    // Each source row was packed anew before it was written, as a row or as a column of the result.
    if (swapped) {
      for (std::uint32_t x = 0; x < result.width(); ++x) {
        result.setColumn(x, 0, packedTwice(result.column(x, 0, result.height())), result.height());
      }
    } else {
      for (std::uint32_t y = 0; y < result.height(); ++y) {
        result.setRow(y, 0, packedTwice(result.row(y, 0, result.width())), result.width());
      }
    }
  }
  const std::uint32_t bits = source.format().bitsPerPixel();
  if (swapped && support::isPacked(source.format().bits) && bits > 8) {
    for (std::uint64_t x = 0; x < result.width(); ++x) {
      for (std::uint64_t y = 0; y < result.height(); ++y) {
        if (y * bits % 8 != 0 && y * bits % 8 == x * bits % 8) {
          return std::nullopt;
        }
      }
    }
  }
  return result;
}

std::vector<std::vector<std::uint8_t>> rowsOf(const PlainImage& image) {
  std::vector<std::vector<std::uint8_t>> rows;
  for (std::uint32_t y = 0; y < image.height(); ++y) {
    rows.push_back(support::packed(image.format(), image.row(y, 0, image.width())));
  }
  return rows;
}

std::vector<std::vector<std::uint8_t>> rowsOf(const Image& image) {
  std::vector<std::vector<std::uint8_t>> rows(
      KvTileImage_GetHeight(image.get()),
      std::vector<std::uint8_t>(KvTileImage_GetRowScanlineSuitableBytes(image.get())));
  for (std::uint32_t y = 0; y < rows.size(); ++y) {
    EXPECT_TRUE(KvTileImage_GetFullRowData(image.get(), y, rows[y].data(), rows[y].size()));
  }
  return rows;
}

void checkAllTurns(std::uint32_t width, std::uint32_t height, Format format, std::uint64_t seed) {
  std::mt19937_64 random(seed);
  PlainImage model(width, height, format);
  const Image source = support::allocate(width, height, format.samples, format.bits);
  ASSERT_NE(source, nullptr);
  for (std::uint32_t y = 0; y < height; ++y) {
    const Samples row = support::randomRun(format, width, random);
    model.setRow(y, 0, row, width);
    const auto bytes = support::packed(format, row);
    ASSERT_TRUE(KvTileImage_SetFullRowData(source.get(), y, bytes.data(), bytes.size()));
  }
  for (const std::uint32_t rotation : {0U, 90U, 180U, 270U}) {
    for (const std::uint32_t mirror : {0U, 1U, 2U}) {
      for (const bool after : {true, false}) {
        SCOPED_TRACE("rotation " + std::to_string(rotation) + ", mirror " + std::to_string(mirror) +
                     (after ? " after" : " before"));
        const Image result(
            KvTileImage_RotateAndMirror(source.get(), static_cast<std::int32_t>(rotation), mirror, after, nullptr));
        const auto expected = expectedResult(model, {rotation, mirror, after});
        ASSERT_EQ(result != nullptr, expected.has_value());
        if (expected) {
          ASSERT_EQ(rowsOf(result), rowsOf(*expected));
        }
      }
    }
  }
  ASSERT_EQ(rowsOf(source), rowsOf(model)) << "the source has changed";
}

class RotationModelTest : public testing::TestWithParam<std::uint32_t> {};

TEST_P(RotationModelTest, AgreesWithAPlainImage) {
  const support::LogCapture quiet;
  const std::uint32_t bits = GetParam();
  std::uint64_t seed = 20261121 + 1000 * bits;
  for (std::uint32_t samples = 1; samples <= 5; ++samples) {
    for (const auto& [width, height] : {std::pair{1U, 1U}, {5U, 3U}, {1U, 9U}, {133U, 150U}, {1030U, 9U}}) {
      ++seed;
      SCOPED_TRACE(std::to_string(width) + " x " + std::to_string(height) + ", " + std::to_string(samples) + " x " +
                   std::to_string(bits) + " bits, seed " + std::to_string(seed));
      checkAllTurns(width, height, {samples, bits}, seed);
      ASSERT_FALSE(HasFatalFailure());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Bits, RotationModelTest, testing::Values(1, 2, 4, 8, 16, 24, 32, 64),
                         testing::PrintToStringParamName());

TEST(RotationTwiceTest, HorizontalMirrorsCancelEachOther) {
  std::mt19937_64 random(7);
  for (const std::uint32_t bits : {1U, 8U, 16U}) {
    const Format format{3, bits};
    const Image source = support::allocate(1100, 140, 3, bits);
    for (std::uint32_t y = 0; y < 140; ++y) {
      const auto bytes = support::packed(format, support::randomRun(format, 1100, random));
      ASSERT_TRUE(KvTileImage_SetFullRowData(source.get(), y, bytes.data(), bytes.size()));
    }
    const Image once(KvTileImage_HorizontalMirror(source.get(), nullptr));
    const Image twice(KvTileImage_HorizontalMirror(once.get(), nullptr));
    EXPECT_NE(rowsOf(once), rowsOf(source));
    EXPECT_EQ(rowsOf(twice), rowsOf(source));
  }
}

}  // namespace
