// Random transfers on images of many formats, compared with the plain model.
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
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
  TransferModel(Size size, Format format, std::uint64_t seed)
      : image_(support::allocate(size.width, size.height, format.samples, format.bits)),
        model_(size.width, size.height, format),
        random_(seed) {}

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
      TransferModel(size, {samples, bits}, seed).run(120);
      ASSERT_FALSE(HasFatalFailure());
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Bits, TransferModelTest, testing::Values(1, 2, 4, 8, 16, 24, 32, 64),
                         testing::PrintToStringParamName());

}  // namespace
