// Transfer of pixels, rows and columns between images and callers' buffers.
#include "api/tile_image_handle.h"
#include "kvtileimage/KvTileImage.h"

using core::Direction;
using core::TileImage;

namespace {

// The image copies both ways through one pointer; it only reads from the buffer of a Direction::set.
uint8_t* asSource(const uint8_t* buffer) { return const_cast<uint8_t*>(buffer); }

}  // namespace

void KvTileImage_BeginCurrentThreadIO(TileImageHandle* image) noexcept {
  api::withImage(image, false, [](TileImage& it) {
    it.beginCurrentThreadIO();
    return true;
  });
}

void KvTileImage_EndCurrentThreadIO(TileImageHandle* image) noexcept {
  api::withImage(image, false, [](TileImage& it) {
    it.endCurrentThreadIO();
    return true;
  });
}

bool KvTileImage_GetPixelData(TileImageHandle* image, uint32_t x, uint32_t y, uint8_t* buffer,
                              uint64_t bufferBytes) noexcept {
  return api::withImage(
      image, false, [&](TileImage& it) { return it.copyRowData(y, x, x + 1, buffer, bufferBytes, Direction::get); });
}

bool KvTileImage_SetPixelData(TileImageHandle* image, uint32_t x, uint32_t y, const uint8_t* buffer,
                              uint64_t bufferBytes) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return it.copyRowData(y, x, x + 1, asSource(buffer), bufferBytes, Direction::set);
  });
}

bool KvTileImage_GetRowData(TileImageHandle* image, uint32_t y, uint32_t x1, uint32_t x2, uint8_t* buffer,
                            uint64_t bufferBytes) noexcept {
  return api::withImage(image, false,
                        [&](TileImage& it) { return it.copyRowData(y, x1, x2, buffer, bufferBytes, Direction::get); });
}

bool KvTileImage_SetRowData(TileImageHandle* image, uint32_t y, uint32_t x1, uint32_t x2, const uint8_t* buffer,
                            uint64_t bufferBytes) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return it.copyRowData(y, x1, x2, asSource(buffer), bufferBytes, Direction::set);
  });
}

bool KvTileImage_GetColData(TileImageHandle* image, uint32_t x, uint32_t y1, uint32_t y2, uint8_t* buffer,
                            uint64_t bufferBytes) noexcept {
  return api::withImage(image, false,
                        [&](TileImage& it) { return it.copyColData(x, y1, y2, buffer, bufferBytes, Direction::get); });
}

bool KvTileImage_SetColData(TileImageHandle* image, uint32_t x, uint32_t y1, uint32_t y2, const uint8_t* buffer,
                            uint64_t bufferBytes) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return it.copyColData(x, y1, y2, asSource(buffer), bufferBytes, Direction::set);
  });
}

bool KvTileImage_GetFullRowData(TileImageHandle* image, uint32_t y, uint8_t* buffer, uint64_t bufferBytes) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return it.copyRowData(y, 0, it.width(), buffer, bufferBytes, Direction::get);
  });
}

bool KvTileImage_SetFullRowData(TileImageHandle* image, uint32_t y, const uint8_t* buffer,
                                uint64_t bufferBytes) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return it.copyRowData(y, 0, it.width(), asSource(buffer), bufferBytes, Direction::set);
  });
}

bool KvTileImage_GetFullColData(TileImageHandle* image, uint32_t x, uint8_t* buffer, uint64_t bufferBytes) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return it.copyColData(x, 0, it.height(), buffer, bufferBytes, Direction::get);
  });
}

bool KvTileImage_SetFullColData(TileImageHandle* image, uint32_t x, const uint8_t* buffer,
                                uint64_t bufferBytes) noexcept {
  return api::withImage(image, false, [&](TileImage& it) {
    return it.copyColData(x, 0, it.height(), asSource(buffer), bufferBytes, Direction::set);
  });
}
