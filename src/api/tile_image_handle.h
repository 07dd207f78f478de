// The handles that callers hold.
#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <memory>
#include <new>

#include "base/log.h"
#include "core/tile_image.h"
#include "interprocess/sharing_lock.h"
#include "kvtileimage/KvTileImage.h"

// A heap cell of one pointer. The image is never shared between two handles of this kind; engines that callers hold
// keep it alive beyond its handle.
struct TileImageHandle {
  boost::intrusive_ptr<core::TileImage> image;
};

namespace api {

// A new handle that owns `image`. Null if `image` is null or there is no memory; the image is destroyed then.
inline TileImageHandle* wrap(std::unique_ptr<core::TileImage> image) {
  boost::intrusive_ptr<core::TileImage> shared(image.release());
  return shared == nullptr ? nullptr : new (std::nothrow) TileImageHandle{std::move(shared)};
}

// Gives up one reference to an image; the last one releases it. A shared image waits for its turn among processes, and
// if that does not come, is let go of all the same.
inline void letGo(boost::intrusive_ptr<core::TileImage> image) noexcept {
  if (image == nullptr || !image->isShared()) {
    return;
  }
  const interprocess::SharingLock lock;
  image.reset();
}

// The image that a result made from `source` goes into, with the source's format and the given size, all samples zero.
// Null, with a logged reason, if the storage cannot be had.
inline std::unique_ptr<core::TileImage> allocateResult(const core::TileImage& source, std::uint32_t width,
                                                       std::uint32_t height) {
  return core::TileImage::createNormal({width, height, source.format().samplesPerPixel, source.format().bitsPerSample,
                                        source.sampleformat(), false, KVTI_SCANLINE_OPERATION_ROWCOL});
}

// What `action` returns for the handle's image, or `onFailure` without one, or if an exception escapes: none crosses
// the exported interface.
template <class Handle, class Result, class Action>
Result withImage(Handle* handle, Result onFailure, Action&& action) noexcept {
  if (handle == nullptr || handle->image == nullptr) {
    return onFailure;
  }
  try {
    return action(*handle->image);
  } catch (const std::bad_alloc&) {
    base::logger().log(ember_logger::error, "[%s] there is no memory for the work itself", "api::withImage");
    return onFailure;
  } catch (...) {
    return onFailure;
  }
}

}  // namespace api
