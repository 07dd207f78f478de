// Version, memory budget and helpers that need no image.
#include "core/scaled_length.h"
#include "kvtileimage/KvTileImage.h"
#include "storage/tile_image_memory_byte_counter.h"

void KvTileImage_VersionNum(uint32_t* major, uint32_t* minor, uint32_t* patch) noexcept {
  if (major != nullptr) {
    *major = 2;
  }
  if (minor != nullptr) {
    *minor = 0;
  }
  if (patch != nullptr) {
    *patch = 15;
  }
}

void KvTileImage_VersionString(const char** out) noexcept {
  if (out != nullptr) {
    *out = "2.0.15";
  }
}

void KvTileImage_SetMaxMemoryStorageBytes(uint64_t bytes) noexcept {
  try {
    storage::TileImageMemoryByteCounter::instance()->setMaxBytes(bytes);
  } catch (...) {  // no memory for the counter itself: there is none for an image either
  }
}

uint64_t KvTileImage_ComputeScaledPixelCount(uint64_t count, double scale) noexcept {
  return core::scaledLength(count, scale);
}
