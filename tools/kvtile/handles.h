// Owners of what the library hands out.
#ifndef KVTILE_HANDLES_H
#define KVTILE_HANDLES_H

#include <kvtileimage/KvTileImage.h>

#include <memory>

namespace kvtile {

struct UnloadImage {
  void operator()(TileImageHandle* image) const noexcept { KvTileImage_Unload(image); }
};
struct DestroyTable {
  void operator()(LookupTableHandle* tableOrMap) const noexcept { KvTileImage_DestroyLookupTable(tableOrMap); }
};

struct EndEngine {
  void operator()(RescaleEngineHandle* engine) const noexcept { KvTileImage_EndRescaleRowScanline_ThreadSafe(engine); }
};

using ImageHandle = std::unique_ptr<TileImageHandle, UnloadImage>;
using TableHandle = std::unique_ptr<LookupTableHandle, DestroyTable>;
using TableMapHandle = std::unique_ptr<LookupTableMapHandle, DestroyTable>;
using EngineHandle = std::unique_ptr<RescaleEngineHandle, EndEngine>;

}  // namespace kvtile

#endif
