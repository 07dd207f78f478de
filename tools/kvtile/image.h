// The library's image: pixels in memory, turned by the library.
#ifndef KVTILE_IMAGE_H
#define KVTILE_IMAGE_H

#include <kvtileimage/KvTileImage.h>

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "picture.h"
#include "progress.h"

namespace kvtile {

// Where the images of one command are kept and what they may take.
class Storage {
 public:
  // `budget` is the library's heap budget in bytes; it holds for the process from here on. 0: the library's own.
  explicit Storage(std::uint64_t budget);

  // The budget that `images` images of `bits` bits each, alive at the same time, need.
  static std::uint64_t budgetFor(std::uint64_t bits, unsigned images);

  // Throws a Failure that names `file` unless the image of `picture`, and for turning it a second one, can be kept. To
  // be asked before the work starts.
  void require(const std::string& file, const Picture& picture, bool turning) const;

 private:
  std::uint64_t budget_;
};

// Owns one image of the library. All failures are Failures that name the file the image was made for.
class Image {
 public:
  // An image with `picture`'s size, format and resolution, all samples zero.
  Image(const std::string& file, const Picture& picture);

  std::uint32_t width() const { return KvTileImage_GetWidth(handle_.get()); }
  std::uint32_t height() const { return KvTileImage_GetHeight(handle_.get()); }

  float dpiX() const { return KvTileImage_GetDpiX(handle_.get()); }
  float dpiY() const { return KvTileImage_GetDpiY(handle_.get()); }

  // The bytes of a whole row.
  std::uint64_t rowBytes() const { return KvTileImage_GetRowScanlineSuitableBytes(handle_.get()); }

  // Pixels [x1, x2) of row y; the span starts with the first bit of the run.
  void getRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<std::uint8_t> row);
  void setRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<const std::uint8_t> row);

  // Puts the turned image in the place of this one; `upright` describes it. Both exist while it works.
  void turn(const Turn& turn, const Picture& upright, Progress& progress);

 private:
  struct Unload {
    void operator()(TileImageHandle* image) const noexcept { KvTileImage_Unload(image); }
  };

  void setResolution(const Picture& picture);

  std::string file_;
  std::unique_ptr<TileImageHandle, Unload> handle_;
};

}  // namespace kvtile

#endif
