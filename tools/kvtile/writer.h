// A picture file being written, row by row from the top.
#ifndef KVTILE_WRITER_H
#define KVTILE_WRITER_H

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "console.h"
#include "file.h"
#include "picture.h"

namespace kvtile {

class Writer {
 public:
  virtual ~Writer() = default;

  // The next row, in the format of the picture; its contents may be changed. Throws a Failure if it cannot be written.
  virtual void writeRow(std::span<std::uint8_t> row) = 0;

  // After the last row: completes the file. Throws a Failure if that cannot be done.
  virtual void finish() = 0;
};

// Begins a file of `format` in `file`, which messages call `path`. Throws a Failure if that cannot be done.
std::unique_ptr<Writer> beginPicture(FileFormat format, File& file, const std::string& path, const Picture& picture,
                                     Console& console);

}  // namespace kvtile

#endif
