// A picture file: what it says about its picture, and its pixels row by row.
#ifndef KVTILE_READER_H
#define KVTILE_READER_H

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "console.h"
#include "image.h"
#include "picture.h"
#include "progress.h"

namespace kvtile {

// A key and its value as `kvtile info` shows them.
using Fact = std::pair<std::string, std::string>;

class Reader {
 public:
  virtual ~Reader() = default;

  // From the file's header; read when the reader is made.
  virtual const Picture& picture() const = 0;

  // What the header says, for people to read.
  virtual std::vector<Fact> facts() = 0;

  // The pictures in the file; the first is the one that is read.
  virtual std::uint64_t pages() = 0;

  // Throws a Failure if the pixels are of a kind that cannot be read or kept, or if the file is too short to hold as
  // many as it says.
  virtual void checkReadable() = 0;

  // Puts the pixels into `image`, which has the size and the format of picture(), or of picture().widenedTo8Bit() if
  // `widen`. Holds a few rows besides, or one tile. Throws a Failure where the file cannot be read to the end.
  virtual void read(Image& image, bool widen, Progress& progress) = 0;
};

// Opens `path`, by its contents, whatever its name says. Throws a Failure if it is not a PNG or TIFF file that can be
// understood.
std::unique_ptr<Reader> openPicture(const std::string& path, Console& console);

}  // namespace kvtile

#endif
