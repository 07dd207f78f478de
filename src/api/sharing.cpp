// Images that several processes hold at the same time.
#include <optional>
#include <string>

#include "api/tile_image_handle.h"
#include "base/log.h"
#include "interprocess/shared_image_files.h"
#include "interprocess/sharing_lock.h"
#include "kvtileimage/KvTileImage.h"
#include "platform/utf8.h"

using core::TileImage;
using interprocess::SharingLock;

namespace {

// The identifier as the library uses it; nothing, with a logged reason, if it is missing or not fit to name files.
std::optional<std::wstring> identifierOf(const char* interprocessTileImageId, const char* function) {
  std::wstring identifier;
  if (interprocessTileImageId != nullptr) {
    try {
      identifier = platform::fromUtf8(interprocessTileImageId);
    } catch (const std::range_error& error) {
      base::logger().log(ember_logger::error, "[%s] the identifier counts as empty: it is %s", function, error.what());
    }
  }
  if (!interprocess::staysInItsFolder(identifier)) {
    base::logger().log(ember_logger::error,
                       "[%s] the identifier \"%s\" counts as empty: it must not begin with a slash or a drive letter, "
                       "nor have a \"..\" between slashes",
                       function, interprocessTileImageId);
    identifier.clear();
  }
  if (identifier.empty()) {
    base::logger().log(ember_logger::error, "[%s] interprocessTileImageId is empty", function);
    return std::nullopt;
  }
  return identifier;
}

// What `action` returns for the identifier while no other process makes, finds or lets go of a shared image.
// `onFailure` if the identifier is refused, the turn does not come, or an exception escapes.
template <class Result, class Action>
Result inTurn(const char* interprocessTileImageId, const char* function, Result onFailure, Action action) noexcept {
  try {
    const auto identifier = identifierOf(interprocessTileImageId, function);
    if (!identifier) {
      return onFailure;
    }
    const SharingLock lock;
    return lock.held() ? action(*identifier) : onFailure;
  } catch (const std::exception& exception) {
    base::logger().log(ember_logger::error, "[%s] throw exception:%s!", function, exception.what());
    return onFailure;
  }
}

constexpr TileImageHandle* kNoImage = nullptr;

}  // namespace

TileImageHandle* KvTileImage_InterprocessA_AllocEx(const char* interprocessTileImageId, uint32_t width, uint32_t height,
                                                   uint32_t samplesPerPixel, uint32_t bitsPerSample,
                                                   uint32_t sampleformat, uint32_t scanlineOperation) noexcept {
  return inTurn(interprocessTileImageId, "KvTileImage_InterprocessA_AllocEx", kNoImage,
                [&](const std::wstring& identifier) {
                  return api::wrap(TileImage::createInterprocessA(
                      {width, height, samplesPerPixel, bitsPerSample, sampleformat, identifier, scanlineOperation}));
                });
}

TileImageHandle* KvTileImage_InterprocessA_Alloc(const char* interprocessTileImageId, uint32_t width, uint32_t height,
                                                 uint32_t samplesPerPixel, uint32_t bitsPerSample,
                                                 uint32_t sampleformat) noexcept {
  return KvTileImage_InterprocessA_AllocEx(interprocessTileImageId, width, height, samplesPerPixel, bitsPerSample,
                                           sampleformat, KVTI_SCANLINE_OPERATION_ROWCOL);
}

TileImageHandle* KvTileImage_InterprocessB_Alloc(const char* interprocessTileImageId) noexcept {
  return inTurn(interprocessTileImageId, "KvTileImage_InterprocessB_Alloc", kNoImage,
                [](const std::wstring& identifier) { return api::wrap(TileImage::createInterprocessB(identifier)); });
}

bool KvTileImage_InterprocessB_GetInfo(const char* interprocessTileImageId, uint32_t* width, uint32_t* height,
                                       uint32_t* samplesPerPixel, uint32_t* bitsPerSample,
                                       uint32_t* sampleformat) noexcept {
  try {
    const auto identifier = identifierOf(interprocessTileImageId, "KvTileImage_InterprocessB_GetInfo");
    return identifier && TileImage::getTileImageBriefInfo_InterprocessB(*identifier, width, height, samplesPerPixel,
                                                                        bitsPerSample, sampleformat);
  } catch (...) {
    return false;
  }
}

bool KvTileImage_Interprocess_IsValid(const char* interprocessTileImageId) noexcept {
  return inTurn(interprocessTileImageId, "KvTileImage_Interprocess_IsValid", false,
                [](const std::wstring& identifier) { return TileImage::isValid(identifier); });
}
