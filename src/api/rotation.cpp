// Rotation and mirroring into a new image.
#include "api/tile_image_handle.h"
#include "base/log.h"
#include "kvtileimage/KvTileImage.h"
#include "rotate/rotate_engine.h"

using core::TileImage;
using rotate::RotateEngine;

TileImageHandle* KvTileImage_RotateAndMirror(TileImageHandle* image, int32_t rotation, uint32_t mirror,
                                             bool mirrorAfterRotation, KvTileImage_ProgressCallback progress) noexcept {
  return api::withImage(image, static_cast<TileImageHandle*>(nullptr), [&](TileImage& source) -> TileImageHandle* {
    const uint32_t angle = RotateEngine::normalizeRotation(rotation);
    const bool axesKept = angle % 180 == 0;
    auto result = axesKept ? api::allocateResult(source, source.width(), source.height())
                           : api::allocateResult(source, source.height(), source.width());
    if (result == nullptr) {
      return nullptr;
    }
    if (!RotateEngine::rotateAndMirror(source, *result, static_cast<int32_t>(angle), mirror, mirrorAfterRotation,
                                       progress)) {
      base::logger().log(ember_logger::error, "[%s] rotateAndMirror failed!", "KvTileImage_RotateAndMirror");
      return nullptr;
    }
    return api::wrap(std::move(result));
  });
}

TileImageHandle* KvTileImage_Rotate(TileImageHandle* image, int32_t rotation,
                                    KvTileImage_ProgressCallback progress) noexcept {
  return KvTileImage_RotateAndMirror(image, rotation, KVTI_MIRROR_NONE, true, progress);
}

TileImageHandle* KvTileImage_Mirror(TileImageHandle* image, uint32_t mirror,
                                    KvTileImage_ProgressCallback progress) noexcept {
  return KvTileImage_RotateAndMirror(image, 0, mirror, true, progress);
}

TileImageHandle* KvTileImage_HorizontalMirror(TileImageHandle* image, KvTileImage_ProgressCallback progress) noexcept {
  return KvTileImage_Mirror(image, KVTI_MIRROR_HORIZONTAL, progress);
}

TileImageHandle* KvTileImage_VerticalMirror(TileImageHandle* image, KvTileImage_ProgressCallback progress) noexcept {
  return KvTileImage_Mirror(image, KVTI_MIRROR_VERTICAL, progress);
}
