// Rescaling: whole images, and row by row as the caller asks for them.
#include <algorithm>
#include <new>
#include <utility>

#include "api/tile_image_handle.h"
#include "base/log.h"
#include "kvtileimage/KvTileImage.h"
#include "resize/resize_engine.h"
#include "resize/scanline_resize_engine.h"

using core::TileImage;
using resize::ResizeEngine;
using resize::ScanlineResizeEngine;

// A heap cell of one engine and the image that it reads from.
struct RescaleEngineHandle {
  boost::intrusive_ptr<TileImage> image;
  std::shared_ptr<ScanlineResizeEngine> engine;
};

namespace {

// Attaches what `create(image)` makes to the image.
template <typename Create>
bool attach(TileImageHandle* handle, Create create) noexcept {
  return api::withImage(handle, false, [&](TileImage& image) {
    std::shared_ptr<ScanlineResizeEngine> engine = create(image);
    if (engine == nullptr) {
      return false;
    }
    image.setRescaleEngine(std::move(engine));
    return true;
  });
}

// The same for an engine that the caller holds.
template <typename Create>
RescaleEngineHandle* hold(TileImageHandle* handle, Create create) noexcept {
  return api::withImage(handle, static_cast<RescaleEngineHandle*>(nullptr), [&](TileImage& image) {
    std::shared_ptr<ScanlineResizeEngine> engine = create(image);
    return engine == nullptr ? nullptr : new (std::nothrow) RescaleEngineHandle{handle->image, std::move(engine)};
  });
}

ScanlineResizeEngine* attachedTo(const TileImageHandle* handle) noexcept {
  return handle == nullptr || handle->image == nullptr ? nullptr : handle->image->rescaleEngine();
}

ScanlineResizeEngine* heldBy(const RescaleEngineHandle* handle) noexcept {
  return handle == nullptr ? nullptr : handle->engine.get();
}

// Copies the row that `engine` has computed. False, with nothing copied, if it does not fit or there is no buffer.
bool copyRow(ScanlineResizeEngine& engine, uint8_t* buffer, uint64_t bufferBytes, const char* function) noexcept {
  const auto row = engine.row();
  if (buffer == nullptr || bufferBytes < row.size()) {
    base::logger().log(ember_logger::error, "[%s] the buffer is null or holds less than the row's %llu bytes", function,
                       base::ull{row.size()});
    return false;
  }
  std::copy(row.begin(), row.end(), buffer);
  return true;
}

void showRow(ScanlineResizeEngine& engine, const uint8_t** buffer, uint64_t* bytes) noexcept {
  *buffer = engine.row().data();
  *bytes = engine.row().size();
}

}  // namespace

bool KvTileImage_Rescale(TileImageHandle* source, TileImageHandle* destination, uint32_t filter) noexcept {
  return api::withImage(source, false, [&](TileImage& image) {
    return KvTileImage_RescaleEx(source, 0, 0, image.width(), image.height(), destination, filter);
  });
}

bool KvTileImage_RescaleEx(TileImageHandle* source, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2,
                           TileImageHandle* destination, uint32_t filter) noexcept {
  constexpr const char* kName = "KvTileImage_RescaleEx";
  return api::withImage(source, false, [&](TileImage& from) {
    return api::withImage(destination, false, [&](TileImage& to) {
      base::logger().log(ember_logger::trace, "[%s] Rescale begin!", kName);
      const bool succeeded = ResizeEngine::scale(from, {x1, y1, x2, y2}, to, filter);
      base::logger().log(ember_logger::trace, "[%s] Rescale end[is success:%d]!", kName, succeeded ? 1 : 0);
      return succeeded;
    });
  });
}

bool KvTileImage_BeginRescaleRowScanline(TileImageHandle* image, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2,
                                         uint32_t dstWidth, uint32_t dstHeight, uint32_t filter) noexcept {
  return attach(image, [&](TileImage& source) {
    return ScanlineResizeEngine::__create(source, {x1, y1, x2, y2}, dstWidth, dstHeight, filter);
  });
}

bool KvTileImage_BeginRescaleRowScanlineEx(TileImageHandle* image, uint32_t x1, uint32_t y1, uint32_t x2, uint32_t y2,
                                           double scaleX, double scaleY, uint32_t filter) noexcept {
  return attach(image, [&](TileImage& source) {
    return ScanlineResizeEngine::__create(source, {x1, y1, x2, y2}, scaleX, scaleY, filter);
  });
}

bool KvTileImage_RescaleRowScanline(TileImageHandle* image, uint32_t row, uint8_t* buffer,
                                    uint64_t bufferBytes) noexcept {
  ScanlineResizeEngine* const engine = attachedTo(image);
  return engine != nullptr && engine->scaleRow(row) &&
         copyRow(*engine, buffer, bufferBytes, "KvTileImage_RescaleRowScanline");
}

bool KvTileImage_RescaleRowScanlineEx(TileImageHandle* image, uint32_t row, const uint8_t** buffer,
                                      uint64_t* bytes) noexcept {
  ScanlineResizeEngine* const engine = attachedTo(image);
  if (engine == nullptr || buffer == nullptr || bytes == nullptr || !engine->scaleRow(row)) {
    return false;
  }
  showRow(*engine, buffer, bytes);
  return true;
}

void KvTileImage_EndRescaleRowScanline(TileImageHandle* image) noexcept {
  if (attachedTo(image) != nullptr) {
    image->image->setRescaleEngine(nullptr);
  }
}

uint64_t KvTileImage_WidthAfterRescale(const TileImageHandle* image) noexcept {
  const ScanlineResizeEngine* const engine = attachedTo(image);
  return engine == nullptr ? 0 : engine->dstWidth();
}

uint64_t KvTileImage_HeightAfterRescale(const TileImageHandle* image) noexcept {
  const ScanlineResizeEngine* const engine = attachedTo(image);
  return engine == nullptr ? 0 : engine->dstHeight();
}

RescaleEngineHandle* KvTileImage_BeginRescaleRowScanline_ThreadSafe(TileImageHandle* image, uint32_t x1, uint32_t y1,
                                                                    uint32_t x2, uint32_t y2, uint32_t dstWidth,
                                                                    uint32_t dstHeight, uint32_t filter) noexcept {
  return hold(image, [&](TileImage& source) {
    return ScanlineResizeEngine::begin_threadsafe(source, {x1, y1, x2, y2}, dstWidth, dstHeight, filter);
  });
}

RescaleEngineHandle* KvTileImage_BeginRescaleRowScanlineEx_ThreadSafe(TileImageHandle* image, uint32_t x1, uint32_t y1,
                                                                      uint32_t x2, uint32_t y2, double scaleX,
                                                                      double scaleY, uint32_t filter) noexcept {
  return hold(image, [&](TileImage& source) {
    return ScanlineResizeEngine::begin_threadsafe(source, {x1, y1, x2, y2}, scaleX, scaleY, filter);
  });
}

bool KvTileImage_RescaleRowScanline_ThreadSafe(RescaleEngineHandle* engine, uint32_t row, uint8_t* buffer,
                                               uint64_t bufferBytes) noexcept {
  ScanlineResizeEngine* const held = heldBy(engine);
  return held != nullptr && held->scaleRow_threadsafe(row) &&
         copyRow(*held, buffer, bufferBytes, "ScanlineResizeEngine::scaleRow_threadsafe");
}

bool KvTileImage_RescaleRowScanlineEx_ThreadSafe(RescaleEngineHandle* engine, uint32_t row, const uint8_t** buffer,
                                                 uint64_t* bytes) noexcept {
  ScanlineResizeEngine* const held = heldBy(engine);
  if (held == nullptr || buffer == nullptr || bytes == nullptr || !held->scaleRow_threadsafe(row)) {
    return false;
  }
  showRow(*held, buffer, bytes);
  return true;
}

void KvTileImage_EndRescaleRowScanline_ThreadSafe(RescaleEngineHandle* engine) noexcept {
  if (engine != nullptr) {
    engine->engine.reset();
    api::letGo(std::move(engine->image));
    delete engine;
  }
}

uint64_t KvTileImage_WidthAfterRescale_ThreadSafe(const RescaleEngineHandle* engine) noexcept {
  const ScanlineResizeEngine* const held = heldBy(engine);
  return held == nullptr ? 0 : held->dstWidth();
}

uint64_t KvTileImage_HeightAfterRescale_ThreadSafe(const RescaleEngineHandle* engine) noexcept {
  const ScanlineResizeEngine* const held = heldBy(engine);
  return held == nullptr ? 0 : held->dstHeight();
}
