// The rows of the result, from the top, made of the pixels of an image.
#ifndef KVTILE_RESULT_ROWS_H
#define KVTILE_RESULT_ROWS_H

#include <cstdint>
#include <memory>
#include <span>

#include "image.h"
#include "resizing.h"

namespace kvtile {

class ResultRows {
 public:
  virtual ~ResultRows() = default;

  // The next row, packed as in memory; to be called as often as the result has rows. It may be changed and stays until
  // the next call. Throws a Failure if it cannot be made, and Interrupted when asked to stop.
  virtual std::span<std::uint8_t> next() = 0;
};

// The rows that `resizing` makes of `image`, which has to outlive them. Rows in another size are made on as many
// threads as it says, some rows ahead; with one thread on the caller's.
std::unique_ptr<ResultRows> makeResultRows(Image& image, const Resizing& resizing);

}  // namespace kvtile

#endif
