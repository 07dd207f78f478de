// Random transfers on images of many formats, compared with the plain model.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/guarded_buffer.h"
#include "support/image.h"
#include "support/log_capture.h"
#include "support/plain_image.h"

namespace {

using support::Format;
using support::GuardedBuffer;
using support::Image;
using support::PlainImage;
using support::Samples;

struct Size {
  std::uint32_t width;
  std::uint32_t height;
};

// One image and its model, taken through the same random transfers.
class TransferModel {
 public:
  TransferModel(Image image, Size size, Format format, std::uint64_t seed)
      : image_(std::move(image)), model_(size.width, size.height, format), random_(seed) {}

  void run(int transfers) {
    ASSERT_NE(image_, nullptr);
    for (int i = 0; i < transfers; ++i) {
      transfer();
      if (testing::Test::HasFatalFailure()) {
        return;
      }
    }
    compareAll();
  }

 private:
  struct Range {
    std::uint32_t begin;
    std::uint32_t end;
    std::uint32_t length() const { return end - begin; }
  };

  std::uint32_t below(std::uint32_t bound) { return static_cast<std::uint32_t>(random_() % bound); }

  Range range(std::uint32_t size) {
    if (below(4) == 0) {
      return {0, size};
    }
    const std::uint32_t begin = below(size);
    return {begin, begin + 1 + below(size - begin)};
  }

  // A buffer of exactly the run's bytes, or some more, that holds `run` and noise in the bits behind it.
  GuardedBuffer bufferWith(const Samples& run, std::uint64_t pixels) {
    std::vector<std::uint8_t> bytes(support::runBytes(model_.format(), pixels) + below(3));
    for (auto& byte : bytes) {
      byte = static_cast<std::uint8_t>(random_());
    }
    support::pack(model_.format(), run, bytes);
    return GuardedBuffer(bytes);
  }

  // The first pixel of a column transfer that is refused, or the length if all are moved. Packed pixels of 8 bits and
  // more fail where they start at the same bit of a byte in the tile row and in the buffer, the first bit aside. Tile
  // rows of packed formats start on whole bytes, so the place in the image row decides.
  std::uint32_t firstRefused(std::uint32_t x, std::uint32_t length) const {
    const std::uint32_t bits = model_.format().bitsPerPixel();
    if (!support::isPacked(model_.format().bits) || bits < 8) {
      return length;
    }
    for (std::uint64_t i = 0; i < length; ++i) {
      const std::uint64_t place = i * bits % 8;
      if (place != 0 && place == std::uint64_t{x} * bits % 8) {
        return static_cast<std::uint32_t>(i);
      }
    }
    return length;
  }

  void transfer() {
    if (below(8) == 0) {
      KvTileImage_BeginCurrentThreadIO(image_.get());
    }
    if (below(8) == 0) {
      KvTileImage_EndCurrentThreadIO(image_.get());
    }
    const bool write = below(2) == 0;
    switch (below(5)) {
      case 0:
        return pixel(below(model_.width()), below(model_.height()), write);
      case 1:
        return row(below(model_.height()), range(model_.width()), write, false);
      case 2:
        return row(below(model_.height()), {0, model_.width()}, write, true);
      case 3:
        return column(below(model_.width()), range(model_.height()), write, false);
      default:
        return column(below(model_.width()), {0, model_.height()}, write, true);
    }
  }

  void pixel(std::uint32_t x, std::uint32_t y, bool write) {
    const Samples fresh = support::randomRun(model_.format(), 1, random_);
    GuardedBuffer buffer = bufferWith(fresh, 1);
    if (write) {
      ASSERT_TRUE(KvTileImage_SetPixelData(image_.get(), x, y, buffer.data(), buffer.size()));
      model_.setRow(y, x, fresh, 1);
    } else {
      auto expected = buffer.contents();
      support::pack(model_.format(), model_.row(y, x, x + 1), expected);
      ASSERT_TRUE(KvTileImage_GetPixelData(image_.get(), x, y, buffer.data(), buffer.size()));
      ASSERT_EQ(buffer.contents(), expected) << "pixel " << x << ", " << y;
    }
    ASSERT_TRUE(buffer.intact());
  }

  void row(std::uint32_t y, Range x, bool write, bool full) {
    const Samples fresh = support::randomRun(model_.format(), x.length(), random_);
    GuardedBuffer buffer = bufferWith(fresh, x.length());
    if (write) {
      ASSERT_TRUE(full ? KvTileImage_SetFullRowData(image_.get(), y, buffer.data(), buffer.size())
                       : KvTileImage_SetRowData(image_.get(), y, x.begin, x.end, buffer.data(), buffer.size()));
      model_.setRow(y, x.begin, fresh, x.length());
    } else {
      auto expected = buffer.contents();
      support::pack(model_.format(), model_.row(y, x.begin, x.end), expected);
      ASSERT_TRUE(full ? KvTileImage_GetFullRowData(image_.get(), y, buffer.data(), buffer.size())
                       : KvTileImage_GetRowData(image_.get(), y, x.begin, x.end, buffer.data(), buffer.size()));
      ASSERT_EQ(buffer.contents(), expected) << "row " << y << " [" << x.begin << ", " << x.end << ")";
    }
    ASSERT_TRUE(buffer.intact());
  }

  void column(std::uint32_t x, Range y, bool write, bool full) {
    const std::uint32_t moved = firstRefused(x, y.length());
    const bool succeeds = moved == y.length();
    const Samples fresh = support::randomRun(model_.format(), y.length(), random_);
    GuardedBuffer buffer = bufferWith(fresh, y.length());
    if (write) {
      ASSERT_EQ(full ? KvTileImage_SetFullColData(image_.get(), x, buffer.data(), buffer.size())
                     : KvTileImage_SetColData(image_.get(), x, y.begin, y.end, buffer.data(), buffer.size()),
                succeeds);
      model_.setColumn(x, y.begin, fresh, moved);
    } else {
      auto expected = buffer.contents();
      support::pack(model_.format(), model_.column(x, y.begin, y.begin + moved), expected);
      ASSERT_EQ(full ? KvTileImage_GetFullColData(image_.get(), x, buffer.data(), buffer.size())
                     : KvTileImage_GetColData(image_.get(), x, y.begin, y.end, buffer.data(), buffer.size()),
                succeeds);
      ASSERT_EQ(buffer.contents(), expected) << "column " << x << " [" << y.begin << ", " << y.end << ")";
    }
    ASSERT_TRUE(buffer.intact());
  }

  void compareAll() {
    for (std::uint32_t y = 0; y < model_.height(); ++y) {
      std::vector<std::uint8_t> actual(support::runBytes(model_.format(), model_.width()));
      ASSERT_TRUE(KvTileImage_GetFullRowData(image_.get(), y, actual.data(), actual.size()));
      ASSERT_EQ(actual, support::packed(model_.format(), model_.row(y, 0, model_.width()))) << "row " << y;
    }
  }

  Image image_;
  PlainImage model_;
  std::mt19937_64 random_;
};

class TransferModelTest : public testing::TestWithParam<std::uint32_t> {};

TEST_P(TransferModelTest, AgreesWithAPlainImage) {
  const support::LogCapture quiet;
  const std::uint32_t bits = GetParam();
  std::uint64_t seed = 20261121 + bits;
  for (std::uint32_t samples = 1; samples <= 5; ++samples) {
    // Inside one tile, across the seams of 128 rows and of 128 .. 1024 columns, and thin images.
    for (const Size size : {Size{1, 1}, {7, 5}, {130, 131}, {1030, 20}, {300, 260}, {1, 400}, {2100, 1}}) {
      ++seed;
      SCOPED_TRACE(std::to_string(size.width) + " x " + std::to_string(size.height) + ", " + std::to_string(samples) +
                   " x " + std::to_string(bits) + " bits, seed " + std::to_string(seed));
      TransferModel(support::allocate(size.width, size.height, samples, bits), size, {samples, bits}, seed).run(120);
      ASSERT_FALSE(HasFatalFailure());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Bits, TransferModelTest, testing::Values(1, 2, 4, 8, 16, 24, 32, 64),
                         testing::PrintToStringParamName());

struct InFiles {
  std::uint32_t operation;
  Size size;
};

// Images a little larger than a tile in files, whose sides are 8 / bits times as long for packed samples. Thin ones
// keep the model small.
std::vector<InFiles> acrossFileTiles(std::uint32_t bits) {
  const std::uint32_t scale = support::isPacked(bits) ? 8 / bits : 1;
  std::vector<InFiles> images{
      {KVTI_SCANLINE_OPERATION_ROW, {4096 * scale + 3, 2}},    {KVTI_SCANLINE_OPERATION_ROW, {2, 8192 * scale + 3}},
      {KVTI_SCANLINE_OPERATION_COL, {2048 * scale + 3, 2}},    {KVTI_SCANLINE_OPERATION_COL, {2, 3072 * scale + 3}},
      {KVTI_SCANLINE_OPERATION_ROWCOL, {4096 * scale + 3, 2}},  // 4096 x 256
      {KVTI_SCANLINE_OPERATION_ROWCOL, {2, 4096 * scale + 3}}};
  if (scale == 1) {  // both ways at once
    images.push_back({KVTI_SCANLINE_OPERATION_ROWCOL, {259, 4099}});
  }
  return images;
}

class FileTransferModelTest : public testing::TestWithParam<std::uint32_t> {};

TEST_P(FileTransferModelTest, AgreesWithAPlainImage) {
  const support::LogCapture quiet;
  const std::uint32_t bits = GetParam();
  std::uint64_t seed = 20270212 + bits;
  for (const std::uint32_t samples : {1U, 3U}) {
    for (const auto& [operation, size] : acrossFileTiles(bits)) {
      ++seed;
      SCOPED_TRACE(std::to_string(size.width) + " x " + std::to_string(size.height) + ", " + std::to_string(samples) +
                   " x " + std::to_string(bits) + " bits, operation " + std::to_string(operation) + ", seed " +
                   std::to_string(seed));
      Image image = support::allocateInFiles(size.width, size.height, samples, bits, operation);
      TransferModel(std::move(image), size, {samples, bits}, seed).run(60);
      ASSERT_FALSE(HasFatalFailure());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Bits, FileTransferModelTest, testing::Values(1, 2, 4, 8, 16, 24),
                         testing::PrintToStringParamName());

// Some rows and columns of an image too large for the plain model, whose pixels follow from their place.
class FileTileCornerTest : public testing::TestWithParam<std::uint32_t> {
 protected:
  std::uint64_t sampleAt(std::uint32_t x, std::uint32_t y) const {
    return (x * 2654435761U ^ y * 2246822519U) >> 13 & ((1U << GetParam()) - 1);
  }
};

TEST_P(FileTileCornerTest, IsCrossedByRowsAndColumns) {
  const Format format{1, GetParam()};
  const std::uint32_t scale = 8 / format.bits;
  const Size size{4096 * scale + 5, 256 * scale + 3};  // tiles of 4096 * scale x 256 * scale
  const Image image = support::allocateInFiles(size.width, size.height, 1, format.bits, KVTI_SCANLINE_OPERATION_ROWCOL);
  ASSERT_NE(image, nullptr);
  const std::vector<std::uint32_t> rows{0, 256 * scale - 1, 256 * scale, size.height - 1};
  const std::vector<std::uint32_t> columns{0, 4096 * scale - 1, 4096 * scale, size.width - 1};
  const auto row = [&](std::uint32_t y) {
    Samples run;
    for (std::uint32_t x = 0; x < size.width; ++x) {
      run.push_back(sampleAt(x, y));
    }
    return support::packed(format, run);
  };
  const auto column = [&](std::uint32_t x) {
    Samples run;
    for (std::uint32_t y = 0; y < size.height; ++y) {
      run.push_back(sampleAt(x, y));
    }
    return support::packed(format, run);
  };
  for (const std::uint32_t y : rows) {
    const auto run = row(y);
    ASSERT_TRUE(KvTileImage_SetFullRowData(image.get(), y, run.data(), run.size()));
  }
  for (const std::uint32_t x : columns) {
    const auto run = column(x);
    ASSERT_TRUE(KvTileImage_SetFullColData(image.get(), x, run.data(), run.size()));
  }
  for (const std::uint32_t y : rows) {
    auto run = row(y);
    const auto expected = std::exchange(run, std::vector<std::uint8_t>(run.size()));
    ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), y, run.data(), run.size()));
    ASSERT_EQ(run, expected) << "row " << y;
  }
  for (const std::uint32_t x : columns) {
    auto run = column(x);
    const auto expected = std::exchange(run, std::vector<std::uint8_t>(run.size()));
    ASSERT_TRUE(KvTileImage_GetFullColData(image.get(), x, run.data(), run.size()));
    ASSERT_EQ(run, expected) << "column " << x;
  }
  // A row that no one wrote has the columns' pixels only.
  Samples between(size.width);
  for (const std::uint32_t x : columns) {
    between[x] = sampleAt(x, 100);
  }
  std::vector<std::uint8_t> run(support::runBytes(format, size.width));
  ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), 100, run.data(), run.size()));
  EXPECT_EQ(run, support::packed(format, between));
}

INSTANTIATE_TEST_SUITE_P(Bits, FileTileCornerTest, testing::Values(1, 2, 4), testing::PrintToStringParamName());

}  // namespace
