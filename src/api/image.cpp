// Images: allocation, release, properties and buffer sizes.
#include "api/tile_image_handle.h"
#include "kvtileimage/KvTileImage.h"

using core::TileImage;

TileImageHandle* KvTileImage_AllocEx(uint32_t width, uint32_t height, uint32_t samplesPerPixel, uint32_t bitsPerSample,
                                     uint32_t sampleformat, uint8_t bForceUseFileMapping,
                                     uint32_t scanlineOperation) noexcept {
  try {
    return api::wrap(TileImage::createNormal(
        {width, height, samplesPerPixel, bitsPerSample, sampleformat, bForceUseFileMapping != 0, scanlineOperation}));
  } catch (...) {
    return nullptr;
  }
}

TileImageHandle* KvTileImage_Alloc(uint32_t width, uint32_t height, uint32_t samplesPerPixel, uint32_t bitsPerSample,
                                   uint32_t sampleformat, uint8_t bForceUseFileMapping) noexcept {
  return KvTileImage_AllocEx(width, height, samplesPerPixel, bitsPerSample, sampleformat, bForceUseFileMapping,
                             KVTI_SCANLINE_OPERATION_ROWCOL);
}

void KvTileImage_Unload(TileImageHandle* image) noexcept {
  if (image != nullptr) {
    api::letGo(std::move(image->image));
    delete image;
  }
}

uint32_t KvTileImage_GetWidth(const TileImageHandle* image) noexcept {
  return api::withImage(image, 0U, [](const TileImage& it) { return it.width(); });
}

uint32_t KvTileImage_GetHeight(const TileImageHandle* image) noexcept {
  return api::withImage(image, 0U, [](const TileImage& it) { return it.height(); });
}

uint32_t KvTileImage_GetSamplesPerPixel(const TileImageHandle* image) noexcept {
  return api::withImage(image, 0U, [](const TileImage& it) { return it.format().samplesPerPixel; });
}

uint32_t KvTileImage_GetBitsPerSample(const TileImageHandle* image) noexcept {
  return api::withImage(image, 0U, [](const TileImage& it) { return it.format().bitsPerSample; });
}

uint32_t KvTileImage_GetBitsPerPixel(const TileImageHandle* image) noexcept {
  return api::withImage(image, 0U, [](const TileImage& it) { return it.format().bitsPerPixel; });
}

uint32_t KvTileImage_GetSampleformat(const TileImageHandle* image) noexcept {
  return api::withImage(image, KVTI_SAMPLEFORMAT_UNSET, [](const TileImage& it) { return it.sampleformat(); });
}

float KvTileImage_GetDpiX(const TileImageHandle* image) noexcept {
  return api::withImage(image, 0.0F, [](const TileImage& it) { return it.dpiX(); });
}

float KvTileImage_GetDpiY(const TileImageHandle* image) noexcept {
  return api::withImage(image, 0.0F, [](const TileImage& it) { return it.dpiY(); });
}

void KvTileImage_SetDpiX(TileImageHandle* image, float dpi) noexcept {
  if (image != nullptr && image->image != nullptr) {
    image->image->setDpiX(dpi);
  }
}

void KvTileImage_SetDpiY(TileImageHandle* image, float dpi) noexcept {
  if (image != nullptr && image->image != nullptr) {
    image->image->setDpiY(dpi);
  }
}

uint64_t KvTileImage_GetRowScanlineStrideBytes(const TileImageHandle* image) noexcept {
  return api::withImage(image, uint64_t{0}, [](const TileImage& it) { return it.format().strideBytes(it.width()); });
}

uint64_t KvTileImage_GetColScanlineStrideBytes(const TileImageHandle* image) noexcept {
  return api::withImage(image, uint64_t{0}, [](const TileImage& it) { return it.format().strideBytes(it.height()); });
}

uint64_t KvTileImage_GetRowScanlineSuitableBytes(const TileImageHandle* image) noexcept {
  return api::withImage(image, uint64_t{0}, [](const TileImage& it) { return it.format().suitableBytes(it.width()); });
}

uint64_t KvTileImage_GetColScanlineSuitableBytes(const TileImageHandle* image) noexcept {
  return api::withImage(image, uint64_t{0}, [](const TileImage& it) { return it.format().suitableBytes(it.height()); });
}
