// What stands behind the exported frame: load-time values, the budget, handles without an image.
#include <gtest/gtest.h>

#include "api/tile_image_handle.h"
#include "base/process_values.h"
#include "kvtileimage/KvTileImage.h"
#include "platform/system_info.h"
#include "storage/tile_image_memory_byte_counter.h"

namespace {

TEST(ProcessValuesTest, KnowProcessorsAndGranularity) {
  EXPECT_EQ(base::processorCount(), platform::processorCount());
  EXPECT_GE(base::processorCount(), 1U);
  EXPECT_EQ(base::allocationGranularity(), platform::allocationGranularity());
  EXPECT_GT(platform::totalMemoryBytes(), std::uint64_t{1} << 28);
  EXPECT_LT(platform::totalMemoryBytes(), std::uint64_t{1} << 50);
}

TEST(BudgetExportTest, SetsTheProcessesBudget) {
  const auto counter = storage::TileImageMemoryByteCounter::instance();
  EXPECT_EQ(counter->maxBytes(), 0x40000000U);
  KvTileImage_SetMaxMemoryStorageBytes(1);
  EXPECT_EQ(counter->maxBytes(), 67108864U);
  KvTileImage_SetMaxMemoryStorageBytes(123456789012);
  EXPECT_EQ(counter->maxBytes(), 123456789012U);
  KvTileImage_SetMaxMemoryStorageBytes(0x40000000);
}

TEST(HandleTest, IsOnePointer) { EXPECT_EQ(sizeof(TileImageHandle), sizeof(void*)); }

TEST(HandleTest, WithoutAnImageGivesEmptyResults) {
  auto* const handle = new TileImageHandle;
  EXPECT_EQ(KvTileImage_GetWidth(handle), 0U);
  EXPECT_EQ(KvTileImage_GetSampleformat(handle), 0xFFFFFFFFU);
  EXPECT_EQ(KvTileImage_GetDpiX(handle), 0.0F);
  KvTileImage_SetDpiX(handle, 300.0F);
  EXPECT_EQ(KvTileImage_GetRowScanlineSuitableBytes(handle), 0U);
  std::uint8_t byte = 0;
  EXPECT_FALSE(KvTileImage_GetPixelData(handle, 0, 0, &byte, 1));
  EXPECT_EQ(KvTileImage_Rotate(handle, 90, nullptr), nullptr);
  KvTileImage_Unload(handle);
}

}  // namespace
