// The library's image: pixels in memory or in files, turned by the library.
#ifndef KVTILE_IMAGE_H
#define KVTILE_IMAGE_H

#include <kvtileimage/KvTileImage.h>

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "handles.h"
#include "library_messages.h"
#include "picture.h"
#include "progress.h"
#include "resizing.h"
#include "tone.h"

namespace kvtile {

// The library's code for the kind of numbers that samples are, and back. Codes that say nothing, or nothing that files
// could say, count as unsigned numbers.
std::uint32_t librarySampleformat(const PixelFormat& format);
SampleFormat sampleFormatOf(std::uint32_t librarySampleformat);

// Which curve changes which sample of a pixel. Samples share curves.
using ChannelCurves = std::map<std::uint32_t, std::shared_ptr<const ToneCurve>>;

// Where the user wants the images to be kept.
enum class Placement { Automatic, Memory, Files };

// Where the images of one command are kept and what they may take.
class Storage {
 public:
  // `budget` is the library's heap budget in bytes; it holds for the process from here on. 0: the library's own.
  Storage(std::uint64_t budget, Placement placement);

  // The smallest budget with which the library keeps `images` images like `picture`, alive at the same time, in memory.
  // Nothing if it does not fit 64 bits.
  static std::optional<std::uint64_t> budgetFor(const Picture& picture, unsigned images);

  // Throws a Failure that names `file` unless the image of `picture`, and with `copying` a second one, may be made: no
  // image may be larger than what can be counted, and where the user wants memory all of them have to fit the budget.
  // To be asked before the work starts.
  void require(const std::string& file, const Picture& picture, bool copying) const;

  // Whether the library is told to use files whatever its budget says. It can be told so for new images only: the
  // copies that it makes follow the budget.
  bool forcesFiles() const { return placement_ == Placement::Files; }

  // Where the library keeps the image of `picture`, and the image of `copy`, made of it, beside it.
  bool keepsInMemory(const Picture& picture) const;
  bool keepsCopyInMemory(const Picture& picture, const Picture& copy) const;

  // What to do where the library finds no room for the image of `picture`, or for its turned copy.
  std::string adviceForImage(const Picture& picture) const;
  std::string adviceForTurned(const Picture& picture) const;

 private:
  bool fitsBudget(const Picture& picture, unsigned images) const;

  std::uint64_t budget_;
  Placement placement_;
};

// Owns one image of the library, or one hold of a shared image. All failures are Failures that name the file or the
// identifier that it was made for and give the library's reason.
class Image {
 public:
  // An image with `picture`'s size, format and resolution, all samples zero, kept where `storage` says. `messages` has
  // to outlive it.
  Image(const std::string& file, const Picture& picture, const Storage& storage, LibraryMessages& messages);

  // A shared image of that identifier with the size and format of `picture`. One that exists already keeps its pixels.
  static Image share(const std::string& identifier, const Picture& picture, LibraryMessages& messages);

  // The shared image of that identifier.
  static Image attach(const std::string& identifier, LibraryMessages& messages);

  // The file, or the identifier, that it was made for.
  const std::string& file() const { return file_; }

  std::uint32_t width() const { return KvTileImage_GetWidth(handle_.get()); }
  std::uint32_t height() const { return KvTileImage_GetHeight(handle_.get()); }

  float dpiX() const { return KvTileImage_GetDpiX(handle_.get()); }
  float dpiY() const { return KvTileImage_GetDpiY(handle_.get()); }

  PixelFormat pixels() const;

  // The bytes of a whole row.
  std::uint64_t rowBytes() const { return KvTileImage_GetRowScanlineSuitableBytes(handle_.get()); }

  // Pixels [x1, x2) of row y; the span starts with the first bit of the run.
  void getRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<std::uint8_t> row);
  void setRow(std::uint32_t y, std::uint32_t x1, std::uint32_t x2, std::span<const std::uint8_t> row);

  // Puts the turned image in the place of this one; `upright` describes it. Both exist while it works.
  void turn(const Turn& turn, const Picture& upright, Progress& progress);

  // Changes the samples that have a curve, in a single pass. At least one; all for the image's depth.
  void adjust(const ChannelCurves& curves, Progress& progress);

  // Puts an image of the colours in the place of this one of their numbers, which `indexed` describes. Both exist while
  // it works.
  void expandPalette(const Picture& indexed, const Storage& storage, Progress& progress);

  // The calling thread is done with reading and writing pixels; what it alone holds of the image is let go.
  void endThread() noexcept { KvTileImage_EndCurrentThreadIO(handle_.get()); }

 private:
  friend class RowScaler;

  Image(const std::string& identifier, LibraryMessages& messages) : file_(identifier), messages_(messages) {}

  void setResolution(const Picture& picture);
  [[noreturn]] void fail(const std::string& what, const std::string& advice) const;

  std::string file_;
  std::string adviceForTurned_;
  LibraryMessages& messages_;
  ImageHandle handle_;
};

// Rows of an image in another size. For one thread; each has one of its own.
class RowScaler {
 public:
  // `image` has to outlive it. `resizing` scales. Throws a Failure if there is no memory.
  RowScaler(Image& image, const Resizing& resizing);

  // Row `y` of the result; `row` has exactly its bytes. Throws a Failure if it cannot be made.
  void getRow(std::uint32_t y, std::span<std::uint8_t> row);

 private:
  Image& image_;
  EngineHandle engine_;
};

}  // namespace kvtile

#endif
