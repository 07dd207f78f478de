// Images used by several threads at once.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "kvtileimage/KvTileImage.h"
#include "support/image.h"
#include "support/log_capture.h"
#include "support/lookup_handles.h"

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

// ---- Images in files

TEST(BatchTest, KeepsWhatWasWrittenWhateverTheStorage) {
  support::LogCapture log(ember_logger::debug);
  KvTileImage_BeginCurrentThreadIO(nullptr);
  KvTileImage_EndCurrentThreadIO(nullptr);
  for (const bool inFiles : {false, true}) {
    const Image image =
        inFiles ? support::allocateInFiles(20, 30, 1, 8, KVTI_SCANLINE_OPERATION_COL) : support::allocate(20, 30, 1, 8);
    KvTileImage_EndCurrentThreadIO(image.get());  // of a batch that never began
    KvTileImage_BeginCurrentThreadIO(image.get());
    const std::uint8_t written = 91;
    EXPECT_TRUE(KvTileImage_SetPixelData(image.get(), 19, 29, &written, 1));
    KvTileImage_EndCurrentThreadIO(image.get());
    KvTileImage_EndCurrentThreadIO(image.get());
    std::uint8_t pixel = 0;
    EXPECT_TRUE(KvTileImage_GetPixelData(image.get(), 19, 29, &pixel, 1));
    EXPECT_EQ(pixel, 91);
  }
  EXPECT_TRUE(log.take().empty());
}

// Tiles of 256 x 4096: seams at columns 256 and 512 and at row 4096.
constexpr std::uint32_t kWidth = 600;
constexpr std::uint32_t kHeight = 6200;

// What threads wrote: everything else of the image is 0.
class Expected {
 public:
  void set(std::uint32_t x, std::uint32_t y) { pixels_[std::size_t{y} * kWidth + x] = valueAt(x, y); }

  void compareWith(TileImageHandle* image) const {
    std::vector<std::uint8_t> row(kWidth);
    for (std::uint32_t y = 0; y < kHeight; ++y) {
      ASSERT_TRUE(KvTileImage_GetFullRowData(image, y, row.data(), row.size()));
      ASSERT_TRUE(std::equal(row.begin(), row.end(), pixels_.begin() + static_cast<long>(y) * kWidth)) << "row " << y;
    }
  }

 private:
  std::vector<std::uint8_t> pixels_ = std::vector<std::uint8_t>(std::size_t{kWidth} * kHeight);
};

// Rows or columns of one thread: `count` different ones of those with this remainder, in random order.
std::vector<std::uint32_t> share(std::uint32_t begin, std::uint32_t end, std::uint32_t parts, std::uint32_t part,
                                 std::size_t count) {
  std::vector<std::uint32_t> lines;
  for (std::uint32_t line = begin + part; line < end; line += parts) {
    lines.push_back(line);
  }
  std::mt19937_64 random(20270213 + part);
  std::shuffle(lines.begin(), lines.end(), random);
  lines.resize(std::min(count, lines.size()));
  return lines;
}

void writeRow(TileImageHandle* image, std::uint32_t y, std::uint32_t x1, std::uint32_t x2) {
  std::vector<std::uint8_t> run;
  for (std::uint32_t x = x1; x < x2; ++x) {
    run.push_back(valueAt(x, y));
  }
  EXPECT_TRUE(KvTileImage_SetRowData(image, y, x1, x2, run.data(), run.size()));
}

void writeColumn(TileImageHandle* image, std::uint32_t x, std::uint32_t y1, std::uint32_t y2) {
  std::vector<std::uint8_t> run;
  for (std::uint32_t y = y1; y < y2; ++y) {
    run.push_back(valueAt(x, y));
  }
  EXPECT_TRUE(KvTileImage_SetColData(image, x, y1, y2, run.data(), run.size()));
}

bool pixelIs(TileImageHandle* image, std::uint32_t x, std::uint32_t y, std::uint8_t value) {
  std::uint8_t pixel = 0;
  return KvTileImage_GetPixelData(image, x, y, &pixel, 1) && pixel == value;
}

class FileThreadsTest : public testing::TestWithParam<bool> {
 protected:
  // Every other thread, or none, lets go of its tiles at the end.
  void finish(std::uint32_t index) const {
    if (GetParam() && index % 2 == 0) {
      KvTileImage_EndCurrentThreadIO(image_.get());
    }
  }

  Image image_ = support::allocateInFiles(kWidth, kHeight, 1, 8, KVTI_SCANLINE_OPERATION_ROWCOL);
  Expected expected_;
};

TEST_P(FileThreadsTest, WriteDisjointRowsOfOneImage) {
  ASSERT_NE(image_, nullptr);
  const auto rowsOf = [](std::uint32_t index) { return share(3900, 4300, kThreads, index, 60); };
  onThreads([&](std::uint32_t index) {
    const auto rows = rowsOf(index);
    for (const std::uint32_t y : rows) {
      writeRow(image_.get(), y, 0, kWidth);
      EXPECT_TRUE(pixelIs(image_.get(), 300, rows.front(), valueAt(300, rows.front())));
    }
    finish(index);
  });
  for (std::uint32_t index = 0; index < kThreads; ++index) {
    for (const std::uint32_t y : rowsOf(index)) {
      for (std::uint32_t x = 0; x < kWidth; ++x) {
        expected_.set(x, y);
      }
    }
  }
  expected_.compareWith(image_.get());
}

TEST_P(FileThreadsTest, WriteDisjointColumnsOfOneImage) {
  ASSERT_NE(image_, nullptr);
  const auto columnsOf = [](std::uint32_t index) { return share(0, kWidth, kThreads, index, 60); };
  onThreads([&](std::uint32_t index) {
    const auto columns = columnsOf(index);
    for (const std::uint32_t x : columns) {
      writeColumn(image_.get(), x, 0, kHeight);
      EXPECT_TRUE(pixelIs(image_.get(), columns.front(), 4096, valueAt(columns.front(), 4096)));
    }
    finish(index);
  });
  for (std::uint32_t index = 0; index < kThreads; ++index) {
    for (const std::uint32_t x : columnsOf(index)) {
      for (std::uint32_t y = 0; y < kHeight; ++y) {
        expected_.set(x, y);
      }
    }
  }
  expected_.compareWith(image_.get());
}

// Half of the threads write rows left of column 300, the other half columns from there on: all share tiles.
TEST_P(FileThreadsTest, WriteRowsAndColumnsOfOneImageAtTheSameTime) {
  constexpr std::uint32_t kMiddle = 300;
  ASSERT_NE(image_, nullptr);
  const auto rowsOf = [](std::uint32_t index) { return share(4000, 4200, kThreads / 2, index / 2, 80); };
  const auto columnsOf = [](std::uint32_t index) { return share(kMiddle, kWidth, kThreads / 2, index / 2, 80); };
  onThreads([&](std::uint32_t index) {
    if (index % 2 == 0) {
      for (const std::uint32_t y : rowsOf(index)) {
        writeRow(image_.get(), y, 0, kMiddle);
        EXPECT_TRUE(pixelIs(image_.get(), 250, y, valueAt(250, y)));
      }
    } else {
      for (const std::uint32_t x : columnsOf(index)) {
        writeColumn(image_.get(), x, 0, kHeight);
        EXPECT_TRUE(pixelIs(image_.get(), x, 6000, valueAt(x, 6000)));
      }
    }
    finish(index / 2);
  });
  for (std::uint32_t index = 0; index < kThreads; index += 2) {
    for (const std::uint32_t y : rowsOf(index)) {
      for (std::uint32_t x = 0; x < kMiddle; ++x) {
        expected_.set(x, y);
      }
    }
    for (const std::uint32_t x : columnsOf(index)) {
      for (std::uint32_t y = 0; y < kHeight; ++y) {
        expected_.set(x, y);
      }
    }
  }
  expected_.compareWith(image_.get());
}

INSTANTIATE_TEST_SUITE_P(WithAndWithoutTheEndOfABatch, FileThreadsTest, testing::Bool(),
                         testing::PrintToStringParamName());

TEST(ThreadsTest, CreateUseAndReleaseImagesInFilesOfTheirOwn) {
  onThreads([](std::uint32_t index) {
    for (std::uint32_t round = 0; round < 10; ++round) {
      const Image image = support::allocateInFiles(300, 4100, 1, 8, KVTI_SCANLINE_OPERATION_ROWCOL);
      ASSERT_NE(image, nullptr);
      writeRow(image.get(), 4095 + index, 200, 300);
      writeColumn(image.get(), 255 + index, 4000, 4095);
      EXPECT_TRUE(pixelIs(image.get(), 256, 4095 + index, valueAt(256, 4095 + index)));
      EXPECT_TRUE(pixelIs(image.get(), 255 + index, 4001, valueAt(255 + index, 4001)));
      EXPECT_TRUE(pixelIs(image.get(), 0, 0, 0));
    }
  });
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

// ---- Tone curves

// Each thread has its own images; all use the tables and the map of the others, and let go of them at different times.
TEST(CurveThreadsTest, ShareTablesAndMaps) {
  constexpr std::uint32_t kRounds = 20;
  const support::Table inverted(KvTileImage_CreateLookupTable8_BrightnessContrastGamma(0.0, 0.0, 1.0, true));
  const support::TableMap map(KvTileImage_CreateLookupTableMap8());
  ASSERT_TRUE(KvTileImage_InsertLookupTable(map.get(), inverted.get(), 1));
  onThreads([&](std::uint32_t index) {
    const std::uint32_t width = 100 + index;
    const Image image = support::allocate(width, 50, 2, 8);
    std::vector<std::uint8_t> row(std::size_t{width} * 2);
    for (std::uint32_t round = 0; round < kRounds; ++round) {
      const support::TableMap own(KvTileImage_CreateLookupTableMap8());
      EXPECT_TRUE(KvTileImage_InsertLookupTable(own.get(), inverted.get(), 0));
      EXPECT_TRUE(KvTileImage_AdjustCurveOfAllChannels(image.get(), inverted.get(), nullptr));
      EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), map.get(), nullptr));
      EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), own.get(), nullptr));
      // Both samples have been inverted twice since the round began.
      for (std::uint32_t y = 0; y < 50; ++y) {
        EXPECT_TRUE(KvTileImage_GetFullRowData(image.get(), y, row.data(), row.size()));
        EXPECT_EQ(std::count(row.begin(), row.end(), 0), static_cast<long>(row.size()));
      }
    }
  });
}

// The map is the last to use the table, on whichever thread that is.
TEST(CurveThreadsTest, DestroyHandlesOfSharedTables) {
  for (int round = 0; round < 50; ++round) {
    std::vector<support::Table> handles;
    handles.emplace_back(KvTileImage_CreateLookupTable16_Gamma(2.0));
    for (std::uint32_t index = 0; index < kThreads; ++index) {
      handles.emplace_back(KvTileImage_CreateLookupTableMap16());
      ASSERT_TRUE(KvTileImage_InsertLookupTable(handles.back().get(), handles.front().get(), 0));
    }
    std::atomic<std::uint32_t> waiting = kThreads;
    onThreads([&](std::uint32_t index) {
      const Image image = support::allocate(30, 2, 1, 16);
      for (--waiting; waiting != 0;) {
      }
      if (index == 0) {
        handles.front().reset();
      }
      EXPECT_TRUE(KvTileImage_AdjustCurveOfSomeChannels(image.get(), handles[index + 1].get(), nullptr));
      handles[index + 1].reset();
    });
  }
}

// Each thread inverts the one image an odd number of times, in its turn.
TEST(CurveThreadsTest, TakeTurnsWithOneImage) {
  const Image image = support::allocateInFiles(300, 40, 1, 8, KVTI_SCANLINE_OPERATION_ROW);
  std::mutex turn;
  onThreads([&](std::uint32_t index) {
    for (std::uint32_t round = 0; round < 2 * index + 3; ++round) {
      const std::lock_guard lock(turn);
      EXPECT_TRUE(
          KvTileImage_AdjustCurveOfAllChannels_BrightnessContrastGamma(image.get(), 0.0, 0.0, 1.0, true, nullptr));
    }
    KvTileImage_EndCurrentThreadIO(image.get());
  });
  // 3 + 5 + 7 + 9 times.
  std::vector<std::uint8_t> column(40, 1);
  for (std::uint32_t x = 0; x < 300; ++x) {
    ASSERT_TRUE(KvTileImage_GetFullColData(image.get(), x, column.data(), column.size()));
    ASSERT_EQ(std::count(column.begin(), column.end(), 0), 40) << x;
  }
}

}  // namespace
