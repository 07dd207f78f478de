// Images used by several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/image.h"

namespace {

using support::Image;

constexpr std::uint32_t kThreads = 4;

template <class Work>
void onThreads(Work work) {
  std::vector<std::thread> threads;
  for (std::uint32_t index = 0; index < kThreads; ++index) {
    threads.emplace_back(work, index);
  }
  for (auto& thread : threads) {
    thread.join();
  }
}

std::uint8_t valueAt(std::uint32_t x, std::uint32_t y) { return static_cast<std::uint8_t>(x * 7 + y * 13); }

TEST(ThreadsTest, WriteDisjointRowsOfOneImage) {
  const Image image = support::allocate(500, 400, 1, 8);
  onThreads([&](std::uint32_t index) {
    std::vector<std::uint8_t> row(500);
    for (std::uint32_t y = index; y < 400; y += kThreads) {
      for (std::uint32_t x = 0; x < 500; ++x) {
        row[x] = valueAt(x, y);
      }
      EXPECT_TRUE(KvTileImage_SetFullRowData(image.get(), y, row.data(), row.size()));
    }
  });
  std::vector<std::uint8_t> column(400);
  for (std::uint32_t x = 0; x < 500; ++x) {
    ASSERT_TRUE(KvTileImage_GetFullColData(image.get(), x, column.data(), column.size()));
    for (std::uint32_t y = 0; y < 400; ++y) {
      ASSERT_EQ(column[y], valueAt(x, y)) << x << ", " << y;
    }
  }
}

TEST(ThreadsTest, WriteDisjointColumnsOfOneImage) {
  const Image image = support::allocate(400, 500, 1, 8);
  onThreads([&](std::uint32_t index) {
    std::vector<std::uint8_t> column(500);
    for (std::uint32_t x = index; x < 400; x += kThreads) {
      for (std::uint32_t y = 0; y < 500; ++y) {
        column[y] = valueAt(x, y);
      }
      EXPECT_TRUE(KvTileImage_SetFullColData(image.get(), x, column.data(), column.size()));
    }
  });
  std::vector<std::uint8_t> row(400);
  for (std::uint32_t y = 0; y < 500; ++y) {
    ASSERT_TRUE(KvTileImage_GetFullRowData(image.get(), y, row.data(), row.size()));
    for (std::uint32_t x = 0; x < 400; ++x) {
      ASSERT_EQ(row[x], valueAt(x, y)) << x << ", " << y;
    }
  }
}

TEST(ThreadsTest, CreateTurnAndReleaseImagesOfTheirOwn) {
  std::atomic<int> turned = 0;
  onThreads([&](std::uint32_t index) {
    for (std::uint32_t round = 0; round < 30; ++round) {
      const Image image = support::allocate(50 + index, 150, 1, 8);
      const std::uint8_t pixel = valueAt(index, round);
      EXPECT_TRUE(KvTileImage_SetPixelData(image.get(), 3, 140, &pixel, 1));
      const Image result(KvTileImage_Rotate(image.get(), 90, nullptr));
      std::uint8_t back = 0;
      EXPECT_TRUE(KvTileImage_GetPixelData(result.get(), 150 - 1 - 140, 3, &back, 1));
      turned += back == pixel ? 1 : 0;
    }
  });
  EXPECT_EQ(turned, static_cast<int>(kThreads * 30));
  // All budget is free again: an image whose bits are 32,768 less than 1 GiB fits, which leaves no room for 33,000
  // bytes.
  EXPECT_NE(support::allocate(32767, 32768, 1, 1), nullptr);
}

}  // namespace
