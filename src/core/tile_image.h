// One raster image of any size.
#pragma once

#include <boost/smart_ptr/intrusive_ref_counter.hpp>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "core/pixel_format.h"
#include "core/tile_manager.h"

namespace resize {
class ScanlineResizeEngine;
}

namespace core {

// What an image is created from; every value as the exported functions take it.
struct TileImageArguments {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t samplesPerPixel = 0;
  std::uint32_t bitsPerSample = 0;
  std::uint32_t sampleformat = 0;
  bool bForceUseFileMapping = false;
  std::uint32_t scanlineOperation = 0;
};

// The same for an image that processes share.
struct SharedTileImageArguments {
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  std::uint32_t samplesPerPixel = 0;
  std::uint32_t bitsPerSample = 0;
  std::uint32_t sampleformat = 0;
  std::wstring interprocessTileImageId;
  std::uint32_t scanlineOperation = 0;
};

// Format and size never change after creation. Owned by one std::unique_ptr, or shared by boost::intrusive_ptrs.
// Threads may copy different rows and columns at the same time; packed pixels that share a byte must not be written at
// the same time.
class TileImage : public boost::intrusive_ref_counter<TileImage> {
 public:
  // Null, with a logged reason, if an argument is 0 or the storage cannot be had.
  static std::unique_ptr<TileImage> createNormal(const TileImageArguments& arguments);

  // An image that other processes can attach to under its identifier. If there is one of that identifier, size and
  // format, this is it, with its pixels; one of another size or format is replaced for those who come later. Null, with
  // a logged reason, as above, and if the product of the four sizes is a multiple of 2^32.
  static std::unique_ptr<TileImage> createInterprocessA(const SharedTileImageArguments& arguments);

  // Attaches to the image that a process has made as `identifier`. Null, with a logged reason, if there is none or its
  // files are not what its descriptor says.
  static std::unique_ptr<TileImage> createInterprocessB(const std::wstring& identifier);

  // Whether it can be attached to. Attaches and lets go: if nobody else holds the image, it is gone afterwards.
  static bool isValid(const std::wstring& identifier);

  // What the descriptor says of the image, stored into the targets that are not null. False, with a logged reason, if
  // it cannot be read.
  static bool getTileImageBriefInfo_InterprocessB(const std::wstring& identifier, std::uint32_t* width,
                                                  std::uint32_t* height, std::uint32_t* samplesPerPixel,
                                                  std::uint32_t* bitsPerSample, std::uint32_t* sampleformat);

  TileImage() = default;
  TileImage(const TileImage&) = delete;
  TileImage& operator=(const TileImage&) = delete;

  // Copies pixels [x1, x2) of row y between the image and `buffer`, which holds them packed from its first byte on.
  // False, with a logged reason, if the run is empty or outside the image, `buffer` is null or too small, or a tile
  // fails; the tiles before a failing one have been copied.
  bool copyRowData(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::uint8_t* buffer, std::uint64_t bufferBytes,
                   Direction direction);

  // Copies pixels [y1, y2) of column x in the same way.
  bool copyColData(std::uint32_t x, std::uint32_t y1, std::uint32_t y2, std::uint8_t* buffer, std::uint64_t bufferBytes,
                   Direction direction);

  // The calling thread begins, or is done with, a batch of accesses; what it alone holds in memory is let go then.
  void beginCurrentThreadIO() { tileManager_->beginCurrentThreadIO(); }
  void endCurrentThreadIO() { tileManager_->endCurrentThreadIO(); }

  std::uint32_t width() const { return width_; }
  std::uint32_t height() const { return height_; }
  const PixelFormat& format() const { return format_; }
  std::uint32_t sampleformat() const { return sampleformat_; }
  std::uint32_t scanlineOperation() const { return scanlineOperation_; }

  // Whether other processes may hold the image, too. Making and letting go of such images wants one process at a time.
  bool isShared() const { return interprocessInfo_ != nullptr; }

  // Dots per inch, kept for the caller.
  float dpiX() const { return dpiX_; }
  float dpiY() const { return dpiY_; }
  void setDpiX(float dpi) { dpiX_ = dpi; }
  void setDpiY(float dpi) { dpiY_ = dpi; }

  // What delivers this image's rows in another size to the caller who began that, or null. Kept for the caller and let
  // go of with the image; it does not own the image.
  resize::ScanlineResizeEngine* rescaleEngine() const { return rescaleEngine_.get(); }
  void setRescaleEngine(std::shared_ptr<resize::ScanlineResizeEngine> engine) { rescaleEngine_ = std::move(engine); }

 private:
  class BufferCursor;

  bool postInitializeNormal(const TileImageArguments& arguments);
  bool postInitializeInterprocessA(const SharedTileImageArguments& arguments);
  bool postInitializeInterprocessB(const std::wstring& identifier);
  template <class CreateManager>
  bool createTileManager(const char* function, CreateManager create);
  void setFormat(std::uint32_t width, std::uint32_t height, std::uint32_t samplesPerPixel, std::uint32_t bitsPerSample);
  bool copyRowTiles(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, BufferCursor cursor, Direction direction);
  bool copyColTiles(std::uint32_t x, std::uint32_t y1, std::uint32_t y2, BufferCursor cursor, Direction direction);
  bool check() const;
  bool checkShared() const;
  bool refuseSizes() const;
  bool checkBytes(std::uint32_t pixels, const std::uint8_t* buffer, std::uint64_t bufferBytes,
                  const char* function) const;

  std::uint32_t width_ = 0;
  std::uint32_t height_ = 0;
  PixelFormat format_;
  float dpiX_ = 72.0F;
  float dpiY_ = 72.0F;
  std::uint32_t sampleformat_ = 0xFFFFFFFF;
  std::uint32_t scanlineOperation_ = 3;
  std::shared_ptr<resize::ScanlineResizeEngine> rescaleEngine_;
  std::shared_ptr<TileManager> tileManager_;
  std::shared_ptr<interprocess::InterprocessTileImageInfo> interprocessInfo_;  // of a shared image
};

}  // namespace core
