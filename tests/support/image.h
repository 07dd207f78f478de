// Handles that release themselves.
#pragma once

#include <memory>

#include "kvtileimage/KvTileImage.h"

namespace support {

struct Unload {
  void operator()(TileImageHandle* image) const { KvTileImage_Unload(image); }
};

using Image = std::unique_ptr<TileImageHandle, Unload>;

inline Image allocate(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits,
                      std::uint32_t sampleformat = KVTI_SAMPLEFORMAT_UINT) {
  return Image(KvTileImage_Alloc(width, height, samples, bits, sampleformat, 0));
}

// An image in files, whatever its size.
inline Image allocateInFiles(std::uint32_t width, std::uint32_t height, std::uint32_t samples, std::uint32_t bits,
                             std::uint32_t operation) {
  return Image(KvTileImage_AllocEx(width, height, samples, bits, KVTI_SAMPLEFORMAT_UINT, 1, operation));
}

}  // namespace support
